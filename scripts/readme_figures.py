#!/usr/bin/env python3
"""Writes the README's test figures (the proportion of test lines and the
number of tests of each build) from the tree and the build directories, or,
with --check, fails when the README says something else.

A figure whose build directory has not been configured is left as it stands.
"""
import argparse
import os
import re
import subprocess
import sys

import proportion

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")


def ctest_count(build, *labels):
    """How many tests CTest lists in `build` (with those labels), or None."""
    if not os.path.isfile(os.path.join(ROOT, build, "CTestTestfile.cmake")):
        return None
    out = subprocess.run(["ctest", "--test-dir", os.path.join(ROOT, build), "-N", *labels],
                         capture_output=True, text=True).stdout
    m = re.search(r"Total Tests: (\d+)", out)
    return int(m.group(1)) if m else None


def figures():
    """(pattern in the README, its text now or None when unknown)."""
    tests, code = proportion.totals(proportion.count_by_folder(ROOT))
    normal, threads, armhf = ctest_count("build"), ctest_count("build/tsan", "-L", "threads"), \
        ctest_count("build/armhf")
    return [
        (r"It stands at [0-9.]+ \([0-9,]+ test lines, [0-9,]+ code lines\)",
         "It stands at %.2f (%s test lines, %s code lines)" % (tests / code, format(tests, ","), format(code, ","))),
        (r"The normal build registers \d+ tests with CTest",
         normal and "The normal build registers %d tests with CTest" % normal),
        (r"the thread sanitizer runs \d+ of them", threads and "the thread sanitizer runs %d of them" % threads),
        (r"unit tests only \(\d+ tests:", armhf and "unit tests only (%d tests:" % armhf),
    ]


def main():
    p = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    p.add_argument("--check", action="store_true", help="change nothing; exit 1 when a figure is out of date")
    args = p.parse_args()
    path = os.path.join(ROOT, "README.md")
    with open(path) as f:
        text = f.read()
    stale = []
    for pattern, now in figures():
        pattern = pattern.replace(" ", r"\s+")  # a figure may be wrapped over lines
        found = [" ".join(f.split()) for f in re.findall(pattern, text)]
        if not found:
            stale.append("README has no figure matching %r" % pattern)
        elif now is not None and any(f != now for f in found):
            stale.append("README says %r, the tree gives %r" % (found[0], now))
            text = re.sub(pattern, lambda _: now, text)
    if args.check:
        for s in stale:
            print("readme figures: " + s)
        return 1 if stale else 0
    with open(path, "w") as f:
        f.write(text)
    print("readme figures: %d brought up to date" % len(stale))
    return 0


if __name__ == "__main__":
    sys.exit(main())
