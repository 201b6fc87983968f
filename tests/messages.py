#!/usr/bin/env python3
"""Compares the messages that users can meet with docs/troubleshooting.md, both ways. Argument: the source folder."""
import pathlib
import re
import sys

CALL = r'\b(?:g_(?:warning|info|message|critical|error|error_new\w*|set_error\w*)|set_\w*error\w*|fail_\w+|refuse' \
       r'|soup_\w+set_status) \(((?:"(?:[^"\\]|\\.)*"|[^";])*?)\);'
TEXT = r'"((?:[^"\\]|\\.|"\s*G_\w+_FORMAT\s*"|"\s+")*)"'
TABLED = r'"((?:Failed|Cannot|Could not|Unable|Unsupported|Root window) (?:[^"\\]|\\.)*)"'  # said by another line

said = set()
source = pathlib.Path(sys.argv[1])
for path in [path for part in ("ryx", "modules", "hosts") for path in (source / part).rglob("*.[ch]*")]:
    code = re.sub(r"/\*.*?\*/|g_debug \([^;]*;", "", path.read_text(), flags=re.S)
    texts = [text for call in re.findall(CALL, code) for text in re.findall(TEXT, call)] + re.findall(TABLED, code)
    for text in texts:
        text = re.sub(r'"\s*G_\w+_FORMAT\s*"', "", re.sub(r'"\s+"', "", text)).replace("%%", "\0")
        text = re.sub(r"%[\d.]*[a-zA-Z]?", "…", text).replace("\0", "%").replace('\\"', '"').removesuffix(r"\n")
        if re.search(r"[a-z]{4}", text) and (" " in text or text[0].isupper()):
            said.add(text)

page = (source / "docs/troubleshooting.md").read_text()
rows = {text for cell in re.findall(r"^\| (`.*?) \|", page, re.M) for text in re.findall(r"`(.+?)`", cell)}
faults = [f"without a row: {text}" for text in said - rows] + [f"never said: {text}" for text in rows - said]
sys.exit("\n".join(sorted(faults)) or 0)
