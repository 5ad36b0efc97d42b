#include "store/httpPoster.h"

#include <curl/curl.h>

#include <algorithm>
#include <map>
#include <mutex>
#include <new>
#include <string_view>
#include <utility>

namespace station {

namespace {

using Easy = std::unique_ptr<CURL, decltype(&curl_easy_cleanup)>;
using Headers = std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)>;
using Url = std::unique_ptr<CURLU, decltype(&curl_url_cleanup)>;

Url parseUrl(const std::string& text) {
    Url url(curl_url(), &curl_url_cleanup);
    if (url != nullptr && curl_url_set(url.get(), CURLUPART_URL, text.c_str(), 0) != CURLUE_OK) {
        url.reset();
    }
    return url;
}

std::string part(const Url& url, CURLUPart what) {
    char* text = nullptr;
    if (url == nullptr || curl_url_get(url.get(), what, &text, 0) != CURLUE_OK) {
        return {};
    }
    std::string copy(text);
    curl_free(text);
    return copy;
}

bool isLoopback(const std::string& host) {
    const bool quad = host.find_first_not_of("0123456789.") == std::string::npos;
    return host == "localhost" || host.ends_with(".localhost") || (quad && host.starts_with("127.")) ||
           host == "[::1]";
}

}  // namespace

std::string shownUrl(const std::string& text) {
    const Url url = parseUrl(text);
    if (url == nullptr) {
        return "(no URL)";
    }
    for (const CURLUPart secret : {CURLUPART_USER, CURLUPART_PASSWORD, CURLUPART_OPTIONS, CURLUPART_PATH,
                                   CURLUPART_QUERY, CURLUPART_FRAGMENT}) {
        curl_url_set(url.get(), secret, nullptr, 0);
    }
    std::string shown = part(url, CURLUPART_URL);
    shown.resize(shown.find_last_not_of('/') + 1);  // a URL has a path, be it "/"
    return shown;
}

std::string withCall(const std::string& text, const std::string& call) {
    const Url url = parseUrl(text);
    std::string path = part(url, CURLUPART_PATH);
    if (url == nullptr || path.ends_with(call)) {
        return text;
    }
    path.resize(path.find_last_not_of('/') + 1);
    curl_url_set(url.get(), CURLUPART_PATH, (path + call).c_str(), 0);
    return part(url, CURLUPART_URL);
}

struct HttpPoster::Implementation {
    struct Exchange {
        HttpPost request;
        Done done;
        Easy easy{nullptr, &curl_easy_cleanup};
        Headers headers{nullptr, &curl_slist_free_all};
        std::size_t received = 0;
        char error[CURL_ERROR_SIZE] = "";
    };

    void prepare(Exchange& exchange);
    void finish();
    static HttpOutcome outcome(const Exchange& exchange, CURLcode code);
    static std::size_t discard(const char* bytes, std::size_t size, std::size_t count, void* exchange);

    std::unique_ptr<CURLM, decltype(&curl_multi_cleanup)> multi{nullptr, &curl_multi_cleanup};
    std::map<CURL*, std::unique_ptr<Exchange>> exchanges;
};

HttpPoster::HttpPoster() : implementation_(std::make_unique<Implementation>()) {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
    implementation_->multi.reset(curl_multi_init());
    if (implementation_->multi == nullptr) {
        throw std::bad_alloc();
    }
}

HttpPoster::~HttpPoster() {
    for (const auto& [easy, exchange] : implementation_->exchanges) {
        curl_multi_remove_handle(implementation_->multi.get(), easy);
    }
}

// Takes headers and body alike; what goes beyond the limit ends the exchange.
std::size_t HttpPoster::Implementation::discard(const char*, std::size_t size, std::size_t count,
                                                void* exchange) {
    std::size_t& received = static_cast<Exchange*>(exchange)->received;
    received += size * count;
    return received > kAnswerLimit ? 0 : size * count;
}

