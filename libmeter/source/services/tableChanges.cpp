#include "services/tableChanges.h"

#include <algorithm>

#include "services/streamTypes.h"

namespace meter {
namespace {

std::string number(unsigned value) {
    return std::to_string(value);
}

// "H.264", "AAC (deu)", "stream type 5".
std::string describe(const StreamEntry& stream) {
    const std::string_view codec = codecName(stream.codec);
    std::string text = codec.empty() ? "stream type " + number(stream.streamType) : std::string(codec);
    if (stream.details.language)
        text += " (" + *stream.details.language + ")";
    return text;
}

bool isSameStream(const StreamEntry& one, const StreamEntry& other) {
    return one.streamType == other.streamType && one.codec == other.codec &&
           one.details.language == other.details.language &&
           one.details.componentTag == other.details.componentTag;
}

std::vector<CaReport> sorted(std::vector<CaReport> ca) {
    std::ranges::sort(ca, {}, [](const CaReport& entry) { return std::pair(entry.system, entry.pid); });
    return ca;
}

bool sameCa(const std::vector<CaReport>& one, const std::vector<CaReport>& other) {
    return std::ranges::equal(sorted(one), sorted(other), [](const CaReport& a, const CaReport& b) {
        return a.system == b.system && a.pid == b.pid;
    });
}

// Entries of `list` whose key `other` does not have.
template <typename Entry, typename Key>
std::vector<const Entry*> without(const std::vector<Entry>& list, const std::vector<Entry>& other, Key key) {
    std::vector<const Entry*> rest;
    for (const Entry& entry : list)
        if (std::ranges::find(other, entry.*key, key) == other.end())
            rest.push_back(&entry);
    return rest;
}

void compareStream(const StreamEntry& before, const StreamEntry& after, ChangeWriter& changes) {
    const std::string where = "PID " + number(after.pid) + ": ";
    if (before.codec != after.codec || before.streamType != after.streamType) {
        changes.add("codec", changes.program(), after.pid,
                    where + describe(before) + " became " + describe(after));
        return;
    }
    if (before.details.language != after.details.language)
        changes.add("language", changes.program(), after.pid,
                    where + "language " + before.details.language.value_or("none") + " became " +
                        after.details.language.value_or("none"));
    else if (before.details != after.details)
        changes.add("stream", changes.program(), after.pid,
                    where + "descriptors of " + describe(after) + " changed");
    if (!sameCa(before.ca, after.ca))
        changes.add("conditional_access", changes.program(), after.pid,
                    where + "conditional access of " + describe(after) + " changed");
}

}  // namespace

void ChangeWriter::add(const char* what, std::optional<uint16_t> program, std::optional<uint16_t> pid,
                       std::string text) {
    if (program)
        text.insert(0, "program " + number(*program) + ": ");
    changes_.push_back({at_, what, program, pid, std::move(text)});
}

void ChangeWriter::addUnexplained(uint8_t versionBefore, uint8_t version) {
    if (changes_.size() != before_)
        return;
    if (versionBefore != version)
        add("version", program_, std::nullopt,
            std::string(table_) + " version " + number(versionBefore) + " became " + number(version));
    else
        add("content", program_, std::nullopt,
            std::string(table_) + " has other content under version " + number(version));
}

void comparePat(const std::vector<ProgramEntry>& before, const std::vector<ProgramEntry>& after,
                ChangeWriter& changes) {
    const auto name = [](const ProgramEntry& entry) {
        return entry.number == 0 ? std::string("network PID ") : std::string("PMT PID ");
    };
    const auto program = [](const ProgramEntry& entry) {
        return entry.number == 0 ? std::nullopt : std::optional(entry.number);
    };
    for (const ProgramEntry* gone : without(before, after, &ProgramEntry::number))
        changes.add("program_gone", program(*gone), gone->pid, name(*gone) + number(gone->pid) + " gone");
    for (const ProgramEntry* added : without(after, before, &ProgramEntry::number))
        changes.add("program_added", program(*added), added->pid,
                    name(*added) + number(added->pid) + " added");
    for (const ProgramEntry& entry : after) {
        const auto old = std::ranges::find(before, entry.number, &ProgramEntry::number);
        if (old != before.end() && old->pid != entry.pid)
            changes.add("program_moved", program(entry), entry.pid,
                        name(entry) + number(old->pid) + " became " + number(entry.pid));
    }
}

void comparePmt(const Pmt& before, const Pmt& after, ChangeWriter& changes) {
    if (before.pcrPid != after.pcrPid)
        changes.add("pcr_moved", changes.program(), after.pcrPid,
                    "PCR PID " + number(before.pcrPid) + " became " + number(after.pcrPid));
    if (!sameCa(before.ca, after.ca))
        changes.add("conditional_access", changes.program(), std::nullopt, "conditional access changed");
    std::vector<const StreamEntry*> added = without(after.streams, before.streams, &StreamEntry::pid);
    for (const StreamEntry* gone : without(before.streams, after.streams, &StreamEntry::pid)) {
        const auto moved =
            std::ranges::find_if(added, [gone](const StreamEntry* to) { return isSameStream(*gone, *to); });
        if (moved == added.end()) {
            changes.add("stream_gone", changes.program(), gone->pid,
                        describe(*gone) + " on PID " + number(gone->pid) + " gone");
            continue;
        }
        changes.add(
            "stream_moved", changes.program(), (*moved)->pid,
            describe(*gone) + " moved from PID " + number(gone->pid) + " to " + number((*moved)->pid));
        added.erase(moved);
    }
    for (const StreamEntry* stream : added)
        changes.add("stream_added", changes.program(), stream->pid,
                    describe(*stream) + " on PID " + number(stream->pid) + " added");
    for (const StreamEntry& stream : after.streams) {
        const auto old = std::ranges::find(before.streams, stream.pid, &StreamEntry::pid);
        if (old != before.streams.end())
            compareStream(*old, stream, changes);
    }
}

void compareSdt(const std::vector<ServiceEntry>& before, const std::vector<ServiceEntry>& after,
                ChangeWriter& changes) {
    const auto name = [](const ServiceEntry& entry) { return "\"" + entry.name.value_or("") + "\""; };
    for (const ServiceEntry* gone : without(before, after, &ServiceEntry::id))
        changes.add("service_gone", gone->id, std::nullopt, "service " + name(*gone) + " gone from the SDT");
    for (const ServiceEntry* added : without(after, before, &ServiceEntry::id))
        changes.add("service_added", added->id, std::nullopt,
                    "service " + name(*added) + " added to the SDT");
    for (const ServiceEntry& entry : after) {
        const auto old = std::ranges::find(before, entry.id, &ServiceEntry::id);
        if (old == before.end() || *old == entry)
            continue;
        std::string text;
        const auto say = [&text](const std::string& part) { text += (text.empty() ? "" : ", ") + part; };
        if (old->name != entry.name)
            say("name " + name(*old) + " became " + name(entry));
        if (old->provider != entry.provider)
            say("provider \"" + old->provider.value_or("") + "\" became \"" + entry.provider.value_or("") +
                "\"");
        if (old->type != entry.type)
            say("service type " + number(old->type.value_or(0)) + " became " +
                number(entry.type.value_or(0)));
        if (old->runningStatus != entry.runningStatus)
            say("running status " + number(old->runningStatus) + " became " + number(entry.runningStatus));
        changes.add("service", entry.id, std::nullopt, std::move(text));
    }
}

}  // namespace meter
