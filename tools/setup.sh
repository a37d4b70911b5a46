#!/bin/sh
# setup.sh [SET|PACKAGE...]: installs Debian packages, as far as they are missing. A SET is what something needs: `desk` the
# agent, its emulated home and the tour; `tests` the tests and benchmarks, beyond that; `format` and `lint` the style.
# With everything present it asks nothing and touches no network.
set -eu

tools=$(dirname "$0")
packages=
for name in "$@"; do
    case $name in
        desk) packages="$packages g++ cmake make $(cat "$tools/libraries") iproute2 util-linux mount dnsmasq-base python3" ;;
        tests) packages="$packages git $(cat "$tools/test-libraries") procps openssl curl tshark python3-matplotlib" ;;
        format) packages="$packages git clang-format" ;;
        lint) packages="$packages git clang-tidy" ;;
        *) packages="$packages $name" ;;
    esac
done

if ! command -v dpkg-query >/dev/null; then
    echo "setup: not a Debian system; what the build needs is known there as:" $packages >&2
    exit 0
fi

missing=
for package in $packages; do
    case $(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null || true) in
        installed) ;;
        *) missing="$missing $package" ;;
    esac
done
[ -n "$missing" ] || exit 0

sudo=
if [ "$(id -u)" != 0 ]; then
    sudo=sudo
    command -v sudo >/dev/null || { echo "setup: not root and no sudo; please install:$missing" >&2; exit 1; }
fi

echo "setup: installing$missing"
$sudo apt-get update -qq
$sudo env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends $missing
