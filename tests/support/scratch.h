// What tests of the station's rooms share: a directory that goes away, and waiting for other threads.
#pragma once

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

namespace station {

class ScratchDirectory {
  public:
    ScratchDirectory() {
        std::string name = (std::filesystem::temp_directory_path() / "station.XXXXXX").string();
        path_ = mkdtemp(name.data());
    }
    ~ScratchDirectory() {
        std::filesystem::remove_all(path_);
    }
    ScratchDirectory(const ScratchDirectory&) = delete;
    const std::filesystem::path& path() const {
        return path_;
    }

  private:
    std::filesystem::path path_;
};

inline std::string contentOf(const std::filesystem::path& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

// Whether the condition comes true in time.
template <typename Condition>
bool eventually(Condition condition, std::chrono::seconds time = std::chrono::seconds(60)) {
    const auto deadline = std::chrono::steady_clock::now() + time;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

}  // namespace station
