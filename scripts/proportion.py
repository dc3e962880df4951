#!/usr/bin/env python3
"""Prints how many lines of tests the project has per line of code, and fails
when that proportion rises above a limit, so that it cannot drift unseen.

Lines are non-blank lines. Tests are the files under a tests/ or test/ folder
and the files named *_test.* or test_* (fakes and helpers included). Code is
every other C++, Python and shell source, except the fuzz targets and the
benchmarks.
"""
import argparse
import os
import subprocess
import sys

SOURCE_SUFFIXES = {".cpp", ".cc", ".cxx", ".c", ".h", ".hpp", ".py", ".sh"}
EXCLUDED_DIRS = {"fuzz", "bench"}


def tracked_files(root):
    out = subprocess.run(["git", "-C", root, "ls-files", "-z"], check=True, capture_output=True).stdout
    return [p for p in out.decode().split("\0") if p]


def is_source(root, path):
    if os.path.splitext(path)[1] in SOURCE_SUFFIXES:
        return True
    # Scripts without a suffix count by their interpreter line.
    try:
        with open(os.path.join(root, path), "rb") as f:
            first = f.readline(200)
    except OSError:
        return False
    return first.startswith(b"#!") and any(w in first for w in (b"sh", b"python"))


def is_test(path):
    parts = path.split("/")
    name = parts[-1]
    return (any(p in ("tests", "test") for p in parts[:-1]) or "_test." in name
            or name.startswith("test_"))


def non_blank_lines(path):
    with open(path, "rb") as f:
        return sum(1 for line in f if line.strip())


def count_by_folder(root):
    """{top folder: {"tests": lines, "code": lines}} of the tracked sources."""
    folders = {}
    for path in tracked_files(root):
        parts = path.split("/")
        if any(p in EXCLUDED_DIRS for p in parts[:-1]) or not is_source(root, path):
            continue
        full = os.path.join(root, path)
        if not os.path.isfile(full):
            continue
        folder = folders.setdefault(parts[0] if len(parts) > 1 else ".", {"tests": 0, "code": 0})
        folder["tests" if is_test(path) else "code"] += non_blank_lines(full)
    return folders


def totals(folders):
    """(test lines, code lines) of the folders counted by count_by_folder."""
    return sum(f["tests"] for f in folders.values()), sum(f["code"] for f in folders.values())


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--limit", type=float, default=0.40,
                        help="fail above this many test lines per code line (default 0.40)")
    parser.add_argument("--by-folder", action="store_true", help="also print the counts per top folder")
    parser.add_argument("--root", default=os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
    args = parser.parse_args()

    folders = count_by_folder(args.root)
    tests, code = totals(folders)

    if args.by_folder:
        for name in sorted(folders):
            f = folders[name]
            print(f"  {name:<10} tests {f['tests']:>6}  code {f['code']:>6}")
    ratio = tests / code if code else 0.0
    print(f"tests {tests} lines, code {code} lines: {ratio:.2f} test lines per code line "
          f"(limit {args.limit:.2f})")
    if ratio > args.limit:
        print("too many test lines for the code: fold cases into tables, drop tests that restate the code",
              file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
