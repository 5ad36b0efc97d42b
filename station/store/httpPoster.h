// Sends bodies to URLs by HTTP (libcurl), many at a time on one thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "common/clock.h"

namespace station {

struct HttpPost {
    std::string url;  // http or https
    std::string body;
    std::string contentType;
    std::string authorization;  // Authorization header; empty for none, or for user and password of the URL
    std::string caFile;         // PEM; empty for the system's
    std::chrono::milliseconds timeout{5000};  // for the whole exchange
};

struct HttpOutcome {
    long status = 0;      // of the answer; 0 without one
    bool doubt = false;   // the whole request was sent and no answer of the receiver came: it may have it
    std::string problem;  // a sentence without the URL; empty when the status is 2xx
    bool taken() const {
        return problem.empty();
    }
};

// Redirects are not followed, certificates are verified, the environment's proxies serve all but loopback
// addresses, and of an answer no more than kAnswerLimit bytes are read, which are thrown away.
class HttpPoster {
  public:
    static constexpr std::size_t kAnswerLimit = 64 * 1024;
    static constexpr std::chrono::milliseconds kConnectTimeout{3000};

    HttpPoster();
    ~HttpPoster();  // gives up what is under way; `done` is not called for it
    HttpPoster(const HttpPoster&) = delete;

    // `done` is called by run(), once.
    using Done = std::function<void(const HttpOutcome&)>;
    void post(HttpPost&& request, Done done);
    // Works on what was posted until the deadline, until something is done, or until wake(). Always by the
    // same thread, which also posts.
    void run(SteadyTime until);
    void wake();  // any thread

  private:
    struct Implementation;
    std::unique_ptr<Implementation> implementation_;
};

// The URL as it may be shown: scheme, host and port. Receivers have secrets in all other parts, the path as
// well.
std::string shownUrl(const std::string& url);
// The URL with the call ("/api/v2/alerts") behind its path, unless it is there already.
std::string withCall(const std::string& url, const std::string& call);

}  // namespace station
