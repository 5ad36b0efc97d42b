#include "media/h265Skips.h"

#include <algorithm>
#include <array>

namespace meter {
namespace {

constexpr uint32_t kReferenceSetsLimit = 64;  // num_short_term_ref_pic_sets
constexpr uint32_t kReferencesLimit = 16;     // pictures of a set
constexpr uint32_t kLongTermLimit = 32;       // num_long_term_ref_pics_sps
constexpr uint32_t kOrderCountBitsLimit = 16;

// scaling_list_data (7.3.4).
void skipScalingLists(BitReader& reader) {
    for (int sizeId = 0; sizeId < 4; ++sizeId) {
        const int coefficients = std::min(64, 1 << (4 + (sizeId << 1)));
        for (int matrix = 0; matrix < 6 && !reader.overrun(); matrix += sizeId == 3 ? 3 : 1) {
            if (!reader.flag()) {
                reader.ue();  // scaling_list_pred_matrix_id_delta
                continue;
            }
            if (sizeId > 1)
                reader.se();
            for (int i = 0; i < coefficients; ++i)
                reader.se();
        }
    }
}

// st_ref_pic_set (7.3.7); how many pictures each set has decides how long the next ones are.
bool skipReferenceSets(BitReader& reader) {
    const uint32_t sets = reader.ue();
    if (sets > kReferenceSetsLimit)
        return false;
    std::array<uint32_t, kReferenceSetsLimit> pictures{};
    for (uint32_t set = 0; set < sets && !reader.overrun(); ++set) {
        if (set > 0 && reader.flag()) {  // inter_ref_pic_set_prediction_flag
            reader.skip(1);              // delta_rps_sign
            reader.ue();                 // abs_delta_rps_minus1
            uint32_t count = 0;
            for (uint32_t j = 0; j <= pictures[set - 1]; ++j) {
                const bool used = reader.flag();         // used_by_curr_pic_flag
                count += used || reader.flag() ? 1 : 0;  // use_delta_flag
            }
            pictures[set] = count;
        } else {
            const uint32_t negative = reader.ue();
            const uint32_t positive = reader.ue();
            if (negative > kReferencesLimit || positive > kReferencesLimit)
                return false;
            pictures[set] = negative + positive;
            for (uint32_t i = 0; i < pictures[set]; ++i) {
                reader.ue();
                reader.skip(1);
            }
        }
        if (pictures[set] > kReferencesLimit * 2)
            return false;
    }
    return true;
}

}  // namespace

void skipSubLayerOrdering(BitReader& reader, uint32_t subLayers) {
    const bool all = reader.flag();
    for (uint32_t i = all ? 0 : subLayers; i <= subLayers; ++i) {
        reader.ue();
        reader.ue();
        reader.ue();
    }
}

bool skipToUsability(BitReader& reader, uint32_t subLayers) {
    const uint32_t orderCountBits = reader.ue() + 4;
    if (orderCountBits > kOrderCountBitsLimit)
        return false;
    skipSubLayerOrdering(reader, subLayers);
    for (int i = 0; i < 6; ++i)  // block sizes and transform depths
        reader.ue();
    if (reader.flag() && reader.flag())  // scaling_list_enabled_flag, sps_scaling_list_data_present_flag
        skipScalingLists(reader);
    reader.skip(2);       // amp_enabled_flag, sample_adaptive_offset_enabled_flag
    if (reader.flag()) {  // pcm_enabled_flag
        reader.skip(8);
        reader.ue();
        reader.ue();
        reader.skip(1);
    }
    if (!skipReferenceSets(reader))
        return false;
    if (reader.flag()) {  // long_term_ref_pics_present_flag
        const uint32_t pictures = reader.ue();
        if (pictures > kLongTermLimit)
            return false;
        reader.skip(std::size_t{pictures} * (orderCountBits + 1));
    }
    reader.skip(2);  // sps_temporal_mvp_enabled_flag, strong_intra_smoothing_enabled_flag
    return reader.flag() && !reader.overrun();
}

}  // namespace meter
