#include "configuration/configurationValues.h"

#include <arpa/inet.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <span>

#include "common/text.h"
#include "groupText.h"

namespace station {

namespace {

constexpr std::size_t kTextLimit = 4096;  // bytes of a path or URL
constexpr std::size_t kHostsLimit = 100;

using Names = std::span<const std::string_view>;
constexpr std::array<std::string_view, 2> kFormatNames = {"json", "alertmanager"};   // of WebhookFormat
constexpr std::array<std::string_view, 3> kPidsNames = {"none", "listed", "all"};    // of MetricsPids
constexpr std::array<std::string_view, 2> kAlarmSourceNames = {"auto", "probe"};     // of AlarmSource
constexpr std::array<std::string_view, 2> kInformationNames = {"seen", "required"};  // of ServiceInformation
const std::array<std::string_view, 4> kSeverityNames = {
    severityName(Severity::kCritical), severityName(Severity::kMajor), severityName(Severity::kMinor),
    severityName(Severity::kWarning)};

std::string tomlString(std::string_view text) {
    std::string result = "\"";
    for (const char byte : text) {
        if (byte == '"' || byte == '\\') {
            result += '\\';
            result += byte;
        } else if (static_cast<uint8_t>(byte) < 0x20 || byte == 0x7F) {
            constexpr std::string_view kDigits = "0123456789ABCDEF";
            result += "\\u00";
            result += kDigits[static_cast<uint8_t>(byte) >> 4];
            result += kDigits[static_cast<uint8_t>(byte) & 0xF];
        } else {
            result += byte;
        }
    }
    return result + "\"";
}

std::string numberText(double value) {
    std::array<char, 40> buffer{};
    constexpr double kExactIntegers = 1e15;
    const bool whole = std::abs(value) < kExactIntegers && value == std::trunc(value);
    const auto end =
        whole ? std::to_chars(buffer.data(), buffer.data() + buffer.size(), static_cast<int64_t>(value)).ptr
              : std::to_chars(buffer.data(), buffer.data() + buffer.size(), value).ptr;
    return {buffer.data(), end};
}

std::string rangeText(const Demand& demand) {
    return " from " + numberText(demand.from) + " to " + numberText(demand.to);
}

std::optional<int64_t> integer(const Value& value) {
    const auto* number = value.node.as_integer();
    if (number == nullptr || static_cast<double>(number->get()) < value.demand.from ||
        static_cast<double>(number->get()) > value.demand.to) {
        value.wrong("must be an integer" + rangeText(value.demand));
        return std::nullopt;
    }
    return number->get();
}

std::optional<double> number(const Value& value) {
    const std::optional<double> found = value.node.is_number() ? value.node.value<double>() : std::nullopt;
    // Written so that what is not a number is refused as well.
    if (!found || !(*found >= value.demand.from && *found <= value.demand.to)) {
        value.wrong("must be a number" + rangeText(value.demand));
        return std::nullopt;
    }
    return found;
}

// Any text, within a bound and without control characters.
std::optional<std::string> text(const Value& value, std::size_t limit) {
    const auto* string = value.node.as_string();
    if (string == nullptr) {
        value.wrong("must be a string");
        return std::nullopt;
    }
    const std::string& found = string->get();
    if (printable(found, limit) != found) {
        value.wrong("must be a string without control characters, of at most " + std::to_string(limit) +
                    " bytes");
        return std::nullopt;
    }
    if (found.empty() && value.demand.filled) {
        value.wrong("must not be empty");
        return std::nullopt;
    }
    const std::string_view problem =
        found.empty() || value.demand.check == nullptr ? "" : value.demand.check(found);
    if (!problem.empty()) {
        value.wrong(problem);
        return std::nullopt;
    }
    return found;
}

std::optional<std::size_t> choice(const Value& value, Names names) {
    const auto* string = value.node.as_string();
    const auto found = string == nullptr ? names.end() : std::find(names.begin(), names.end(), string->get());
    if (found == names.end()) {
        std::string wanted = "must be one of ";
        for (const std::string_view name : names) {
            wanted += (name == names.front() ? "" : ", ") + tomlString(name);
        }
        value.wrong(wanted);
        return std::nullopt;
    }
    return static_cast<std::size_t>(found - names.begin());
}

template <typename Enumeration>
void readChoice(const Value& value, Names names, Enumeration& target) {
    if (const auto found = choice(value, names)) {
        target = static_cast<Enumeration>(*found);
    }
}

// Whether the text is a host, a colon and a port from `lowest` on; the host is left in `host`.
bool splitHostPort(std::string_view text, int64_t lowest, std::string_view& host) {
    const std::size_t colon = text.rfind(':');
    if (colon == std::string_view::npos || colon == 0) {
        return false;
    }
    host = text.substr(0, colon);
    const std::optional<int64_t> port = parseInteger(text.substr(colon + 1));
    return port && *port >= lowest && *port <= UINT16_MAX;
}

bool isAddress(std::string_view host) {
    std::array<uint8_t, sizeof(in6_addr)> address{};
    const bool brackets = host.size() > 2 && host.front() == '[' && host.back() == ']';
    const std::string bare(brackets ? host.substr(1, host.size() - 2) : host);
    return inet_pton(brackets ? AF_INET6 : AF_INET, bare.c_str(), address.data()) == 1;
}

}  // namespace

Reading::Reading(const std::filesystem::path& name) : name_(name.string()) {
    std::error_code error;
    directory_ = std::filesystem::absolute(name, error).parent_path();
}

void Reading::mistake(const toml::source_region& at, std::string text) {
    mistakes.push_back({name_, at.begin.line, at.begin.column, std::move(text)});
}

void Reading::note(const toml::source_region& at, std::string text) {
    notes.push_back({name_, at.begin.line, at.begin.column, std::move(text)});
}

Place Reading::place(const toml::source_region& at) const {
    return {name_, at.begin.line};
}

std::filesystem::path Reading::resolved(std::string_view path) const {
    return path.empty() ? std::filesystem::path() : (directory_ / path).lexically_normal();
}

void Value::wrong(std::string_view problem) const {
    reading.mistake(node.source(), tomlString(key) + " " + std::string(problem));
}

void readInto(const Value& value, bool& target) {
    const auto* flag = value.node.as_boolean();
    if (flag == nullptr) {
        value.wrong("must be true or false");
        return;
    }
    target = flag->get();
}

void readInto(const Value& value, std::optional<bool>& target) {
    bool flag = false;
    const std::size_t before = value.reading.mistakes.size();
    readInto(value, flag);
    if (value.reading.mistakes.size() == before) {
        target = flag;
    }
}

void readInto(const Value& value, uint32_t& target) {
    if (const auto found = integer(value)) {
        target = static_cast<uint32_t>(*found);
    }
}

void readInto(const Value& value, uint64_t& target) {
    if (const auto found = integer(value)) {
        target = static_cast<uint64_t>(*found);
    }
}

void readInto(const Value& value, double& target) {
    if (const auto found = number(value)) {
        target = *found;
    }
}

void readInto(const Value& value, std::chrono::seconds& target) {
    if (const auto found = integer(value)) {
        target = std::chrono::seconds(*found);
    }
}

void readInto(const Value& value, std::chrono::milliseconds& target) {
    if (const auto found = number(value)) {
        target = std::chrono::milliseconds(std::llround(*found * 1000));
    }
}

void readInto(const Value& value, std::optional<std::chrono::milliseconds>& target) {
    if (const auto found = integer(value)) {
        target = std::chrono::milliseconds(*found);
    }
}

void readInto(const Value& value, std::string& target) {
    if (auto found = text(value, kTextLimit)) {
        target = std::move(*found);
    }
}

void readInto(const Value& value, std::filesystem::path& target) {
    if (const auto found = text(value, kTextLimit)) {
        target = value.reading.resolved(*found);
    }
}

void readInto(const Value& value, std::vector<std::string>& target) {
    const toml::array* list = value.node.as_array();
    if (list == nullptr || list->size() > kHostsLimit) {
        value.wrong("must be a list of at most " + std::to_string(kHostsLimit) + " strings");
        return;
    }
    std::vector<std::string> found;
    for (const toml::node& item : *list) {
        if (auto entry = text({value.reading, value.key, item, value.demand}, kNameLimit)) {
            found.push_back(std::move(*entry));
        }
    }
    target = std::move(found);
}

void readInto(const Value& value, Labels& target) {
    const toml::table* table = value.node.as_table();
    if (table == nullptr || table->size() > kLabelsLimit) {
        value.wrong("must be a table of at most " + std::to_string(kLabelsLimit) +
                    " strings, such as { site = \"north\" }");
        return;
    }
    Labels found;
    for (const auto& [name, item] : *table) {
        const std::string_view problem = name.str().empty() ? "must not be empty" : checkName(name.str());
        if (!problem.empty()) {
            value.reading.mistake(name.source(), "a label's name " + std::string(problem));
        } else if (auto entry = text({value.reading, name.str(), item, {}}, kNameLimit)) {
            found.emplace(name.str(), std::move(*entry));
        }
    }
    target = std::move(found);
}

void readInto(const Value& value, Group& target) {
    const auto* string = value.node.as_string();
    const std::optional<Group> group = string == nullptr ? std::nullopt : Group::parse(string->get());
    if (!group) {
        const std::string within = string == nullptr ? "" : probelink::groupWithin(string->get());
        value.wrong(within.empty() ? "must be an IPv4 multicast address, \"224.0.0.0\" to \"239.255.255.255\""
                                   : "must be the group alone, without scheme and port: \"" + within + "\"");
        return;
    }
    target = *group;
}

void readInto(const Value& value, Severity& target) {
    readChoice(value, kSeverityNames, target);
}

void readInto(const Value& value, WebhookFormat& target) {
    readChoice(value, kFormatNames, target);
}

void readInto(const Value& value, MetricsPids& target) {
    readChoice(value, kPidsNames, target);
}

void readInto(const Value& value, ServiceInformation& target) {
    readChoice(value, kInformationNames, target);
}

void readInto(const Value& value, AlarmSource& target) {
    readChoice(value, kAlarmSourceNames, target);
}

std::string writtenKey(std::string_view key) {
    const bool bare = std::all_of(key.begin(), key.end(), [](char byte) {
        return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') || (byte >= '0' && byte <= '9') ||
               byte == '_' || byte == '-';
    });
    return bare && !key.empty() ? std::string(key) : tomlString(key);
}

std::string written(bool value) {
    return value ? "true" : "false";
}

std::string written(const std::optional<bool>& value) {
    return value ? written(*value) : "";
}

std::string written(uint32_t value) {
    return std::to_string(value);
}

std::string written(uint64_t value) {
    return std::to_string(value);
}

std::string written(double value) {
    return numberText(value);
}

std::string written(std::chrono::seconds value) {
    return std::to_string(value.count());
}

std::string written(std::chrono::milliseconds value) {
    return numberText(static_cast<double>(value.count()) / 1000);
}

std::string written(const std::optional<std::chrono::milliseconds>& value) {
    return value ? std::to_string(value->count()) : "";
}

std::string written(const std::string& value) {
    return tomlString(value);
}

std::string written(const std::filesystem::path& value) {
    return tomlString(toUtf8(value.string()));
}

std::string written(const std::vector<std::string>& value) {
    std::string list = "[";
    for (const std::string& entry : value) {
        list += (list.size() > 1 ? ", " : "") + tomlString(entry);
    }
    return list + "]";
}

std::string written(const Labels& value) {
    std::string table = "{";
    for (const auto& [name, text] : value) {
        table += (table.size() > 1 ? ", " : " ") + writtenKey(name) + " = " + tomlString(text);
    }
    return table + (table.size() > 1 ? " }" : "}");
}

std::string written(const Group& value) {
    return tomlString(value.text());
}

std::string written(Severity value) {
    return tomlString(severityName(value));
}

std::string written(WebhookFormat value) {
    return tomlString(kFormatNames[static_cast<std::size_t>(value)]);
}

std::string written(MetricsPids value) {
    return tomlString(kPidsNames[static_cast<std::size_t>(value)]);
}

std::string written(ServiceInformation value) {
    return tomlString(kInformationNames[static_cast<std::size_t>(value)]);
}

std::string written(AlarmSource value) {
    return tomlString(kAlarmSourceNames[static_cast<std::size_t>(value)]);
}

std::string_view checkName(std::string_view text) {
    return text.size() > kNameLimit || printable(text, kNameLimit) != text
               ? "must be at most 256 bytes long, without control characters"
               : "";
}

std::string_view checkListen(std::string_view text) {
    std::string_view host;
    return splitHostPort(text, 0, host) && isAddress(host)
               ? ""
               : "must be an address and a port, such as \"127.0.0.1:9427\" or \"[::1]:9427\", or empty";
}

std::string_view checkEndpoint(std::string_view text) {
    constexpr std::string_view kScheme = "tcp://";
    std::string_view host;
    return text.starts_with(kScheme) && splitHostPort(text.substr(kScheme.size()), 1, host) &&
                   (host == "*" || isAddress(host))
               ? ""
               : "must be a TCP endpoint by address, such as \"tcp://127.0.0.1:5999\"";
}

std::string_view checkHost(std::string_view text) {
    constexpr std::string_view kAllowed =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-_[]:";
    return text.empty() || text.find_first_not_of(kAllowed) != std::string_view::npos
               ? "must hold names of hosts, such as \"probe1.example.net\""
               : "";
}

std::string_view checkUrl(std::string_view text) {
    const std::string_view scheme = text.starts_with("http://")    ? "http://"
                                    : text.starts_with("https://") ? "https://"
                                                                   : "";
    const std::string_view rest = text.substr(scheme.size());
    const std::string_view host = rest.substr(0, rest.find_first_of("/?#"));
    if (scheme.empty() || host.empty() || text.find(' ') != std::string_view::npos) {
        return "must be a URL that begins with http:// or https://";
    }
    return host.find('@') == std::string_view::npos
               ? ""
               : "must not carry a password: put an Authorization header into a file, and name it with "
                 "authorization_file";
}

std::string_view checkSocketPath(std::string_view text) {
    return text.size() < sizeof(sockaddr_un::sun_path) ? "" : "is too long for a Unix socket (107 bytes)";
}

std::string_view checkSource(std::string_view text) {
    return text.empty() || sourceAddress(text)
               ? ""
               : "must be the IPv4 address of one sender, such as \"10.0.0.7\"";
}

}  // namespace station
