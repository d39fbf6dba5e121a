#!/usr/bin/env python3
"""Checks that the paths and symbols that README.md and docs/*.md name exist.

    scripts/docs.py               checks the documents
    scripts/docs.py --self-test   checks the checks

It checks spans in back-ticks outside of fenced blocks:
- A word that contains a slash, or ends like a source file (.h, .cpp, .py, .sh, .md, .json, .cmake, or .txt after a
  capital letter, such as CMakeLists.txt), is a path from the root of the tree and must exist. `*` and NAME stand for
  any letters; at least one path must match. Paths outside the tree are recognised by their start: `./temp` is in the
  working directory, `build/tarnwick` is made by a build, `/tmp` and `~/x` belong to the system.
- A span that is one identifier, with or without parentheses, is a symbol if it contains `::`, starts with or contains
  a capital letter, starts with `i4_`, or has parentheses. It must occur in the sources outside of comments; for `A::b`,
  A and b must occur in the same file.
It also checks relative links, and the paths in fenced sh blocks that start with scripts/ or tests/.
"""
import fnmatch
import re
import sys
from pathlib import Path

NOT_SOURCES = ("scripts/docs.py", "scripts/gates.py")  # their self-tests name what doesn't exist
SOURCE_SUFFIXES = {".cpp", ".h", ".py", ".sh", ".cmake", ".json"}
FENCE = re.compile(r"^(```+|~~~+)[ \t]*([^\n]*)\n(.*?)^\1[ \t]*$", re.MULTILINE | re.DOTALL)
SPAN = re.compile(r"(?<!`)(`+)(?!`)(.+?)(?<!`)\1(?!`)", re.DOTALL)
LINK = re.compile(r"\]\(([^)\s#]+)[^)]*\)")
PATH = re.compile(r"[\w.*-]+(/[\w.*-]+)+/?|[\w.*-]+/|[\w*-]+\.(h|cpp|py|sh|md|json|cmake)|[A-Z][A-Za-z]+\.txt")
SYMBOL = re.compile(r"~?[A-Za-z_]\w*(::~?[A-Za-z_]\w*)*(\(.*\))?", re.DOTALL)
COMMENT = re.compile(r"//[^\n]*|/\*.*?\*/", re.DOTALL)


class Tree:
    """The paths of the tree, and the words of each of its sources."""

    def __init__(self, paths, texts):
        self.paths = paths
        self.words = {path: set(re.findall(r"[A-Za-z_]\w*", text)) for path, text in texts.items()}
        self.all_words = set().union(*self.words.values()) if self.words else set()

    @staticmethod
    def read(root):
        paths, texts = set(), {}
        for path in sorted(root.rglob("*")):
            name = path.relative_to(root).as_posix()
            if name.split("/")[0] in ("build", ".git", ".cache"):
                continue
            paths.add(name)
            if path.is_file() and name not in NOT_SOURCES and (path.suffix in SOURCE_SUFFIXES or path.name == "CMakeLists.txt"
                                   or name.startswith("scripts/")):
                text = path.read_text(encoding="utf-8", errors="replace")
                comment = COMMENT if path.suffix in (".cpp", ".h") else re.compile(r"^\s*#.*$", re.MULTILINE)
                texts[name] = comment.sub(" ", text)
        return Tree(paths, texts)

    def has_path(self, name):
        pattern = re.sub(r"NAME", "*", name.rstrip("/"))
        return pattern in self.paths or ("*" in pattern and any(fnmatch.fnmatch(p, pattern) for p in self.paths))

    def has_symbol(self, symbol):
        parts = re.sub(r"\(.*", "", symbol, flags=re.DOTALL).replace("~", "").split("::")
        if len(parts) == 1:
            return parts[0] in self.all_words
        if parts[0] == "std":
            return True
        return any(words.issuperset(parts) for words in self.words.values())


def is_symbol(span):
    if not SYMBOL.fullmatch(span):
        return False
    name = span.split("(")[0]
    return "::" in span or "(" in span or name.startswith("i4_") or bool(re.search(r"[A-Z]", name))


def missing(page, text, tree):
    """Yields (line, what) for every name on the page that doesn't exist in the tree."""
    def line_of(at):
        return text.count("\n", 0, at) + 1

    for fence in FENCE.finditer(text):
        if fence.group(2).strip() == "sh":
            for path in re.finditer(r"(?<![\w./-])(scripts|tests)/[\w./-]+", fence.group(3)):
                if not tree.has_path(path.group()):
                    yield line_of(fence.start(3) + path.start()), f"no path {path.group()}"
    prose = FENCE.sub(lambda match: "\n" * match.group().count("\n"), text)
    text = prose
    for span in SPAN.finditer(prose):
        content = " ".join(span.group(2).split())
        if is_symbol(content):
            if not tree.has_symbol(content):
                yield line_of(span.start()), f"no symbol {content} in the sources"
            continue
        for word in content.split():
            if PATH.fullmatch(word) and not word.startswith(("./", "../", "build/")) and not tree.has_path(word):
                yield line_of(span.start()), f"no path {word} in the tree"
    for link in LINK.finditer(prose):
        if "://" not in link.group(1) and not link.group(1).startswith("mailto:"):
            folder = page.rpartition("/")[0]
            target = Path(folder, link.group(1)).as_posix()
            while re.search(r"[^/]+/\.\./", target):
                target = re.sub(r"[^/]+/\.\./", "", target, count=1)
            if not tree.has_path(target):
                yield line_of(link.start()), f"no path {target} for the link"


def main():
    root = Path(__file__).resolve().parent.parent
    tree = Tree.read(root)
    pages = [root / "README.md", *sorted((root / "docs").glob("**/*.md"))]
    count = 0
    for page in pages:
        name = page.relative_to(root).as_posix()
        for line, what in missing(name, page.read_text(encoding="utf-8"), tree):
            print(f"{name}:{line}: {what}")
            count += 1
    print(f"docs: {len(pages)} pages, {count} names that lead nowhere")
    return 1 if count else 0


def self_test():
    tree = Tree({"a", "a/b.h", "scripts/test", "docs/x.md"}, {"a/b.h": "class Cat { void purr(); i4_x y; };"})
    page = """`a/b.h`, `a/`, `a/*.h`, `a/NAME.h`, `./temp/x`, `build/cat`, `/tmp/q`, `Cat`, `Cat::purr()`, `purr()`
`i4_x`, `std::mutex`, `plain`, `cmake -S . -B build`, [x](x.md), [top](../scripts/test), [web](https://x.y/z)
```sh
scripts/test
scripts/tset
```
`a/c.h` `b.cpp`
`Dog` `Cat::bark` `bark()` `i4_z` `scripts/test a/c.h`
[y](y.md)
```
`Dog`
```
`two
lines/of`
"""
    found = [line for line, _ in missing("docs/x.md", page, tree)]
    assert found == [5, 7, 7, 8, 8, 8, 8, 8, 13, 9], found
    print("docs: the self-test passes")


if __name__ == "__main__":
    sys.exit(self_test() if sys.argv[1:] == ["--self-test"] else main())
