// The tables of delivery.db. Failures are DatabaseErrors.
#pragma once

#include <filesystem>
#include <map>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "store/receiver.h"
#include "store/sqlite.h"

namespace station {

// By the receiver's key.
using StoredReceivers = std::map<std::string, StoredReceiver>;
using ReceiverChanges = std::vector<std::pair<std::string, DeliveryChanges>>;

// What receivers are owed and were told. One thread.
class DeliveryDatabase {
  public:
    // `patience` says how long it waits for another program that holds the file.
    DeliveryDatabase(const std::filesystem::path& file, const Patience& patience);

    StoredReceivers load();
    // All changes or none, in order, synced to the disk.
    void apply(std::span<const ReceiverChanges::value_type> changes);
    // These receivers and no others.
    void replace(const StoredReceivers& receivers);

  private:
    void insert(const std::string& receiver, const DeliveryChanges& changes);

    Database database_;
    Statement insertOwed_, markSent_, deleteOwed_, insertNotified_, deleteNotified_;
};

}  // namespace station
