#!/bin/sh
# Installs the missing ones of the Debian packages that this project needs.
#
#   scripts/install_dependencies.sh GROUP...
#
#   build    to build library, host layer, client and test programs
#   display  a display without a screen, for a machine that has none
#   test     additionally for the tests and the other presets
#   arm64    additionally for the preset arm64; scripts/arm64_sysroot.sh fetches its libraries
#   browser  a browser, for the long form of the tests
set -eu

packages_of() {
    case "$1" in
    build)
        echo g++ ninja-build pkg-config libx264-dev libyuv-dev libbitstream-dev libxcb1-dev libxcb-shm0-dev \
            libxcb-xfixes0-dev libxcb-randr0-dev libxcb-damage0-dev libxcb-composite0-dev libpulse-dev \
            libcli11-dev \
            libpng-dev libavformat-dev libavcodec-dev libavutil-dev libwayland-dev libpipewire-0.3-dev libsystemd-dev \
            googletest libgtest-dev python3
        # A new enough cmake from another source is sufficient.
        cmake --version 2>/dev/null | awk '/^cmake version/ { split($3, v, "."); found = v[1] * 1000 + v[2] >= 3025 }
            END { exit !found }' || echo cmake
        ;;
    display) echo xvfb ;;
    test) echo g++-arm-linux-gnueabihf qemu-user ffmpeg xvfb x11-apps x11-xserver-utils xdotool sway pulseaudio \
        pulseaudio-utils mutter libgl1-mesa-dri pipewire wireplumber pipewire-pulse xdg-desktop-portal \
        dbus-daemon dbus-session-bus-common dbus-bin libglib2.0-bin python3-gi xauth systemd binutils \
        abigail-tools gstreamer1.0-tools gstreamer1.0-plugins-base \
        gstreamer1.0-plugins-bad zsh fish groff-base clang libclang-rt-dev clang-format \
        clang-tidy shellcheck flake8 doxygen clang-16 libc++-16-dev \
        libc++abi-16-dev ;; # libc++ 14 lacks std::ranges::any_of and the like, which the tests use
    arm64) echo g++-aarch64-linux-gnu qemu-user ;;
    browser) echo chromium ;;
    *)
        echo "install_dependencies.sh: there is no group '$1', only build, display, test, arm64 and browser" >&2
        exit 2
        ;;
    esac
}

wanted=
for group in "$@"; do
    group_packages=$(packages_of "$group")
    wanted="$wanted $group_packages"
done

missing=
for package in $wanted; do
    case "$(dpkg-query -W -f '${Status}' "$package" 2>/dev/null)" in
    *"ok installed") ;;
    *) missing="$missing $package" ;;
    esac
done
[ -n "$missing" ] || exit 0

if [ "$(id -u)" -ne 0 ]; then
    echo "These packages are missing and need root to install:$missing" >&2
    exit 1
fi
echo "Installing$missing"
export DEBIAN_FRONTEND=noninteractive
log=$(mktemp)
trap 'rm -f "$log"' EXIT
# A fresh machine has no package lists, an old one has stale ones.
# shellcheck disable=SC2086 # a list of packages
{ apt-get -qq update && apt-get -qq -y --no-install-recommends install $missing; } >"$log" 2>&1 || {
    cat "$log" >&2
    exit 1
}
