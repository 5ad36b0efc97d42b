#include "web/metricsBuilder.h"

#include <new>

namespace station {

MetricsBuilder::MetricsBuilder() : thread_([this](const std::stop_token& stop) { run(stop); }) {}

MetricsBuilder::~MetricsBuilder() {
    thread_.request_stop();
    scrapes_.close();
}

void MetricsBuilder::run(const std::stop_token& stop) {
    while (!stop.stop_requested()) {
        const auto scrape = scrapes_.popUntil(std::chrono::steady_clock::now() + kKept);
        if (!scrape) {
            last_ = nullptr;
        } else if (!stop.stop_requested()) {
            scrape->built(payload(*scrape));
        }
    }
}

PayloadPointer MetricsBuilder::payload(const Scrape& scrape) {
    try {
        if (last_ == nullptr || number_ != scrape.state->number || (scrape.compressed && !compressed_)) {
            last_ = nullptr;  // its memory first
            const auto built = std::make_shared<Payload>(writer_.text(*scrape.state, scrape.extras));
            if (scrape.compressed) {
                built->gzip();
            }
            last_ = built;
            number_ = scrape.state->number;
            compressed_ = scrape.compressed;
        }
    } catch (const std::bad_alloc&) {
        last_ = nullptr;
    }
    return last_;
}

}  // namespace station
