"""Checks the includes among the project's own files.

usage: include_graph.py PROJECT-ROOT C++-COMPILER

- an include in quotes names a file of the project, from the project's root;
- no file includes itself, through whatever others;
- no file includes one of a floor or room above its own;
- each header compiles on its own.
"""

import os
import re
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

FOLDERS = ["toolkit", "v2", "tools", "tests", "fuzz", "bench"]

# From the ground up. A file includes only files of its own room and of those below it.
ROOMS = [
    "toolkit",
    "tools",
    "v2/base",
    "v2/demux",
    "v2/playlist",
    "v2/webvtt",
    "v2/hls",
    "v2/captions",
    "v2/es",
    "v2",
    "tests",
    "fuzz",
    "bench",
]
INCLUDE = re.compile(r'^\s*#\s*include\s*"([^"]+)"', re.MULTILINE)


def project_files(root):
    for folder in FOLDERS:
        for path in sorted((root / folder).rglob("*")):
            if path.suffix in (".hpp", ".h", ".cpp", ".c"):
                yield path.relative_to(root).as_posix()


def room_of(name):
    """Where the file's room stands in ROOMS; a room of its own need not be named there."""
    folder = name.rpartition("/")[0]
    return ROOMS.index(folder if folder in ROOMS else folder.partition("/")[0])


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
            elif room_of(other) > room_of(name):
                faults.append(f"{name} includes {other}, which is of a room above its own")

    circle = find_circle(graph)
    if circle:
        faults.append("circle: " + " -> ".join(circle))

    headers = [name for name in files if name.endswith((".hpp", ".h"))]
    with ThreadPoolExecutor(os.cpu_count()) as pool:
        for header, said in zip(headers, pool.map(
                lambda name: compile_alone(root, compiler, name), headers)):
            if said:
                faults.append(f"{header} does not compile alone:\n{said}")

    print(f"{len(files)} files, {len(headers)} headers, "
          f"{sum(map(len, graph.values()))} includes among them")
    print("\n".join(faults))
    return 1 if faults else 0


sys.exit(main())
