#!/usr/bin/env bash
# The plug-in exports what its .def file says and imports from the platform and Windows only.
# usage: exports_test.sh OBJDUMP DLL DEF_FILE
set -u
objdump=$1 dll=$2 def=$3
failures=0

fail() {
    echo "FAILED: $1"
    failures=$((failures + 1))
}

exports=$("$objdump" -p "$dll" | awk '/\[Ordinal\/Name Pointer\] Table/ {on=1; next} on && NF==0 {exit} on {print $NF}')
wanted=$(sed -n '/EXPORTS/,$p' "$def" | tail -n +2 | tr -d ' ')
[ "$exports" = "$wanted" ] || fail "exports are: $exports; expected: $wanted"

allowed="kernel32.dll advapi32.dll msvcrt.dll liboxnibase.dll liboxni_core.dll liboxnialgo.dll liboxni_agentid.dll libwdu_ejs.dll libwdu_jansson.dll"
imports=$("$objdump" -p "$dll" | sed -n 's/.*DLL Name: //p' | tr '[:upper:]' '[:lower:]')
[ -n "$imports" ] || fail "no imports found"
for module in $imports; do
    case " $allowed " in
    *" $module "*) ;;
    *) fail "imports from $module" ;;
    esac
done
[ $failures = 0 ] && echo "exports and imports are as expected"
exit $failures
