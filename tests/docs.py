"""Parses every snippet of the pages with its own format's parser, follows their links within the
project, and looks for what a client with a bare environment has to pass on and for what the pages must
have from the sources.
usage: docs.py SOURCE_FOLDER"""

import json
import pathlib
import re
import subprocess
import sys
import tempfile
import tomllib

DESKTOP = ["DISPLAY", "WAYLAND_DISPLAY", "XDG_RUNTIME_DIR", "DBUS_SESSION_BUS_ADDRESS", "XAUTHORITY"]

root = pathlib.Path(sys.argv[1])
pages = {path.name: path.read_text(encoding="utf-8")
         for path in [*root.glob("*.md"), *root.glob("docs/*.md")]}
for name, text in pages.items():
    for language, snippet in re.findall(r"^```(\w+)\n(.*?)^```$", text, re.MULTILINE | re.DOTALL):
        if language == "json":
            json.loads(snippet)
            assert '"env"' not in snippet or all(name in snippet for name in DESKTOP), snippet
        elif language == "toml":
            tomllib.loads(snippet)
        else:
            assert language == "sh", (name, language)
            subprocess.run(["sh", "-n"], input=snippet, text=True, check=True)

# A heading's anchor is the one that GitHub makes of it.
anchors = {name: {re.sub(r"[^\w -]", "", heading.lower()).replace(" ", "-")
                  for heading in re.findall(r"^#+ (.+)$", text, re.MULTILINE)}
           for name, text in pages.items()}
for name, text in pages.items():
    folder = root if (root / name).exists() else root / "docs"
    for page, anchor in re.findall(r"\]\((?!https?:)([^)#]*)#?([^)]*)\)", text):
        target = folder / page if page else folder / name
        assert target.exists(), f"{name}: no file {page}"
        assert not anchor or anchor in anchors[target.name], f"{name}: no heading {page}#{anchor}"

# Every text that the server can answer with is explained; what comes in at a % may be anything.
for path in sorted((root / "server").glob("*.[ch]*")):
    code = re.sub(r"^\s*//.*$", "", path.read_text(encoding="utf-8"), flags=re.MULTILINE)
    for text in re.findall(r'"((?:[^"\\\n]|\\.)*)"', re.sub(r'"\s*\n\s*u?"', "", code)):
        for words in re.split(r"%\w+|\\n|['\[\]]", text.removeprefix("Orrery call failed: ") if " " in text else ""):
            assert words.strip() in pages["clients.md"] + pages["README.md"], f"{path.name}: not explained: {text}"

# The pages on the tools have them all.
subprocess.run([sys.executable, root / "script/tools-page", "--check"], check=True)
with tempfile.TemporaryDirectory() as copy:
    for name in ("script/tools-page", "server/contract.json", "docs/tools.md"):
        pathlib.Path(copy, name).parent.mkdir()
        pathlib.Path(copy, name).write_bytes((root / name).read_bytes())
    pathlib.Path(copy, "docs/tools.md").write_text("older")
    checked = subprocess.run([sys.executable, pathlib.Path(copy, "script/tools-page"), "--check"],
                             stderr=subprocess.DEVNULL)
    assert checked.returncode, "an older page passes"
tools = json.loads((root / "server/contract.json").read_text(encoding="utf-8"))["tools"]
for tool in tools:
    assert f"`{tool['name']}`" in pages["README.md"], f"README.md lacks {tool['name']}"
