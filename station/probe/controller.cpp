#include "probe/controller.h"

#include <mutex>
#include <thread>

#include "common/log.h"
#include "controllerLink.h"

namespace station {

namespace {

using namespace std::chrono_literals;

constexpr std::chrono::milliseconds kLooksForStop = 200ms;
// Of a probe that monitors, and of one that reports what it scanned since the last request.
constexpr int kLargestRequest = 64 << 10;
constexpr std::chrono::milliseconds kBindsAgain = 1000ms;
constexpr std::chrono::milliseconds kStandstill = 200ms;  // beyond, an asker that was waiting may be gone
constexpr int kDropped = 1000;  // requests after a standstill; whoever sends more is no probe

configuration::ConfigurationMessage toMessage(const ProbeLink::Answer& answer) {
    configuration::ConfigurationMessage message;
    if (answer.clearAll) {
        message.mutable_clear()->set_clearall(true);
        return message;
    }
    // An answer without response and clear would end the probe, so the response is there also when it is
    // empty.
    auto& response = *message.mutable_response();
    if (answer.passive) {
        response.set_passive_monitoring(*answer.passive);
    }
    if (answer.igmpLatency) {
        response.set_igmp_latency(static_cast<int32_t>(answer.igmpLatency->count()));
    }
    for (const Group& group : answer.remove) {
        response.add_remove()->set_multicastgroup(group.text());
    }
    for (const Group& group : answer.append) {
        response.add_append()->set_multicastgroup(group.text());
    }
    return message;
}

}  // namespace

struct Controller::Implementation {
    const std::string endpoint;
    const std::function<void(const Report&)> report;
    mutable std::mutex mutex;  // guards `link` and `problem`; nothing waits while it is held
    ProbeLink link;
    std::string problem;
    std::jthread thread;

    Implementation(std::string endpoint_, std::function<void(const Report&)> report_)
        : endpoint(std::move(endpoint_)), report(std::move(report_)) {}

    void run(const std::stop_token& stop) {
        LogOnChange trouble;
        while (!stop.stop_requested()) {
            try {
                probelink::ControllerLink port(endpoint, kLargestRequest);
                trouble.resolved("listening for the probe at " + endpoint);
                setProblem({});
                serve(stop, port);
            } catch (const probelink::LinkError& error) {
                setProblem(error.what());
                trouble.say(LogLevel::kError,
                            std::string(error.what()) +
                                "; tried again every second, and the probe gets no channels until then");
            } catch (const zmq::error_t& error) {
                setProblem(error.what());
                trouble.say(LogLevel::kError, "the link to the probe failed: " + std::string(error.what()));
            }
            for (auto waited = 0ms; waited < kBindsAgain && !stop.stop_requested(); waited += kLooksForStop) {
                std::this_thread::sleep_for(kLooksForStop);
            }
        }
    }

    void serve(const std::stop_token& stop, probelink::ControllerLink& port) {
        auto lastTurn = std::chrono::steady_clock::now();
        while (!stop.stop_requested()) {
            auto request = port.waitForRequest(kLooksForStop);
            const auto now = std::chrono::steady_clock::now();
            // After a standstill of this process several wait, and only the last asker may still be there.
            const bool stoodStill = now - lastTurn > kLooksForStop + kStandstill;
            for (int left = kDropped; stoodStill && request && left > 0 && port.asksAgainWithin(0ms);
                 --left) {
                auto next = port.waitForRequest(0ms);
                if (!next) {
                    break;
                }
                request = std::move(next);
            }
            if (request) {
                answer(*request, port);
            }
            lastTurn = now;
        }
    }

    void answer(const configuration::TasksRequest& request, probelink::ControllerLink& port) {
        Report exchange;
        exchange.time = systemNow();
        exchange.sequence = request.sequence_number();
        ProbeLink::Answer answer;
        {
            const std::lock_guard lock(mutex);
            exchange.event = link.request(request.sequence_number(), exchange.time.steady);
            answer = link.answer(exchange.time.steady);
            exchange.secondAsker = link.secondAsker(exchange.time.steady);
            exchange.scanning = link.scanning() || request.has_scan_status();
        }
        port.answer(toMessage(answer));
        exchange.cleared = answer.clearAll;
        // The owner hears of others with the next request of the one that is told, however many they send.
        if (exchange.event != ProbeLink::Event::kAside) {
            report(exchange);
        }
    }

    void setProblem(const std::string& text) {
        const std::lock_guard lock(mutex);
        problem = text;
    }
};

Controller::Controller(std::string endpoint, std::function<void(const Report&)> report)
    : implementation_(std::make_unique<Implementation>(std::move(endpoint), std::move(report))) {
    implementation_->thread =
        std::jthread([this](const std::stop_token& stop) { implementation_->run(stop); });
}

Controller::~Controller() = default;

void Controller::want(Groups groups, Groups passively) {
    const std::lock_guard lock(implementation_->mutex);
    implementation_->link.want(std::move(groups), std::move(passively));
}

void Controller::setPassive(std::optional<bool> passive) {
    const std::lock_guard lock(implementation_->mutex);
    implementation_->link.setPassive(passive);
}

void Controller::setIgmpLatency(std::optional<std::chrono::milliseconds> latency) {
    const std::lock_guard lock(implementation_->mutex);
    implementation_->link.setIgmpLatency(latency);
}

void Controller::clearCounters() {
    const std::lock_guard lock(implementation_->mutex);
    implementation_->link.clearCounters();
}

void Controller::rejoin(const Groups& groups) {
    const std::lock_guard lock(implementation_->mutex);
    implementation_->link.rejoin(groups);
}

void Controller::shown(const Groups& groups, SteadyTime began) {
    const std::lock_guard lock(implementation_->mutex);
    implementation_->link.shown(groups, began);
}

std::string Controller::problem() const {
    const std::lock_guard lock(implementation_->mutex);
    return implementation_->problem;
}

}  // namespace station
