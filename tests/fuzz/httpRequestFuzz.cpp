// Bytes as a client sends them through the parser and the routes, to a whole answer. Those that begin with
// 'u' come over the Unix socket, where everything may be changed.
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <variant>

#include "fuzz/fuzzing.h"
#include "support/fakeStation.h"
#include "web/httpParser.h"
#include "web/routes.h"

namespace {

using namespace station;

void require(bool kept) {
    if (!kept) {
        std::abort();
    }
}

struct Room {
    FakeStation station{2};
    std::atomic<uint64_t> wrongTokens{0};
    AnswerBuilder answers{std::make_shared<AnswerBudget>(), 0};
    StaticFiles files{"/nonexistent", "/nonexistent"};
    Router router{{.station = station,
                   .files = files,
                   .statistics = [] { return ServerStatistics{}; },
                   .post = [](const std::function<void()>& work) { work(); },
                   .answers = &answers,
                   .wrongTokens = wrongTokens},
                  Access({.token = "token", .allowedHosts = {"allowed.example"}})};
    Room() {
        station.inlineAnswers = true;
    }
};

namespace http = boost::beast::http;

// One whole request in memory, as a connection would read it: the request, or the answer that refuses it.
std::variant<Request, Response> parseRequest(std::string_view bytes) {
    Head head = inspectHead(bytes);
    if (head.refusal) {
        return std::move(*head.refusal);
    }
    HttpParser parser;
    setLimits(parser);
    parser.eager(true);
    boost::system::error_code error;
    while (!parser.is_done() && !bytes.empty()) {
        const std::size_t used = parser.put(boost::asio::buffer(bytes.data(), bytes.size()), error);
        bytes.remove_prefix(std::min(used, bytes.size()));
        auto refused = parser.is_header_done() ? refuseFraming(parser.get()) : std::nullopt;
        if (refused) {
            return std::move(*refused);
        }
        if (error || used == 0) {
            break;
        }
    }
    if (!parser.is_done()) {
        auto refused = refuseMessage(error);
        return refused && error != http::error::need_more ? std::move(*refused)
                                                          : station::problem(400, "The request is not whole");
    }
    HttpRequest message = parser.release();
    Request request = toRequest(message);
    request.body = std::move(message.body());
    return request;
}

void check(const Request& request, Response&& response) {
    adapt(request, response);
    const std::string head = responseHead(response, "", true);
    const std::size_t lineEnd = head.find("\r\n\r\n");
    require(lineEnd + 4 == head.size());  // nothing of the request splits the answer
    require(statusText(response.status) != "Unknown");
    if (response.body != nullptr && !response.body->text().empty() &&
        response.contentType.ends_with("json")) {
        require(nlohmann::json::accept(response.body->text()));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    static auto room = std::make_unique<Room>();
    std::string_view bytes(reinterpret_cast<const char*>(data), size);
    const bool unixSocket = bytes.starts_with('u');
    bytes.remove_prefix(unixSocket ? 1 : 0);
    auto parsed = parseRequest(bytes);
    if (auto* refused = std::get_if<Response>(&parsed)) {
        check({}, std::move(*refused));
        return 0;
    }
    Request& request = std::get<Request>(parsed);
    if (request.target.find("/metrics") != std::string::npos) {
        return 0;  // another thread answers it, from nothing that comes with the request
    }
    request.unixSocket = unixSocket;
    request.localAddress = unixSocket ? "" : "192.0.2.1";
    int answers = 0;
    room->router.handle(request, room->router.admit(request), [&](Response&& response) {
        ++answers;
        check(request, std::move(response));
    });
    require(answers == 1);
    if (room->station.state()->channels.size() > 20) {
        room = std::make_unique<Room>();
    }
    return 0;
}
