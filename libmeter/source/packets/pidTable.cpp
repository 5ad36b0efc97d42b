#include "packets/pidTable.h"

namespace meter {

PidRecord& PidTable::obtain(uint16_t pid) {
    uint8_t& slot = index_[pid & (kPidCount - 1)];
    if (slot == kNoPid) {
        if (own_.size() < kPidsLimit) {
            PidRecord& record = own_.emplace_back();
            record.pid = pid;
            slot = static_cast<uint8_t>(own_.size());
            records_[slot] = &record;
        } else {
            slot = kOverflow;
        }
    }
    return *records_[slot];
}

}  // namespace meter
