#!/usr/bin/env bash
# chroot.sh ARCH prepare                 makes or refreshes the build chroot for arm64, armhf or amd64
# chroot.sh ARCH run COMMAND [ARG]...    runs a command in it, in this tree
# chroot.sh ARCH try COMMAND [ARG]...    the same with a network and root's rights on a copy that is dropped afterwards
# chroot.sh ARCH where                   says where it is
#
# SUITE is the Debian: bookworm or trixie; this machine's, or bookworm where it is neither.
#
# ARCH `plain` is no build chroot but a Debian as its users have it, for trying packages. `bare` is what somebody has
# who only just cloned this: Debian with git and make (and ccache). `chroot.sh bare try` keeps the packages that it
# downloads and what the compiler made for the next time; the tree is at /root/kestor in it, with a build/ of its own,
# which is build/bare outside.
#
# A Debian of its own with the cross toolchain for ARCH, ARCH's libraries beside the machine's, and qemu to run what
# was built. It lives in KESTOR_CHROOTS (default /var/cache/kestor), a few hundred megabytes each; deleting the
# directory is all it takes to be rid of it. On the machine itself only mmdebstrap and iproute2
# are installed. Needs root.
#
# In the others the tree has the path that it has outside, and `run` has no network but a loopback of its own. Mounts are made
# in a namespace of their own and end with the command.
set -euo pipefail

tree=$(cd "$(dirname "$0")/.." && pwd)
arch=${1:?architecture}
mode=${2:?prepare, run, try or where}
shift 2
# shellcheck disable=SC1091 # of the machine
suite=${SUITE:-$(. /etc/os-release && echo "${VERSION_CODENAME:-}")}
case $suite in
  bookworm | trixie) ;;
  *) [ -z "${SUITE:-}" ] || { echo "chroot.sh: SUITE=$SUITE: neither bookworm nor trixie" >&2; exit 2; }; suite=bookworm ;;
esac
host=$(dpkg --print-architecture)
chroots=${KESTOR_CHROOTS:-/var/cache/kestor}
root=$chroots/build-$arch
[ "$suite" = bookworm ] || root=$chroots/build-$suite-$arch
place=$tree # inside

build=yes
case $arch in
  bare) build=no toolchain=(git make ca-certificates ccache) place=/root/kestor ;;
  plain) build=no toolchain=(systemd systemd-sysv dbus procps iproute2 man-db) ;;
  "$host") toolchain=(build-essential) ;;
  arm64 | armhf) toolchain=(build-essential "crossbuild-essential-$arch" "libc6:$arch" "libstdc++6:$arch" qemu-user qemu-user-static) ;;
  *) echo "chroot.sh: no cross builds for $arch, only arm64 and armhf" >&2; exit 2 ;;
esac
tools=() test_packages=() size="0.4 GB"
[ $build = no ] || size="1.3 GB"
[ $build = no ] || tools=(cmake ninja-build pkgconf ccache debhelper fakeroot lintian file)
# What the package's own build does not ask for: tests and benchmarks.
[ $build = no ] || test_packages=("libgtest-dev:$arch" "libgmock-dev:$arch" "libbenchmark-dev:$arch"
  python3-jsonschema python3-yaml libjs-dygraphs) # what the station answers, and what it serves

