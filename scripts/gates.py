#!/usr/bin/env python3
"""The gates that the C++ sources pass: sizes of functions, files and lines, and who may include whom.

    scripts/gates.py               checks every tracked C++ file
    scripts/gates.py --self-test   checks the checks

Prints one line for each offence, `file:line: what`, and exits with 1 if there is any. Sizes, but for the length
of a line, are not asked of tests and fuzz targets. That every header compiles alone is the build's target
headers_alone.
"""
import re
import subprocess
import sys
from pathlib import Path

FUNCTION_LINES = 80
SOURCE_LINES = 800
HEADER_LINES = 400
LINE_CHARACTERS = 110

# Folder -> the folders it may include, besides itself. The folders are the floors of the house, lowest first.
FOUNDATION = ["i4min/string", "i4min/memory", "i4min/file", "i4min/threads", "i4min/network"]
ENGINE = ["server", "peer", "download"]
MAY_INCLUDE = {
    "i4min/string": ["i4min/memory"],
    "i4min/memory": ["i4min/string"],
    "i4min/file": FOUNDATION[:2],
    "i4min/threads": FOUNDATION[:3],
    "i4min/network": FOUNDATION[:4],
    "meta": ["i4min"],
    "transport": ["i4min", "meta"],
    "import": ["i4min", "meta", "transport"],
    "server": ["i4min", "meta", "transport", "import", *ENGINE],
    "peer": ["i4min", "meta", "transport", "import", *ENGINE],
    "download": ["i4min", "meta", "transport", "import", *ENGINE],
    "app": ["i4min", "meta", "transport", "import", *ENGINE],
    "console": ["i4min", "meta", "transport", "import", *ENGINE, "app", "remote"],
    "remote": ["i4min", "meta", "transport", "import", *ENGINE, "app", "console"],
    "index": ["i4min", "meta"],
}
# The headers by which floors reach up. So that no cycle comes of it, each stands on floors below all its users, and
# forward-declares the rest. Every floor includes the first kind, the engine's three the second kind as well.
FOR_EVERYONE = ["app/UIInterface.h", "app/Preferences.h", "app/version.h"]
FOR_EVERYONE_STANDS_ON = ["i4min/string", "i4min/memory"]
FOR_ENGINE = ["app/ClientApp.h", "app/MessageQ.h", "app/StringTable.h"]
FOR_ENGINE_STANDS_ON = ["i4min", "meta", "transport"]
# Of the client the index server may include the search trees, which it evaluates, and the version.
INDEX_SHARES = ["server/SearchNode.h", "server/TagSource.h", "app/version.h"]
# The entry and the list of singletons know every floor.
KNOWS_ALL = ["app/main.cpp", "app/entry.cpp", "app/singletons.cpp"]
INCLUDES_ANYTHING = ["tests", "fuzz", "bench"]
SIZES_FREE = ["tests", "fuzz"]

TOKEN = re.compile(
    r'R"(?P<delimiter>[^\s()\\]{0,16})\(.*?\)(?P=delimiter)"'
    r"|//[^\n]*|/\*.*?\*/"
    r'|"(?:\\.|[^"\\\n])*"'
    r"|(?<![0-9a-fA-F])'(?:\\.|[^'\\\n])+'"
    r"|^[ \t]*#(?:[^\n\\]|\\.|\\\n)*",
    re.DOTALL | re.MULTILINE,
)
SCOPE = re.compile(r"\b(namespace|class|struct|union|enum)\b[^()=]*$|\bextern\s*$|\bclass\b.*(\)|\b\w+)\s*:[^:].*$")
FUNCTION = re.compile(r"\)\s*(const|noexcept|override|final|mutable|try|->[^;{}]*|[A-Z_]+\([^()]*\)|\s)*$")
CASE = re.compile(r"^\s*(case\b.*:|default\s*:)")


def inside(path, folder):
    return path == folder or path.startswith(folder + "/")


def blank(source):
    """The source without comments, strings, characters and preprocessor lines; lines stay where they are."""
    return TOKEN.sub(lambda match: "\n" * match.group().count("\n"), source)


