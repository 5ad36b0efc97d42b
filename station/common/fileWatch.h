// Tells when files change.
#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <vector>

namespace station {

// How long nothing must have happened to a file before it counts as changed: it is not read half written.
inline constexpr std::chrono::milliseconds kFileQuiet{300};
// The same for a file that nobody has been seen closing: a new one, or one that another machine writes.
inline constexpr std::chrono::milliseconds kOpenFileQuiet{3000};

// Watches files by their directories (inotify), so that files that are not there yet, whose directories are
// not there yet, that are replaced by renaming, or are links whose target changes are noticed. Times and
// sizes are looked at every two seconds as well, for what the kernel does not tell: a file system that is
// mounted over a directory, what other machines do to a share, what is written through a mapping. Where the
// file system hangs, so do the calls. For use by one thread.
class FileWatch {
  public:
    // `looks` is called before each look at one of the files, with its path: with one the file system may
    // hang.
    explicit FileWatch(std::function<void(const std::filesystem::path&)> looks = {});
    ~FileWatch();
    FileWatch(const FileWatch&) = delete;

    // Watches these files from here on, and no others. Read a file after this call, not before: changes count
    // from here, or from before for a file that was watched already.
    void watch(const std::vector<std::filesystem::path>& files);
    // For poll(): readable when changed() has something to do, be it to wait on. -1 when the kernel gave
    // none; then call changed() every now and then.
    int descriptor() const;
    // The watched files that changed since the last call, in the order of watch(): written and closed, moved,
    // created, removed, access rights changed.
    std::vector<std::filesystem::path> changed();
    // Whether a watched file may be read at this moment: nobody is seen writing it, and the last change is
    // over. Else changed() will tell it once that is so, be it unchanged then. Ask again behind the reading:
    // what was read of a file that does not rest any more may be half of it.
    bool rests(const std::filesystem::path& file);
    // Waits until it rests, and is not told by changed() for that; false at that time, or once `stop` says
    // so.
    bool awaitRest(const std::filesystem::path& file, std::chrono::steady_clock::time_point until,
                   const std::function<bool()>& stop);

  private:
    struct Implementation;
    std::unique_ptr<Implementation> implementation_;
};

}  // namespace station
