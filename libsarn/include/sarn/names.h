// Display texts of the numbers found in PSI tables (ISO/IEC 13818-1 tables 2-34 and 2-45, ETSI EN 300 468).
#pragma once

// Text of a PMT stream_type; only the low 8 bits count. Never null, static storage.
const char* GetTypeName(unsigned int streamType);

// Text of a descriptor tag; only the low 8 bits count. Never null, static storage.
const char* GetDescriptorName(unsigned int tag);
