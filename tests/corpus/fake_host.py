#!/usr/bin/python3
"""In place of "oxni_devhost serve", for the tests: the name of a case's folder says what the case does.

usage: fake_host.py serve --plugin DLL
"""
import json
import os
import sys
import time


def boot_of(number, answer):
    return {"boot": number, "started": "2024-03-07T09:00:00Z", "ended": "unknown", "answer": answer,
            "sentence": answer, "doubts": [], "blamed": None, "orders": []}


for line in sys.stdin:
    case = json.loads(line)
    path = case["source"]
    name = os.path.basename(path)
    with open(os.path.join(path, "played"), "a", encoding="utf-8") as file:
        file.write("x")
    if name.startswith("busy"):
        time.sleep(0.1)
    if name.startswith("hangs"):
        time.sleep(1000)
    if name.startswith("crashes") or (name.startswith("once") and os.path.getsize(os.path.join(path, "played")) == 1):
        sys.stderr.write("the reason is on stderr\n")
        os._exit(70)
    if name.startswith("prints"):
        print("nonsense")
    print(json.dumps({"id": case["id"], "status": 0, "result": {
        "answer": "no bypass", "sentence": "No bypass.", "boots": [boot_of(1, "no bypass")]}}), flush=True)
