// A receiver of webhooks that does what a test says.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace station {

// Listens on a port of the loopback. One request a connection, one connection at a time.
class WebhookServer {
  public:
    static constexpr int kClose = 0;  // instead of a status: ends the connection without an answer

    WebhookServer() : socket_(socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        bind(socket_, reinterpret_cast<sockaddr*>(&address), size);
        listen(socket_, 16);
        getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &size);
        port_ = ntohs(address.sin_port);
        thread_ = std::thread([this] { serve(); });
    }
    ~WebhookServer() {
        stop_ = true;
        thread_.join();
        close(socket_);
    }
    std::string url(const std::string& user = {}) const {
        return "http://" + user + "127.0.0.1:" + std::to_string(port_);
    }
    // What the next requests are answered with; 200 once there are no more.
    void answer(std::deque<int> statuses) {
        const std::lock_guard lock(mutex_);
        statuses_ = std::move(statuses);
    }
    // Head and body of every request that came, also of those that were refused.
    struct Request {
        std::string head, body;
        int status;
    };
    std::vector<Request> requests() const {
        const std::lock_guard lock(mutex_);
        return requests_;
    }
    // Bodies of those that were answered with 200.
    std::vector<std::string> taken() const {
        std::vector<std::string> bodies;
        for (const Request& request : requests()) {
            if (request.status == 200) {
                bodies.push_back(request.body);
            }
        }
        return bodies;
    }

  private:
    void serve() {
        while (!stop_) {
            pollfd waiting{socket_, POLLIN, 0};
            if (poll(&waiting, 1, 20) == 1) {
                const int connection = accept(socket_, nullptr, nullptr);
                serveOne(connection);
                close(connection);
            }
        }
    }
    void serveOne(int connection) {
        std::string text;
        std::size_t end = std::string::npos;
        std::size_t length = 0;
        while (end == std::string::npos || text.size() < end + 4 + length) {
            char buffer[65536];
            const ssize_t size = recv(connection, buffer, sizeof buffer, 0);
            if (size <= 0) {
                return;
            }
            text.append(buffer, static_cast<std::size_t>(size));
            end = text.find("\r\n\r\n");
            const std::size_t header = text.find("Content-Length: ");
            length = header == std::string::npos ? 0 : std::stoul(text.substr(header + 16));
        }
        const std::lock_guard lock(mutex_);
        const int status = statuses_.empty() ? 200 : statuses_.front();
        if (!statuses_.empty()) {
            statuses_.pop_front();
        }
        requests_.push_back({text.substr(0, end), text.substr(end + 4), status});
        if (status != kClose) {
            const std::string answer = "HTTP/1.1 " + std::to_string(status) + " X\r\nLocation: " + url() +
                                       "/elsewhere\r\nContent-Length: 0\r\n"
                                       "Connection: close\r\n\r\n";
            send(connection, answer.data(), answer.size(), MSG_NOSIGNAL);
        }
    }

    const int socket_;
    uint16_t port_ = 0;
    std::atomic<bool> stop_{false};
    mutable std::mutex mutex_;
    std::deque<int> statuses_;
    std::vector<Request> requests_;
    std::thread thread_;
};

}  // namespace station
