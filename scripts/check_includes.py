#!/usr/bin/env python3
"""Checks that include arrows run one way and that sources keep to their size.

Layers: lib/ uses include/ only; common/ uses lib; tavrin/, tools/ and examples/ use common and lib. Inside the library each
module has a level, and a public header includes headers of lower levels only. A private header (x_int.h) belongs to
its module's own sources.
"""
import re
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent

LEVELS = {
    0: ["tvtypes"],
    1: ["log", "syswrap", "timeop", "strops", "util", "prfm", "xvdat", "dlep", "gkh", "libmeta"],
    2: ["lard", "fdio", "psensor", "config", "mpegts", "netops", "uri"],
    3: ["rtp", "tsix", "webops"],
    4: ["dstream", "wopen"],
    5: ["mmr", "rqs"],
}
LEVEL = {name: level for level, names in LEVELS.items() for name in names}
# Any source may log, make checked calls and read the signal flags; the loop's clock is read by the time utilities, and
# the log core hands its lines to the ring log; a paced transfer asks an index what to send next.
ANYWHERE = {"log", "syswrap", "util", "tvtypes"}
AGREED = {("timeop.cpp", "rqs"), ("log.cpp", "lard"), ("fdio_transfer.cpp", "tsix")}
LINE_LIMIT = 800
EXAMPLE_LINE_LIMIT = 200
INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.M)

problems = []


def module_of(path):
    """Longest known module name that the file's name starts with: mmr_cap.cpp belongs to mmr."""
    stem = path.stem.removesuffix("_int")
    candidates = [m for m in LEVEL if stem == m or stem.startswith(m + "_")]
    return max(candidates, key=len, default=None)


def check_library(path):
    module = module_of(path)
    if module is None:
        problems.append(f"{path.relative_to(ROOT)}: belongs to no module of the level table")
        return
    for name in INCLUDE.findall(path.read_text()):
        target = Path(name).stem
        if "/" in name:
            problems.append(f"{path.relative_to(ROOT)}: the library includes {name}")
        elif target.endswith("_int"):
            if module_of(Path(name)) != module:
                problems.append(f"{path.relative_to(ROOT)}: includes the private header {name}")
        elif target in LEVEL and target != module and target not in ANYWHERE and (path.name, target) not in AGREED:
            header = path.suffix == ".h"
            if LEVEL[target] > LEVEL[module] or (header and LEVEL[target] == LEVEL[module]):
                problems.append(f"{path.relative_to(ROOT)}: level {LEVEL[module]} includes {name} of level {LEVEL[target]}")


def check_upper(path, layer, forbidden):
    for name in INCLUDE.findall(path.read_text()):
        if name.split("/")[0] in forbidden:
            problems.append(f"{path.relative_to(ROOT)}: {layer} includes {name}")
        if name.endswith("_int.h") and path.suffix == ".cpp" and layer in ("tools", "examples"):
            problems.append(f"{path.relative_to(ROOT)}: includes the private header {name}")


for path in sorted([*ROOT.glob("include/*.h"), *ROOT.glob("lib/*.h"), *ROOT.glob("lib/*.cpp")]):
    check_library(path)
for path in sorted(ROOT.glob("common/*.*")):
    if path.suffix in (".h", ".cpp"):
        check_upper(path, "common", {"tavrin", "tools", "examples"})
for path in sorted(ROOT.glob("tavrin/*.*")):
    if path.suffix in (".h", ".cpp"):
        check_upper(path, "tavrin", {"tools", "examples"})
for layer, other in (("tools", "examples"), ("examples", "tools")):
    for path in sorted(ROOT.glob(f"{layer}/*.*")):
        if path.suffix in (".h", ".cpp"):
            check_upper(path, layer, {"tavrin", other})

for folder in ("include", "lib", "common", "tavrin", "tools", "examples", "fuzz", "bench"):
    limit = EXAMPLE_LINE_LIMIT if folder == "examples" else LINE_LIMIT
    for path in sorted([*ROOT.glob(f"{folder}/*.h"), *ROOT.glob(f"{folder}/*.cpp")]):
        lines = len(path.read_text().splitlines())
        if lines > limit:
            problems.append(f"{path.relative_to(ROOT)}: {lines} lines, the limit is {limit}")

for problem in problems:
    print(problem)
print(f"include check: {len(problems)} problem(s)")
sys.exit(1 if problems else 0)
