#!/usr/bin/env bash
# Tests that the package is complete. The plug-in builds against it as an SDK, from sources in
# another directory, to identical bytes. The host and the example need no other files. The commands
# come from the package's document.
# usage: package_test.sh SOURCE BUILD DEPS OBJCOPY
set -u
source=$1 build=$2 deps=$3 objcopy=$4
export WINEPREFIX=${WINEPREFIX:-$build/../wineprefix} WINEDEBUG=-all
export LC_ALL=C.UTF-8 # paths are UTF-8, whatever the language of the caller
work=$build/package_test
failures=0

check() {
    local what=$1
    shift
    if "$@" >"$work/output.txt" 2>&1; then return; fi
    echo "FAILED: $what"
    tail -n 30 "$work/output.txt"
    failures=$((failures + 1))
}

# Extracts the loaded sections, without the debug link and the build's GUID: they depend on the
# symbols, which contain the paths of the headers.
loaded_bytes() {
    "$objcopy" -O binary -R .gnu_debuglink -R .buildid "$1" "$2"
}

# Runs the commands of document $3 that start with $2, in directory $1.
documented() {
    local folder=$1 begin=$2 lines
    lines=$(grep -- "^$begin" "$source/docs/${3:-package.md}" |
        sed "s|build/mine|$work/plugin|g; s|FOLDER|$package|; s|SDK/|./|g")
    [ -n "$lines" ] && cd "$folder" && timeout 300 bash -ec "$lines"
}

# What passed once passes again: nothing here depends on anything but these. What other tests and the
# benches contain is in no package.
inputs() {
    (set -o pipefail && cd "$source" &&
        { git ls-files -z -- . ':!tests' ':!bench' && git ls-files -z -- tests/package; } |
        sort -z | xargs -0 sha256sum) &&
        (cd "$work" && sha256sum bypass_mgr-*.zip) &&
        x86_64-w64-mingw32-g++-posix --version && wine --version &&
        { command -v clang lld-link || :; }
}

rm -rf "$work"
mkdir -p "$work/sources"
check "package.py succeeds" python3 "$source/cmake/package.py" "$source" "$build" "$deps" "$work"
inputs >"$work/inputs.txt" || : >"$work/inputs.txt"
if [ $failures = 0 ] && [ -s "$work/inputs.txt" ] &&
    cmp -s "$work/inputs.txt" "$build/package_passed.txt"; then
    echo "nothing has changed since this passed"
    exit 0
fi
python3 -m zipfile -e "$work"/bypass_mgr-*.zip "$work" || exit 1
package=$(echo "$work"/bypass_mgr-*/)
package=${package%/}

check "no file contains a path of this machine" sh -c \
    "! grep -rlF -e '$source/' -e '$build/' -e '$deps/' '$package'"
check "the host plays a scenario" documented "$package" "WINEDLLOVERRIDES="
# The document's first member of a scenario leads to the schema that the host checks by.
schema=$(grep -o '"\$schema": "[^"]*"' "$source/docs/package.md")
sed "1a $schema," "$package/scenarios/default.json" >"$package/scenarios/named.json"
check "an editor finds the schema" sh -c "cd '$package/scenarios' &&
    grep -q '\"title\": \"oxni_devhost scenario\"' \"\$(echo '$schema' | cut -d '\"' -f 4)\""
check "the host plays a scenario that names the schema" env WINEDLLOVERRIDES=dbgeng=n,b timeout 100 \
    wine "$package/bin/oxni_devhost.exe" run --quiet --log none "$package/scenarios/named.json"
rm "$package/scenarios/named.json"

# Both checks need nothing but their files: no prefix of the build, no sources beside them.
alone() {
    (cd "$package/bin" && export WINEPREFIX=$work/prefix && "$@")
}
check "a new Wine prefix" alone env WINEDLLOVERRIDES="mscoree,mshtml=d" timeout 100 wineboot --init
check "windows_check runs" alone sh -c "timeout 100 wine windows_check.exe '$work/lines.txt';
    grep -q '^ok OpenServiceW: a service that is none: 1060' '$work/lines.txt'"
check "platform_check runs" alone timeout 100 wine platform_check.exe
check "platform_check builds" documented "$package" "x86_64-w64-mingw32-g++" platform_check.md
check "platform_check with its sources' driver" alone timeout 100 wine platform_check.exe
mv "$package/platform_check.exe" "$package/bin/plain_check.exe"
# The reference platform delivers nothing by itself: not what a driver needs that only waits.
check "platform_check with the plain driver" alone sh -c "timeout 100 wine plain_check.exe \
        memory tables strings paths time coding documents json references >'$work/plain.txt' &&
    grep -q ' kept, 0 broken, [1-9][0-9]* not checked' '$work/plain.txt' &&
    ! timeout 100 wine plain_check.exe oxni_timer_start"
alone wineserver -k

release() {
    python3 "$source/cmake/release.py" "$source" "$build" "$deps" "$1" - "$source/cmake/wine-run" \
        "$build/bin/oxni_devhost.exe"
}
version=${package##*-}
check "this version has its changes and the files that it writes" release "$version"
check "another version is refused" sh -c \
    "python3 '$source/cmake/release.py' '$source' '$build' '$deps' 9.9.9 - 2>&1 |
    grep -q 'project version $version, expected 9.9.9'"

git -C "$source" ls-files -z | (cd "$source" && tar c --null -T -) | tar x -C "$work/sources"
check "the plug-in builds against the package" documented "$work/sources" "cmake "
loaded_bytes "$package/bin/libbypass_mgr.dll" "$work/shipped.bin"
loaded_bytes "$work/plugin/bin/libbypass_mgr.dll" "$work/built.bin"
check "the plug-in is identical to the shipped one" cmp "$work/shipped.bin" "$work/built.bin"

if command -v clang >/dev/null && command -v lld-link >/dev/null; then
    check "MSVC's dialect and linker" "$source/tests/package/msvc_test.sh" "$package" "$work/msvc"
else
    echo "MSVC's dialect is not checked: it needs clang and lld"
fi

check "the examples build" documented "$package" "x86_64-w64-mingw32-g++"
(cd "$package/bin" && timeout 300 wine registration.exe) | tr -d '\r' >"$work/example.txt"
cat >"$work/expected.txt" <<'END'
guard is registered
the console says: [{"product_name": "XNI", "status": 1, "count": 1, "data": {"modules": ["load_driver", "file_filter", "function_driver", "network_driver", "oxnisp_driver"]}}, {"product_name": "guard", "status": 1, "count": 3, "data": {"modules": ["guard_flt"]}}]
the console says: ["XNI", "guard"]
guard recover
END
check "the example plays a registration" diff "$work/expected.txt" "$work/example.txt"

# The second run finds what the first one saved.
for _ in 1 2; do
    (cd "$package/bin" && timeout 300 wine product.exe) | tr -d '\r' | grep '^guard'
done >"$work/product.txt"
cat >"$work/expected.txt" <<'END'
guard is registered: bypass, count 2
guard obeys "recover": working, count 2
guard is registered: working, count 2
guard obeys "recover": working, count 2
END
check "the example obeys and keeps its status" diff "$work/expected.txt" "$work/product.txt"
[ $failures != 0 ] || cp "$work/inputs.txt" "$build/package_passed.txt"
exit $failures
