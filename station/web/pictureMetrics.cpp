#include "web/pictureMetrics.h"

#include <array>

namespace station {

namespace {

using enum MetricType;

struct PictureFamily {
    MetricFamily family;
    double (*value)(const PictureState& pictures);
};
constexpr auto kOfPictures = std::to_array<PictureFamily>({
    {{"kestor_picture_meter", kGauge, "1 while kestor-picture gets packets from a meter."},
     [](const PictureState& pictures) { return pictures.meter ? 1.0 : 0.0; }},
    {{"kestor_picture_taken_total", kCounter,
      "Pictures taken, of all channels, since kestor-picture was started."},
     [](const PictureState& pictures) { return static_cast<double>(pictures.pictures); }},
    {{"kestor_picture_failures_total", kCounter,
      "Turns of channels that ended without a picture: scrambled, no video, damaged, ..."},
     [](const PictureState& pictures) { return static_cast<double>(pictures.failures); }},
    {{"kestor_picture_workers_killed_total", kCounter,
      "Decoders of kestor-picture that hung, took too much or died, and were replaced."},
     [](const PictureState& pictures) { return static_cast<double>(pictures.workersKilled); }},
    {{"kestor_picture_dropped_total", kCounter, "Pictures that the station did not take in time."},
     [](const PictureState& pictures) { return static_cast<double>(pictures.dropped); }},
    {{"kestor_picture_refused_total", kCounter, "Pictures that made no sense to the station."},
     [](const PictureState& pictures) { return static_cast<double>(pictures.refused); }},
    {{"kestor_picture_cpu_seconds_total", kCounter, "Processor time of kestor-picture and its decoders."},
     [](const PictureState& pictures) { return pictures.cpuSeconds; }},
    {{"kestor_picture_left_out", kGauge,
      "Channels of which no pictures are taken, since they killed decoders."},
     [](const PictureState& pictures) { return static_cast<double>(pictures.leftOut.size()); }},
    {{"kestor_picture_held", kGauge, "Pictures that the station holds, one a channel."},
     [](const PictureState& pictures) { return static_cast<double>(pictures.held); }},
    {{"kestor_picture_held_bytes", kGauge, "Bytes of the pictures that the station holds."},
     [](const PictureState& pictures) { return static_cast<double>(pictures.bytes); }},
});

}  // namespace

void writePictures(Exposition& out, const StationState& state) {
    const PictureState& pictures = state.pictures;
    if (!pictures.configured || pictures.connections == 0) {
        return;
    }
    out.family({"kestor_picture_up", kGauge, "1 while kestor-picture takes pictures."});
    out.sample(pictures.connected && !pictures.silent ? 1 : 0);
    if (!pictures.connected) {
        return;
    }
    for (const PictureFamily& one : kOfPictures) {
        out.family(one.family);
        out.sample(one.value(pictures));
    }
    out.family({"kestor_picture_interval_seconds", kGauge,
                "Time between two pictures of a channel that is neither in alarm nor looked at."});
    if (pictures.intervalSeconds) {
        out.sample(*pictures.intervalSeconds);
    }
}

}  // namespace station
