#!/usr/bin/env bash
# Installs the Debian packages that are missing, and asks no package server when none is.
#
#   install-dependencies.sh run|bench|package|builds|test|ci
set -euo pipefail

packages=(g++-12 cmake ninja-build pkg-config libsystemd-dev libasio-dev nlohmann-json3-dev libcli11-dev libfmt-dev
          dbus-daemon libnss-wrapper)
optional=()
case "${1:-}" in
run) ;;
bench)
    packages+=(libbenchmark-dev libgtest-dev libgmock-dev)
    optional=(monit)
    ;;
package) packages+=(debootstrap systemd-container dpkg-dev file) ;;
builds) packages+=(clang-14 clang-16 dpkg-dev musl-dev) ;;
test | ci)
    packages+=(clang-14 libclang-rt-14-dev libgtest-dev libgmock-dev python3-jsonschema)
    [ "$1" = test ] || packages+=(clang-format-14 clang-tidy-14 git libbenchmark-dev)
    ;;
*)
    echo "usage: $0 run|bench|package|builds|test|ci" >&2
    exit 2
    ;;
esac

Missing() {
    local package state
    for package in "$@"; do
        state=$(dpkg-query --show --showformat='${db:Status-Status}' "$package" 2>/dev/null) || true
        [ "$state" = installed ] || echo "$package"
    done
}
Install() {
    apt-get install --yes --no-install-recommends "$@" >>"$log" 2>&1
}

mapfile -t missing < <(Missing "${packages[@]}")
mapfile -t wanted < <(Missing "${optional[@]}")
[ $((${#missing[@]} + ${#wanted[@]})) -gt 0 ] || exit 0

if [ "$(id -u)" -ne 0 ]; then
    echo "these packages are missing, and only root can install them: ${missing[*]} ${wanted[*]}" >&2
    exit 1
fi
echo "installing ${missing[*]} ${wanted[*]}" >&2
log=$(mktemp)
trap 'rm -f "$log"' EXIT
export DEBIAN_FRONTEND=noninteractive
if ! { apt-get update >"$log" 2>&1 && Install "${missing[@]}"; }; then
    cat "$log" >&2
    exit 1
fi
Install "${wanted[@]}" || echo "${wanted[*]} cannot be installed; what needs it is left out" >&2
