// libdvbpsi's headers. They neither include each other nor may be included twice, so everything in this
// library that needs them includes this one, and the order below is theirs.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

// clang-format off
#include <dvbpsi/dvbpsi.h>
#include <dvbpsi/psi.h>
#include <dvbpsi/descriptor.h>
#include <dvbpsi/demux.h>
#include <dvbpsi/pat.h>
#include <dvbpsi/pmt.h>
#include <dvbpsi/cat.h>
#include <dvbpsi/nit.h>
#include <dvbpsi/sdt.h>
#include <dvbpsi/bat.h>
#include <dvbpsi/eit.h>
#include <dvbpsi/tot.h>
#include <dvbpsi/dr_0b.h>
#include <dvbpsi/dr_0e.h>
#include <dvbpsi/dr_52.h>
#include <dvbpsi/dr_59.h>
#include <dvbpsi/dr_8a.h>
// clang-format on
