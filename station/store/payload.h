// What is said to receivers, as JSON.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "store/delivery.h"

namespace station {

// One notification, as webhooks get it and delivery.db keeps it.
nlohmann::json notificationJson(const Notification& notification);
std::optional<Notification> parseNotification(std::string_view text);

// A message to a webhook. `summed` is 0, or the number of notifications that a summary stands for, of which
// those given are listed.
std::string webhookBody(std::span<const Notification> notifications, std::size_t summed,
                        const std::string& instance, WallTime now);

// A body for POST /api/v2/alerts (Alertmanager's API, version 2). What is raised ends at now + `life` unless
// it is told again.
std::string alertmanagerBody(std::span<const Notification> notifications, const std::string& instance,
                             WallTime now, std::chrono::milliseconds life);

// A name as Prometheus takes it for a label: [a-zA-Z_][a-zA-Z0-9_]*, not beginning with "__".
std::string labelName(std::string_view name);

}  // namespace station