def function_bodies(source):
    """Yields (first line, last line, lines of the body) of every function body that isn't in another function."""
    text = blank(source)
    lines = text.split("\n")
    kinds, starts = [], []
    head, line = "", 1
    for character in text:
        if character == "\n":
            line += 1
            head += " "
        elif character == "{":
            inner = kinds[-1] if kinds else "scope"
            if SCOPE.search(head) and inner == "scope":
                kind = "scope"
            elif FUNCTION.search(head) and inner != "function":
                kind = "function"
            elif inner == "function" or re.search(r"(=|\breturn|\bconcept\b.*)\s*$", head) or inner == "data":
                kind = "function" if inner == "function" else "data"
            elif re.search(r"[\w>]\s*$", head):
                kind = "data"  # a member's initialiser
            else:
                kind = "function"  # behind a constructor's initialisers
            kinds.append(kind)
            starts.append(line)
            head = ""
        elif character == "}":
            if not kinds:
                raise ValueError(f"line {line}: a closing brace too many")
            kind, start = kinds.pop(), starts.pop()
            if kind == "function" and (not kinds or kinds[-1] != "function"):
                yield start, line, lines[start - 1 : line]
            head = ""
        elif character == ";":
            head = ""
        else:
            head += character
    if kinds:
        raise ValueError(f"line {starts[-1]}: a brace that isn't closed")


def flat_dispatch(body):
    """True for a body that is one flat switch: at least every fourth line is a case."""
    return 4 * sum(1 for line in body if CASE.match(line)) >= len(body)


def size_offences(path, source):
    lines = source.splitlines()
    for number, line in enumerate(lines, 1):
        if len(line) > LINE_CHARACTERS:
            yield number, f"{len(line)} characters in a line, {LINE_CHARACTERS} are allowed"
    if any(inside(path, folder) for folder in SIZES_FREE):
        return
    limit = HEADER_LINES if path.endswith(".h") else SOURCE_LINES
    if len(lines) > limit:
        yield limit + 1, f"{len(lines)} lines in the file, {limit} are allowed"
    for first, last, body in function_bodies(source):
        if last - first + 1 > FUNCTION_LINES and not flat_dispatch(body):
            yield first, f"{last - first + 1} lines in a function, {FUNCTION_LINES} are allowed"


def includes(source):
    """Yields (line, path) of every include in quotation marks."""
    for match in re.finditer(r'^[ \t]*#[ \t]*include[ \t]*"([^"\n]+)"', source, re.MULTILINE):
        yield source.count("\n", 0, match.start()) + 1, match.group(1)


def may_include(path, target):
    if path in KNOWS_ALL or any(inside(path, folder) for folder in INCLUDES_ANYTHING):
        return True
    if path in FOR_EVERYONE:
        return target in FOR_EVERYONE or any(inside(target, folder) for folder in FOR_EVERYONE_STANDS_ON)
    if target in FOR_EVERYONE:
        return True
    if path in FOR_ENGINE:
        return target in FOR_ENGINE or any(inside(target, folder) for folder in FOR_ENGINE_STANDS_ON)
    if target in FOR_ENGINE and any(inside(path, folder) for folder in ENGINE):
        return True
    if inside(path, "index") and target in INDEX_SHARES:
        return True
    for folder, allowed in MAY_INCLUDE.items():
        if inside(path, folder):
            return any(inside(target, one) for one in [folder, *allowed])
    return False


def include_offences(sources):
    """sources: path -> text. Yields (path, line, what)."""
    edges = {}
    for path, source in sources.items():
        for line, target in includes(source):
            if target not in sources:
                yield path, line, f'"{target}" is no file of ours: includes are written from the root'
                continue
            if not may_include(path, target):
                yield path, line, f"this floor may not include {target}"
            if path.endswith(".h") and target.endswith(".h"):
                edges.setdefault(path, []).append((line, target))
    state = {}
    for start in edges:
        if start in state:
            continue
        way, stack = [start], [iter(edges[start])]
        state[start] = "open"
        while stack:
            line, target = next(stack[-1], (0, None))
            if target is None:
                stack.pop()
                state[way.pop()] = "done"
            elif state.get(target) == "open":
                yield way[-1], line, "a cycle of includes: " + " -> ".join(way[way.index(target) :] + [target])
            elif target not in state:
                state[target] = "open"
                way.append(target)
                stack.append(iter(edges.get(target, [])))


