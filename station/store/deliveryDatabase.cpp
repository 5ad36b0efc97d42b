#include "store/deliveryDatabase.h"

#include <array>
#include <nlohmann/json.hpp>

#include "store/payload.h"

namespace station {

namespace {

constexpr std::array<const char*, 2> kDeliverySchema = {
    R"(CREATE TABLE owed (sequence INTEGER PRIMARY KEY, receiver TEXT NOT NULL, notification TEXT NOT NULL);
       CREATE TABLE told (receiver TEXT NOT NULL, alarm_id INTEGER NOT NULL, notification TEXT NOT NULL,
         PRIMARY KEY (receiver, alarm_id)) WITHOUT ROWID;)",
    // Of what was owed before it is not known whether it was sent.
    "ALTER TABLE owed ADD COLUMN sent INTEGER NOT NULL DEFAULT 1;",
};

std::string stored(const Notification& notification) {
    return notificationJson(notification).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace

DeliveryDatabase::DeliveryDatabase(const std::filesystem::path& file, const Patience& patience)
    : database_(file, Database::Mode::kReadWrite, patience) {
    database_.execute("PRAGMA synchronous = FULL");
    migrate(database_, kDeliverySchema);
    insertOwed_ = database_.prepare(
        "INSERT OR REPLACE INTO owed (sequence, receiver, notification, sent) VALUES (?, ?, ?, ?)");
    markSent_ = database_.prepare("UPDATE owed SET sent = ? WHERE sequence = ?");
    deleteOwed_ = database_.prepare("DELETE FROM owed WHERE sequence = ?");
    insertNotified_ =
        database_.prepare("INSERT OR REPLACE INTO told (receiver, alarm_id, notification) VALUES (?, ?, ?)");
    deleteNotified_ = database_.prepare("DELETE FROM told WHERE receiver = ? AND alarm_id = ?");
}

StoredReceivers DeliveryDatabase::load() {
    StoredReceivers receivers;
    Statement owed =
        database_.prepare("SELECT sequence, receiver, notification, sent FROM owed ORDER BY sequence");
    while (owed.step()) {
        if (auto notification = parseNotification(owed.text(2))) {
            receivers[owed.text(1)].owed.push_back(
                {owed.integer(0), std::move(*notification), owed.integer(3) != 0});
        }
    }
    Statement notified = database_.prepare("SELECT receiver, notification FROM told ORDER BY alarm_id");
    while (notified.step()) {
        if (auto notification = parseNotification(notified.text(1))) {
            receivers[notified.text(0)].notified.push_back(std::move(*notification));
        }
    }
    return receivers;
}

void DeliveryDatabase::insert(const std::string& receiver, const DeliveryChanges& changes) {
    for (const StoredOwed& owed : changes.owed) {
        insertOwed_.bind(1, owed.sequence)
            .bind(2, receiver)
            .bind(3, stored(owed.notification))
            .bind(4, static_cast<int64_t>(owed.sent))
            .run();
    }
    for (const auto& [sequence, sent] : changes.sent) {
        markSent_.bind(1, static_cast<int64_t>(sent)).bind(2, sequence).run();
    }
    for (const int64_t sequence : changes.settled) {
        deleteOwed_.bind(1, sequence).run();
    }
    for (const Notification& notified : changes.notified) {
        insertNotified_.bind(1, receiver).bind(2, notified.alarmId).bind(3, stored(notified)).run();
    }
    for (const int64_t alarm : changes.forgotten) {
        deleteNotified_.bind(1, receiver).bind(2, alarm).run();
    }
}

void DeliveryDatabase::apply(std::span<const ReceiverChanges::value_type> changes) {
    Transaction transaction(database_);
    for (const auto& [receiver, ofReceiver] : changes) {
        insert(receiver, ofReceiver);
    }
    transaction.commit();
}

void DeliveryDatabase::replace(const StoredReceivers& receivers) {
    Transaction transaction(database_);
    database_.execute("DELETE FROM owed; DELETE FROM told;");
    for (const auto& [key, receiver] : receivers) {
        DeliveryChanges all;
        all.owed = receiver.owed;
        all.notified = receiver.notified;
        insert(key, all);
    }
    transaction.commit();
}

}  // namespace station
