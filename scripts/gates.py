#!/usr/bin/env python3
"""Checks the C++ sources: sizes of functions, files and lines, includes, include cycles, and direct use of the machine.

    scripts/gates.py               checks every tracked C++ file
    scripts/gates.py --symbols LIBRARY...   checks built libraries for process-wide state
    scripts/gates.py --self-test   checks the checks

Prints one line for each offence, `file:line: what`, and exits with 1 if there is any. Tests and fuzz targets are free
of size limits except the length of lines. The build target headers_alone checks that every header compiles alone.
"""
import re
import subprocess
import sys
from pathlib import Path

FUNCTION_LINES = 80
SOURCE_LINES = 800
HEADER_LINES = 400
LINE_CHARACTERS = 110

# Folder -> the folders it may include, besides itself. Each folder is a layer; the lowest comes first.
FOUNDATION = ["i4min/string", "i4min/memory", "i4min/file", "i4min/threads", "i4min/network"]
CORE = ["i4min", "host", "meta", "protocol", "core"]
DOWNLOADS = [*CORE, "transport", "import", "server", "peer", "download"]
MAY_INCLUDE = {
    "i4min/string": ["i4min/memory"],
    "i4min/memory": ["i4min/string"],
    "i4min/file": FOUNDATION[:2],
    "i4min/threads": FOUNDATION[:3],
    "i4min/network": FOUNDATION[:4],
    "host": ["i4min"],
    "meta": ["i4min"],
    "protocol": ["i4min", "meta"],
    "core": CORE,
    "transport": CORE,
    "import": CORE,
    "server": [*CORE, "transport"],
    "peer": [*CORE, "transport"],
    "download": DOWNLOADS,
    "engine": DOWNLOADS,
    "console": [*DOWNLOADS, "engine"],
    "remote": [*DOWNLOADS, "engine"],
    "app": [*DOWNLOADS, "engine", "console", "remote"],
    "index": ["i4min", "host", "meta", "protocol"],
    "sim": [*DOWNLOADS, "engine", "index"],
}
INCLUDES_ANYTHING = ["tests", "fuzz", "bench"]
# In an include cycle, a header and its source count as one pair; a cycle may have two pairs.
CIRCLE_FILES = 4
# Only these may use the machine's time, files and random numbers directly; all others use a Host.
ASKS_THE_MACHINE = ["i4min", "host", "tests", "fuzz", "bench", "app/entry.cpp", "index/main.cpp", "sim/main.cpp"]
MACHINE = re.compile(
    r"\b(i4_time|i4_ticks|i4_msleep|i4_sleep|i4_open|i4_get_directory|steady_clock|system_clock"
    r"|random_device)\b|[^\w:]::(open|stat|lstat|rename|unlink|mkdir|time|clock_gettime|getrandom)\("
)
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
    """The source without comments, strings, characters and preprocessor lines. Line numbers stay the same."""
    return TOKEN.sub(lambda match: "\n" * match.group().count("\n"), source)


def function_bodies(source):
    """Yields (first line, last line, lines of the body) of every function body outside other functions."""
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
                kind = "function"  # after a constructor's initialisers
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
    if any(inside(path, folder) for folder in INCLUDES_ANYTHING):
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
                yield path, line, f"this layer may not include {target}"
            pair, other = path.rsplit(".", 1)[0], target.rsplit(".", 1)[0]
            edges.setdefault(pair, set())
            if pair != other:
                edges[pair].add(other)
    for circle in circles(edges):
        files = sorted(path for path in sources if path.rsplit(".", 1)[0] in circle)
        if len(files) > CIRCLE_FILES:
            yield files[0], 1, f"a circle of {len(files)} files, {CIRCLE_FILES} are allowed: " + " ".join(files)


def circles(edges):
    """The sets of nodes that can reach each other. edges: node -> nodes."""
    index, low, stack, on_stack, result = {}, {}, [], set(), []

    def visit(start):
        work = [(start, iter(sorted(edges.get(start, ()))))]
        index[start] = low[start] = len(index)
        stack.append(start)
        on_stack.add(start)
        while work:
            node, targets = work[-1]
            target = next(targets, None)
            if target is None:
                work.pop()
                if work:
                    low[work[-1][0]] = min(low[work[-1][0]], low[node])
                if low[node] == index[node]:
                    circle = set()
                    while node not in circle:
                        circle.add(stack[-1])
                        on_stack.discard(stack.pop())
                    if len(circle) > 1:
                        result.append(circle)
            elif target not in index:
                index[target] = low[target] = len(index)
                stack.append(target)
                on_stack.add(target)
                work.append((target, iter(sorted(edges.get(target, ())))))
            elif target in on_stack:
                low[node] = min(low[node], index[target])

    for node in sorted(edges):
        if node not in index:
            visit(node)
    return result


