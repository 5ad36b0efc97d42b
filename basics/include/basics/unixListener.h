// A Unix stream socket to listen on.
#pragma once

#include <filesystem>

namespace basics {

// Listens at the path, mode 0660, without waiting (non-blocking). What is left of a program that was killed
// is replaced; a program that runs keeps its socket, and a file that is no socket stays. Makes the directory,
// but not those above it. The caller closes the descriptor and removes the file. Throws std::runtime_error
// with a sentence for an operator ("cannot listen on PATH: ...").
int listenUnix(const std::filesystem::path& path);

}  // namespace basics
