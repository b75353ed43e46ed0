#!/bin/sh
# Unpacks the arm64 packages of Debian that the build needs into FOLDER, unless they are there. The machine's packages
# stay unchanged, since a foreign architecture beside them must have the same versions.
#
#   scripts/arm64_sysroot.sh FOLDER
set -eu
packages="libc6-dev libstdc++-12-dev libcli11-dev libbitstream-dev libx264-dev libyuv-dev libxcb1-dev libxcb-shm0-dev
    libxcb-xfixes0-dev libxcb-randr0-dev libxcb-damage0-dev libxcb-composite0-dev libpulse-dev libpng-dev
    libwayland-dev libavformat-dev libavcodec-dev libavutil-dev libpipewire-0.3-dev libsystemd-dev"
folder=$1
[ "$(cat "$folder/packages" 2>/dev/null)" != "$packages" ] || exit 0

rm -rf "$folder"
mkdir -p "$folder/apt/lists/partial" "$folder/apt/archives/partial"
folder=$(cd "$folder" && pwd)
: >"$folder/apt/status" # nothing is installed there, so apt fetches every dependency

# of_arm64 COMMAND...: apt-get as on a machine of that kind
of_arm64() {
    apt-get -qq -o APT::Architecture=arm64 -o APT::Architectures=arm64 -o APT::Sandbox::User=root \
        -o Dir::State::lists="$folder/apt/lists" -o Dir::State::status="$folder/apt/status" \
        -o Dir::Cache="$folder/apt" -o Debug::NoLocking=1 "$@"
}
of_arm64 update
# shellcheck disable=SC2086
of_arm64 --yes --no-install-recommends --download-only install $packages
for archive in "$folder"/apt/archives/*.deb; do
    dpkg-deb -x "$archive" "$folder"
done
rm -rf "$folder/apt"
# The compiler looks for the loader and libc below /lib, which a Debian package that is not installed here provides.
[ -e "$folder/lib" ] || ln -s usr/lib "$folder/lib"
echo "$packages" >"$folder/packages"
