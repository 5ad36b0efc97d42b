// Single values of the configuration: read with their position, written as TOML.
#pragma once

#include <toml++/toml.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "configuration/configuration.h"

namespace station {

// What a reading has found so far.
class Reading {
  public:
    // `name` is the file's, for messages and for relative paths.
    explicit Reading(const std::filesystem::path& name);

    void mistake(const toml::source_region& at, std::string text);
    void note(const toml::source_region& at, std::string text);
    Place place(const toml::source_region& at) const;
    // The path as it counts from the configuration's directory. Empty stays empty.
    std::filesystem::path resolved(std::string_view path) const;

    std::vector<Mistake> mistakes;
    std::vector<Mistake> notes;

  private:
    std::string name_;
    std::filesystem::path directory_;
};

// What is asked of a value beside its type.
struct Demand {
    double from = 0;  // numbers: the range, both ends in it; seconds for times whose key ends in "_s"
    double to = 0;
    bool filled = false;  // texts: not empty
    // Texts that are not empty: what is wrong with this one ("must be ..."), or nothing.
    std::string_view (*check)(std::string_view text) = nullptr;
};

// A value being read.
struct Value {
    Reading& reading;
    std::string_view key;
    const toml::node& node;
    Demand demand;

    // Reports `"key" PROBLEM`.
    void wrong(std::string_view problem) const;
};

// Each sets `target` when the value is as it should be, and else reports it.
void readInto(const Value& value, bool& target);
void readInto(const Value& value, std::optional<bool>& target);
void readInto(const Value& value, uint32_t& target);
void readInto(const Value& value, uint64_t& target);
void readInto(const Value& value, double& target);
void readInto(const Value& value, std::chrono::seconds& target);       // whole seconds
void readInto(const Value& value, std::chrono::milliseconds& target);  // seconds with fractions
void readInto(const Value& value, std::optional<std::chrono::milliseconds>& target);  // whole milliseconds
void readInto(const Value& value, std::string& target);
void readInto(const Value& value, std::filesystem::path& target);
void readInto(const Value& value, std::vector<std::string>& target);
void readInto(const Value& value, Labels& target);
void readInto(const Value& value, Group& target);
void readInto(const Value& value, Severity& target);
void readInto(const Value& value, WebhookFormat& target);
void readInto(const Value& value, MetricsPids& target);
void readInto(const Value& value, ServiceInformation& target);
void readInto(const Value& value, AlarmSource& target);

// A key as TOML, quoted where it has to be.
std::string writtenKey(std::string_view key);
// The value as TOML; empty for one that is not set.
std::string written(bool value);
std::string written(const std::optional<bool>& value);
std::string written(uint32_t value);
std::string written(uint64_t value);
std::string written(double value);
std::string written(std::chrono::seconds value);
std::string written(std::chrono::milliseconds value);
std::string written(const std::optional<std::chrono::milliseconds>& value);
std::string written(const std::string& value);
std::string written(const std::filesystem::path& value);
std::string written(const std::vector<std::string>& value);
std::string written(const Labels& value);
std::string written(const Group& value);
std::string written(Severity value);
std::string written(WebhookFormat value);
std::string written(MetricsPids value);
std::string written(ServiceInformation value);
std::string written(AlarmSource value);

// Checks of texts, for Demand.
std::string_view checkName(std::string_view text);
std::string_view checkListen(std::string_view text);
std::string_view checkEndpoint(std::string_view text);
std::string_view checkHost(std::string_view text);
std::string_view checkUrl(std::string_view text);
std::string_view checkSocketPath(std::string_view text);
std::string_view checkSource(std::string_view text);

}  // namespace station
