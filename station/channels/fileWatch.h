// Tells when files change.
#pragma once

#include <filesystem>
#include <vector>

namespace station {

// Watches files by their directories (inotify), so that files that are not there yet, are replaced by
// renaming, or are links whose target changes are noticed. For use by one thread.
class FileWatch {
  public:
    FileWatch();
    ~FileWatch();
    FileWatch(const FileWatch&) = delete;

    // Watches these files from here on, and no others.
    void watch(const std::vector<std::filesystem::path>& files);
    // For poll(): readable when there is something for changed(). -1 when the kernel gave none; then
    // changed() goes by the files' times and sizes.
    int descriptor() const;
    // The watched files that changed since the last call: written and closed, moved, created, removed.
    std::vector<std::filesystem::path> changed();

  private:
    struct Implementation;
    Implementation* implementation_;
};

}  // namespace station
