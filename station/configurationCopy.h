// The copy of the configuration in the state directory.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "common/clock.h"
#include "configuration/configuration.h"

namespace station {

// The configuration as it was last good, for a start at which its file has mistakes or cannot be read: a slip
// of the editor must not end the watching at the next reboot. For use by one thread; waits for the disk.

inline constexpr std::size_t kConfigurationCopyLimit = std::size_t{16} << 20;  // bytes, as of the file itself

// Each file has a copy of its own.
std::filesystem::path configurationCopy(const std::filesystem::path& stateDirectory,
                                        const std::filesystem::path& file);
// Empty when the copy holds this text, else what is wrong.
std::string keepConfigurationCopy(const std::filesystem::path& stateDirectory,
                                  const std::filesystem::path& file, std::string_view text);

struct CopiedConfiguration {
    Configuration configuration;
    WallTime written;
};
// Nothing when there is no copy, or it is not good any more: what it names has gone.
std::optional<CopiedConfiguration> readConfigurationCopy(const std::filesystem::path& stateDirectory,
                                                         const std::filesystem::path& file);

// The state directory that a text says whose reading ended at a mistake in that line (from 1): what stands
// above it counts.
std::filesystem::path stateDirectoryAbove(std::string_view text, uint32_t line,
                                          const std::filesystem::path& file);

}  // namespace station
