// Names of profiles, in the spelling of ffprobe, which operators know; and of colour spaces. Empty for
// numbers that have none. Static storage, any thread.
#pragma once

#include <cstdint>
#include <string_view>

namespace meter {

// profile_idc and the byte of constraint_set flags behind it.
std::string_view h264ProfileName(uint32_t profile, uint32_t constraints);
std::string_view h265ProfileName(uint32_t profile);    // general_profile_idc
std::string_view mpeg2ProfileName(uint32_t profile);   // three bits of profile_and_level_indication
std::string_view aacProfileName(uint32_t objectType);  // audioObjectType
// colour_primaries and transfer_characteristics (ISO/IEC 23091-2).
std::string_view primariesName(uint8_t primaries);
std::string_view transferName(uint8_t transfer);
std::string_view chromaName(uint8_t chromaFormat);

}  // namespace meter
