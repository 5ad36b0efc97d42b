#include "store/deliveryDatabase.h"

#include <array>
#include <nlohmann/json.hpp>

#include "store/payload.h"

namespace station {

namespace {

constexpr std::array<const char*, 1> kSchema = {
    R"(CREATE TABLE owed (sequence INTEGER PRIMARY KEY, receiver TEXT NOT NULL, notification TEXT NOT NULL);
       CREATE TABLE told (receiver TEXT NOT NULL, alarm_id INTEGER NOT NULL, notification TEXT NOT NULL,
         PRIMARY KEY (receiver, alarm_id)) WITHOUT ROWID;)",
};

std::string stored(const Notification& notification) {
    return notificationJson(notification).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace

DeliveryDatabase::DeliveryDatabase(const std::filesystem::path& file)
    : database_(file, Database::Mode::kReadWrite) {
    database_.execute("PRAGMA synchronous = FULL");
    migrate(database_, kSchema);
    owe_ =
        database_.prepare("INSERT OR REPLACE INTO owed (sequence, receiver, notification) VALUES (?, ?, ?)");
    settle_ = database_.prepare("DELETE FROM owed WHERE sequence = ?");
    tell_ =
        database_.prepare("INSERT OR REPLACE INTO told (receiver, alarm_id, notification) VALUES (?, ?, ?)");
    forget_ = database_.prepare("DELETE FROM told WHERE receiver = ? AND alarm_id = ?");
}

std::map<std::string, StoredReceiver> DeliveryDatabase::load() {
    std::map<std::string, StoredReceiver> receivers;
    Statement owed = database_.prepare("SELECT sequence, receiver, notification FROM owed ORDER BY sequence");
    while (owed.step()) {
        if (auto notification = parseNotification(owed.text(2))) {
            receivers[owed.text(1)].owed.push_back({owed.integer(0), std::move(*notification), false});
        }
    }
    Statement told = database_.prepare("SELECT receiver, alarm_id, notification FROM told");
    while (told.step()) {
        if (auto notification = parseNotification(told.text(2))) {
            receivers[told.text(0)].told.emplace(told.integer(1), std::move(*notification));
        }
    }
    return receivers;
}

void DeliveryDatabase::insert(const std::string& receiver, const DeliveryChanges& changes) {
    for (const Owed& owed : changes.owed) {
        owe_.bind(1, owed.sequence).bind(2, receiver).bind(3, stored(owed.notification)).run();
    }
    for (const int64_t sequence : changes.settled) {
        settle_.bind(1, sequence).run();
    }
    for (const Notification& told : changes.told) {
        tell_.bind(1, receiver).bind(2, told.alarmId).bind(3, stored(told)).run();
    }
    for (const int64_t alarm : changes.over) {
        forget_.bind(1, receiver).bind(2, alarm).run();
    }
}

void DeliveryDatabase::apply(std::span<const std::pair<std::string, DeliveryChanges>> changes) {
    Transaction transaction(database_);
    for (const auto& [receiver, ofReceiver] : changes) {
        insert(receiver, ofReceiver);
    }
    transaction.commit();
}

void DeliveryDatabase::replace(const std::map<std::string, const Receiver*>& receivers) {
    Transaction transaction(database_);
    database_.execute("DELETE FROM owed; DELETE FROM told;");
    for (const auto& [key, receiver] : receivers) {
        DeliveryChanges all;
        all.owed.assign(receiver->owed().begin(), receiver->owed().end());
        for (const auto& [id, notification] : receiver->told()) {
            all.told.push_back(notification);
        }
        insert(key, all);
    }
    transaction.commit();
}

}  // namespace station
