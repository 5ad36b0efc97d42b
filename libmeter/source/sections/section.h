// A whole section as it came, and who is told of it.
#pragma once

#include "fields/moment.h"
#include "fields/sectionFields.h"

namespace meter {

struct Section {
    uint16_t pid = 0;
    Bytes bytes;  // from table_id on, with CRC_32 where the table has one; at least kSectionHeaderSize
    bool hasCrc = false;    // whether a CRC_32 was to be checked
    bool crcOk = true;      // true where there is none
    bool repeated = false;  // equal, byte by byte, to a section with the right CRC that this PID had before
    Moment moment;          // of the packet with its last byte
};

// Called for every whole section, wrong CRC or not, in order. Not to be called from the packets' road itself:
// a section is a rare thing beside a packet.
class SectionSink {
  public:
    virtual void section(const Section& section) = 0;

  protected:
    ~SectionSink() = default;
};

}  // namespace meter
