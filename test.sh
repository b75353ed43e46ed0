#!/bin/sh
# Installs missing packages, builds every preset, runs every test and scripts/lint.sh.
#
#   ./test.sh [--long]    --long adds the long forms of the tests, the device's unit tests compiled by GCC (otherwise
#                         clang compiles them, and GCC the library only), a build of each file without precompiled
#                         headers, all parts for arm64, and clang-tidy on host layer and client
set -eu
export LC_ALL=C.UTF-8
cd "$(dirname "$0")"

configuration=
case "${1:-}" in
"") ;;
--long) configuration="-C Long" ;;
*)
    echo "usage: ./test.sh [--long]" >&2
    exit 2
    ;;
esac

jobs=$(nproc)
failed=
begin=$(date +%s)

# GCC 12's ThreadSanitizer does not know the address spaces of newer kernels; without randomisation it does.
fixed_addresses="setarch $(uname -m) -R"
$fixed_addresses true 2>/dev/null || fixed_addresses=

# Builds use idle processor time only, so that they do not slow the tests beside them.
idle="chrt --idle 0"
$idle true 2>/dev/null || idle="nice -n 19"

# build PRESET [TARGET]
build() {
    mkdir -p "build/$1"
    log=build/$1/build.log
    { cmake --preset "$1" && $idle cmake --build "build/$1" -j "$jobs" --target "${2:-all}"; } >"$log" 2>&1 && return
    grep -E -A 20 'error|FAILED|Error' "$log" | head -n 60 >&2
    echo "The whole log is $log" >&2
    return 1
}

run_tests() {
    launcher=
    # A recorder mostly waits for the next picture, so there is room for more than one test per processor. Tests that
    # measure time run alone; the sanitizers' presets have none.
    at_once=$((jobs + 1))
    case $1 in
    tsan) launcher=$fixed_addresses ;;
    libcxx | armhf*) launcher=$idle ;;
    esac
    # shellcheck disable=SC2086
    $launcher ctest --test-dir "build/$1" $configuration -j "$at_once" --output-on-failure --no-tests=error --timeout 300
}

# The presets whose tests were started, in that order, and the processes that run them.
started=

# start_tests PRESET: beside the builds of the next presets, but after the tests of the earlier ones. Presets with only
# the unit tests measure no time, so they use idle processor time.
start_tests() {
    lock=build/tests.lock
    case $1 in
    libcxx | armhf*) lock=build/unit_tests.lock ;;
    esac
    { flock 9 && run_tests "$1" 9>&-; } 9>"$lock" >"build/$1/tests.log" 2>&1 &
    started="$started $1:$!"
}

finish_tests() {
    for preset_and_process in $started; do
        preset=${preset_and_process%:*}
        wait "${preset_and_process#*:}" || failed="$failed $preset(tests)"
        echo "== $preset"
        cat "build/$preset/tests.log"
    done
    started=
}

scripts/install_dependencies.sh build
# Packages that only the tests and the other presets need are fetched while the first preset is built.
scripts/install_dependencies.sh display test &
installing=$!
# The preset with the longest tests is first, so that the others are built beside its tests.
presets="release tsan asan libcxx armhf-clang"
lint=
if [ -n "$configuration" ]; then
    scripts/install_dependencies.sh arm64 browser
    scripts/arm64_sysroot.sh build/arm64-sysroot
    presets="$presets armhf arm64"
    lint=--all
fi
for next in $presets; do
    built=true
    build "$next" || built=false
    [ "$next" != release ] || wait "$installing"
    if ! $built; then
        failed="$failed $next(build)"
        continue
    fi
    echo "== $next is built after $(($(date +%s) - begin)) s"
    start_tests "$next"
done
[ -z "$configuration" ] || build each-file || failed="$failed each-file(build)"
[ -n "$configuration" ] || build armhf screenrecord_objects || failed="$failed armhf(build)"
# shellcheck disable=SC2086 # no argument or one
$idle scripts/lint.sh $lint >build/lint.log 2>&1 || {
    failed="$failed lint"
    cat build/lint.log
}
finish_tests

if [ -n "$failed" ]; then
    echo "RED after $(($(date +%s) - begin)) s:$failed"
    exit 1
fi
echo "GREEN after $(($(date +%s) - begin)) s: $presets"
