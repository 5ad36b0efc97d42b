#include "store/minuteDatabase.h"

#include <array>
#include <utility>

namespace station {

namespace {

constexpr std::array<const char*, 1> kSchema = {
    R"(CREATE TABLE layouts (id INTEGER PRIMARY KEY, text TEXT NOT NULL UNIQUE);
       CREATE TABLE minutes (id INTEGER PRIMARY KEY, layout INTEGER NOT NULL, records BLOB NOT NULL);)",
};
constexpr unsigned kGroupBits = 32;
constexpr int64_t kDeletedAtOnce = 5'000;

int64_t idOf(int64_t row, uint32_t group) {
    return static_cast<int64_t>(static_cast<uint64_t>(row) << kGroupBits | group);
}

}  // namespace

MinuteDatabase::MinuteDatabase(const std::filesystem::path& file, const Patience& patience)
    : database_(file, Database::Mode::kReadWrite, patience) {
    database_.execute("PRAGMA synchronous = NORMAL");
    migrate(database_, kSchema);
    Statement own = database_.prepare("INSERT OR IGNORE INTO layouts (text) VALUES (?)");
    own.bind(1, MinuteLayout::own().text()).run();
    Statement all = database_.prepare("SELECT id, text FROM layouts");
    while (all.step()) {
        const std::string text = all.text(1);
        if (text == MinuteLayout::own().text()) {
            ownLayout_ = all.integer(0);
        }
        layouts_.emplace(all.integer(0), MinuteLayout::parse(text));
    }
    write_ = database_.prepare("INSERT OR REPLACE INTO minutes (id, layout, records) VALUES (?, ?, ?)");
    read_ = database_.prepare("SELECT layout, records FROM minutes WHERE id = ?");
    readAll_ =
        database_.prepare("SELECT id, layout, records FROM minutes WHERE id >= ? AND id < ? ORDER BY id");
    delete_ = database_.prepare(
        "DELETE FROM minutes WHERE id IN (SELECT id FROM minutes WHERE id < ? ORDER BY id LIMIT ?)");
}

void MinuteDatabase::write(int64_t row, const std::map<Group, Minutes>& channels) {
    Transaction transaction(database_);
    Minutes whole;
    std::vector<std::byte> bytes;
    for (const auto& [group, minutes] : channels) {
        whole.clear();
        bytes.clear();
        read(row, group, whole);
        whole.insert(whole.end(), minutes.begin(), minutes.end());
        for (const past::MinuteRecord& minute : whole) {
            MinuteLayout::write(minute, bytes);
        }
        write_.bind(1, idOf(row, group.hostOrder()))
            .bind(2, ownLayout_)
            .bind(3, std::span<const std::byte>(bytes))
            .run();
    }
    transaction.commit();
}

void MinuteDatabase::read(int64_t row, const Group& group, Minutes& into) {
    read_.bind(1, idOf(row, group.hostOrder()));
    if (read_.step()) {
        const auto known = layouts_.find(read_.integer(0));
        if (known != layouts_.end() && known->second) {
            known->second->read(read_.bytes(1), into);
        }
    }
    read_.reset();
}

void MinuteDatabase::readAll(int64_t row, const std::function<void(uint32_t, const Minutes&)>& visit) {
    Minutes minutes;
    readAll_.reset();  // of one that was given up
    readAll_.bind(1, idOf(row, 0)).bind(2, idOf(row + 1, 0));
    while (readAll_.step()) {
        const auto known = layouts_.find(readAll_.integer(1));
        if (known == layouts_.end() || !known->second) {
            continue;
        }
        minutes.clear();
        known->second->read(readAll_.bytes(2), minutes);
        visit(static_cast<uint32_t>(readAll_.integer(0)), minutes);
    }
    readAll_.reset();
}

std::optional<int64_t> MinuteDatabase::oldestRow() {
    const auto oldest = static_cast<uint64_t>(database_.integer("SELECT min(id) FROM minutes"));
    return oldest == 0 ? std::nullopt : std::optional(static_cast<int64_t>(oldest >> kGroupBits));
}

bool MinuteDatabase::deleteSome(int64_t row, bool orIn) {
    delete_.bind(1, idOf(row + (orIn ? 1 : 0), 0)).bind(2, kDeletedAtOnce).run();
    return database_.changes() == kDeletedAtOnce;
}

uint64_t MinuteDatabase::bytesInUse() {
    const int64_t pages = database_.integer("PRAGMA page_count") - database_.integer("PRAGMA freelist_count");
    return static_cast<uint64_t>(pages * database_.integer("PRAGMA page_size"));
}

}  // namespace station
