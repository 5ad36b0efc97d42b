#include "web/payload.h"

#include <utility>

namespace station {

Payload::Payload(std::string text, std::string gzip, BudgetPointer budget)
    : ownText_(std::move(text)), gzip_(std::move(gzip)), text_(ownText_), budget_(std::move(budget)) {
    count();
}

Payload::Payload(std::shared_ptr<const void> owner, std::string_view text, BudgetPointer budget)
    : owner_(std::move(owner)), text_(text), budget_(std::move(budget)) {
    count();
}

void Payload::count() {
    if (budget_ != nullptr) {
        budget_->held_ += text_.size() + gzip_.size();
    }
}

Payload::~Payload() {
    if (budget_ != nullptr) {
        budget_->held_ -= text_.size() + gzip_.size();
    }
}

}  // namespace station
