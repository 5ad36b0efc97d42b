// What answers carry, and the budget of its bytes.
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace station {

// Counts the bytes that answers hold until their last client has taken them. Any thread.
class AnswerBudget {
  public:
    // While so many are held, no further answer is built (503), and the clients that have taken longest are
    // closed. What is being built when it becomes full is finished.
    static constexpr std::size_t kBytes = std::size_t{128} << 20;

    // Whether another answer may be built; notes when not.
    bool allows() {
        if (held_ < kBytes) {
            return true;
        }
        ++refusals_;
        return false;
    }
    std::size_t held() const {
        return held_;
    }
    std::size_t refusals() const {
        return refusals_;
    }

  private:
    friend class Payload;
    std::atomic<std::size_t> held_{0};
    std::atomic<std::size_t> refusals_{0};
};
using BudgetPointer = std::shared_ptr<AnswerBudget>;

// Built once, shared by all who get the same, never changed. Any thread.
class Payload {
  public:
    // A text, or a text and the same compressed, or the compressed one alone. Without a budget it is not
    // counted.
    explicit Payload(std::string text, std::string gzip = {}, BudgetPointer budget = nullptr);
    // A text that `owner` keeps.
    Payload(std::shared_ptr<const void> owner, std::string_view text, BudgetPointer budget);
    ~Payload();
    Payload(const Payload&) = delete;

    std::string_view text() const {
        return text_;
    }
    std::string_view gzip() const {  // RFC 1952; empty for none
        return gzip_;
    }

  private:
    void count();

    const std::string ownText_;
    const std::string gzip_;
    const std::shared_ptr<const void> owner_;
    const std::string_view text_;
    const BudgetPointer budget_;
};
using PayloadPointer = std::shared_ptr<const Payload>;

}  // namespace station
