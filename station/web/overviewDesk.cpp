#include "web/overviewDesk.h"

#include <algorithm>

#include "web/apiJson.h"
#include "web/routes.h"

namespace station {

namespace {

// A larger last answer is not kept.
constexpr std::size_t kKeptBytes = std::size_t{4} << 20;

Response overviewResponse(const PayloadPointer& payload) {
    if (payload == nullptr) {
        return problem(503, "Too much waits to be done");
    }
    Response response;
    response.contentType = "application/json";
    response.body = payload;
    return response;
}

}  // namespace

void OverviewDesk::ask(Services& services, const QueryOverview& query, bool gzip, Reply&& reply) {
    if (last_ != nullptr && lastState_ == services.station.state()->number && lastQuery_ == query &&
        lastGzip_ == gzip) {
        return reply(overviewResponse(last_));
    }
    const auto same = std::ranges::find_if(
        waiting_, [&](const Waiting& waiting) { return waiting.query == query && waiting.gzip == gzip; });
    if (same != waiting_.end()) {
        same->replies.push_back(std::move(reply));
        return;
    }
    if (waiting_.size() >= kWaiting) {
        return reply(overviewResponse(nullptr));
    }
    waiting_.push_back({query, gzip, {}});
    waiting_.back().replies.push_back(std::move(reply));
    next(services);
}

void OverviewDesk::next(Services& services) {
    const auto now = std::chrono::steady_clock::now();
    if (waiting_.empty() || (busy_ && now - since_ < kLost)) {
        return;
    }
    if (busy_) {
        return answered(services, turn_, nullptr);
    }
    busy_ = true;
    since_ = now;
    const uint64_t turn = ++turn_;
    const Waiting& first = waiting_.front();
    // Of the owner's answer, on this thread.
    const auto build = [this, &services, turn, query = first.query,
                        gzip = first.gzip](const std::shared_ptr<Answer>& answer) {
        const StatePointer state = services.station.state();
        const bool built = services.answers->ask(
            {}, gzip,
            [state, query, answer] {
                return AnswerText{overviewJson(state->now.wall, query, answer->overview)};
            },
            [this, &services, turn, post = services.post](const PayloadPointer& payload) {
                post([this, &services, turn, payload] { answered(services, turn, payload); });
            });
        if (!built) {
            answered(services, turn, nullptr);
        }
    };
    Command command{first.query, [post = services.post, build](Answer&& result) {
                        const auto answer = std::make_shared<Answer>(std::move(result));
                        post([build, answer] { build(answer); });
                    }};
    if (!services.station.command(std::move(command))) {
        answered(services, turn, nullptr);
    }
}

void OverviewDesk::answered(Services& services, uint64_t turn, const PayloadPointer& payload) {
    if (!busy_ || turn != turn_) {
        return;  // it was given up
    }
    busy_ = false;
    const Waiting first = std::move(waiting_.front());
    waiting_.pop_front();
    const bool kept = payload != nullptr && payload->text().size() + payload->gzip().size() <= kKeptBytes;
    last_ = kept ? payload : nullptr;
    lastQuery_ = first.query;
    lastGzip_ = first.gzip;
    lastState_ = services.station.state()->number;
    for (const auto& reply : first.replies) {
        reply(overviewResponse(payload));
    }
    next(services);
}

}  // namespace station
