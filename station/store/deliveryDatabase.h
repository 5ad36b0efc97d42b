// The tables of delivery.db. Failures are DatabaseErrors.
#pragma once

#include <deque>
#include <filesystem>
#include <map>
#include <span>
#include <string>
#include <utility>

#include "store/receiver.h"
#include "store/sqlite.h"

namespace station {

struct StoredReceiver {
    std::deque<Owed> owed;
    std::map<int64_t, Notification> told;
};

// What receivers are owed and were told, by their keys. One thread.
class DeliveryDatabase {
  public:
    explicit DeliveryDatabase(const std::filesystem::path& file);

    std::map<std::string, StoredReceiver> load();
    // All changes or none, in order, synced to the disk.
    void apply(std::span<const std::pair<std::string, DeliveryChanges>> changes);
    // These receivers and no others.
    void replace(const std::map<std::string, const Receiver*>& receivers);

  private:
    void insert(const std::string& receiver, const DeliveryChanges& changes);

    Database database_;
    Statement owe_, settle_, tell_, forget_;
};

}  // namespace station
