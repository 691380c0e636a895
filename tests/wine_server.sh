#!/usr/bin/env bash
# Starts the Wine server of the tests' prefix, which ends a minute after its last program, and a
# first program: it starts Wine's services, which would hold the output of a test open.
# usage: wine_server.sh WINE_RUN
set -u
export WINEPREFIX=${WINEPREFIX:-${BYPASS_BUILD:-$(dirname "$1")/../build}/wineprefix}
wineserver --persistent=60 </dev/null >/dev/null 2>&1 # fails when it runs already
exec "$1" cmd /c ver </dev/null >/dev/null 2>&1
