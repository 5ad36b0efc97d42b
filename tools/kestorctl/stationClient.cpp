#include "stationClient.h"

#include <curl/curl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string_view>

namespace {

// An answer of a station with 10,000 channels stays far below.
constexpr std::size_t kAnswerLimit = std::size_t{256} << 20;
constexpr long kOk = 200;
constexpr long kNotModified = 304;
constexpr long kUnavailable = 503;

struct Body {
    std::string text;
    std::string tag;
};

std::size_t takeBody(const char* data, std::size_t size, std::size_t count, void* body) {
    auto& text = static_cast<Body*>(body)->text;
    if (text.size() + size * count > kAnswerLimit) {
        return 0;
    }
    text.append(data, size * count);
    return size * count;
}

std::size_t takeHeader(const char* data, std::size_t size, std::size_t count, void* body) {
    std::string_view line(data, size * count);
    constexpr std::string_view kName = "etag:";
    if (line.size() > kName.size() && strncasecmp(line.data(), kName.data(), kName.size()) == 0) {
        line.remove_prefix(kName.size());
        line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
        line = line.substr(0, line.find_last_not_of("\r\n ") + 1);
        static_cast<Body*>(body)->tag = line;
    }
    return size * count;
}

}  // namespace

struct StationClient::Handle {
    CURL* curl = curl_easy_init();
    std::string socket;
    std::chrono::milliseconds timeout{};

    Handle() = default;
    Handle(const Handle&) = delete;
    ~Handle() {
        curl_easy_cleanup(curl);
    }
};

std::optional<StationClient> StationClient::find(const std::string& socket,
                                                 std::chrono::milliseconds timeout) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (socket.empty() || socket.size() >= sizeof address.sun_path) {
        return std::nullopt;
    }
    memcpy(address.sun_path, socket.data(), socket.size());
    const int tried = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool listens = connect(tried, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    const int error = errno;
    close(tried);
    if (!listens && (error == EACCES || error == EPERM)) {
        throw probelink::LinkError("no right to talk to the station at " + socket +
                                   ": be root or in the group kestor");
    }
    if (!listens && error != EAGAIN) {
        return std::nullopt;
    }
    auto handle = std::make_shared<Handle>();
    handle->socket = socket;
    handle->timeout = timeout;
    return StationClient(std::move(handle));
}

StationClient::Response StationClient::call(const char* method, const std::string& path,
                                            const std::string& type, const std::string& body,
                                            const std::string& knownTag) {
    CURL* curl = handle_->curl;
    if (curl == nullptr) {
        throw probelink::LinkError("out of memory");
    }
    Body answer;
    curl_slist* headers = nullptr;
    if (!type.empty()) {
        headers = curl_slist_append(headers, ("Content-Type: " + type).c_str());
    }
    if (!knownTag.empty()) {
        headers = curl_slist_append(headers, ("If-None-Match: " + knownTag).c_str());
    }
    curl_easy_reset(curl);
    curl_easy_setopt(curl, CURLOPT_UNIX_SOCKET_PATH, handle_->socket.c_str());
    curl_easy_setopt(curl, CURLOPT_URL, ("http://localhost" + path).c_str());
    curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, method);
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, static_cast<long>(handle_->timeout.count()));
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, takeBody);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &answer);
    curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, takeHeader);
    curl_easy_setopt(curl, CURLOPT_HEADERDATA, &answer);
    if (!type.empty()) {
        curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
        curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.c_str());
    }
    const CURLcode result = curl_easy_perform(curl);
    curl_slist_free_all(headers);
    if (result != CURLE_OK) {
        // What was sent whole is acted on all the same.
        const bool late = result == CURLE_OPERATION_TIMEDOUT && std::string_view(method) != "GET";
        throw probelink::LinkError(
            "the station at " + handle_->socket + " does not answer: " + curl_easy_strerror(result) +
            (late ? "; the change may still happen, so look before you repeat it" : ""));
    }
    Response response{0, std::move(answer.text), std::move(answer.tag)};
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &response.status);
    return response;
}

nlohmann::ordered_json StationClient::parse(const std::string& body) {
    return body.empty() ? nlohmann::ordered_json() : nlohmann::ordered_json::parse(body, nullptr, false);
}

namespace {

// What a problem document (RFC 9457) says.
std::string problemText(const std::string& body, long status) {
    const auto problem = nlohmann::ordered_json::parse(body, nullptr, false);
    for (const char* member : {"detail", "title"}) {
        if (problem.is_object() && problem.contains(member) && problem[member].is_string()) {
            return problem[member].get<std::string>();
        }
    }
    return "the station answers with status " + std::to_string(status);
}

}  // namespace

std::string StationClient::get(const std::string& path) {
    Response response = call("GET", path, {}, {});
    if (response.status / 100 != 2) {
        throw RefusedError(problemText(response.body, response.status), response.status);
    }
    return std::move(response.body);
}

nlohmann::ordered_json StationClient::getJson(const std::string& path) {
    return parse(get(path));
}

nlohmann::ordered_json StationClient::send(const char* method, const std::string& path,
                                           const nlohmann::ordered_json& body) {
    // The station takes no POST without a type, since any web page can have a browser send one.
    const bool hasType = !body.is_null() || std::string_view(method) == "POST";
    const Response response = call(
        method, path, hasType ? "application/json" : "",
        body.is_null() ? std::string() : body.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
    if (response.status / 100 != 2) {
        throw RefusedError(problemText(response.body, response.status), response.status);
    }
    return parse(response.body);
}

nlohmann::ordered_json StationClient::sendText(const std::string& path, const std::string& type,
                                               const std::string& body) {
    const Response response = call("POST", path, type, body);
    if (response.status / 100 != 2) {
        throw RefusedError(problemText(response.body, response.status), response.status);
    }
    return parse(response.body);
}

std::optional<std::string> StationClient::newSnapshot() {
    Response response = call("GET", "/api/v1/records", {}, {}, snapshotTag_);
    if (response.status == kNotModified || response.status == kUnavailable) {
        return std::nullopt;
    }
    if (response.status != kOk) {
        throw RefusedError(problemText(response.body, response.status), response.status);
    }
    snapshotTag_ = response.tag;
    return std::move(response.body);
}
