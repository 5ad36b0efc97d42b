// Tests with files.
#pragma once

#include <gtest/gtest.h>

#include "support/scratch.h"

namespace station {

// A directory of its own for each test.
class InScratch : public testing::Test {
  protected:
    std::filesystem::path write(const std::filesystem::path& name, const std::string& text,
                                std::ios::openmode mode = std::ios::trunc) {
        std::ofstream(directory / name, std::ios::binary | mode) << text;
        return directory / name;
    }
    std::string read(const std::filesystem::path& name) {
        return contentOf(directory / name);
    }

  private:
    ScratchDirectory scratch_;

  protected:
    const std::filesystem::path& directory = scratch_.path();
};

}  // namespace station
