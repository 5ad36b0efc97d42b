// Keeps hostile packets and sections away from libdvbpsi, which trusts the lengths it reads.
//
// Call these on the thread that feeds the handle.
#pragma once

#include <cstdint>

struct dvbpsi_s;

// Pushes one 188-byte transport packet into the handle's decoder: a copy with zeros behind it, so that an
// adaptation field or a pointer_field that points past the packet finds bytes to read. Returns what the
// library returns, false for a null handle or one without a decoder.
bool pushPsiPacket(dvbpsi_s* handle, const uint8_t* packet);

// Puts a check in front of the PAT, CAT or PMT decoder attached to the handle: sections whose lengths do not
// fit into each other are dropped before the decoder sees them, all others pass unchanged. Call after each
// attach.
void guardSections(dvbpsi_s* handle);
