// Files that are read and replaced as a whole.
#pragma once

#include <cstddef>
#include <filesystem>
#include <string>
#include <string_view>

namespace station {

// The bytes of a regular file of at most `limit` bytes; else nothing, and `problem` says why ("cannot be
// read: ..."). Never waits, whatever the path leads to.
std::string readTextFile(const std::filesystem::path& file, std::size_t limit, std::string& problem);

// Replaces a file: what it held, or all of `bytes`, is there whatever happens meanwhile. Empty once the bytes
// are on the disk, else what went wrong ("cannot be written: ..."); the file holds what it held then.
std::string replaceTextFile(const std::filesystem::path& file, std::string_view bytes);

}  // namespace station
