#!/usr/bin/env bash
# cross.sh ARCH    instructions per transport packet on arm64 or armhf, counted by qemu; for docs/performance.md
#
# After `make cross ARCH=...` and `make bench`, which leave the programs and the recording. Counted is all that the
# program executes in user space, so the feeding of the frames is in it (7 instructions a packet on amd64).
set -euo pipefail

arch=${1:?usage: cross.sh arm64|armhf}
root=$(cd "$(dirname "$0")/.." && pwd)
case $arch in
  arm64) emulator=(qemu-aarch64 -cpu cortex-a53) ;;
  armhf) emulator=(qemu-arm -cpu cortex-a7) ;;
  *) echo "cross.sh: $arch: neither arm64 nor armhf" >&2; exit 2 ;;
esac
here() { "$root/scripts/chroot.sh" "$arch" run "$@"; }
plugin=build/$arch/qemuInstructions.so
recording=$root/build/bench/multiplex-60.ts
frames=${FRAMES:-20000}
[ -s "$recording" ] || { echo "cross.sh: no $recording; run make bench first" >&2; exit 1; }

here gcc -shared -fPIC -O2 -Wall -Wextra -Werror -o "$plugin" bench/qemuInstructions.c
count() { # what, frames
  here env KESTOR_BENCH_TS="$recording" "${emulator[@]}" -plugin "./$plugin" \
    "build/$arch/bin/instructionCount" "$@" 2>&1 >/dev/null | sed -n 's/^instructions //p'
}
for what in analysis floor; do
  awk -v a="$(count "$what" "$frames")" -v b="$(count "$what" $((2 * frames)))" -v n="$frames" -v what="$what" \
    'BEGIN { printf "%-10s %8.1f instructions per transport packet\n", what, (b - a) / n / 7 }'
done
