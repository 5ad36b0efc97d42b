// What a reader of the results pays for a snapshot: 1000 streams of 20 PIDs, taken apart and checked.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "recordParser.h"

namespace {

constexpr uint32_t kStreams = 1000;
constexpr uint32_t kPids = 20;  // PAT, PMT and elementary ones
constexpr uint32_t kTags = 3;

// Values as long as those of a channel that has run for days.
std::string value(const records::Column& column, uint32_t seed) {
    const uint32_t number = seed * 2654435761U;
    if (column.type == records::Type::kFraction) {
        return std::to_string(static_cast<double>(number % 5'000'000) / 1e6);
    }
    return std::to_string(std::min<uint64_t>(number >> (seed % 4 * 6), column.maximum));
}

void appendLine(std::string& text, records::Kind kind, uint32_t stream, uint32_t pid) {
    const auto columns = records::columnsOf(kind);
    text += "239.1." + std::to_string(stream / 256) + "." + std::to_string(stream % 256);
    text += kind == records::Kind::kStream ? ";0;-1;" : ";1;" + std::to_string(256 + pid) + ";";
    text += records::kKinds[static_cast<std::size_t>(kind)].label;
    for (std::size_t i = records::kLabelColumn + 1; i < columns.size(); ++i) {
        text += ";";
        text += columns[i].name == "descriptorCount"
                    ? std::to_string(kTags)
                    : value(columns[i], stream + pid * 7 + static_cast<uint32_t>(i));
    }
    text += kind == records::Kind::kStream ? "\n" : ";10;82;40\n";
}

std::string snapshotText() {
    std::string text;
    for (uint32_t stream = 0; stream < kStreams; ++stream) {
        appendLine(text, records::Kind::kStream, stream, 0);
        for (uint32_t pid = 0; pid < kPids; ++pid) {
            const auto kind = pid == 0   ? records::Kind::kPat
                              : pid == 1 ? records::Kind::kPmt
                                         : records::Kind::kKnownPid;
            appendLine(text, kind, stream, pid);
        }
    }
    return text;
}

void parse(benchmark::State& state) {
    const std::string text = snapshotText();
    for ([[maybe_unused]] auto _ : state) {
        const auto snapshot = records::parseSnapshot(text, [](std::size_t, const std::string&) { abort(); });
        if (snapshot.size() != std::size_t{kStreams} * (1 + kPids)) {
            state.SkipWithError("records are missing");
        }
        benchmark::DoNotOptimize(snapshot.begin());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}
BENCHMARK(parse)->Unit(benchmark::kMillisecond);

}  // namespace
