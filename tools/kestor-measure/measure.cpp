#include "measure.h"

#include <algorithm>
#include <map>
#include <stdexcept>
#include <unordered_map>

#include "address.h"
#include "captureFile.h"
#include "input.h"
#include "meter/channelAnalyser.h"
#include "tsFile.h"

namespace {

constexpr uint64_t kFramesBetweenProgress = 65536;

struct Channel {
    meter::ChannelAnalyser analyser;
    uint64_t datagrams = 0;
};

// The channels of a capture, by group.
class Channels {
  public:
    explicit Channels(const std::vector<uint32_t>& wanted) : wanted_(wanted) {
        for (const uint32_t group : wanted) {
            add(group);
        }
    }

    void feed(const meter::Datagram& datagram) {
        Channel* channel = find(datagram.destination);
        if (channel != nullptr) {
            ++channel->datagrams;
            channel->analyser.feed(datagram);
        }
    }

    // Returns the groups that were asked for and have no transport packets.
    std::string finish(MeasuredFile& result) {
        std::string absent;
        for (auto& [group, channel] : channels_) {
            channel.analyser.finish();
            meter::Report report = channel.analyser.report();
            const bool transport = report.flow && report.flow->encapsulation;
            if (wanted_.empty() && !transport) {
                result.notes.push_back(dotted(group) + ": " + std::to_string(channel.datagrams) +
                                       (channel.datagrams == 1 ? " datagram" : " datagrams") +
                                       ", no transport packets; left out");
                continue;
            }
            if (!transport) {
                absent += (absent.empty() ? "" : ", ") + dotted(group);
            }
            result.reports.push_back(std::move(report));
        }
        if (tooMany_ > 0) {
            result.notes.push_back("more than " + std::to_string(kGroupsLimit) +
                                   " groups: " + std::to_string(tooMany_) +
                                   " datagrams to further ones were left out; --group chooses");
        }
        return absent;
    }

  private:
    Channel* find(uint32_t group) {
        if (last_ != nullptr && lastGroup_ == group) {
            return last_;
        }
        const auto found = channels_.find(group);
        Channel* channel = found != channels_.end() ? &found->second : nullptr;
        if (channel == nullptr && wanted_.empty()) {
            if (channels_.size() == kGroupsLimit) {
                ++tooMany_;
                return nullptr;
            }
            channel = add(group);
        }
        last_ = channel;
        lastGroup_ = group;
        return channel;
    }

    Channel* add(uint32_t group) {
        meter::Settings settings;
        settings.group = group;
        return &channels_.try_emplace(group, Channel{meter::ChannelAnalyser(settings)}).first->second;
    }

    const std::vector<uint32_t>& wanted_;
    std::map<uint32_t, Channel> channels_;
    // Datagrams of a group often follow one another.
    Channel* last_ = nullptr;
    uint32_t lastGroup_ = 0;
    uint64_t tooMany_ = 0;
};

void measureCapture(const std::string& path, uint64_t size, const MeasureOptions& options,
                    const Progress& progress, MeasuredFile& result) {
    CaptureFile capture(path);
    Channels channels(options.groups);
    uint64_t frames = 0;
    uint64_t cut = 0;
    try {
        meter::Datagram datagram;
        while (const auto frame = capture.next()) {
            if (++frames % kFramesBetweenProgress == 0) {
                progress(capture.position(), size);
            }
            if (meter::readFrame(capture.link(), frame->bytes, datagram) == meter::FrameContent::kOther) {
                continue;
            }
            cut += frame->cut ? 1 : 0;
            datagram.arrival = datagram.wall = frame->time;
            channels.feed(datagram);
        }
    } catch (const std::runtime_error& error) {
        result.failure = error.what();
    }
    const std::string absent = channels.finish(result);
    if (cut > 0) {
        result.notes.push_back(std::to_string(cut) +
                               " frames were not captured whole (tcpdump -s 0 does); figures suffer from it");
    }
    if (options.bitrate) {
        result.notes.emplace_back("--bitrate is for bare transport streams; a capture has times of its own");
    }
    if (!absent.empty() && result.failure.empty()) {
        result.failure = path + ": no transport packets to " + absent;
    }
    if (result.reports.empty() && result.failure.empty()) {
        result.failure =
            path + ": no transport stream to a multicast group in " + std::to_string(frames) + " frames";
    }
}

void measureBare(Input& input, const MeasureOptions& options, const Progress& progress,
                 MeasuredFile& result) {
    TsFile file(input);
    meter::Settings settings;
    settings.bare = true;
    settings.bitrate = options.bitrate;
    meter::ChannelAnalyser analyser(settings);
    try {
        for (auto packets = file.next(); !packets.empty(); packets = file.next()) {
            analyser.feedPackets(packets);
            progress(input.position(), input.size());
        }
    } catch (const std::runtime_error& error) {
        result.failure = error.what();
    }
    analyser.finish();
    result.reports.push_back(analyser.report());
    if (!options.groups.empty()) {
        result.notes.emplace_back("--group is for captures; this is a bare transport stream");
    }
    if (result.reports.back().clocks.empty() && !options.bitrate) {
        result.notes.emplace_back("no PCRs, so no times or rates: --bitrate gives the stream's pace");
    }
}

// Stuffing is no stream: that nothing was found wrong with it says nothing.
std::string stuffingAlone(const std::vector<meter::Report>& reports) {
    std::string groups;
    for (const meter::Report& report : reports) {
        if (report.packets.received > 0 && report.packets.null == report.packets.received) {
            groups += report.group ? (groups.empty() ? "" : ", ") + dotted(*report.group) : "";
        } else {
            return {};
        }
    }
    return reports.empty() ? ""
                           : (groups.empty() ? "" : groups + ": ") +
                                 "nothing but null packets, so there is no stream to measure";
}

}  // namespace

MeasuredFile measureFile(const std::string& path, const MeasureOptions& options, const Progress& progress) {
    MeasuredFile result;
    try {
        Input input(path);
        const auto begin = input.fill();
        if (CaptureFile::fits(begin)) {
            if (input.size() == 0 || path == "-") {
                throw std::runtime_error(path +
                                         ": a capture has to be a file, neither a pipe nor standard input");
            }
            measureCapture(path, input.size(), options, progress, result);
        } else if (TsFile::fits(begin)) {
            measureBare(input, options, progress, result);
        } else {
            throw std::runtime_error(path + (begin.empty() ? ": empty"
                                                           : ": neither a transport stream (188, 192 or 204 "
                                                             "byte packets) nor a capture (pcap, pcapng)"));
        }
    } catch (const std::runtime_error& error) {
        result.failure = error.what();
    }
    if (const std::string alone = stuffingAlone(result.reports); result.failure.empty() && !alone.empty()) {
        result.failure = path + ": " + alone;
    }
    return result;
}
