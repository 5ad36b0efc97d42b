#include "trial.h"

#include <poll.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <utility>
#include <vector>

#include "picture.pb.h"
#include "workerPool.h"

namespace pictured {

namespace {

struct Ending {
    const char* ending;
    uint32_t codec;
};
constexpr Ending kPictures[] = {{"m2v", picturing::VIDEO_MPEG2}, {"mpeg2", picturing::VIDEO_MPEG2},
                                {"h264", picturing::VIDEO_H264}, {"264", picturing::VIDEO_H264},
                                {"h265", picturing::VIDEO_H265}, {"265", picturing::VIDEO_H265},
                                {"hevc", picturing::VIDEO_H265}};
constexpr Ending kSounds[] = {{"mp2", picturing::AUDIO_MPEG},      {"mp3", picturing::AUDIO_MPEG},
                              {"aac", picturing::AUDIO_AAC_ADTS},  {"latm", picturing::AUDIO_AAC_LATM},
                              {"loas", picturing::AUDIO_AAC_LATM}, {"ac3", picturing::AUDIO_AC3},
                              {"eac3", picturing::AUDIO_EAC3},     {"ec3", picturing::AUDIO_EAC3}};

std::string readFile(const std::string& name, std::size_t limit) {
    std::ifstream file(name, std::ios::binary);
    std::string bytes(limit + 1, 0);
    file.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    bytes.resize(static_cast<std::size_t>(file.gcount()));
    if (bytes.empty()) {
        throw std::runtime_error(name + ": cannot be read, or is empty");
    }
    if (bytes.size() > limit) {
        throw std::runtime_error(name + ": longer than " + std::to_string(limit) + " bytes");
    }
    return bytes;
}

template <std::size_t Count>
uint32_t codecOf(const std::string& name, const Ending (&endings)[Count]) {
    const std::string ending = name.substr(name.rfind('.') + 1);
    std::string known;
    for (const Ending& one : endings) {
        if (ending == one.ending) {
            return one.codec;
        }
        known += std::string(known.empty() ? "." : ", .") + one.ending;
    }
    throw std::runtime_error(name + ": the codec goes by the file's ending, one of " + known);
}

const char* wordsOf(PictureVerdict verdict) {
    switch (verdict) {
        case PictureVerdict::kTooLarge:
            return "too large";
        case PictureVerdict::kUnknownKind:
            return "of a kind that cannot be shown";
        default:
            return "damaged: the decoder made no picture of it";
    }
}

bool print(const Answer& answer, const Trial& trial) {
    const AnswerHead& head = answer.head;
    bool well = true;
    if (head.picture == PictureVerdict::kDecoded) {
        printf("picture: %u x %u, JPEG of %zu bytes\nluma: mean %.1f, spread %.1f\n", head.width, head.height,
               answer.jpeg.size(), static_cast<double>(head.lumaMean), static_cast<double>(head.lumaSpread));
        if (head.whole == 0) {
            printf("parts of it are lost\n");
        }
        if (!trial.jpeg.empty()) {
            std::ofstream file(trial.jpeg, std::ios::binary);
            file << answer.jpeg;
            if (!file.flush()) {
                throw std::runtime_error(trial.jpeg + ": cannot be written");
            }
        }
    } else if (head.picture != PictureVerdict::kNone) {
        printf("picture: %s\n", wordsOf(head.picture));
        well = false;
    }
    if (head.sound == SoundVerdict::kMeasured) {
        printf("sound: %.1f LUFS\n", static_cast<double>(head.loudness));
    } else if (head.sound != SoundVerdict::kNone) {
        printf("sound: %s\n", head.sound == SoundVerdict::kTooShort ? "less than 400 ms" : "damaged");
        well = false;
    }
    return well;
}

}  // namespace

bool tryFiles(const Trial& trial) {
    Job job;
    if (!trial.picture.empty()) {
        job.videoCodec = codecOf(trial.picture, kPictures);
        job.video = readFile(trial.picture, picturing::kVideoBytes);
    }
    if (!trial.sound.empty()) {
        job.audioCodec = codecOf(trial.sound, kSounds);
        job.audio = readFile(trial.sound, picturing::kAudioBytes);
    }
    bool over = false;
    bool well = false;
    WorkerPool pool(trial.program, 1,
                    {[&](uint64_t, Answer&& answer, microseconds cost) {
                         over = true;
                         well = print(answer, trial);
                         printf("processor time: %.1f ms\n", static_cast<double>(cost.count()) / 1000);
                     },
                     [&](uint64_t, const std::string& why, microseconds) {
                         over = true;
                         printf("the decoder %s\n", why.empty() ? "did not start" : why.c_str());
                     }});
    pool.submit(std::move(job));
    std::vector<pollfd> polls;
    while (!over && (pool.problem().empty() || pool.running() > 0)) {
        pool.serve(polls, Clock::now());
        polls.clear();
        pool.addPolls(polls);
        constexpr int kLooksMs = 50;
        poll(polls.data(), polls.size(), kLooksMs);
    }
    if (!over) {
        throw std::runtime_error(pool.problem());
    }
    return well;
}

}  // namespace pictured
