#include "services/services.h"

#include <algorithm>
#include <map>

#include "fields/wallClock.h"
#include "services/dvbText.h"
#include "services/dvbTime.h"
#include "services/streamTypes.h"
#include "services/tableChanges.h"
#include "services/tables.h"

namespace meter {
namespace {

constexpr std::size_t kEventServicesLimit = kProgramsLimit;  // services whose events are kept

struct Program {
    uint16_t number = 0;
    uint16_t pmtPid = 0;
    std::optional<Pmt> pmt;
};

struct PresentFollowing {
    std::optional<ProgrammeReport> now;
    std::optional<ProgrammeReport> next;
};

double seconds(const Moment& moment) {
    return static_cast<double>(moment.arrival) / static_cast<double>(kNsPerSecond);
}

std::vector<uint16_t> pidsOf(const std::vector<CaReport>& ca) {
    std::vector<uint16_t> pids;
    pids.reserve(ca.size());
    for (const CaReport& entry : ca)
        pids.push_back(entry.pid);
    return pids;
}

StreamModel streamModel(const StreamEntry& stream) {
    return {.pid = stream.pid,
            .streamType = stream.streamType,
            .codec = stream.codec,
            .kind = stream.kind,
            .audioType = stream.details.audioType,
            .stillPicture = stream.details.stillPicture,
            .aacProfileLevel = stream.details.aacProfileLevel,
            .ecmPids = pidsOf(stream.ca)};
}

StreamReport streamReport(const StreamEntry& stream, const std::vector<CaReport>& ofProgram) {
    StreamReport report;
    report.pid = stream.pid;
    report.streamType = stream.streamType;
    if (stream.codec != Codec::kNone)
        report.codec = codecName(stream.codec);
    report.kind = stream.kind;
    report.language = stream.details.language;
    report.ca = stream.ca.empty() ? ofProgram : stream.ca;
    std::ranges::stable_sort(report.ca, {}, &CaReport::pid);
    report.componentTag = stream.details.componentTag;
    report.pages = stream.details.pages;
    return report;
}

}  // namespace

struct Services::State {
    SectionedTable<ProgramEntry> pat;
    std::vector<ProgramEntry> patEntries;  // of the last whole one
    uint8_t patVersion = 0;
    std::vector<Program> programs;

    SectionedTable<ServiceEntry> sdt;
    std::optional<std::vector<ServiceEntry>> services;  // of the last whole one
    uint8_t sdtVersion = 0;
    SectionedTable<uint16_t> cat;
    std::map<uint16_t, PresentFollowing> events;  // by service_id
    std::optional<uint16_t> originalNetworkId;
    std::optional<std::string> network;
    std::optional<int64_t> utc;  // seconds since the Unix epoch
    std::optional<double> utcOffsetMs;

    ServiceModel model;

