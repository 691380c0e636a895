#!/usr/bin/env python3
"""Checks that the development host watches, and can fail, each call of Windows and of the platform
in the plug-in's own sources. The lists below contain the exceptions.

usage: watched_calls_test.py NM CALLS_TABLE OBJECT...
"""
import re
import subprocess
import sys

# Symbols of the C runtime and of Windows' headers: memory and text functions, abort, interface ids.
RUNTIME = "strlen strcmp memcpy memcmp memchr memset wcslen abort IID_IUnknown".split()
# Functions that cannot fail, or fail only without memory, which the allocator's fault injection
# covers.
SILENT = """
    GetCurrentProcessId GetCurrentThreadId GetLastError _snwprintf _wcsicmp _wtoi
    oxni_log_level_get oxni_path_basename oxni_str_free oxni_str_snprintf oxni_strcmp oxni_strlcpy
    oxni_wcscmp oxni_wcsnlen oxni_xhash_count oxni_xhash_first oxni_xhash_next oxni_xhash_search
    wdu_json_object_get_ejs wdu_json_array wdu_json_array_append_new wdu_json_array_get
    wdu_json_array_size wdu_json_delete wdu_json_get_alloc_funcs wdu_json_integer
    wdu_json_integer_set wdu_json_integer_value wdu_json_object_clear wdu_json_object_del
    wdu_json_object_get wdu_json_object_set_new
    wdu_json_string wdu_json_string_value
""".split()

nm, table, objects = sys.argv[1], sys.argv[2], sys.argv[3:]
symbols = subprocess.run([nm, *objects], capture_output=True, text=True, check=True).stdout
own = set(re.findall(r"^[0-9a-f]+ \w (\w+)$", symbols, flags=re.M))
called = set(re.findall(r"^ +U (?:__imp_)?(_?[A-Za-z]\w*)$", symbols, flags=re.M)) - own
called = {name for name in called if not name.startswith(("_Z", "_Unwind"))}
with open(table, encoding="utf-8") as file:
    watched = set(re.findall(r'^    \{"\w+\.dll", +"(\w+)"', file.read(), flags=re.M))
problems = [f"{name}: is called, but is neither watched nor in SILENT"
            for name in sorted(called - watched - set(SILENT + RUNTIME))]
problems += [f"{name}: is in SILENT, but is not called" for name in sorted(set(SILENT) - called)]
print("\n".join(problems) or f"{len(called)} calls, {len(called & watched)} of them watched")
sys.exit(1 if problems or not called else 0)
