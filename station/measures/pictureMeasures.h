// What pictures of channels show, and how loud they are: measured by kestor-picture, a picture at a time.
#pragma once

#include <array>

#include "measures/measure.h"

namespace station {

namespace pictured {

constexpr Measure level(std::string_view name, std::string_view unit, std::string_view meaning,
                        std::string_view metric = {}, std::string_view help = {},
                        Keeping keeping = Keeping::kNone, std::string_view title = {}) {
    return {.name = name,
            .unit = unit,
            .meaning = meaning,
            .kind = MeasureKind::kLevel,
            .title = title,
            .keeping = keeping,
            .metric = {.name = metric, .help = help},
            .source = Source::kPicture};
}

}  // namespace pictured

// Luma from 0 (black) to 255 (white).
inline constexpr std::array kPictureMeasures = std::to_array<Measure>({
    pictured::level("picture.luma", "", "Mean brightness of the newest picture, 0 (black) to 255 (white).",
                    "kestor_channel_picture_luma",
                    "Mean brightness of the channel's newest picture, 0 (black) to 255 (white)."),
    pictured::level("picture.light", "",
                    "Mean brightness and twice its spread: small only where all of the picture is black."),
    pictured::level(
        "picture.difference", "",
        "Mean change of brightness from the picture before to the newest one, 0 to 255.",
        "kestor_channel_picture_difference",
        "Mean change of brightness from the channel's picture before to its newest one, 0 to 255."),
    // One moving part of the picture is motion, however small it is.
    pictured::level(
        "picture.change", "",
        "Change of brightness of that part of the picture (64 by 36) that changed most, 0 to 255; "
        "not judged where the picture is black."),
    pictured::level(
        "picture.loudness", "LUFS",
        "Loudness of the sound beside the newest picture (EBU R 128, momentary, the largest of 2 s).",
        "kestor_channel_loudness_lufs",
        "Loudness of the channel's sound (EBU R 128, momentary, the largest of the newest 2 s).",
        Keeping::kSigned, "Loudness"),
});

}  // namespace station
