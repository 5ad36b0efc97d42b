#include "web/server.h"

#include <unistd.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <list>
#include <map>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "basics/unixListener.h"
#include "common/log.h"
#include "common/text.h"
#include "web/connection.h"

namespace station {

namespace {

namespace asio = boost::asio;
using asio::ip::tcp;
using asio::local::stream_protocol;
using ErrorCode = boost::system::error_code;

constexpr std::chrono::milliseconds kTick{250};
// Events are built at most so often, however many states are published.
constexpr std::chrono::milliseconds kEventsApart{200};
// Connections beyond the limits that are told so at a time; others are closed without a word.
constexpr std::size_t kRefusing = 32;

// Where other threads leave what is to run on the I/O thread; outlives the server in their hands.
struct Inbox {
    std::mutex mutex;  // guards `context`; no lock is taken while it is held
    asio::io_context* context = nullptr;

    void post(std::function<void()> work) {
        const std::lock_guard lock(mutex);
        if (context != nullptr) {
            asio::post(*context, std::move(work));
        }
    }
};

[[noreturn]] void cannotListen(const std::string& where, const std::string& why) {
    throw std::runtime_error("cannot listen on " + where + ": " + why);
}

// An IPv4 client of a socket for both is known by its IPv4 address, as its Host header has it.
std::string addressText(const asio::ip::address& address) {
    const bool mapped = address.is_v6() && address.to_v6().is_v4_mapped();
    return mapped ? asio::ip::make_address_v4(asio::ip::v4_mapped, address.to_v6()).to_string()
                  : address.to_string();
}

// What limits count as one address: of IPv6 the network, since a host has as many addresses in it as it
// likes.
std::string networkText(const asio::ip::address& address) {
    if (!address.is_v6() || address.to_v6().is_v4_mapped()) {
        return addressText(address);
    }
    auto bytes = address.to_v6().to_bytes();
    std::fill(bytes.begin() + bytes.size() / 2, bytes.end(), 0);
    return asio::ip::make_address_v6(bytes).to_string() + "/64";
}

// ADDRESS:PORT or [IPv6]:PORT.
tcp::endpoint parseEndpoint(const std::string& listen) {
    const std::size_t colon = listen.rfind(':');
    std::string host = listen.substr(0, colon);
    if (host.starts_with('[') && host.ends_with(']')) {
        host = host.substr(1, host.size() - 2);
    }
    ErrorCode error;
    const auto address = asio::ip::make_address(host, error);
    const std::optional<int64_t> port =
        parseInteger(colon == std::string::npos ? "" : listen.substr(colon + 1));
    if (error || !port || *port < 0 || *port > 65'535) {
        cannotListen(listen, "it has to be ADDRESS:PORT, such as 127.0.0.1:9427 or [::1]:9427");
    }
    return {address, static_cast<uint16_t>(*port)};
}

}  // namespace

struct Server::Implementation {
    Implementation(const ServerOptions& serverOptions, StationInterface& stationInterface)
        : station(stationInterface),
          files(serverOptions.page, serverOptions.dygraphs),
          socketPath(serverOptions.socket),
          access(serverOptions.access),
          router(services(), Access(access)) {
        inbox->context = &context;
        if (!serverOptions.listen.empty()) {
            listenTcp(serverOptions.listen);
        }
        if (!socketPath.empty()) {
            listenOnSocket();
        }
        startTimer();
        thread = std::thread([this] { run(); });
    }

    ~Implementation() {
        {
            const std::lock_guard lock(inbox->mutex);
            inbox->context = nullptr;
        }
        context.stop();
        thread.join();
        for (const auto& connection : connections) {
            connection->close();
        }
        if (unixAcceptor.is_open()) {
            unlink(socketPath.c_str());
        }
    }

    Services services() {
        return {.station = station,
                .files = files,
                .statistics = [this] { return statistics(); },
                .post = [box = inbox](std::function<void()> work) { box->post(std::move(work)); },
                .metrics = &metrics,
                .answers = &answers,
                .wrongTokens = counters.wrongTokens};
    }

    // Whatever goes wrong with one client must not end the others.
    void run() {
        pthread_setname_np(pthread_self(), "http");
        while (!context.stopped()) {
            try {
                context.run();
            } catch (const std::exception& error) {
                log(LogLevel::kError, std::string("the HTTP server went on after an error: ") + error.what());
            }
        }
    }

