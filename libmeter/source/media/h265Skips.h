// The fields of an H.265 sequence parameter set in front of what is read of it. Loops are bounded by the
// syntax's own limits and end where the reader does.
#pragma once

#include <cstdint>

#include "fields/bitReader.h"

namespace meter {

// sps_ or vps_sub_layer_ordering_info_present_flag and what it announces. `subLayers`: less 1.
void skipSubLayerOrdering(BitReader& reader, uint32_t subLayers);

// From log2_max_pic_order_cnt_lsb_minus4 to vui_parameters_present_flag (7.3.2.2.1), whose value is returned;
// false also where the syntax is broken.
bool skipToUsability(BitReader& reader, uint32_t subLayers);

}  // namespace meter