def machine_offences(path, source):
    if any(inside(path, one) for one in ASKS_THE_MACHINE):
        return
    for number, line in enumerate(blank(source).split("\n"), 1):
        match = MACHINE.search(line)
        if match:
            yield number, f"asks the machine by {match.group().strip()}: that is the host's"


# The allowed process-wide state. Everything else belongs to an engine.
WRITABLE = {
    "i4_argv",
    "i4_debug_stream",
    "i4_standard_output()::output",
    "i4_get_clocks_per_sec()::measured",
    "(anonymous namespace)::debugFile",
    "(anonymous namespace)::debugHook",
    "(anonymous namespace)::errorHandler",
    "(anonymous namespace)::warningHandler",
    "(anonymous namespace)::position",  # of an error; one for each thread
    "(anonymous namespace)::held",  # ranks of locks; one for each thread
    "(anonymous namespace)::initList",
    "(anonymous namespace)::initialized",
    "(anonymous namespace)::mainThread",
    "(anonymous namespace)::threadCount",
    "(anonymous namespace)::threadInitList",
    "(anonymous namespace)::processStart",
    "processStart()::start",
}
SYMBOL = re.compile(r"^\w+ .{7} (\.\S+)\t\w+ (?:\.hidden )?(.+)$")


def writable_symbols(table):
    """The names of the objects in writable sections, of the output of objdump -t -C."""
    for line in table.splitlines():
        match = SYMBOL.match(line)
        if not match or line[23:24] != "O":
            continue
        section, name = match.groups()
        if not re.match(r"\.(data|bss|tdata|tbss)", section) or section.startswith(".data.rel.ro"):
            continue
        if "DW.ref." not in name and "guard variable" not in name:
            yield re.sub(r"^\(anonymous namespace\)::(?=\w+\()", "", name)


def check_symbols(libraries):
    offences = 0
    for library in libraries:
        table = subprocess.run(["objdump", "-t", "-C", library], check=True, capture_output=True, text=True).stdout
        for name in sorted(set(writable_symbols(table)) - WRITABLE):
            print(f"{library}: {name} is state of the process: it belongs to an engine")
            offences += 1
    print(f"gates: {len(libraries)} libraries, {offences} offences")
    return 1 if offences else 0


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
            offences += [(path, line, what) for line, what in machine_offences(path, source)]
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
        "meta/b.h": '#include "peer/p.h"\n#include "gone.h"\n',
        "i4min/string/string.h": "",
        "i4min/network/net.h": '#include "i4min/threads/linux/t.h"\n',
        "i4min/threads/linux/t.h": "",
        "i4min/file/f.cpp": '#include "i4min/network/net.h"\n',
        "peer/p.h": '#include "core/c.h"\n#include "server/s.h"\n',
        "core/c.h": '#include "i4min/string/string.h"\n',
        "server/s.h": '#include "core/c.h"\n#include "app/a.h"\n',
        "app/a.h": '#include "console/c.h"\n',
        "console/c.h": '#include "remote/r.h"\n',
        "remote/r.h": "",
        "tests/t_test.cpp": '#include "peer/p.h"\n',
        "download/a.h": "",
        "download/a.cpp": '#include "download/a.h"\n#include "download/b.h"\n',
        "download/b.h": "",
        "download/b.cpp": '#include "download/b.h"\n#include "download/a.h"\n',
    }
    found = sorted((path, line) for path, line, what in include_offences(sources))
    assert found == [("console/c.h", 1), ("i4min/file/f.cpp", 1), ("meta/b.h", 1), ("meta/b.h", 2), ("peer/p.h", 2),
                     ("server/s.h", 2)], found
    sources["download/b.cpp"] += '#include "download/c.h"\n'
    sources["download/c.h"] = '#include "download/a.h"\n'
    found = [what for _, _, what in include_offences(sources) if "circle" in what]
    assert len(found) == 1 and found[0].startswith("a circle of 5 files"), found
    assert [line for line, _ in machine_offences("peer/a.cpp", "f();\nx = ::stat(a, b);\n// i4_time\n")] == [2]
    assert not list(machine_offences("host/a.cpp", "x = ::stat(a, b);\n"))
    table = (
        "0000000000000000 l     O .bss\t0000000000000008 (anonymous namespace)::count\n"
        "0000000000000000 g     O .data.rel.ro\t0000000000000008 constant\n"
        "0000000000000000 l     F .text\t0000000000000008 f()\n"
        "0000000000000000  w    O .data.rel.local.DW.ref.x\t0000000000000008 .hidden DW.ref.x\n"
    )
    assert list(writable_symbols(table)) == ["(anonymous namespace)::count"], list(writable_symbols(table))
    print("gates: the self-test passes")


if __name__ == "__main__":
    if sys.argv[1:] == ["--self-test"]:
        sys.exit(self_test())
    sys.exit(check_symbols(sys.argv[2:]) if sys.argv[1:2] == ["--symbols"] else main())
