// The walk over sequence parameter sets, alone and from the start of a packet's payload.
#include <memory>

#include "fuzz/fuzzing.h"
#include "sarn/h264.h"
#include "sarn/tsStream.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    if (size == 0 || size > 4096)
        return 0;
    // Copies of exactly the size: a read behind them is seen.
    const std::unique_ptr<uint8_t[]> set(new uint8_t[size]);
    std::copy(data, data + size, set.get());
    uint32_t unsignedHeight = 0;
    uint32_t unsignedWidth = 0;
    Parse(set.get(), static_cast<int32_t>(size), &unsignedHeight, &unsignedWidth);

    const std::size_t length = kTsPacketSize + size;
    const uint8_t offset = data[0];
    const std::unique_ptr<uint8_t[]> datagram(new uint8_t[length]());
    std::copy(data + 1, data + size, datagram.get() + std::min<std::size_t>(offset, kTsPacketSize));
    int32_t height = 0;
    int32_t width = 0;
    parse_nal(datagram.get(), offset, static_cast<int32_t>(length), &height, &width);
    return 0;
}
