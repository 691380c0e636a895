#!/usr/bin/env bash
# Checks the shipped modules: hardening, no path of the build machine, and the plug-in's exports,
# imports and version.
# usage: shipped_test.sh OBJDUMP DEF_FILE IMPORTS_LIST VERSION PATHS PLUGIN [MODULE...]
#   PATHS   directories that no module may contain, separated by colons
set -u
objdump=$1 def=$2 list=$3 version=$4 paths=$5
shift 5
plugin=$1
failures=0

fail() {
    echo "FAILED: $*"
    failures=$((failures + 1))
}

exports_of() {
    "$objdump" -p "$1" |
        awk '/\[Ordinal\/Name Pointer\] Table/ {on=1; next} on && NF==0 {exit} on {print $NF}'
}

# Prints one line per function: its module and its name.
imports_of() {
    "$objdump" -p "$1" | tr -d '\r' | awk '
        /DLL Name:/ {module = tolower($3); next}
        /^The Export Tables|^The Function Table/ {module = ""}
        module != "" && NF == 3 && $1 ~ /^[0-9a-f]+$/ && $2 ~ /^[0-9]+$/ {print module, $3}' |
        LC_ALL=C sort
}

check_hardening() {
    local module=$1 headers property folder
    headers=$("$objdump" -p "$module") || { fail "$module: objdump cannot read it"; return; }
    for property in HIGH_ENTROPY_VA DYNAMIC_BASE NX_COMPAT; do
        grep -q "^[[:space:]]*$property$" <<<"$headers" || fail "$module: $property is not set"
    done
    # Address space randomisation needs relocations.
    awk '/Base Relocation Directory/ && $4 !~ /^0+$/ {found=1} END {exit !found}' <<<"$headers" ||
        fail "$module: no relocations"
    "$objdump" -h "$module" | awk '
        $1 ~ /^[0-9]+$/ {name = $2; next}
        /CONTENTS/ && / CODE/ && !/READONLY/ {print name}' | grep . >/dev/null &&
        fail "$module: a section is writable and executable"
    "$objdump" -h "$module" | grep -F .gnu_debuglink >/dev/null || fail "$module: no debug link"
    "$objdump" -h "$module" | grep -F .debug_info >/dev/null && fail "$module: contains symbols"
    for dated in "$module" "$module.debug"; do
        "$objdump" -p "$dated" | grep -q "^Time/Date.* 1970$" ||
            fail "$dated: contains a date, so builds are not reproducible"
    done
    for folder in ${paths//:/ } /usr/src/ /home/ /root/; do
        grep -F -e "$folder" "$module" "$module.debug" >/dev/null &&
            fail "$module: contains $folder"
    done
}

for module in "$@"; do
    check_hardening "$module"
done

# Only for the plug-in: modules without arrays on the stack have nothing to protect. About a hundred
# functions of the plug-in have such arrays; a few are protected whatever its own flags are.
guard=$("${objdump%objdump}nm" "$plugin.debug" | awk '$3 == "__stack_chk_fail" {print $1}' | sed 's/^0*//')
guarded=$("$objdump" -d "$plugin" | grep -c "call .*${guard:-none}")
[ "$guarded" -ge 80 ] ||
    fail "$plugin: $guarded functions have a stack protector, expected at least 80"

exports=$(exports_of "$plugin")
wanted=$(sed -n '/EXPORTS/,$p' "$def" | tail -n +2 | tr -d ' ')
[ "$exports" = "$wanted" ] || fail "exports are: $exports; expected: $wanted"
listed=$(awk '/^#/ {next} /^[^ ]/ {module = $1; next}
    {for (i = 1; i <= NF; i++) print module, $i}' "$list")
difference=$(diff <(echo "$listed") <(imports_of "$plugin")) ||
    fail "imports differ from $list (< only in the list, > only in the DLL):
$difference"
"${objdump%objdump}strings" -el "$plugin" | grep -A1 -xF FileVersion | grep -xF "$version" >/dev/null ||
    fail "the version resource is not $version"
[ $failures = 0 ] && echo "$# modules checked"
exit $failures
