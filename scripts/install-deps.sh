#!/usr/bin/env bash
# Installs what building, testing and showing the probe needs, from Debian's own packages.
#
# Asks dpkg first, so a machine that has everything needs neither root nor a network. Packages named as arguments are
# installed as well.
set -euo pipefail

packages=(
  # Toolchain.
  g++ cmake ninja-build pkg-config scdoc clang-format clang-tidy clang libclang-rt-14-dev
  # What the probe and its tools link.
  libpcap-dev libdvbpsi-dev libzmq3-dev cppzmq-dev libprotobuf-dev protobuf-compiler
  uthash-dev libcli11-dev nlohmann-json3-dev
  # What the station links.
  libboost-dev libtomlplusplus-dev libsqlite3-dev libcurl4-openssl-dev libsystemd-dev
  zlib1g-dev
  # Tests, benchmarks and the demonstration.
  libgtest-dev libgmock-dev libbenchmark-dev valgrind ffmpeg python3
  python3-jsonschema python3-yaml libjs-dygraphs
  # The network of its own that the scripts make.
  iproute2 util-linux kmod procps
  "$@"
)

missing=()
for package in "${packages[@]}"; do
  status=$(dpkg-query -W -f '${Status}' "$package" 2>/dev/null || true)
  [ "$status" = "install ok installed" ] || missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] && exit 0

as_root=()
if [ "$(id -u)" -ne 0 ]; then
  if ! command -v sudo >/dev/null; then
    echo "install-deps: these packages are missing and need root to install: ${missing[*]}" >&2
    exit 1
  fi
  as_root=(sudo)
fi
echo "installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
"${as_root[@]}" apt-get update -qq
"${as_root[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
