#!/bin/sh
# Installs missing packages, builds, and records five seconds of the screen to recording.ts. A machine without a
# display records moving content on a private display, which ends with the script.
set -eu
export LC_ALL=C.UTF-8
cd "$(dirname "$0")"
programs=build/release/bin
work=$(mktemp -d)
started=
clean_up() {
    for process in $started; do
        kill "$process" 2>/dev/null || true
    done
    rm -rf "$work"
}
trap clean_up EXIT
trap 'exit 130' INT TERM HUP

# wait_for FILE PROCESS: until the process has written something to the file, for ten seconds at most.
wait_for() {
    tries=0
    while [ ! -s "$1" ]; do
        tries=$((tries + 1))
        if [ "$tries" -gt 200 ] || ! kill -0 "$2" 2>/dev/null; then
            echo "demo.sh: the display for the demonstration did not start" >&2
            exit 1
        fi
        sleep 0.05
    done
}

start_own_display() {
    scripts/install_dependencies.sh display
    scripts/virtual_display.sh 1280x720 >"$work/number" 2>"$work/xvfb.log" &
    started="$started $!"
    wait_for "$work/number" $!
    DISPLAY=:$(cat "$work/number")
    export DISPLAY
    $programs/moving_screen >"$work/ready" &
    started="$! $started"
    wait_for "$work/ready" $!
}

scripts/install_dependencies.sh build
mkdir -p build
echo "Building (the log is build/demo.log)"
if ! { cmake --preset release && cmake --build build/release --target screenrecord_client moving_screen; } \
    >build/demo.log 2>&1; then
    tail -n 40 build/demo.log >&2
    exit 1
fi

if [ -n "${DISPLAY:-}" ] && $programs/moving_screen --check 2>/dev/null; then
    echo "Recording five seconds of the display $DISPLAY"
else
    start_own_display
    echo "Recording five seconds of a display made for this demonstration"
fi
made=$($programs/screenrecord record -t 5 -y -o recording.ts)

echo "Made $made, $(stat -c %s "$made") bytes"
if command -v ffprobe >/dev/null; then
    ffprobe -v error -show_entries stream=codec_name,width,height,avg_frame_rate,sample_rate:format=duration \
        -of compact=nokey=0 "$made" | awk '/^(stream|format)/ && !seen[$0]++' | tr '|' ' '
fi
echo "Play it with: ffplay $made   (or mpv, or vlc)"
