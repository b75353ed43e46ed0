#!/bin/sh
# Measures with clang which branches of the library the unit tests cover. Prints a line per file.
#
#   scripts/coverage.sh [--missing]    --missing lists the branches that are not covered
set -eu
cd "$(dirname "$0")/.."
build=build/coverage
flags="-O0 -g1 -fprofile-instr-generate -fcoverage-mapping"
cmake -G Ninja -B "$build" -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE= \
    -DCMAKE_C_FLAGS="$flags" -DCMAKE_CXX_FLAGS="$flags" -DSCREENRECORD_HOST=OFF >/dev/null
cmake --build "$build" --target unit_tests >/dev/null
RANDOM_CALLS=${RANDOM_CALLS:-100000} LLVM_PROFILE_FILE=$build/unit.profraw "$build/bin/unit_tests" --gtest_brief=1
llvm-profdata merge -o "$build/unit.profdata" "$build/unit.profraw"
if [ "${1:-}" = --missing ]; then
    llvm-cov show "$build/bin/unit_tests" -instr-profile "$build/unit.profdata" --show-branches=count src |
        grep -E '^/|Branch \(.*(True: 0[,]|False: 0])'
fi
llvm-cov report "$build/bin/unit_tests" -instr-profile "$build/unit.profdata" --show-region-summary=false -ignore-filename-regex='/(tests|platform|include)/'
