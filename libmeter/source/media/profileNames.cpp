#include "media/profileNames.h"

#include <algorithm>
#include <span>

namespace meter {
namespace {

struct Name {
    uint32_t number;
    std::string_view name;
};

constexpr uint32_t kConstrained = 0x100;
constexpr uint32_t kIntra = 0x200;

constexpr Name kH264Profiles[] = {
    {66, "Baseline"},
    {66 | kConstrained, "Constrained Baseline"},
    {77, "Main"},
    {88, "Extended"},
    {100, "High"},
    {110, "High 10"},
    {110 | kIntra, "High 10 Intra"},
    {122, "High 4:2:2"},
    {122 | kIntra, "High 4:2:2 Intra"},
    {144, "High 4:4:4"},
    {244, "High 4:4:4 Predictive"},
    {244 | kIntra, "High 4:4:4 Intra"},
    {44, "CAVLC 4:4:4"},
    {118, "Multiview High"},
    {128, "Stereo High"},
};

constexpr Name kH265Profiles[] = {
    {1, "Main"}, {2, "Main 10"}, {3, "Main Still Picture"}, {4, "Rext"}, {9, "Scc"},
};

constexpr Name kMpeg2Profiles[] = {
    {0, "4:2:2"}, {1, "High"}, {2, "Spatially Scalable"}, {3, "SNR Scalable"}, {4, "Main"}, {5, "Simple"},
};

constexpr Name kAacProfiles[] = {
    {1, "Main"}, {2, "LC"}, {3, "SSR"}, {4, "LTP"}, {5, "HE-AAC"}, {23, "LD"}, {29, "HE-AACv2"}, {39, "ELD"},
};

constexpr Name kPrimaries[] = {
    {1, "BT.709"}, {4, "BT.470 M"}, {5, "BT.470 BG"}, {6, "BT.601"},  {7, "SMPTE 240M"},
    {8, "film"},   {9, "BT.2020"},  {10, "XYZ"},      {11, "DCI-P3"}, {12, "Display P3"},
};

constexpr Name kTransfers[] = {
    {1, "BT.709"}, {4, "gamma 2.2"},      {5, "gamma 2.8"}, {6, "BT.601"},   {7, "SMPTE 240M"},
    {8, "linear"}, {11, "IEC 61966-2-4"}, {13, "sRGB"},     {14, "BT.2020"}, {15, "BT.2020"},
    {16, "PQ"},    {18, "HLG"},
};

constexpr Name kChroma[] = {{0, "4:0:0"}, {1, "4:2:0"}, {2, "4:2:2"}, {3, "4:4:4"}};

std::string_view find(std::span<const Name> names, uint32_t number) {
    const auto row = std::ranges::find(names, number, &Name::number);
    return row != names.end() ? row->name : std::string_view{};
}

}  // namespace

std::string_view h264ProfileName(uint32_t profile, uint32_t constraints) {
    constexpr uint32_t kBaseline = 66;
    constexpr uint32_t kSet1 = 0x40;
    constexpr uint32_t kSet3 = 0x10;
    uint32_t key = profile;
    if (profile == kBaseline && (constraints & kSet1) != 0)
        key |= kConstrained;
    if ((profile == 110 || profile == 122 || profile == 244) && (constraints & kSet3) != 0)
        key |= kIntra;
    return find(kH264Profiles, key);
}

std::string_view h265ProfileName(uint32_t profile) {
    return find(kH265Profiles, profile);
}

std::string_view mpeg2ProfileName(uint32_t profile) {
    return find(kMpeg2Profiles, profile);
}

std::string_view aacProfileName(uint32_t objectType) {
    return find(kAacProfiles, objectType);
}

std::string_view primariesName(uint8_t primaries) {
    return find(kPrimaries, primaries);
}

std::string_view transferName(uint8_t transfer) {
    return find(kTransfers, transfer);
}

std::string_view chromaName(uint8_t chromaFormat) {
    return find(kChroma, chromaFormat);
}

}  // namespace meter