    void listenTcp(const std::string& listen) {
        const tcp::endpoint endpoint = parseEndpoint(listen);
        ErrorCode error;
        tcpAcceptor.open(endpoint.protocol(), error);
        if (!error) {
            tcpAcceptor.set_option(tcp::acceptor::reuse_address(true), error);
        }
        if (!error) {
            tcpAcceptor.bind(endpoint, error);
        }
        if (!error) {
            tcpAcceptor.listen(asio::socket_base::max_listen_connections, error);
        }
        if (error) {
            cannotListen(listen, error.message());
        }
        tcpPort = tcpAcceptor.local_endpoint(error).port();
        acceptTcp();
    }

    void listenOnSocket() {
        unixAcceptor.assign(stream_protocol(), basics::listenUnix(socketPath));
        acceptUnix();
    }

    void acceptTcp() {
        tcpAcceptor.async_accept([this](const ErrorCode& error, tcp::socket socket) {
            if (error) {
                tcpWaits = error != asio::error::operation_aborted;
                return;  // out of descriptors, most likely: again at the next tick
            }
            ErrorCode gone;
            const auto remote = networkText(socket.remote_endpoint(gone).address());
            const auto local = addressText(socket.local_endpoint(gone).address());
            socket.set_option(tcp::no_delay(true), gone);
            if (!gone) {
                add(Socket(std::move(socket)), remote, local);
            }
            acceptTcp();
        });
    }

    void acceptUnix() {
        unixAcceptor.async_accept([this](const ErrorCode& error, stream_protocol::socket socket) {
            if (error) {
                unixWaits = error != asio::error::operation_aborted;
                return;
            }
            add(Socket(std::move(socket)), {}, {});
            acceptUnix();
        });
    }

    void add(Socket&& socket, const std::string& address, const std::string& localAddress) {
        ErrorCode ignored;
        socket.non_blocking(true, ignored);
        socket.set_option(asio::socket_base::send_buffer_size(Connection::kSendBuffer), ignored);
        auto connection = std::make_shared<Connection>(std::move(socket), shared, address, localAddress);
        dropClosed();
        const bool local = address.empty();
        const bool place = hasPlace(address);
        const bool kept = !place && local && connections.size() < access.connections + kSocketPlaces;
        if (kept) {
            connection->takeOneRequest();
        } else if (!place) {
            ++counters.refused;
            if (refusing.size() < kRefusing) {
                connection->refuse();
                refusing.push_back(std::move(connection));
            }
            return;
        }
        connection->start();
        connections.push_back(std::move(connection));
        counters.connections = connections.size();
    }

    // Whether there is a place for one more, once the connection that has been idle for longest has made
    // room.
    bool hasPlace(const std::string& address) {
        const auto isOfAddress = [&](const auto& other) { return other->address() == address; };
        const auto ofAddress = static_cast<std::size_t>(std::ranges::count_if(connections, isOfAddress));
        if (!address.empty() && ofAddress >= access.connectionsPerAddress && !makeRoom(isOfAddress)) {
            return false;
        }
        return connections.size() < access.connections || makeRoom([](const auto&) { return true; });
    }

    // Of the connections that wait for another request, closes the one that has waited longest. Browsers keep
    // some, and open new ones without a word when they need them.
    template <typename Which>
    bool makeRoom(Which which) {
        std::shared_ptr<Connection> longest;
        for (const auto& connection : connections) {
            if (which(connection) && connection->isKept() &&
                (longest == nullptr || connection->idleSince() < longest->idleSince())) {
                longest = connection;
            }
        }
        if (longest == nullptr) {
            return false;
        }
        longest->close();
        ++counters.madeRoom;
        dropClosed();
        return true;
    }

    void dropClosed() {
        const auto closed = [](const auto& connection) { return connection->closed(); };
        connections.remove_if(closed);
        refusing.remove_if(closed);
        counters.connections = connections.size();
    }

    void startTimer() {
        timer.expires_after(kTick);
        timer.async_wait([this](const ErrorCode& error) {
            if (!error) {
                tick();
                startTimer();
            }
        });
    }