def main():
    root = Path(__file__).resolve().parent.parent
    listed = subprocess.run(
        ["git", "ls-files", "-z", "*.cpp", "*.h"], cwd=root, check=True, capture_output=True, text=True
    ).stdout
    paths = [path for path in listed.split("\0") if path and (root / path).is_file()]
    sources = {path: (root / path).read_text(encoding="utf-8") for path in paths}
    offences = list(include_offences(sources))
    for path, source in sources.items():
        try:
            offences += [(path, line, what) for line, what in size_offences(path, source)]
        except ValueError as error:
            offences.append((path, 1, f"can't tell its functions apart: {error}"))
    for path, line, what in sorted(offences):
        print(f"{path}:{line}: {what}")
    print(f"gates: {len(sources)} files, {len(offences)} offences")
    return 1 if offences else 0


def self_test():
    def lengths(source):
        return [(first, last) for first, last, _ in function_bodies(source)]

    long = "".join(f"    f({i});\n" for i in range(FUNCTION_LINES))
    cases = "".join(f"        case {i}:\n            f();\n            break;\n" for i in range(40))
    table = [
        ("int f() {\n    if (a) {\n    }\n}\n", [(1, 4)]),
        ("namespace {\nclass A : public B<int()> {\n  public:\n    int f() const { return 1; }\n};\n}\n", [(4, 4)]),
        ("struct S {\n    int a{1};\n    S() : a{2} {\n        g();\n    }\n};\n", [(3, 5)]),
        ("const int t[] = {\n    {1},\n    {2},\n};\n", []),
        ("const C t[] = {\n    {1, [](int) {\n        f();\n    }},\n};\n", [(2, 4)]),
        ('void f() {\n    g("}", \'}\', R"(\n})", 1\'000);  // }\n}\n', [(1, 4)]),
        ("#define A {\nvoid f()\n    REQUIRES(lock_) {\n}\n", [(3, 4)]),
        ("enum class E : int { a, b };\ntemplate <class T>\nauto f(T t) -> decltype(t) {\n}\n", [(3, 4)]),
        ("class CAPABILITY() M {\n    void f() {\n    }\n};\n", [(2, 3)]),
        ('extern "C" {\nvoid f() {\n}\n}\n', [(2, 3)]),
    ]
    for source, expected in table:
        assert lengths(source) == expected, (source, lengths(source), expected)
    offends = lambda path, source: [what for _, what in size_offences(path, source)]
    assert len(offends("meta/a.cpp", "void f() {\n" + long + "}\n")) == 1
    assert not offends("tests/a_test.cpp", "void f() {\n" + long + "}\n")
    assert not offends("app/a.cpp", "void f(int n) {\n    switch (n) {\n" + cases + "    }\n}\n")
    assert len(offends("meta/a.h", "\n" * (HEADER_LINES + 1))) == 1
    assert len(offends("tests/a_test.cpp", "/" * (LINE_CHARACTERS + 1))) == 1
    sources = {
        "meta/a.h": '#include "meta/b.h"\n',
        "meta/b.h": '#include "meta/a.h"\n#include "app/UIInterface.h"\n#include "peer/p.h"\n#include "gone.h"\n',
        "app/UIInterface.h": '#include "i4min/string/string.h"\n#include "i4min/network/net.h"\n',
        "i4min/string/string.h": "",
        "i4min/network/net.h": '#include "i4min/threads/linux/t.h"\n',
        "i4min/threads/linux/t.h": "",
        "i4min/file/f.cpp": '#include "i4min/network/net.h"\n',
        "peer/p.h": '#include "server/s.h"\n',
        "server/s.h": '#include "app/MessageQ.h"\n#include "app/a.h"\n',
        "app/MessageQ.h": '#include "meta/b.h"\n#include "peer/p.h"\n',
        "app/a.h": '#include "app/MessageQ.h"\n#include "peer/q.h"\n',
        "peer/q.h": "",
        "tests/t_test.cpp": '#include "peer/p.h"\n',
    }
    found = sorted((path, line) for path, line, what in include_offences(sources) if "cycle" not in what)
    assert found == [("app/MessageQ.h", 2), ("app/UIInterface.h", 2), ("i4min/file/f.cpp", 1), ("meta/b.h", 3),
                     ("meta/b.h", 4), ("server/s.h", 2)], found
    cycles = [what for _, _, what in include_offences(sources) if "cycle" in what]
    assert cycles[0].endswith("meta/a.h -> meta/b.h -> meta/a.h"), cycles
    print("gates: the self-test passes")


if __name__ == "__main__":
    sys.exit(self_test() if sys.argv[1:] == ["--self-test"] else main())
