#include "configurationCopy.h"

#include <algorithm>
#include <chrono>
#include <system_error>

#include "common/textFile.h"
#include "playlistCopies.h"

namespace station {

std::filesystem::path configurationCopy(const std::filesystem::path& stateDirectory,
                                        const std::filesystem::path& file) {
    std::error_code error;
    const std::filesystem::path whole = std::filesystem::absolute(file, error);
    return stateDirectory / "configuration" / PlaylistCopies::nameOf(whole.lexically_normal());
}

std::string keepConfigurationCopy(const std::filesystem::path& stateDirectory,
                                  const std::filesystem::path& file, std::string_view text) {
    const std::filesystem::path copy = configurationCopy(stateDirectory, file);
    std::error_code error;
    std::filesystem::create_directories(copy.parent_path(), error);
    std::string problem;
    return readTextFile(copy, kConfigurationCopyLimit, problem) == text && problem.empty()
               ? ""
               : replaceTextFile(copy, text);
}

std::optional<CopiedConfiguration> readConfigurationCopy(const std::filesystem::path& stateDirectory,
                                                         const std::filesystem::path& file) {
    const std::filesystem::path copy = configurationCopy(stateDirectory, file);
    std::string problem;
    const std::string text = readTextFile(copy, kConfigurationCopyLimit, problem);
    if (!problem.empty()) {
        return std::nullopt;
    }
    ConfigurationResult result = parseConfiguration(text, file);  // paths count from the file's own directory
    if (!result.mistakes.empty()) {
        return std::nullopt;
    }
    std::error_code error;
    const auto written = std::chrono::file_clock::to_sys(std::filesystem::last_write_time(copy, error));
    return CopiedConfiguration{std::move(result.configuration),
                               std::chrono::floor<std::chrono::milliseconds>(written)};
}

std::filesystem::path stateDirectoryAbove(std::string_view text, uint32_t line,
                                          const std::filesystem::path& file) {
    std::size_t end = 0;
    for (uint32_t above = 1; above < line && end != std::string_view::npos; ++above) {
        end = text.find('\n', end);
        end += end == std::string_view::npos ? 0 : 1;
    }
    return parseConfiguration(text.substr(0, end), file).configuration.state;
}

}  // namespace station
