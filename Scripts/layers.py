#!/usr/bin/env python3
"""Compares the picture of the layers in Docs/architecture.md with the #include lines of Src.

A box of the picture is a folder of Src, Tools or an external library. "tests" is all of Src/tests; "services" is a box
beside "zol". An include that leaves its box needs an arrow, and each arrow needs an include. Private headers are for
their own box, with few exceptions. Exit status 0 when all of this holds.
"""

import argparse
import pathlib
import re
import sys

PICTURE = pathlib.Path("Docs/architecture.md")
SEARCH_PATH = [pathlib.Path("Src"), pathlib.Path("Include"), pathlib.Path("Tools")]
LIBRARIES = {"glib": "GLib", "libxml": "libxml2"}  # by the beginning of their headers' names
# Files that do not belong to the box they are named after. No box owns the names that all modules share.
OWNERS = {"services": "services", "kiv_services": "services", "kiv_token": "kiv_tokens", "kiv_export": None,
          "kiv_status": None}

# Boxes whose private headers others may include, and which others.
SHARED = {"common": ".*", "kiv_debug": ".*", "kiv_test": "tests", "Tools": "kiv_test"}

INCLUDE = re.compile(r'^ *# *include ["<]([^">]+)[">]')


def drawn():
    """The arrows of the Mermaid block. "a & b --> c" stands for two, and a subgraph for each of its boxes."""
    block = re.search(r"^```mermaid\n(.*?)^```", PICTURE.read_text(), re.M | re.S)
    text = block.group(1) if block else ""
    groups = {name: body.split() for name, body in re.findall(r"subgraph (\w+)\n(.*?)\bend\b", text, re.S)}

    def boxes(side):
        return [box for name in side.split("&") for box in groups.get(name.strip(), [name.strip()])]

    arrows = [line.split("-->") for line in text.splitlines() if "-->" in line]
    return {(start, end) for left, right in arrows for start in boxes(left) for end in boxes(right)}


def box_of(path):
    """The box that a source file or a header lies in."""
    if path.parts[0] == "Tools":
        return "Tools"
    return OWNERS.get(path.stem, path.stem if path.parts[0] == "Include" else path.parts[1])


def included(source, header):
    """The box of an included header, or None for one of the system; and whether the header is private."""
    for place in [source.parent, *SEARCH_PATH]:
        if (place / header).exists():
            return box_of(place / header), place.parts[0] != "Include"
    return next((library for prefix, library in LIBRARIES.items() if header.startswith(prefix)), None), False


def includes():
    """The includes that leave their box, as (place, box, target, whether the header is private)."""
    for source in [*sorted(pathlib.Path("Src").rglob("*.[ch]*")), *sorted(pathlib.Path("Include").rglob("*.h"))]:
        for number, line in enumerate(source.read_text().splitlines(), start=1):
            if include := INCLUDE.match(line):
                target, is_private = included(source, include.group(1))
                if target and target != box_of(source):
                    yield f"{source}:{number}", box_of(source), target, is_private


def main():
    argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter).parse_args()
    arrows, used, faults = drawn(), set(), []
    for place, box, target, is_private in includes():
        if (box, target) not in arrows | used:
            faults.append(f"{place}: {PICTURE} has no arrow {box} --> {target}")
        if is_private and not re.fullmatch(SHARED.get(target, ""), box):
            faults.append(f"{place}: includes a private header of {target}")
        used.add((box, target))
    faults += [f"{PICTURE}: no include needs the arrow {box} --> {target}" for box, target in sorted(arrows - used)]
    print("\n".join(faults) if faults else f"{len(arrows)} arrows")
    return bool(faults)


if __name__ == "__main__":
    sys.exit(main())
