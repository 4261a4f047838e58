#!/usr/bin/env python3
"""Every ```cpp block of the guide (docs/*.md, README.md) must be a region of examples/guide/*.cpp
marked "// [snippet:name]" ... "// [/snippet]" (indentation of the marker removed), so the guide
only shows code the build compiles."""
import pathlib, re, sys

root = pathlib.Path(sys.argv[1])
marked = re.compile(r"^( *)// \[snippet:([\w-]+)\]\n(.*?)^ *// \[/snippet\]\n", re.M | re.S)
regions = {}
for source in (root / "examples/guide").glob("*.cpp"):
    for indent, name, body in marked.findall(source.read_text()):
        regions[name] = "".join(l[len(indent):] if l.strip() else "\n" for l in body.splitlines(True))
failures = 0
for page in [root / "README.md", *sorted((root / "docs").glob("*.md"))]:
    for block in re.findall(r"^```cpp\n(.*?)^```$", page.read_text(), re.M | re.S):
        if block not in regions.values():
            failures += 1
            print(f"{page.relative_to(root)}: no marked region of examples/guide matches:\n{block}")
sys.exit(1 if failures else 0)