# ISOLATION is --net for no network and none for the machine's; ROOT_KIND is copy for one whose changes are dropped, and
# disk for one of them that memory may not hold.
inside() { # ISOLATION ROOT_KIND COMMAND [ARG]...
  local namespaces=(--mount --pid --ipc --uts --fork --kill-child) isolation=$1 kind=$2
  [ "$isolation" != --net ] || namespaces+=(--net)
  shift 2
  # unshare holds signals back while it waits, and would outlive this shell with the lock in its hands.
  # shellcheck disable=SC2016 # expands inside
  setpriv --pdeathsig KILL unshare "${namespaces[@]}" bash -euc '
    root=$1 tree=$2 kind=$3 isolation=$4 place=$5 keep=$root.kept
    shift 5
    if [ "$kind" = disk ]; then
      mkdir -p "$root.copy"
      mount -n --bind "$root.copy" /mnt
    elif [ "$kind" = copy ]; then
      mount -n -t tmpfs tmpfs /mnt
    fi
    if [ "$kind" != kept ]; then
      mkdir /mnt/upper /mnt/work /mnt/root
      mount -n -t overlay -o "lowerdir=$root,upperdir=/mnt/upper,workdir=/mnt/work,volatile" overlay /mnt/root # what is dropped need not reach a disk
      root=/mnt/root
    fi
    mount -n -t proc proc "$root/proc"
    mount -n --rbind /dev "$root/dev"
    mount -n -t tmpfs -o mode=1777 tmpfs "$root/tmp"
    mkdir -p "$root$place"
    mount -n --bind "$tree" "$root$place"
    [ "$isolation" != --net ] || ip link set lo up
    if [ -e /etc/resolv.conf ]; then
      touch "$root/etc/resolv.conf"
      mount -n --bind "$(realpath /etc/resolv.conf)" "$root/etc/resolv.conf"
    fi
    enter=(chroot "$root")
    if [ "$kind" = disk ]; then
      mount -n --rbind /sys "$root/sys"
      cp -L /etc/hosts "$root/etc/hosts"
      mkdir -p "$keep/archives" "$keep/ccache" "$root/var/cache/ccache" "$tree/build/bare"
      mount -n --bind "$keep/archives" "$root/var/cache/apt/archives"
      mount -n --bind "$keep/ccache" "$root/var/cache/ccache"
      mount -n --bind "$tree/build/bare" "$root$place/build"
      # A work tree has its commits elsewhere.
      commits=$(cd "$tree" && realpath "$(git rev-parse --git-common-dir)")
      case $commits in "$tree"/*) ;; *) mkdir -p "$root$commits"; mount -n --rbind "$commits" "$root$commits" ;; esac
      mkdir -p "$root/old"
      cd "$root"
      pivot_root . old
      umount -l /old
      enter=()
    fi
    exec "${enter[@]}" /usr/bin/env -i HOME=/root LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive \
      PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin \
      CCACHE_DIR=/var/cache/ccache CMAKE_C_COMPILER_LAUNCHER=ccache CMAKE_CXX_COMPILER_LAUNCHER=ccache \
      ${DEB_BUILD_OPTIONS:+DEB_BUILD_OPTIONS="$DEB_BUILD_OPTIONS"} ${SUITE:+SUITE="$SUITE"} ${CI_PRESETS:+CI_PRESETS="$CI_PRESETS"} \
      sh -euc "cd \"\$0\"; exec \"\$@\"" "$place" "$@"
  ' inside "$root" "$tree" "$kind" "$isolation" "$place" "$@"
}

# From the point release alone: libraries of two architectures install side by side only in one and the same version,
# and updates do not reach the mirrors for all architectures at once.
bootstrap() {
  mkdir -p "$chroots"
  rm -rf "$root.part"
  local architectures=$host include
  local variant=apt
  [ "$arch" != bare ] || variant=minbase
  [ "$arch" = "$host" ] || [ $build = no ] || architectures+=,$arch
  include=$(IFS=,; echo "${packages[*]}")
  setpriv --pdeathsig TERM mmdebstrap --quiet --variant=$variant --architectures="$architectures" --include="$include" \
    --aptopt='APT::Install-Recommends "false"' --skip=cleanup/apt \
    "$suite" "$root.part" "deb http://deb.debian.org/debian $suite main"
  mv "$root.part" "$root"
}

# Made anew when this script asks for other packages, completed when the package's build dependencies change.
prepare() {
  local made wanted
  made=$(echo "${packages[*]}" | sha256sum)
  wanted=$(sha256sum <"$tree/debian/control")
  if [ "$(cat "$root/.made" 2>/dev/null)" != "$made" ]; then
    echo "chroot.sh: making a Debian ($suite) in $root: $size there, some minutes"
    rm -rf "$root"
    bootstrap
    echo "$made" >"$root/.made"
  fi
  if [ $build = yes ] && [ "$(cat "$root/.build-dep" 2>/dev/null)" != "$wanted" ]; then
    inside none kept apt-get update -qq
    inside none kept apt-get build-dep -y -qq --no-install-recommends --host-architecture "$arch" "$tree" >/dev/null
    echo "$wanted" >"$root/.build-dep"
  fi
}

packages=("${toolchain[@]}" "${tools[@]}" "${test_packages[@]}")
[ "$mode" != where ] || { echo "$root"; exit; }
[ "$(id -u)" -eq 0 ] || { echo "chroot.sh: only root can make chroots" >&2; exit 1; }
exec {lock}>"/run/lock/kestor-chroot-${root##*/build-}"
case $mode in
  prepare) "$tree/scripts/install-deps.sh" chroot; flock "$lock"; prepare ;;
  run) flock -s "$lock"; inside --net kept "$@" ;;
  try)
    if [ "$arch" = bare ]; then
      flock "$lock"
      rm -rf "$root.copy" "$tree/build/bare"
      trap 'rm -rf "$root.copy"' EXIT
      inside none disk "$@"
    else
      flock -s "$lock"
      inside none copy "$@"
    fi
    ;;
  *) echo "chroot.sh: $mode: neither prepare, run, try nor where" >&2; exit 2 ;;
esac
