"""Parses every snippet of docs/clients.md with its own format's parser, and looks for what a client
with a bare environment has to pass on. usage: docs.py DOCS_FOLDER SERVER_SOURCE"""

import json
import pathlib
import re
import subprocess
import sys
import tomllib

DESKTOP = ["DISPLAY", "WAYLAND_DISPLAY", "XDG_RUNTIME_DIR", "DBUS_SESSION_BUS_ADDRESS",
           "XAUTHORITY", "TMPDIR"]

text = (pathlib.Path(sys.argv[1]) / "clients.md").read_text(encoding="utf-8")
snippets = re.findall(r"^```(\w+)\n(.*?)^```$", text, re.MULTILINE | re.DOTALL)
assert len(snippets) >= 8, "where are the snippets?"
for language, snippet in snippets:
    if language == "json":
        json.loads(snippet)
    elif language == "toml":
        tomllib.loads(snippet)
    else:
        assert language == "sh", language
        subprocess.run(["sh", "-n"], input=snippet, text=True, check=True)
complete = sum(all(name in snippet for name in DESKTOP) for _, snippet in snippets)
assert complete >= 4, f"only {complete} snippets pass the whole desktop on"

# Every text that the server can answer with is explained.
source = re.sub(r'"\s+u?"', "", pathlib.Path(sys.argv[2]).read_text(encoding="utf-8"))
for answer in re.findall(r'u"([A-Zcwuq][^"]{15,}[^" ])"_s', source):
    if not answer.startswith(("Orrery error", "Orrery call failed", "Method not found")):
        assert answer in text, f"not explained: {answer}"
