// kestor-picture with so many channels, played: at which interval each is shown, and what that takes.
#include <sys/wait.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "support/picturePeers.h"

namespace {

using namespace std::chrono_literals;

struct Load {
    std::string program;
    std::string file;   // a coded picture
    std::string sound;  // 2 s of layer II
    unsigned channels = 1000;
    double cores = 0.5;
    unsigned seconds = 30;
};

constexpr auto kSettles = 15s;  // every channel has had its first turn, which comes at once

std::string contentOf(const std::string& name) {
    std::ifstream file(name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// KiB that a process has, of what several share its part.
unsigned long residentKib(pid_t process) {
    std::ifstream status("/proc/" + std::to_string(process) + "/smaps_rollup");
    unsigned long kib = 0;
    for (std::string line; std::getline(status, line);) {
        std::sscanf(line.c_str(), "Pss: %lu", &kib);
    }
    return kib;
}

int measure(const Load& load) {
    const std::filesystem::path directory = std::filesystem::temp_directory_path() / std::to_string(getpid());
    std::filesystem::create_directory(directory);
    const std::string coded = directory / "coded.sock";
    const std::string pictures = directory / "picture.sock";
    const basics::Descriptor listener(basics::listenUnix(pictures));
    const pid_t child = fork();
    if (child == 0) {
        execl(load.program.c_str(), "kestor-picture", "--coded", coded.c_str(), "--station", pictures.c_str(),
              nullptr);
        _exit(127);
    }
    std::mutex mutex;  // guards the status
    picturing::Status status;
    test::PlayedStation station(test::acceptFrom(listener), [&](const picturing::ToStation& told) {
        if (told.has_status()) {
            const std::lock_guard lock(mutex);
            status = told.status();
        }
    });
    const auto newest = [&] {
        const std::lock_guard lock(mutex);
        return status;
    };
    picturing::FromMeter answer;
    answer.mutable_coded()->set_outcome(picturing::OUTCOME_TAKEN);
    answer.mutable_coded()->mutable_video()->set_codec(load.file.ends_with("m2v")    ? picturing::VIDEO_MPEG2
                                                       : load.file.ends_with("h264") ? picturing::VIDEO_H264
                                                                                     : picturing::VIDEO_H265);
    answer.mutable_coded()->mutable_video()->set_data(contentOf(load.file));
    answer.mutable_coded()->mutable_audio()->set_codec(picturing::AUDIO_MPEG);
    answer.mutable_coded()->mutable_audio()->set_data(contentOf(load.sound));
    test::PlayedMeter* said = nullptr;
    test::PlayedMeter meter(test::connectTo(coded), [&](const picturing::ToMeter& message) {
        if (message.has_wanted()) {
            answer.mutable_coded()->set_group(message.wanted().group());
            answer.mutable_coded()->set_id(message.wanted().id());
            said->send(answer);
        }
    });
    said = &meter;
    picturing::FromStation list;
    list.mutable_channels()->set_cores(load.cores);
    for (unsigned i = 0; i < load.channels; ++i) {
        picturing::Channel& channel = *list.mutable_channels()->add_channel();
        channel.set_group(0xEF010000 + i);
        channel.set_audio(true);
    }
    station.send(list);
    std::this_thread::sleep_for(kSettles);
    const picturing::Status before = newest();
    const auto begin = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(load.seconds));
    const picturing::Status after = newest();
    const std::chrono::duration<double> passed = std::chrono::steady_clock::now() - begin;
    const double rate = static_cast<double>(after.pictures() - before.pictures()) / passed.count();
    const double cores =
        static_cast<double>(after.processor_us() - before.processor_us()) / 1e6 / passed.count();
    unsigned long kib = residentKib(child);
    std::ifstream children("/proc/" + std::to_string(child) + "/task/" + std::to_string(child) + "/children");
    for (pid_t worker = 0; children >> worker;) {
        kib += residentKib(worker);
    }
    printf("| %u | %s | %.2f | %.1f | %.0f s | %.2f | %.0f MiB |\n", load.channels,
           std::filesystem::path(load.file).filename().c_str(), load.cores, rate,
           std::max(10.0, load.channels / rate), cores, static_cast<double>(kib) / 1024);
    kill(child, SIGTERM);
    waitpid(child, nullptr, 0);
    std::filesystem::remove_all(directory);
    return after.pictures() > before.pictures() ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("Measures kestor-picture with so many channels that all show one picture.");
    Load load;
    app.add_option("program", load.program, "kestor-picture")->required();
    app.add_option("picture", load.file, "A coded picture: .m2v, .h264, .h265")->required();
    app.add_option("sound", load.sound, "Sound of layer II")->required();
    app.add_option("--channels", load.channels);
    app.add_option("--cores", load.cores);
    app.add_option("--seconds", load.seconds);
    CLI11_PARSE(app, argc, argv);
    return measure(load);
}
