#include "packets/pidTable.h"

#include <algorithm>

namespace meter {

PidTable::PidTable() : records_{&none_, &overflow_} {
    states_ = near_.data();
    for (PidRecord* record : records_) {
        record->state = &states_[record == &none_ ? kNoPid : kOverflow];
        record->state->record = record;
    }
    overflow_.state->roles = kOverflowPid;
}

PidRecord& PidTable::obtain(uint16_t pid) {
    uint8_t& place = index_[pid & (kPidCount - 1)];
    if (place == kNoPid) {
        const bool kept = hasKeptPlace(pid);
        if (kept || othersTaken_ < kPidsLimit - kKeptPlaces) {
            othersTaken_ += kept ? 0 : 1;
            place = freePlace();
            PidRecord& record = *records_[place];
            record.pid = pid;
            record.state->pid = pid;
        } else {
            place = kOverflow;
            refused_ = true;
        }
    }
    return *records_[place];
}

uint8_t PidTable::freePlace() {
    if (!free_.empty()) {
        const uint8_t place = free_.back();
        free_.pop_back();
        return place;
    }
    if (records_.size() == kNearPlaces) {
        moveStates();
    }
    static_assert(kPlaces - 1 <= UINT8_MAX);
    const auto place = static_cast<uint8_t>(records_.size());
    PidRecord& record = nextRecord();
    record.state = &states_[place];
    record.state->record = &record;
    records_.push_back(&record);
    return place;
}

PidRecord& PidTable::nextRecord() {
    const std::size_t place = (records_.size() - kFirstPidPlace) % kTogether;
    if (place == 0) {
        own_.push_back(std::make_unique<Records>());
    }
    return (*own_.back())[place];
}

void PidTable::release(PidRecord& record) {
    PidState* const state = record.state;
    index_[record.pid & (kPidCount - 1)] = kNoPid;
    free_.push_back(placeOf(*state));
    --othersTaken_;
    record = {};
    record.state = state;
    *state = {};
    state->record = &record;
}

void PidTable::forgetRefused() {
    if (refused_) {
        std::ranges::replace(index_, kOverflow, kNoPid);
        refused_ = false;
    }
}

void PidTable::moveStates() {
    far_ = std::make_unique<std::array<PidState, kPlaces>>();
    std::copy(near_.begin(), near_.end(), far_->begin());
    states_ = far_->data();
    for (std::size_t place = 0; place < records_.size(); ++place) {
        records_[place]->state = &states_[place];
    }
}

}  // namespace meter
