#!/usr/bin/env bash
# Installs the Debian packages that are missing, and asks nothing and nobody when none is.
#
#   install-dependencies.sh run|bench|package|test|ci
set -euo pipefail

packages=(g++-12 cmake ninja-build pkg-config libsystemd-dev libasio-dev nlohmann-json3-dev libcli11-dev
          dbus-daemon libnss-wrapper)
case "${1:-}" in
run) ;;
bench) packages+=(libbenchmark-dev libgtest-dev libgmock-dev) ;;
package) packages+=(debootstrap systemd-container dpkg-dev file) ;;
test | ci)
    packages+=(clang-14 libclang-rt-14-dev libgtest-dev libgmock-dev python3-jsonschema)
    [ "$1" = test ] || packages+=(clang-format-14 clang-tidy-14 git libbenchmark-dev)
    ;;
*)
    echo "usage: $0 run|bench|package|test|ci" >&2
    exit 2
    ;;
esac

missing=()
for package in "${packages[@]}"; do
    state=$(dpkg-query --show --showformat='${db:Status-Status}' "$package" 2>/dev/null) || true
    [ "$state" = installed ] || missing+=("$package")
done
[ "${#missing[@]}" -gt 0 ] || exit 0

if [ "$(id -u)" -ne 0 ]; then
    echo "these packages are missing, and only root can install them: ${missing[*]}" >&2
    exit 1
fi
echo "installing ${missing[*]}" >&2
log=$(mktemp)
trap 'rm -f "$log"' EXIT
export DEBIAN_FRONTEND=noninteractive
if ! { apt-get update && apt-get install --yes --no-install-recommends "${missing[@]}"; } >"$log" 2>&1; then
    cat "$log" >&2
    exit 1
fi
