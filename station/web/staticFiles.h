// The page's files.
#pragma once

#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <string_view>

#include "web/message.h"

namespace station {

// Read at the start and kept in memory: what is served is found by its whole name in a list, so no path leads
// out of the directories, and no disk is waited for.
class StaticFiles {
  public:
    static constexpr std::size_t kFiles = 256;  // others are left out, and the log says so
    static constexpr std::size_t kFileBytes = std::size_t{4} << 20;  // likewise for larger ones

    // The files that stand directly in `page`, and the two of the plot library in `dygraphs`. A directory
    // that is not there gives no files, and a line in the log.
    StaticFiles(const std::filesystem::path& page, const std::filesystem::path& dygraphs);

    // Of a name such as "index.html"; 404 when there is none.
    Response page(std::string_view name) const;
    // The same by an address that names the page's version: may be kept for ever, and is 404 once the page is
    // another one, so that no document mixes the modules of two.
    Response versionedPage(std::string_view version, std::string_view name) const;
    Response library(std::string_view name) const;

  private:
    struct File {
        std::string_view contentType;
        std::string etag;
        PayloadPointer payload;
    };
    using Files = std::map<std::string, File, std::less<>>;
    static void read(const std::filesystem::path& file, Files& files);
    static Response answer(const Files& files, std::string_view name);
    // Makes index.html name its files by their version.
    void setVersion();

    Files page_;
    std::string version_;  // tells the page's files, all together, from those of another version
    Files library_;
};

}  // namespace station
