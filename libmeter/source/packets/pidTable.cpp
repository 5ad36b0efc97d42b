#include "packets/pidTable.h"

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
            if (records_.size() == kNearPlaces) {
                moveStates();
            }
            PidRecord& record = nextRecord();
            record.pid = pid;
            static_assert(kPlaces - 1 <= UINT8_MAX);
            place = static_cast<uint8_t>(records_.size());
            record.state = &states_[place];
            record.state->pid = pid;
            record.state->record = &record;
            records_.push_back(&record);
        } else {
            place = kOverflow;
        }
    }
    return *records_[place];
}

PidRecord& PidTable::nextRecord() {
    const std::size_t place = all().size() % kTogether;
    if (place == 0) {
        own_.push_back(std::make_unique<Records>());
    }
    return (*own_.back())[place];
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
