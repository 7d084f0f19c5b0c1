#!/usr/bin/env bash
# Proves the five-minute start: a bare Debian 12 root with nothing but git and ca-certificates, the committed state of
# this repository cloned into it, and then the commands of the README. Everything happens in a temporary folder and in
# its own mount and process namespace, so that nothing stays behind.
#
# usage: packaging/bare-root-trial.sh [--tarball FILE] [--keep] [COMMAND...]
#   --tarball FILE  keep the bare root there and start from it the next time
#   --keep          leave the root folder for a look afterwards
#   COMMAND         arguments of ./dev, one command each (default: "run --for 30" "test")
# Needs root and the package debootstrap. KELGW_TRIAL_MIRROR names another Debian mirror.
set -euo pipefail

tarball=
keep=no
commands=()
while [[ $# -gt 0 ]]; do
  case $1 in
    --tarball)
      tarball=${2:?--tarball takes a file name}
      shift
      ;;
    --keep) keep=yes ;;
    -*)
      printf '%s\n' "bare-root-trial: unknown switch '$1'" >&2
      exit 2
      ;;
    *) commands+=("$1") ;;
  esac
  shift
done
[[ ${#commands[@]} -gt 0 ]] || commands=("run --for 30" "test")

say() { printf '%s\n' "bare-root-trial: $*"; }
fail() {
  printf '%s\n' "bare-root-trial: $*" >&2
  exit 1
}
[[ $(id -u) -eq 0 ]] || fail "this needs root (chroot and namespaces)"
command -v debootstrap >/dev/null || fail "this needs the package debootstrap"

repository=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
work=$(mktemp -d -t kelgw-trial.XXXXXX)
top=$work/root
mkdir "$top"
finish() {
  if [[ $keep == yes ]]; then
    say "the root stays in $top"
  else
    rm -rf --one-file-system "$work"
  fi
}
trap finish EXIT

if [[ -n $tarball && -f $tarball ]]; then
  say "unpacking $tarball"
  tar -C "$top" -xf "$tarball"
else
  say "making a bare Debian 12 root"
  debootstrap --variant=minbase --include=git,ca-certificates bookworm "$top" \
    "${KELGW_TRIAL_MIRROR:-http://deb.debian.org/debian}" >"$work/debootstrap.log" 2>&1 ||
    { tail -n 5 "$work/debootstrap.log" >&2; fail "debootstrap failed"; }
  [[ -z $tarball ]] || tar -C "$top" -czf "$tarball" .
fi

# The way to the package mirror is this machine's: its Debian sources, its fetch settings, its name service.
if [[ -f /etc/apt/sources.list.d/debian.sources ]]; then
  rm -f "$top/etc/apt/sources.list"
  cp /etc/apt/sources.list.d/debian.sources "$top/etc/apt/sources.list.d/"
elif [[ -f /etc/apt/sources.list ]]; then
  cp /etc/apt/sources.list "$top/etc/apt/sources.list"
fi
grep -lE '^[[:space:]]*Acquire::(http|https|Check|Retries|Proxy)' /etc/apt/apt.conf.d/* 2>/dev/null |
  xargs -r cp -t "$top/etc/apt/apt.conf.d/"
cp --dereference /etc/resolv.conf /etc/hosts "$top/etc/"

git clone -q --no-hardlinks "file://$repository" "$top/root/kel-gateway"
say "trying $(git -C "$repository" rev-parse --short HEAD)"

cat >"$work/inside.sh" <<'INSIDE'
set -euo pipefail
top=$1
shift
mount -t proc proc "$top/proc"
mount --bind /dev "$top/dev"
mount -t devpts -o newinstance,ptmxmode=0666 devpts "$top/dev/pts"
others() { find /proc -maxdepth 1 -name '[0-9]*' -printf '%f\n' | sort -n; }
mount -t proc proc /proc
worst=0
for command in "$@"; do
  before=$(find "$top/tmp" -mindepth 1 | sort)
  printf '%s\n' "bare-root-trial: ./dev $command"
  started=$SECONDS
  status=0
  # shellcheck disable=SC2086 # the command is words
  chroot "$top" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 \
    ${http_proxy:+http_proxy=$http_proxy} ${https_proxy:+https_proxy=$https_proxy} \
    sh -c "cd /root/kel-gateway && exec ./dev $command" </dev/null || status=$?
  printf '%s\n' "bare-root-trial: ./dev $command ended with $status after $((SECONDS - started)) s"
  [[ $status -eq 0 ]] || worst=1
  left=$(comm -13 <(printf '%s\n' "$before") <(find "$top/tmp" -mindepth 1 | sort))
  [[ -z $left ]] || { printf '%s\n' "bare-root-trial: left in /tmp:" "$left"; worst=1; }
  running=$(for pid in $(others); do
    [[ $(readlink "/proc/$pid/root") == "$top" ]] && tr '\0' ' ' <"/proc/$pid/cmdline" && echo
  done || true)
  [[ -z $running ]] || { printf '%s\n' "bare-root-trial: still running:" "$running"; worst=1; }
done
exit "$worst"
INSIDE
unshare --mount --propagation private --pid --fork bash "$work/inside.sh" "$top" "${commands[@]}"
say "all of it holds"
