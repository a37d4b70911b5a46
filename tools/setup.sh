#!/bin/sh
# setup.sh [PACKAGE...]: installs the Debian packages that building, running and testing need, and those named, as far as
# they are missing; nothing else.
# With everything present it asks nothing and touches no network.
set -eu

packages="g++ cmake make git $(cat "$(dirname "$0")/libraries")
          clang-format clang-tidy
          iproute2 util-linux procps openssl dnsmasq-base curl python3 tshark $*"

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
