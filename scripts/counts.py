#!/usr/bin/env python3
"""Counts what may only decrease, and fails if a count is above its limit: lines of test code per line of product code,
and naked new and delete and void pointers in the product.

    scripts/counts.py              prints the counts and checks them
    scripts/counts.py --self-test  checks the checks

Lines are lines of C++ that aren't blank or comments. The product is everything outside tests, fuzz and bench; bench
isn't counted on either side. Lower a limit when its count has decreased.
"""
import re
import subprocess
import sys
from pathlib import Path

LIMITS = {"tests and fuzz / product": 0.43, "tests / product": 0.40, "new and delete": 4, "void*": 8}
TOKEN = re.compile(r"//[^\n]*|/\*.*?\*/|\"(?:\\.|[^\"\\\n])*\"", re.DOTALL)


def code_of(text):
    """The text without comments and with empty strings."""
    return TOKEN.sub(lambda token: '""' if token.group().startswith('"') else " ", text)


def lines_of(code):
    return sum(1 for line in code.split("\n") if line.strip())


def allocations_in(code):
    code = re.sub(r"= *delete|^ *#.*$", "", code, flags=re.MULTILINE)
    return len(re.findall(r"\bnew\b|\bdelete\b", code))


def count(files):
    """files: path -> text."""
    lines = {"tests": 0, "fuzz": 0, "bench": 0, "product": 0}
    allocations = pointers = 0
    for path, text in files.items():
        code = code_of(text)
        folder = path.split("/")[0]
        side = folder if folder in lines else "product"
        lines[side] += lines_of(code)
        if side == "product":
            allocations += allocations_in(code)
            pointers += code.count("void*")
    product = max(lines["product"], 1)
    counts = {"tests and fuzz / product": (lines["tests"] + lines["fuzz"]) / product, "tests / product": lines["tests"] / product,
              "new and delete": allocations, "void*": pointers}
    return lines, counts


def self_test():
    text = 'int a;  // new\n\n/* delete\n*/ X() = delete;\nauto* b = new int; delete b;\nvoid* c = f("new void*");\n'
    lines, counts = count({"core/a.cpp": text, "tests/a.cpp": "int a;\n// b\n"})
    assert lines == {"tests": 1, "fuzz": 0, "bench": 0, "product": 4}, lines
    assert counts["new and delete"] == 2 and counts["void*"] == 1 and counts["tests / product"] == 0.25, counts
    print("counts: the self-test passes")


def main():
    if sys.argv[1:] == ["--self-test"]:
        return self_test()
    root = Path(__file__).resolve().parent.parent
    names = subprocess.run(["git", "ls-files", "*.cpp", "*.h"], cwd=root, check=True, capture_output=True, text=True).stdout
    lines, counts = count({name: (root / name).read_text(encoding="utf-8") for name in names.split()})
    print("counts: lines " + ", ".join(f"{side} {number}" for side, number in lines.items()))
    over = False
    for what, number in counts.items():
        print(f"counts: {what} {number:.3g}, at most {LIMITS[what]}")
        over = over or number > LIMITS[what]
    return int(over)


if __name__ == "__main__":
    sys.exit(main())
