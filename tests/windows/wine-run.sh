#!/usr/bin/env bash
# Runs a Windows program under Wine (Debian's wine64) in a Wine prefix of the
# project's own, quietly. CMake uses it as the cross-compiling emulator, so
# CTest runs the Windows tests through it.
#   OSTREL_WINE_PREFIX   the prefix (default: ${OSTREL_WINDOWS_CACHE:-~/.cache/ostrel-windows}/wine-prefix)
set -euo pipefail
export WINEPREFIX=${OSTREL_WINE_PREFIX:-${OSTREL_WINDOWS_CACHE:-$HOME/.cache/ostrel-windows}/wine-prefix}
export WINEARCH=win64
export WINEDEBUG=${WINEDEBUG:--all}
export WINEDLLOVERRIDES=${WINEDLLOVERRIDES:-mscoree,mshtml=}
exec /usr/lib/wine/wine64 "$@"
