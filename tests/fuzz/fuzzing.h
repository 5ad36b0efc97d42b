// What the fuzz targets share. Each target is one LLVMFuzzerTestOneInput: with libFuzzer behind it in the
// `fuzz` build, with a replay of its corpus (replayMain.cpp) in all others.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size);

namespace fuzzing {

// Runs `body`. False when one of the assertions that input is allowed to reach, those on splice descriptors
// and on the GOP estimate, ended it: then what `body` had on its stack is abandoned and never destroyed, and
// locks that it held stay taken. Any other failed assertion ends the process.
bool runToItsEnd(const std::function<void()>& body);

// So many bytes behind the first `at` of them, or as many as there are, in a block of exactly that size: a
// read behind it is seen.
inline std::vector<uint8_t> exactly(std::span<const uint8_t> bytes, std::size_t at, std::size_t size) {
    const auto part = bytes.subspan(at, std::min(size, bytes.size() - at));
    return {part.begin(), part.end()};
}

// Standard output goes nowhere from here on; libFuzzer talks on standard error.
void silenceOutput();

}  // namespace fuzzing
