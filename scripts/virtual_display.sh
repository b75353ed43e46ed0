#!/bin/sh
# Becomes an X server without a screen. Prints the number of its display once it accepts clients.
#
#   scripts/virtual_display.sh SIZE [OPTION...]
#
#   SIZE    WIDTHxHEIGHT of depth 24, or WIDTHxHEIGHTxDEPTH
#   OPTION  of Xvfb
set -eu
size=$1
shift
case $size in
*x*x*) ;;
*) size=${size}x24 ;;
esac
exec Xvfb -displayfd 1 -screen 0 "$size" -nolisten tcp -noreset "$@"
