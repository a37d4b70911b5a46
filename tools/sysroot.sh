#!/bin/sh
# sysroot.sh ARCHITECTURE FOLDER [PACKAGE...]: unpacks Debian's packages of another architecture, and what they depend on, into
# FOLDER; without a PACKAGE those of tools/libraries and tools/test-libraries, for cross builds. Nothing of them is installed,
# and the machine's own package lists stay as they are: apt works in folders of its own beside FOLDER, and takes only its
# sources and their keys from the machine. An unpacked FOLDER is left as it is until the list of packages changes.
set -eu

[ $# -ge 2 ] || { echo "usage: tools/sysroot.sh ARCHITECTURE FOLDER [PACKAGE...]" >&2; exit 2; }
architecture=$1
mkdir -p "$(dirname "$2")"
sysroot=$(cd "$(dirname "$2")" && pwd)/$(basename "$2")
stamp=$sysroot/.unpacked
shift 2
packages=${*:-$(cat "$(dirname "$0")/libraries" "$(dirname "$0")/test-libraries")}

[ "$(cat "$stamp" 2>/dev/null)" != "$architecture $packages" ] || exit 0

apt=$sysroot.apt
rm -rf "$sysroot" "$apt"
mkdir -p "$sysroot" "$apt/state/lists/partial" "$apt/cache/archives/partial"
: >"$apt/status"

# No package counts as installed, so apt finds the whole set, down to the C library.
apt_get() {
    apt-get -qq -o Dir::State="$apt/state" -o Dir::State::status="$apt/status" -o Dir::Cache="$apt/cache" \
        -o APT::Architecture="$architecture" -o APT::Architectures="$architecture" -o APT::Sandbox::User=root \
        -o Debug::NoLocking=true -o Acquire::Retries=3 "$@"
}

echo "sysroot: fetching" $packages "for $architecture into $sysroot"
# A source that is just being renewed does not stand in the way of the others; what is really missing ends the install.
apt_get update || echo "sysroot: going on with the package lists that there are" >&2
apt_get install --yes --download-only --no-install-recommends $packages

for package in "$apt"/cache/archives/*.deb; do
    dpkg-deb -x "$package" "$sysroot"
done
# Links to absolute paths mean the sysroot, not the machine.
find "$sysroot" -type l -lname '/*' | while read -r link; do
    ln -snfr "$sysroot$(readlink "$link")" "$link"
done
rm -rf "$apt"
echo "$architecture $packages" >"$stamp"
