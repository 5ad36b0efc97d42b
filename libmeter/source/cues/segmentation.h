// segmentation_descriptor (ANSI/SCTE 35, 10.3.3).
#pragma once

#include <optional>

#include "fields/bytes.h"
#include "meter/report.h"

namespace meter {

// Whether a splice descriptor's content begins with the identifier "CUEI": only then its tag is the
// standard's.
bool isCueDescriptor(Bytes content);

// The content of a segmentation_descriptor; nothing where its fields do not fit.
std::optional<SegmentationReport> readSegmentation(Bytes content, bool& cancelled);

}  // namespace meter
