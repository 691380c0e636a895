#!/usr/bin/env bash
# A plug-in that stays mapped makes the same calls with the same arguments and results, on every
# random machine, as one that is loaded from its file at each start of the agent. A start that left
# something of the agent before, or did not redirect an import, would differ here.
# usage: mapped_plugin_test.sh WINE_RUN PROGRAM BOOTS
set -u
wine=$1 program=$2 boots=$3
hashes() {
    "$wine" "$program" simulate --boots "$boots" --seed 1 --hash-calls "$@" | tr -d '\r' | grep '^machine '
}
mapped=$(hashes)
loaded=$(hashes --reload)
[ "$(wc -l <<<"$mapped")" -ge $((boots / 8)) ] && [ "$mapped" = "$loaded" ] && exit 0
diff <(echo "$mapped") <(echo "$loaded") | head -20
exit 1
