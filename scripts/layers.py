#!/usr/bin/env python3
"""Lists the include arrows between the daemon's folders and checks that each
points down the layer order below; --check exits 1 on an arrow that points up
(or sideways between two folders of one layer).

    python3 scripts/layers.py            # every arrow, with the files behind it
    python3 scripts/layers.py --check    # only what is wrong; exit status 1 if anything
"""
import argparse
import os
import re
import sys

TOP = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))

# Bottom first. A folder may include from any folder of a lower layer.
LAYERS = [
    ["platform"],
    ["foundation"],
    ["config", "linkhealth"],
    ["sockdiag", "report"],
    ["rules"],
    ["stats"],
    ["manager"],
    ["binder"],
    ["daemon", "tools"],
]
RANK = {folder: rank for rank, folders in enumerate(LAYERS) for folder in folders}
# Tests, benchmarks and fuzz targets may reach anything they exercise.
EXEMPT = re.compile(r"(^|/)(tests|bench|fuzz|testbed)(/|$)")
INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.M)


def top_folder(path):
    return path.split("/", 1)[0]


def arrows(root=TOP):
    """{(from folder, to folder): [file, ...]} over the production sources."""
    found = {}
    for folder in RANK:
        for dirpath, dirnames, filenames in os.walk(os.path.join(root, folder)):
            rel_dir = os.path.relpath(dirpath, root)
            if EXEMPT.search(rel_dir):
                dirnames[:] = []
                continue
            for name in filenames:
                if not name.endswith((".cpp", ".h")):
                    continue
                rel = os.path.join(rel_dir, name)
                with open(os.path.join(root, rel), encoding="utf-8") as f:
                    for include in INCLUDE.findall(f.read()):
                        to = top_folder(include)
                        if to != folder and to in RANK:
                            found.setdefault((folder, to), []).append(f"{rel} -> {include}")
    return found


def wrong(found):
    return {arrow: files for arrow, files in found.items() if RANK[arrow[1]] >= RANK[arrow[0]]}


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--check", action="store_true", help="print only arrows that point up; exit 1 if any")
    parser.add_argument("--root", default=TOP, help="the source tree (default: this one)")
    args = parser.parse_args()
    found = arrows(args.root)
    bad = wrong(found)
    shown = bad if args.check else found
    for (src, dst), files in sorted(shown.items(), key=lambda item: (RANK[item[0][0]], item[0])):
        mark = "  UP" if (src, dst) in bad else ""
        print(f"{src} -> {dst} ({len(files)}){mark}")
        if args.check or mark:
            for line in files:
                print(f"    {line}")
    if args.check:
        print("layers: no include arrow points up" if not bad else f"layers: {len(bad)} arrow(s) point up")
    return 1 if args.check and bad else 0


if __name__ == "__main__":
    sys.exit(main())
