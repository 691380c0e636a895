#!/usr/bin/env bash
# The source of a DLL that has the imports of another one, the entry, and nothing else.
set -eu -o pipefail
echo 'unsigned long long __declspec(dllexport) oxni_plugin_init(void) { return 0; }'
# Symbols of the import libraries: their addresses hold the imported functions' ones.
"$1" -p "$2" | awk '
    /^The Import Tables/ { inside = 1 }
    /^The Export Tables|^The Function Table/ { inside = 0 }
    inside && $1 ~ /^[0-9a-f]+$/ && $2 ~ /^[0-9]+$/ && NF == 3 { name[count++] = $3 }
    END {
        for (i = 0; i < count; i++) printf "extern const char __imp_%s[];\n", name[i]
        print "__declspec(dllexport) const char *const imported[] = {"
        for (i = 0; i < count; i++) printf "    __imp_%s,\n", name[i]
        print "};"
    }'