    void takePat(const Section& section, std::vector<ChangeReport>& changes);
    void takePmt(const Section& section, std::vector<ChangeReport>& changes);
    void takeCat(const Section& section);
    void takeNit(const Section& section);
    void takeSdt(const Section& section, std::vector<ChangeReport>& changes);
    void takeEvent(const Section& section);
    void takeTime(const Section& section);
    void rebuildModel();
    // `streams`: of how many there is room yet, in all services.
    void fillService(const Program& program, std::size_t& streams, ServiceReport& report) const;
};

// Sections that came before are looked at only while the table they belong to is not whole.
void Services::State::takePat(const Section& section, std::vector<ChangeReport>& changes) {
    if (section.repeated && pat.whole())
        return;
    const uint16_t streamBefore = model.transportStreamId;
    if (!pat.take(section.bytes, readPat(section.bytes), kProgramsLimit))
        return;
    const std::vector<ProgramEntry> entries = pat.entries();
    if (model.patKnown) {
        ChangeWriter writer(changes, seconds(section.moment), "PAT");
        if (streamBefore != pat.extension())
            writer.add("transport_stream", std::nullopt, std::nullopt,
                       "transport_stream_id " + std::to_string(streamBefore) + " became " +
                           std::to_string(pat.extension()));
        comparePat(patEntries, entries, writer);
        writer.addUnexplained(patVersion, pat.version());
    }
    std::vector<Program> fresh;
    model.networkPid.reset();
    for (const ProgramEntry& entry : entries) {
        if (entry.number == 0) {
            model.networkPid = entry.pid;
            continue;
        }
        const auto old = std::ranges::find(programs, entry.number, &Program::number);
        fresh.push_back({entry.number, entry.pid, old != programs.end() ? old->pmt : std::nullopt});
    }
    programs = std::move(fresh);
    patEntries = entries;
    patVersion = pat.version();
    model.patKnown = true;
    model.transportStreamId = pat.extension();
    rebuildModel();
}

void Services::State::takePmt(const Section& section, std::vector<ChangeReport>& changes) {
    const uint16_t number = sectionTableIdExtension(section.bytes);
    const auto program = std::ranges::find_if(programs, [&](const Program& candidate) {
        return candidate.number == number && candidate.pmtPid == section.pid;
    });
    if (program == programs.end() || (section.repeated && program->pmt))
        return;
    std::optional<Pmt> pmt = readPmt(section.bytes);
    if (!pmt)
        return;
    if (program->pmt) {
        ChangeWriter writer(changes, seconds(section.moment), "PMT", number);
        comparePmt(*program->pmt, *pmt, writer);
        writer.addUnexplained(program->pmt->version, pmt->version);
    }
    program->pmt = std::move(pmt);
    rebuildModel();
}

void Services::State::takeCat(const Section& section) {
    if (section.repeated && cat.whole())
        return;
    const std::vector<CaReport> found = caDescriptors(sectionBody(section.bytes), kCaPidsLimit);
    cat.take(section.bytes, pidsOf(found), kCaPidsLimit);
    model.catKnown = true;
    if (cat.whole()) {
        model.emmPids = cat.entries();
        ++model.revision;
    }
}

void Services::State::takeNit(const Section& section) {
    if (section.repeated && network && originalNetworkId)
        return;
    const Bytes body = sectionBody(section.bytes);
    const Bytes loop = descriptorLoop(body, 0);
    if (const auto name = findDescriptor(loop, kNetworkNameDescriptor))
        network = decodeText(*name);
    if (originalNetworkId)
        return;
    // Where no SDT says it: of the transport stream that this one is.
    constexpr std::size_t kEntrySize = 6;  // identifiers, length of the descriptors
    const Bytes streams = descriptorLoop(body, 2 + loop.size());
    for (std::size_t at = 0; at + kEntrySize <= streams.size();
         at += kEntrySize + descriptorLoop(streams, at + 4).size())
        if (model.patKnown && u16At(streams, at) == model.transportStreamId)
            originalNetworkId = u16At(streams, at + 2);
}

void Services::State::takeSdt(const Section& section, std::vector<ChangeReport>& changes) {
    if (section.repeated && sdt.whole())
        return;
    const Bytes body = sectionBody(section.bytes);
    if (body.size() >= 2)
        originalNetworkId = u16At(body, 0);
    if (!sdt.take(section.bytes, readSdt(section.bytes), kProgramsLimit))
        return;
    std::vector<ServiceEntry> entries = sdt.entries();
    if (services) {
        ChangeWriter writer(changes, seconds(section.moment), "SDT");
        compareSdt(*services, entries, writer);
        writer.addUnexplained(sdtVersion, sdt.version());
    }
    services = std::move(entries);
    sdtVersion = sdt.version();
}

void Services::State::takeEvent(const Section& section) {
    const uint16_t service = sectionTableIdExtension(section.bytes);
    const uint8_t number = sectionNumber(section.bytes);
    auto place = events.find(service);
    if (number > 1 || (section.repeated && place != events.end()))
        return;
    if (place == events.end()) {
        if (events.size() >= kEventServicesLimit)
            return;
        place = events.emplace(service, PresentFollowing{}).first;
    }
    (number == 0 ? place->second.now : place->second.next) = readEvent(section.bytes);
}

void Services::State::takeTime(const Section& section) {
    const auto time = utcTime(section.bytes, kSectionHeaderSize);
    if (!time)
        return;
    utc = time;
    if (section.moment.wall != 0)
        utcOffsetMs = static_cast<double>(*time * kNsPerSecond - section.moment.wall) / kNsPerMs;
}

void Services::State::rebuildModel() {
    model.programs.clear();
    std::size_t streams = 0;
    for (const Program& program : programs) {
        ProgramModel entry;
        entry.number = program.number;
        entry.pmtPid = program.pmtPid;
        if (program.pmt) {
            entry.pmtKnown = true;
            entry.pcrPid = program.pmt->pcrPid;
            entry.ecmPids = pidsOf(program.pmt->ca);
            for (const StreamEntry& stream : program.pmt->streams)
                if (streams++ < kStreamsLimit)
                    entry.streams.push_back(streamModel(stream));
        }
        model.programs.push_back(std::move(entry));
    }
    ++model.revision;
}

void Services::State::fillService(const Program& program, std::size_t& streams, ServiceReport& report) const {
    report.program = program.number;
    report.pmtPid = program.pmtPid;
    if (services) {
        const auto service = std::ranges::find(*services, program.number, &ServiceEntry::id);
        if (service != services->end()) {
            report.name = service->name;
            report.provider = service->provider;
            report.type = service->type;
            report.runningStatus = service->runningStatus;
        }
    }
    if (const auto found = events.find(program.number); found != events.end()) {
        report.now = found->second.now;
        report.next = found->second.next;
    }
    if (!program.pmt)
        return;
    report.pmtVersion = program.pmt->version;
    report.pcrPid = program.pmt->pcrPid;
    report.ca = program.pmt->ca;
    for (const StreamEntry& stream : program.pmt->streams) {
        if (streams == 0)
            break;
        --streams;
        report.streams.push_back(streamReport(stream, program.pmt->ca));
    }
    std::ranges::stable_sort(report.streams, {}, &StreamReport::pid);
}

Services::Services() : state_(std::make_unique<State>()) {}
Services::~Services() = default;

void Services::section(const Section& section, std::vector<ChangeReport>& changes) {
    const uint8_t table = sectionTableId(section.bytes);
    if (section.pid == kTdtPid) {
        if (table == kTdtTable || table == kTotTable)
            state_->takeTime(section);
        return;
    }
    // What holds from a later moment on is not read before it holds.
    if (!sectionSyntaxIndicator(section.bytes) || !sectionCurrentNextIndicator(section.bytes))
        return;
    if (section.pid == kPatPid && table == kPatTable)
        state_->takePat(section, changes);
    else if (section.pid == kCatPid && table == kCatTable)
        state_->takeCat(section);
    else if (section.pid == kNitPid && table == kNitActualTable)
        state_->takeNit(section);
    else if (section.pid == kSdtPid && table == kSdtActualTable)
        state_->takeSdt(section, changes);
    else if (section.pid == kEitPid && table == kEitActualPfTable)
        state_->takeEvent(section);
    else if (table == kPmtTable)
        state_->takePmt(section, changes);
}

const ServiceModel& Services::model() const {
    return state_->model;
}

void Services::fill(Report& report) const {
    const State& state = *state_;
    if (state.model.patKnown)
        report.transport.transportStreamId = state.model.transportStreamId;
    report.transport.originalNetworkId = state.originalNetworkId;
    report.transport.network = state.network;
    if (state.utc)
        report.transport.utc = rfc3339(*state.utc);
    report.transport.utcOffsetMs = state.utcOffsetMs;
    std::size_t streams = kStreamsLimit;
    for (const Program& program : state.programs)
        state.fillService(program, streams, report.services.emplace_back());
    std::ranges::stable_sort(report.services, {}, &ServiceReport::pmtPid);
}

}  // namespace meter
