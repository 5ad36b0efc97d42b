#include "packets/pidTable.h"

namespace meter {

PidRecord& PidTable::obtain(uint16_t pid) {
    uint8_t& slot = index_[pid & (kPidCount - 1)];
    if (slot == kNoPid) {
        if (own_.size() < kPidsLimit) {
            PidRecord& record = own_.emplace_back();
            record.pid = pid;
            static_assert(kFirstPidPlace + kPidsLimit - 1 <= UINT8_MAX);
            slot = static_cast<uint8_t>(records_.size());
            records_.push_back(&record);
        } else {
            slot = kOverflow;
        }
    }
    return *records_[slot];
}

}  // namespace meter
