// Picture size from an H.264 sequence parameter set (ITU-T H.264 7.3.2.1.1) at the start of a video PES
// payload.
#pragma once

#include <cstdint>

// The bit readers count `position` in bits from the first bit of `data`, most significant bit first, and
// advance it. `length` is the number of readable bytes at `data`: bits past it read as 0.

// Reads one bit.
uint32_t ReadBit(const uint8_t* data, int32_t& position, int32_t length);
// Reads n bits (0 to 32), most significant first.
int32_t ReadBits(const uint8_t* data, int32_t& position, int32_t length, int32_t n);
// Reads an unsigned Exp-Golomb code (H.264 9.1), computed in 32 bits.
uint32_t ReadExponentialGolombCode(const uint8_t* data, int32_t& position, int32_t length);
// Reads a signed Exp-Golomb code (H.264 9.1.1), computed in 32 bits.
int32_t ReadSE(const uint8_t* data, int32_t& position, int32_t length);

// Walks a sequence parameter set whose first byte (data[0]) is profile_idc, up to the VUI flag; emulation
// prevention bytes are not removed. Writes the picture height and width: the width is cut by the top and
// bottom cropping offsets and the height by the left and right ones, which readers of the records rely on.
// When the data ends before the flag the outputs stay unchanged. Returns vui_parameters_present_flag (0
// then).
uint32_t Parse(const uint8_t* data, int32_t length, uint32_t* height, uint32_t* width);

// Looks at packet[offset] for a four-byte start code followed by a sequence parameter set, directly or behind
// an access unit delimiter, and writes the picture size into *height and *width when it finds one. packet: a
// 188-byte transport packet; length: the bytes readable from its start to the datagram's end (at least 188).
// The offset wraps at 256; the start code must lie inside the 188 bytes, the rest inside `length`.
void parse_nal(const uint8_t* packet, uint8_t offset, int32_t length, int32_t* height, int32_t* width);
