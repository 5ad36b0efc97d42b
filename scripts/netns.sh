#!/usr/bin/env bash
# netns.sh COMMAND [ARGUMENT]...
#
# Runs a command in a network of its own: new net, mount, pid and ipc namespaces in which
#   eth0   10.99.0.1/24   is the probe's interface, with the route for all multicast groups,
#   feed0  10.99.0.2/24   is the other end of the cable: what is sent on it arrives on eth0,
#   lo                    is up and carries nothing of the host,
#   /tmp                  is empty and private (the tree of this script, the working directory and the command
#                         stay where they are, also below /tmp).
#
# Nothing inside reaches the host's network, and nothing inside outlives the command: its exit status is this
# script's, and SIGINT, SIGTERM or SIGKILL to this script end everything.
#
# Works as root; without root the kernel has to allow user namespaces.
# KESTOR_MEMBERSHIPS sets the limit of multicast memberships a socket may hold (default 2000; the kernel's own is 20).
set -euo pipefail

set_kernel() { # KEY VALUE; a key that this kernel does not have is left out
  local file=/proc/sys/net/$1
  if [ -e "$file" ]; then echo "$2" >"$file"; fi
}

make_network() {
  # Neighbour discovery would put frames on the cable that no test asked for.
  set_kernel ipv6/conf/all/disable_ipv6 1
  set_kernel ipv6/conf/default/disable_ipv6 1
  # Both ends of the cable live here, so what arrives on eth0 carries an address that is also local.
  for scope in all default; do
    set_kernel "ipv4/conf/$scope/rp_filter" 0
    set_kernel "ipv4/conf/$scope/accept_local" 1
  done
  set_kernel ipv4/igmp_max_memberships "${KESTOR_MEMBERSHIPS:-2000}"
  ip -batch - <<'END'
link set lo up
link add eth0 type veth peer name feed0
address add 10.99.0.1/24 dev eth0
address add 10.99.0.2/24 dev feed0 noprefixroute
link set feed0 up
link set eth0 up
route add 224.0.0.0/4 dev eth0
END
}

# Builds the new /tmp aside, so that what has to stay reachable below the old one can be bound into it.
make_private_tmp() {
  local stage=/mnt path
  mount -n -t tmpfs -o mode=1777 tmpfs "$stage"
  while read -r path; do # sorted: a directory comes before what is in it
    case $path in /tmp/?*) ;; *) continue ;; esac
    [ ! -e "$stage/${path#/tmp/}" ] || continue
    mkdir -p "$stage/$(dirname "${path#/tmp/}")"
    if [ -d "$path" ]; then mkdir "$stage/${path#/tmp/}"; else touch "$stage/${path#/tmp/}"; fi
    mount -n --rbind "$path" "$stage/${path#/tmp/}"
  done < <(realpath -qe "$@" | sort -u)
  mount -n --move "$stage" /tmp
}

if [ "${1:-}" = --inside ]; then
  shift
  cwd=$PWD
  make_network
  make_private_tmp "$(dirname "$0")/.." "$cwd" "$(command -v "$1" || true)"
  cd "$cwd"
  # This shell is process 1, which no signal with a default disposition ends: the command runs as a child, so that
  # its own signals work, and everything left ends with this shell.
  trap : INT TERM
  status=0
  "$@" || status=$?
  exit "$status"
fi

if [ $# -eq 0 ]; then
  echo "usage: netns.sh COMMAND [ARGUMENT]..." >&2
  exit 2
fi
PATH=$PATH:/usr/sbin:/sbin
as_root=()
if [ "$(id -u)" -ne 0 ]; then as_root=(unshare --user --map-root-user); fi
if ! "${as_root[@]}" unshare --net --mount true 2>/dev/null; then
  echo "netns.sh: this kernel lets only root make namespaces: run as root" >&2
  exit 125
fi

# unshare itself holds SIGTERM back while it waits, so a shell stays in front of it. A background command would have
# SIGINT ignored, and with it everything below.
(
  trap - INT QUIT TERM
  exec "${as_root[@]}" setpriv --pdeathsig KILL \
    unshare --net --mount --pid --ipc --fork --kill-child --mount-proc "$(realpath "$0")" --inside "$@"
) <&0 &
child=$!
trap 'kill -KILL "$child"' TERM
trap : INT
status=0
exec 2>/dev/null # this shell's own note on how the command ended
wait "$child" || status=$?
while kill -0 "$child" 2>/dev/null; do # a signal ended the wait, not the command
  status=0
  wait "$child" || status=$?
done
exit "$status"
