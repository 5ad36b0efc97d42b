#include "web/answerBuilder.h"

#include <algorithm>
#include <exception>

#include "common/log.h"
#include "web/gzip.h"

namespace station {

AnswerBuilder::AnswerBuilder(BudgetPointer budget, std::size_t threads) : budget_(std::move(budget)) {
    for (std::size_t i = 0; i < threads; ++i) {
        threads_.emplace_back([this] { serve(); });
    }
}

AnswerBuilder::~AnswerBuilder() {
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    ready_.notify_all();
    for (std::thread& thread : threads_) {
        thread.join();
    }
}

bool AnswerBuilder::ask(const std::optional<AnswerKey>& key, bool gzip, Build build, Done done) {
    std::unique_lock lock(mutex_);
    if (key) {
        const auto kept = kept_.find({key->name, gzip});
        if (kept != kept_.end() && kept->second.key == *key) {
            const PayloadPointer payload = kept->second.payload;
            lock.unlock();
            done(payload);
            return true;
        }
        const auto same =
            std::ranges::find_if(jobs_, [&](const Job& job) { return job.key == key && job.gzip == gzip; });
        if (same != jobs_.end()) {
            same->done.push_back(std::move(done));
            return true;
        }
    }
    if (jobs_.size() >= kWaiting) {
        return false;
    }
    jobs_.push_back({.key = key, .gzip = gzip, .build = std::move(build), .done = {}, .work = {}});
    jobs_.back().done.push_back(std::move(done));
    if (threads_.empty()) {
        finish(lock, std::prev(jobs_.end()));
    } else {
        lock.unlock();
        ready_.notify_one();
    }
    return true;
}

void AnswerBuilder::run(std::function<void()> work) {
    std::unique_lock lock(mutex_);
    jobs_.push_front({.key = {}, .build = {}, .done = {}, .work = std::move(work)});
    if (threads_.empty()) {
        finish(lock, jobs_.begin());
    } else {
        lock.unlock();
        ready_.notify_one();
    }
}

void AnswerBuilder::expire(SteadyTime now) {
    std::vector<PayloadPointer> freed;  // without the lock
    const std::lock_guard lock(mutex_);
    std::erase_if(kept_, [&](auto& one) {
        const bool old = now - one.second.since > kKept;
        if (old) {
            freed.push_back(std::move(one.second.payload));
        }
        return old;
    });
}

void AnswerBuilder::serve() {
    pthread_setname_np(pthread_self(), "answers");
    std::unique_lock lock(mutex_);
    const auto next = [this] { return std::ranges::find(jobs_, false, &Job::running); };
    while (true) {
        ready_.wait(lock, [&] { return stopping_ || next() != jobs_.end(); });
        if (stopping_) {
            return;
        }
        finish(lock, next());
    }
}

// Does a job, without the lock, and takes it off the list.
void AnswerBuilder::finish(std::unique_lock<std::mutex>& lock, std::list<Job>::iterator job) {
    job->running = true;
    lock.unlock();
    PayloadPointer built;
    try {
        if (job->work) {
            job->work();
        } else {
            built = payload(*job);
        }
    } catch (const std::exception& error) {
        log(LogLevel::kError, std::string("an answer could not be built: ") + error.what());
    }
    lock.lock();
    std::list<Job> done;
    done.splice(done.begin(), jobs_, job);  // from here on nobody adds to those who wait for it
    Kept before;
    if (built != nullptr && job->key) {
        before = std::exchange(kept_[{job->key->name, job->gzip}],
                               {*job->key, built, std::chrono::steady_clock::now()});
    }
    lock.unlock();
    for (const Done& tell : done.front().done) {
        tell(built);
    }
    done.clear();  // before the lock is taken again: states and payloads may be large
    before = {};
    built = nullptr;
    lock.lock();
}

PayloadPointer AnswerBuilder::payload(const Job& job) {
    if (!budget_->allows()) {
        return nullptr;
    }
    AnswerText text = job.build();
    const std::string_view plain = text.owner == nullptr ? std::string_view(text.made) : text.kept;
    if (job.gzip && plain.size() >= kSmallestToCompress) {
        return std::make_shared<Payload>(std::string(), gzipOf(plain), budget_);
    }
    if (text.owner != nullptr) {
        return std::make_shared<Payload>(std::move(text.owner), text.kept, budget_);
    }
    return std::make_shared<Payload>(std::move(text.made), std::string(), budget_);
}

}  // namespace station