    void tick() {
        const auto now = std::chrono::steady_clock::now();
        if (std::exchange(tcpWaits, false)) {
            acceptTcp();
        }
        if (std::exchange(unixWaits, false)) {
            acceptUnix();
        }
        const std::size_t before = std::exchange(refusals, budget->refusals());
        if (before != refusals) {
            for (const auto& connection : connections) {
                connection->makeRoom(now);
            }
        }
        dropClosed();
        answers.expire(now);
        publishEvents(now);
        for (const auto* list : {&connections, &refusing}) {
            for (const auto& connection : *list) {
                connection->tick(now);
            }
        }
    }

    void stateChanged() {
        published = true;
        publishEvents(std::chrono::steady_clock::now());
    }

    void publishEvents(SteadyTime now) {
        if (counters.streams == 0) {
            if (!buildingEvents) {
                events.forget();
            }
        } else if (published && now - lastEvents >= kEventsApart) {
            refreshEvents();
        }
    }

    // Has the events made of the newest state, and streams told.
    void refreshEvents() {
        const StatePointer state = station.state();
        if (buildingEvents || state == nullptr) {
            return;
        }
        published = false;
        buildingEvents = true;
        lastEvents = std::chrono::steady_clock::now();
        answers.run([this, state, known = events.known(), budget = budget, box = inbox] {
            auto update = std::make_shared<std::optional<EventStream::Update>>();
            try {
                update->emplace(EventStream::make(*state, known, budget));
            } catch (const std::bad_alloc&) {
                log(LogLevel::kError, "there is no memory for the event stream's events");
            }
            box->post([this, update] { adoptEvents(*update); });
        });
    }

    void adoptEvents(std::optional<EventStream::Update>& update) {
        buildingEvents = false;
        if (!update) {
            published = true;  // again at the next tick
            return;
        }
        events.adopt(std::move(*update));
        for (const auto& connection : connections) {
            connection->wake();
        }
    }

    ServerStatistics statistics() const {
        return {.connections = counters.connections,
                .streams = counters.streams,
                .requests = counters.requests,
                .refused = counters.refused,
                .madeRoom = counters.madeRoom,
                .wrongTokens = counters.wrongTokens,
                .malformed = counters.malformed,
                .slowClosed = counters.slowClosed,
                .answerBytes = budget->held(),
                .answersRefused = budget->refusals()};
    }

    StationInterface& station;
    const StaticFiles files;
    const std::filesystem::path socketPath;
    const std::shared_ptr<Inbox> inbox = std::make_shared<Inbox>();
    ServerAccess access;
    ServerCounters counters;
    const BudgetPointer budget = std::make_shared<AnswerBudget>();
    std::size_t refusals = 0;  // of the budget, at the last tick
    MetricsBuilder metrics{budget};
    AnswerBuilder answers{budget};
    Router router;
    EventStream events;
    ConnectionShared shared{router, events, counters, [this] { refreshEvents(); }};
    bool published = false;  // a state that the events are not made of
    bool buildingEvents = false;
    SteadyTime lastEvents{};
    std::atomic<bool> publishedPosted{false};

    asio::io_context context{1};
    tcp::acceptor tcpAcceptor{context};
    stream_protocol::acceptor unixAcceptor{context};
    asio::steady_timer timer{context};
    bool tcpWaits = false;  // accepting failed and is tried again
    bool unixWaits = false;
    uint16_t tcpPort = 0;
    std::list<std::shared_ptr<Connection>> connections;  // at most access.connections and kSocketPlaces
    std::list<std::shared_ptr<Connection>> refusing;     // at most kRefusing
    std::thread thread;
};

Server::Server(const ServerOptions& options, StationInterface& station)
    : implementation_(std::make_unique<Implementation>(options, station)) {}

Server::~Server() = default;

void Server::statePublished() {
    if (!implementation_->publishedPosted.exchange(true)) {
        implementation_->inbox->post([server = implementation_.get()] {
            server->publishedPosted = false;
            server->stateChanged();
        });
    }
}

void Server::setAccess(const ServerAccess& access) {
    implementation_->inbox->post([server = implementation_.get(), access] {
        server->access = access;
        server->router.setAccess(Access(access));
    });
}

uint16_t Server::port() const {
    return implementation_->tcpPort;
}

ServerStatistics Server::statistics() const {
    return implementation_->statistics();
}

}  // namespace station
