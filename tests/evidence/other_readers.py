"""Two other readers of .evtx logs, python3-evtx and evtxexport, and what they read otherwise."""
import base64
import re
import subprocess
import xml.etree.ElementTree as tree

# Prints pairs of a record's number and its XML, which is null when it cannot be read. A second argument
# limits the number of records.
PYTHON_EVTX = """
import itertools, json, sys
import Evtx.Evtx

def xml(record):
    try:
        return record.xml()
    except Exception:
        return None
found = []
try:
    with Evtx.Evtx.Evtx(sys.argv[1]) as log:
        for record in itertools.islice(log.records(), *map(int, sys.argv[2:] or [sys.maxsize])):
            found.append([record.record_num(), xml(record)])
except Exception as error:
    print("python3-evtx ends with", repr(error), file=sys.stderr)
print(json.dumps(found))
"""
SPACE = "{http://schemas.microsoft.com/win/2004/08/events/event}"
SEPARATOR = "\x1f"
# What the other readers do to a string, undone on both sides: pattern, replacement, reason.
FAULTS = [
    (r"\b0x0*([0-9a-fA-F]+)\b", lambda found: "0x" + found[1].lower(), "hexadecimal numbers have other widths"),
    (r"\{[0-9a-fA-F-]{36}\}", lambda found: found[0].lower(), "GUIDs are in capitals"),
    (r"(\d{4,}-\d\d-\d\d)[T ](\d\d:\d\d:\d\d)(\.\d+)?Z?", r"\1 \2", "times are rounded, and without a zone"),
    (r"\b\d{5,}-\d\d-\d\d \d\d:\d\d:\d\d\b", "0001-01-01 00:00:00", "python3-evtx has no times after the year 9999"),
    (r"^(True|False)$", lambda found: found[0].lower(), "python3-evtx prints truth values as Python does"),
    (r"^(?:[0-9A-F]{2}){8,}$", lambda found: base64.b64encode(bytes.fromhex(found[0])).decode(),
     "python3-evtx prints binary values as Base64"),
    (r"\r\n", "\n", "XML has one kind of line end"),
    (r"(?s)^<string>(.*)</string>\n$", lambda found: found[1].replace("</string>\n<string>", SEPARATOR),
     "python3-evtx prints arrays as markup"),
    ("[\U00010000-\U0010ffff]|\ufffd+", "?", "evtxexport reads characters above U+FFFF as others"),
]
# The same of damaged records: XML cannot contain these characters.
NO_XML = "[\x01-\x08\x0b-\x1f\x7f-\x9f\ud800-\udfff\ufffe\uffff?]"


def xml_of_evtxexport(path):
    """The events of a log, in its order. A log at which it hangs has none."""
    try:
        done = subprocess.run(["evtxexport", "-f", "xml", path], capture_output=True, timeout=300)
    except subprocess.TimeoutExpired:
        return []
    events = done.stdout.decode(errors="replace").split("<Event ")[1:]
    return ["<Event " + text[:text.rindex("</Event>")] + "</Event>" for text in events if "</Event>" in text]


def python_repeats(strings):
    """python3-evtx returns strings twice when the first one of an array is empty."""
    return len(strings) > 1 and not strings[0]


def evtxexport_joins(strings):
    """evtxexport takes a lone surrogate and what follows it for one character."""
    return any(re.search("[\ud800-\udfff\ufffd]", text) for text in strings)


def as_others(strings):
    for pattern, replacement, _ in FAULTS:
        strings = [re.sub(pattern, replacement, text) for text in strings]
    return SEPARATOR.join(strings).split(SEPARATOR) if any(strings) else [] # an empty array is an empty text


def sound_xml(text):
    """The XML of a damaged record. python3-evtx goes on after the NUL at which a string ends."""
    return re.sub(NO_XML, "", re.sub("\x00[^<]*", "", text))


def from_xml(text):
    """The fields of a record, its strings from attributes and texts of its data."""
    system, *parts = tree.fromstring(text)
    provider, code = system.find(SPACE + "Provider"), system.find(SPACE + "EventID")
    strings = []
    for one in (element for part in parts for element in part.iter() if element is not part):
        if one.tag != SPACE + "Binary":
            strings += [value for name, value in one.items() if name != "Name"]
            strings += [one.text or ""] if len(one) == 0 and (one.text or not one.keys() or one.get("Name")) else []
    return [int(system.find(SPACE + "EventRecordID").text), int(code.text) | int(code.get("Qualifiers") or 0) << 16,
            provider.get("EventSourceName") or provider.get("Name"),
            system.find(SPACE + "TimeCreated").get("SystemTime")[:19].replace(" ", "T") + "Z", as_others(strings)]
