#!/usr/bin/env bash
# Starts the Wine server of the tests' prefix, which ends a minute after its last program, and a
# first program: it starts Wine's services, which would hold the output of a test open.
# usage: wine_server.sh WINE_RUN
set -u
export WINEPREFIX=${WINEPREFIX:-${BYPASS_BUILD:-$(dirname "$1")/../build}/wineprefix}
# Fails while a server runs. A server started by a program ends seconds after that program, in the
# middle of the tests if they rely on it.
for _ in $(seq 50); do
    wineserver --persistent=60 </dev/null >/dev/null 2>&1 && break
    pgrep -f -- "wineserver.* --persistent=60" >/dev/null && break
    sleep 0.1
done
exec "$1" cmd /c ver </dev/null >/dev/null 2>&1
