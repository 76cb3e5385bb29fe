"""Checks the includes among the project's own files.

usage: include_graph.py PROJECT-ROOT C++-COMPILER

- an include in quotes names a file of the project, from the project's root;
- no file includes itself, through whatever others;
- toolkit/ includes nothing but itself; v2/, the tools and the publisher use toolkit/ and know
  nothing of one another;
- each header compiles on its own: the file that it belongs to includes it first, or it is compiled
  here.
"""

import os
import re
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

# What the files of each folder may include besides files of their own folder.
FOLDERS = {
    "toolkit": {},
    "v2": {"toolkit"},
    "tools": {"toolkit"},
    "publisher": {"toolkit"},
    "tests": {"toolkit", "v2", "tools", "publisher"},
    "fuzz": {"toolkit", "v2", "tools", "publisher", "tests"},
    "bench": {},
}
INCLUDE = re.compile(r'^\s*#\s*include\s*"([^"]+)"', re.MULTILINE)


def project_files(root):
    for folder in FOLDERS:
        for path in sorted((root / folder).rglob("*")):
            if path.suffix in (".hpp", ".h", ".cpp", ".c"):
                yield path.relative_to(root).as_posix()


def may_include(name, other):
    folder, others = name.partition("/")[0], other.partition("/")[0]
    return others == folder or others in FOLDERS[folder]


def includes_of(root, name):
    return INCLUDE.findall((root / name).read_text(encoding="utf-8"))


def find_circle(graph):
    """The files of one circle, first and last the same, or nothing."""
    done = set()

    def visit(name, road):
        if name in road:
            return road[road.index(name):] + [name]
        if name in done:
            return []
        for included in graph.get(name, []):
            circle = visit(included, road + [name])
            if circle:
                return circle
        done.add(name)
        return []

    for name in graph:
        circle = visit(name, [])
        if circle:
            return circle
    return []


def leads_its_file(root, header):
    """Whether the build compiles the header before anything else, in the file of its name."""
    own = Path(header).with_suffix(".cpp")
    first = re.search(r'^\s*#\s*include\s*(\S+)', (root / own).read_text(encoding="utf-8"),
                      re.MULTILINE) if (root / own).is_file() else None
    return first is not None and first[1] == f'"{header}"'


def compile_alone(root, compiler, header):
    """What the compiler says about a file that holds nothing but this header; empty if it likes it."""
    run = subprocess.run(
        [compiler, "-std=c++20", "-fsyntax-only", "-I", str(root), "-x", "c++", "-"],
        input=f'#include "{header}"\n', capture_output=True, text=True, check=False)
    return run.stderr if run.returncode else ""


def main():
    root, compiler = Path(sys.argv[1]), sys.argv[2]
    files = list(project_files(root))
    graph = {name: includes_of(root, name) for name in files}
    faults = []

    for name, included in graph.items():
        for other in included:
            if other not in graph:
                faults.append(f'{name} includes "{other}", no file of the project from its root')
            elif not may_include(name, other):
                faults.append(f"{name} includes {other}, of which it must know nothing")

    circle = find_circle(graph)
    if circle:
        faults.append("circle: " + " -> ".join(circle))

    headers = [name for name in files if name.endswith((".hpp", ".h"))]
    others = [name for name in headers if not leads_its_file(root, name)]
    with ThreadPoolExecutor(os.cpu_count()) as pool:
        for header, said in zip(others, pool.map(
                lambda name: compile_alone(root, compiler, name), others)):
            if said:
                faults.append(f"{header} does not compile alone:\n{said}")

    print(f"{len(files)} files, {len(headers)} headers, "
          f"{len(others)} of them compiled alone, "
          f"{sum(map(len, graph.values()))} includes among them")
    print("\n".join(faults))
    return 1 if faults else 0


sys.exit(main())