void HttpPoster::Implementation::prepare(Exchange& exchange) {
    const HttpPost& request = exchange.request;
    CURL* const easy = exchange.easy.get();
    const auto addHeader = [&exchange](const std::string& line) {
        if (curl_slist* all = curl_slist_append(exchange.headers.get(), line.c_str())) {
            static_cast<void>(exchange.headers.release());
            exchange.headers.reset(all);
        }
    };
    addHeader("Content-Type: " + request.contentType);
    addHeader("Expect:");  // no waiting for a "100 Continue"
    if (!request.authorization.empty()) {
        addHeader("Authorization: " + request.authorization);
    }
    const auto timeout = static_cast<long>(request.timeout.count());
    curl_easy_setopt(easy, CURLOPT_URL, request.url.c_str());
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 0L);
    curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, CURL_HTTP_VERSION_1_1);
    curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
    curl_easy_setopt(easy, CURLOPT_POSTFIELDS, request.body.c_str());
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, exchange.headers.get());
    curl_easy_setopt(easy, CURLOPT_USERAGENT, "kestor-station");
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &Implementation::discard);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, &exchange);
    curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &Implementation::discard);
    curl_easy_setopt(easy, CURLOPT_HEADERDATA, &exchange);
    curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, exchange.error);
    curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS, timeout);
    curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS,
                     std::min(timeout, static_cast<long>(kConnectTimeout.count())));
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    // A name that does not resolve in time must not hold up the other exchanges.
    curl_easy_setopt(easy, CURLOPT_QUICK_EXIT, 1L);
    if (!request.caFile.empty()) {
        curl_easy_setopt(easy, CURLOPT_CAINFO, request.caFile.c_str());
    }
    if (isLoopback(part(parseUrl(request.url), CURLUPART_HOST))) {
        curl_easy_setopt(easy, CURLOPT_PROXY, "");
    }
}

void HttpPoster::post(HttpPost&& request, Done done) {
    auto exchange = std::make_unique<Implementation::Exchange>();
    exchange->request = std::move(request);
    exchange->done = std::move(done);
    exchange->easy.reset(curl_easy_init());
    if (exchange->easy == nullptr) {
        throw std::bad_alloc();
    }
    implementation_->prepare(*exchange);
    CURL* const easy = exchange->easy.get();
    implementation_->exchanges.emplace(easy, std::move(exchange));
    curl_multi_add_handle(implementation_->multi.get(), easy);
}

HttpOutcome HttpPoster::Implementation::outcome(const Exchange& exchange, CURLcode code) {
    CURL* const easy = exchange.easy.get();
    HttpOutcome outcome;
    curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &outcome.status);
    if (outcome.status >= 200 && outcome.status < 300) {
        return outcome;  // whatever became of the answer's body
    }
    if (outcome.status >= 300 && outcome.status < 400) {
        outcome.problem = "it redirects (status " + std::to_string(outcome.status) +
                          "), which is not followed; configure the address where it points";
    } else if (outcome.status != 0) {
        // A gateway that got no answer in time does not know what became of it either.
        outcome.doubt = outcome.status == 502 || outcome.status == 504;
        outcome.problem = "it answered with status " + std::to_string(outcome.status);
    } else {
        curl_off_t sent = 0;
        curl_easy_getinfo(easy, CURLINFO_SIZE_UPLOAD_T, &sent);
        outcome.doubt = sent >= static_cast<curl_off_t>(exchange.request.body.size());
        const bool noHttp = outcome.doubt && code == CURLE_UNSUPPORTED_PROTOCOL;  // as libcurl calls it
        outcome.problem = noHttp ? "its answer is no HTTP" : curl_easy_strerror(code);
        if (code == CURLE_PEER_FAILED_VERIFICATION || code == CURLE_SSL_CACERT_BADFILE) {
            outcome.problem += std::string(": ") + exchange.error;
        }
    }
    return outcome;
}

void HttpPoster::Implementation::finish() {
    int left = 0;
    while (const CURLMsg* message = curl_multi_info_read(multi.get(), &left)) {
        CURL* const easy = message->easy_handle;
        const CURLcode code = message->data.result;
        const auto found = exchanges.find(easy);
        const std::unique_ptr<Exchange> exchange = std::move(found->second);
        exchanges.erase(found);
        const HttpOutcome result = outcome(*exchange, code);
        curl_multi_remove_handle(multi.get(), easy);
        exchange->done(result);
    }
}

void HttpPoster::run(SteadyTime until) {
    CURLM* const multi = implementation_->multi.get();
    const std::size_t before = implementation_->exchanges.size();
    int running = 0;
    curl_multi_perform(multi, &running);
    implementation_->finish();
    if (implementation_->exchanges.size() < before) {
        return;
    }
    const auto wait = std::chrono::ceil<std::chrono::milliseconds>(until - std::chrono::steady_clock::now());
    curl_multi_poll(multi, nullptr, 0, static_cast<int>(std::clamp<int64_t>(wait.count(), 0, 60'000)),
                    nullptr);
    curl_multi_perform(multi, &running);
    implementation_->finish();
}

void HttpPoster::wake() {
    curl_multi_wakeup(implementation_->multi.get());
}

}  // namespace station
