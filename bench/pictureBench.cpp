// What a picture and a second of sound cost kestor-picture's workers. bench/run.sh encodes them.
#include <benchmark/benchmark.h>

#include <time.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>

extern "C" {
#include <libavutil/log.h>
}

#include "picture.pb.h"
#include "workerLoop.h"

namespace {

const std::map<std::string, uint32_t> kPictures = {
    {".m2v", picturing::VIDEO_MPEG2}, {".h264", picturing::VIDEO_H264}, {".h265", picturing::VIDEO_H265}};
const std::map<std::string, uint32_t> kSounds = {
    {".mp2", picturing::AUDIO_MPEG}, {".aac", picturing::AUDIO_AAC_ADTS}, {".ac3", picturing::AUDIO_AC3}};

double cpuSeconds() {
    timespec now;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

void answer(benchmark::State& state, const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    const std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(file)), {});
    const std::string ending = path.extension();
    pictured::RequestHead head;
    std::span<const uint8_t> video;
    std::span<const uint8_t> audio;
    if (kPictures.count(ending) != 0) {
        head.videoCodec = kPictures.at(ending);
        video = bytes;
    } else {
        head.audioCodec = kSounds.at(ending);
        audio = bytes;
    }
    for ([[maybe_unused]] auto _ : state) {
        const double begin = cpuSeconds();
        benchmark::DoNotOptimize(pictured::answerTo(head, video, audio));
        state.SetIterationTime(cpuSeconds() - begin);
    }
    state.counters["KiB"] = static_cast<double>(bytes.size()) / 1024;
}

}  // namespace

int main(int argc, char** argv) {
    av_log_set_level(AV_LOG_QUIET);
    const char* directory = std::getenv("KESTOR_BENCH_PICTURES");
    if (directory == nullptr) {
        fputs("KESTOR_BENCH_PICTURES names no directory: bench/run.sh makes one\n", stderr);
        return 1;
    }
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        const std::string ending = entry.path().extension();
        if (kPictures.count(ending) + kSounds.count(ending) != 0) {
            files.push_back(entry.path());
        }
    }
    std::sort(files.begin(), files.end());
#ifndef __clang_analyzer__  // it takes what the library keeps until the end for leaked
    for (const auto& file : files) {
        benchmark::RegisterBenchmark(("picture/" + file.filename().string()).c_str(), answer, file)
            ->UseManualTime()
            ->Unit(benchmark::kMillisecond);
    }
#endif
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
