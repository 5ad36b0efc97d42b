// What a meter, a station and a worker that was taken over send, through kestor-picture's reading of it. The
// first byte says whose it is.
#include <cmath>

#include "exchange.h"
#include "fuzz/fuzzing.h"
#include "sessions.h"

namespace {

void require(bool condition) {
    if (!condition)
        __builtin_trap();
}

template <typename Message>
std::string hello() {
    Message message;
    message.mutable_hello()->set_major(picturing::kMajor);
    return metering::framed(message);
}

// In pieces whose sizes go by the bytes themselves.
template <typename Take>
void inPieces(std::string_view bytes, Take take) {
    while (!bytes.empty()) {
        const std::size_t size =
            std::min<std::size_t>(bytes.size(), 1 + static_cast<uint8_t>(bytes.front()) * 4);
        take(bytes.substr(0, size));
        bytes.remove_prefix(size);
    }
}

void readMeter(std::string_view bytes) {
    pictured::MeterSession session([](picturing::Coded&& coded) {
        require(coded.video().data().size() <= picturing::kVideoBytes);
        require(coded.audio().data().size() <= picturing::kAudioBytes);
        require((coded.outcome() == picturing::OUTCOME_TAKEN) == !coded.video().data().empty());
    });
    session.received(hello<picturing::FromMeter>());
    inPieces(bytes, [&](std::string_view piece) { session.received(piece); });
}

void readStation(std::string_view bytes) {
    pictured::Turns turns;
    pictured::Time now{std::chrono::seconds(1)};
    pictured::StationSession session([&](pictured::ChannelList&& list) {
        require(list.channels.size() <= picturing::kChannelsLimit);
        require(list.cores >= 0 && list.cores <= pictured::StationSession::kCoresLimit);
        turns.setChannels(list.channels, list.cores);
        now += std::chrono::seconds(5);
        while (const auto turn = turns.next(now, {})) {
            require(turns.has(turn->group));
            if (turn->group % 2 == 0)
                turns.finished(turn->id, now, {});
        }
        require(turns.openTurns() <= picturing::kWantedLimit && turns.openTurns() <= turns.channels());
    });
    session.received(hello<picturing::FromStation>());
    inPieces(bytes, [&](std::string_view piece) { session.received(piece); });
}

void readWorker(std::string_view bytes) {
    pictured::AnswerReader reader;
    inPieces(bytes, [&](std::string_view piece) {
        const auto answer = reader.add(piece);
        if (!answer)
            return;
        require(answer->jpeg.size() <= picturing::kJpegBytes);
        require(std::isfinite(answer->head.lumaMean) && std::isfinite(answer->head.lumaSpread));
        if (answer->head.picture == pictured::PictureVerdict::kDecoded)
            require(pictured::isPlainJpeg(answer->jpeg));
    });
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    metering::quietParser();
    if (size == 0)
        return 0;
    const std::string_view bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
    try {
        switch (data[0] % 4) {
            case 0:
                readMeter(bytes);
                break;
            case 1:
                readStation(bytes);
                break;
            case 2:
                readWorker(bytes);
                break;
            default:
                pictured::isPlainJpeg(bytes);
        }
    } catch (const pictured::PeerLost& lost) {
        require(!std::string_view(lost.what()).empty());
    } catch (const pictured::Untrustworthy& lie) {
        require(!std::string_view(lie.what()).empty());
    }
    return 0;
}
