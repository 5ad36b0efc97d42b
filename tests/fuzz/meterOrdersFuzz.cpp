// What a station sends through kestor-meter's reading of it, to the groups that a thread watches and a
// second's reports of them.
#include "fuzz/fuzzing.h"
#include "fuzz/meterLink.h"
#include "shard.h"
#include "stationSession.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    metering::quietParser();
    metering::FromStation hello;
    hello.mutable_hello()->set_major(metering::kMajor);
    meterd::Shard shard({0, 1});
    bool connected = false;
    meterd::StationSession session("1", {[&](const std::string& version) {
                                             for (const char byte : version)
                                                 if (byte < ' ' || byte > '~')
                                                     __builtin_trap();
                                             connected = true;
                                         },
                                         [&](const metering::Groups& groups) {
                                             const meterd::WatchList list = meterd::watchListOf(groups);
                                             shard.watch(list);
                                             if (!connected || shard.groups() != list.groups.size() ||
                                                 list.groups.size() > metering::kGroupsLimit)
                                                 __builtin_trap();
                                         }});
    try {
        fuzzing::forEachArrival(data, size, metering::framed(hello),
                                [&](std::string_view bytes) { session.received(bytes); });
    } catch (const meterd::StationLost& lost) {
        if (std::string_view(lost.what()).empty())
            __builtin_trap();
    }
    shard.tick(1);
    std::size_t reports = 0;
    metering::Second second;
    do {
        second.Clear();
        shard.report(16, second);
        reports += static_cast<std::size_t>(second.report_size());
    } while (!second.last());
    if (reports != shard.groups() || session.agreed() != connected)
        __builtin_trap();
    return 0;
}
