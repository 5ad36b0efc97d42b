#include "web/metricsBuilder.h"

#include <new>

#include "web/gzip.h"

namespace station {

namespace {

struct GivenUp {};  // the text is too large, or nobody waits for it any more

}  // namespace

MetricsBuilder::MetricsBuilder(BudgetPointer budget)
    : budget_(std::move(budget)), thread_([this](const std::stop_token& stop) { run(stop); }) {}

MetricsBuilder::~MetricsBuilder() {
    thread_.request_stop();
    scrapes_.close();
}

void MetricsBuilder::run(const std::stop_token& stop) {
    pthread_setname_np(pthread_self(), "metrics");
    while (!stop.stop_requested()) {
        const auto scrape = scrapes_.popUntil(std::chrono::steady_clock::now() + kKept);
        if (!scrape) {
            text_ = compressed_ = {};
        } else if (!stop.stop_requested()) {
            scrape->built(payload(*scrape, stop));
        }
    }
}

PayloadPointer MetricsBuilder::payload(const Scrape& scrape, const std::stop_token& stop) {
    Last& last = scrape.compressed ? compressed_ : text_;
    if (last.payload == nullptr || last.number != scrape.state->number) {
        last = {};  // its memory first
        try {
            last = {budget_->allows() ? build(scrape, stop) : nullptr, scrape.state->number};
        } catch (const std::bad_alloc&) {
        } catch (const GivenUp&) {
        }
    }
    return last.payload;
}

PayloadPointer MetricsBuilder::build(const Scrape& scrape, const std::stop_token& stop) {
    const auto goOn = [&stop](bool when) {
        if (!when || stop.stop_requested()) {
            throw GivenUp();
        }
    };
    if (!scrape.compressed) {
        std::string text = writer_.text(*scrape.state, scrape.extras,
                                        [&](std::string& part) { goOn(part.size() <= kLargestText); });
        return std::make_shared<Payload>(std::move(text), std::string(), budget_);
    }
    GzipWriter writer;
    const std::string rest = writer_.text(*scrape.state, scrape.extras, [&](std::string& part) {
        goOn(true);
        writer.add(part);
        part.clear();
    });
    writer.add(rest);
    return std::make_shared<Payload>(std::string(), writer.finish(), budget_);
}

}  // namespace station
