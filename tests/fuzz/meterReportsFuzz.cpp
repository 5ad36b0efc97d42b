// What a meter sends through the station's reading of it, to the reports that readers get.
#include "fuzz/fuzzing.h"
#include "fuzz/meterLink.h"
#include "meter/meterBook.h"
#include "meter/meterSession.h"
#include "meter/reportText.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    metering::quietParser();
    metering::FromMeter hello;
    hello.mutable_hello()->set_major(metering::kMajor);
    const std::set<uint32_t> watched = {0xEF010101, 0xEF010102};
    station::MeterBook book;
    book.watch(watched, 0);
    station::MeterSession session(book);
    const station::Now now = station::systemNow();
    try {
        fuzzing::forEachArrival(data, size, metering::framed(hello),
                                [&](std::string_view bytes) { session.received(bytes, now); });
    } catch (const station::PeerRefused& refused) {
        if (std::string_view(refused.what()).empty())
            __builtin_trap();
    }
    const station::MeterReports reports = book.all();
    if (!reports.empty() && !session.agreed())
        __builtin_trap();
    for (const auto& [group, kept] : reports) {
        const meter::Report report = kept.read();
        if (!watched.contains(group) || meter::toJson(report).empty() ||
            meter::reportText(report, "").empty())
            __builtin_trap();
    }
    const station::MeterMail::Batch batch = book.mail().drain();
    for (const auto& [group, figures] : batch.figures)
        if (!watched.contains(group) || figures.group != group)
            __builtin_trap();
    for (const station::MeterHappened& happened : batch.happened)
        if (!watched.contains(happened.group) || happened.what.size() > station::MeterHappened::kTextBytes ||
            happened.text.size() > station::MeterHappened::kTextBytes)
            __builtin_trap();
    const station::MeterState state = book.state(now.steady);
    for (const std::string* text :
         {&state.version, &state.interface, &state.captureProblem, &state.joinProblem})
        for (const char byte : *text)
            if (static_cast<uint8_t>(byte) < ' ')
                __builtin_trap();
    return 0;
}
