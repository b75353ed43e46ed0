#!/bin/sh
# Checks form and finds mistakes without running the code. Prints each finding; exit code 1 if there is one.
#
#   scripts/lint.sh               fast checks of all files, clang-tidy on the library
#   scripts/lint.sh --all         clang-tidy on the host layer and the client as well
#   scripts/lint.sh --fast [FILE...]   fast checks only, of these files
#
# Fast checks: clang-format, shellcheck, flake8, the direction of includes, and Doxygen on the public header without a
# warning. CONTRIBUTING.md names the hook that runs them on staged files.
set -eu
export LC_ALL=C.UTF-8
cd "$(dirname "$0")/.."

tidied='^(src)/'
case "${1:-}" in
"") ;;
--all) tidied='^(src|common|platform|client)/' ;;
--fast)
    tidied=
    shift
    ;;
*)
    echo "usage: scripts/lint.sh [--all | --fast [FILE...]]" >&2
    exit 2
    ;;
esac

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
if [ -n "$tidied" ] || [ $# -eq 0 ]; then
    git ls-files
else
    printf '%s\n' "$@"
fi >"$work/files"

failed=
# check NAME PATTERN COMMAND...: runs the command on the files whose name matches
check() {
    name=$1
    grep -E "$2" "$work/files" >"$work/chosen" || return 0
    shift 2
    xargs -d '\n' -a "$work/chosen" "$@" || failed="$failed $name"
}

check clang-format '\.(c|h|cpp)$' clang-format --dry-run -Werror
check shellcheck '(\.sh|^\.ci/run|^scripts/pre-commit)$' shellcheck
check flake8 '\.py$' flake8
(cd tests/end_to_end && python3 -B -m unittest -q includes_test) >"$work/includes.log" 2>&1 || {
    cat "$work/includes.log" >&2
    failed="$failed includes"
}
mkdir -p build
doxygen cmake/Doxyfile >"$work/doxygen.log" 2>&1 || {
    cat "$work/doxygen.log" >&2
    failed="$failed doxygen"
}

if [ -n "$tidied" ]; then
    # A separate build folder without GCC's precompiled headers and without unity files, which clang-tidy cannot use.
    tidy=build/tidy
    cmake -S . -B "$tidy" -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_C_COMPILER=clang \
        -DCMAKE_DISABLE_PRECOMPILE_HEADERS=ON -DBUILD_TESTING=OFF >"$work/configure.log" 2>&1 || {
        cat "$work/configure.log" >&2
        exit 1
    }
    grep -E "$tidied.*\.cpp$" "$work/files" >"$work/chosen"
    xargs -d '\n' -a "$work/chosen" -n 4 -P "$(nproc)" clang-tidy -p "$tidy" --quiet --warnings-as-errors='*' \
        2>"$work/tidy.log" || {
        grep -v 'warnings generated' "$work/tidy.log" >&2
        failed="$failed clang-tidy"
    }
fi

[ -z "$failed" ] || {
    echo "lint:$failed" >&2
    exit 1
}
