#!/usr/bin/env bash
# install-deps.sh [PURPOSE | PACKAGE]...
#
# Installs from Debian's own packages what a PURPOSE needs; packages named besides are installed as well.
#
#   compile  the programs
#   run      showing what they do (make run)
#   test     compiling and running the tests and benchmarks, manuals
#   page     the page in Chromium
#   bench    counting instructions
#   lint     clang-format, clang-tidy
#   fuzz     the fuzzers' compiler
#   chroot   Debians of their own, for packages and other processors
#   boot     booting one
#
# Without an argument everything but `page`, `chroot` and `boot`. Asks dpkg first, so a machine that has everything needs neither root nor a
# network.
set -euo pipefail

# shellcheck disable=SC2034 # by name
compile=(
  # Toolchain.
  g++ cmake ninja-build pkg-config
  # What the probe and its tools link.
  libpcap-dev libdvbpsi-dev libzmq3-dev cppzmq-dev libprotobuf-dev protobuf-compiler
  uthash-dev libcli11-dev nlohmann-json3-dev
  # What the station links.
  libboost-dev libtomlplusplus-dev libsqlite3-dev libcurl4-openssl-dev libsystemd-dev
  zlib1g-dev
  # What the pictures' workers link.
  libavcodec-dev libavutil-dev libswscale-dev libturbojpeg0-dev libebur128-dev libseccomp-dev
)
# shellcheck disable=SC2034
run=(
  # The demonstration, and the page's plots.
  ffmpeg python3 libjs-dygraphs
  # The network of its own that the scripts make.
  iproute2 util-linux kmod procps
)
# shellcheck disable=SC2034
test=(scdoc libgtest-dev libgmock-dev libbenchmark-dev python3-jsonschema python3-yaml)
# shellcheck disable=SC2034
page=(chromium chromium-driver python3-selenium python3-zmq fonts-dejavu-core nginx-light)
# shellcheck disable=SC2034
bench=(valgrind)
# shellcheck disable=SC2034
lint=(clang-format clang-tidy)
# shellcheck disable=SC2034
fuzz=(clang libclang-rt-dev)
# shellcheck disable=SC2034
chroot=(mmdebstrap iproute2)
# shellcheck disable=SC2034
boot=(systemd-container iproute2 procps ffmpeg)

[ $# -gt 0 ] || set -- compile run test bench lint fuzz
packages=()
for wanted in "$@"; do
  case $wanted in
    compile | run | test | page | bench | lint | fuzz | chroot | boot)
      declare -n of_purpose=$wanted
      packages+=("${of_purpose[@]}")
      ;;
    *) packages+=("$wanted") ;;
  esac
done

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
echo "installing from Debian: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
"${as_root[@]}" apt-get update -qq
"${as_root[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
