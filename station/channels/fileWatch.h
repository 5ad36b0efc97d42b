// Tells when files change.
#pragma once

#include <chrono>
#include <filesystem>
#include <memory>
#include <vector>

namespace station {

// How long nothing must have happened to a file before it counts as changed: it is not read half written.
inline constexpr std::chrono::milliseconds kFileQuiet{300};
// The same for a new file that nobody has been seen closing.
inline constexpr std::chrono::milliseconds kOpenFileQuiet{3000};

// Watches files by their directories (inotify), so that files that are not there yet, whose directories are
// not there yet, that are replaced by renaming, or are links whose target changes are noticed. Where the
// kernel gives no watch, times and sizes are looked at every two seconds. For use by one thread.
class FileWatch {
  public:
    FileWatch();
    ~FileWatch();
    FileWatch(const FileWatch&) = delete;

    // Watches these files from here on, and no others. Read a file after this call, not before: changes count
    // from here, or from before for a file that was watched already.
    void watch(const std::vector<std::filesystem::path>& files);
    // For poll(): readable when changed() has something to do, be it to wait on. -1 when the kernel gave
    // none; then call changed() every now and then.
    int descriptor() const;
    // The watched files that changed since the last call, in the order of watch(): written and closed, moved,
    // created, removed, access rights changed. Never waits.
    std::vector<std::filesystem::path> changed();

  private:
    struct Implementation;
    std::unique_ptr<Implementation> implementation_;
};

}  // namespace station
