#!/usr/bin/env python3
"""Check that the service's libraries stand in layers and that no arrow between them points upward.

usage: scripts/lib/layers.py BUILD-FOLDER    NM may name another nm

The layers are those that docs/overview.md draws. The arrows are the build's: who includes whose
header, as the compiler resolved it, and whose archive defines the symbols that another one needs.
Within a library no two units may depend on each other, but for the circles that are named below.
"""

import collections
import os
import re
import subprocess
import sys

TOP = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
KNOWN_CIRCLES = [
    # A failing lock is logged; the log publishes its lines, and the bus and the log's file take locks.
    {"EventBus", "Log", "LogFile", "Mutex", "SubscriberList"},
]


def read_layers(text):
    """The libraries of each layer, the top first: the drawing under "## Layers"."""
    drawing = re.search(r"^## Layers$.*?^```\n(.*?)^```$", text, re.M | re.S).group(1)
    return [re.findall(r"kestrel[_-]\w+", line) for line in drawing.splitlines()]


def upward(layers, arrows):
    """What is wrong with the arrows (from, to, why)."""
    layer_of = {name: number for number, layer in enumerate(layers) for name in layer}
    for source, target, reason in sorted(arrows):
        missing = [name for name in (source, target) if name not in layer_of]
        if missing:
            yield f"not drawn in docs/overview.md: {', '.join(missing)} ({reason})"
        elif layer_of[source] >= layer_of[target]:
            yield f"{source} may not know {target}: {reason}"


def circles(arrows):
    """The sets of units, more than one each, that reach each other."""
    targets = collections.defaultdict(set)
    for source, target in arrows:
        targets[source].add(target)

    def reached(start):
        seen = set()
        waiting = [start]
        while waiting:
            for target in targets[waiting.pop()] - seen:
                seen.add(target)
                waiting.append(target)
        return seen

    reach = {unit: reached(unit) for unit in list(targets)}
    return {frozenset(other for other in reach[unit] if unit in reach.get(other, ()))
            for unit in reach if unit in reach[unit]}


class Build:
    """What a build folder knows of the libraries below application/."""

    def __init__(self, folder):
        self.folder = os.path.abspath(folder)
        self.objects = {}  # path of the object: its library
        self.archives = {}  # path of the archive: its library
        for line in self._ninja("-t", "targets", "all").splitlines():
            path = line.split(": ")[0]
            match = re.match(r"application/(?:.*/)?CMakeFiles/(kestrel[^/]*)\.dir/.*\.o$", path)
            if match:
                self.objects[path] = match.group(1)
            match = re.match(r"application/(?:.*/)?lib(kestrel[^/]*)\.a$", path)
            if match:
                self.archives[path] = match.group(1)

    def _ninja(self, *arguments):
        return subprocess.run(["ninja", "-C", self.folder, *arguments], capture_output=True, text=True,
                              check=True).stdout

    def _sources(self):
        """By object, the files of ours that the compiler read, the .cpp first."""
        sources = collections.defaultdict(list)
        current = None
        for line in self._ninja("-t", "deps").splitlines():
            if not line.startswith(" "):
                current = line.split(":")[0]
            elif current in self.objects:
                path = os.path.relpath(os.path.join(self.folder, line.strip()), TOP)
                if path.startswith("application/"):
                    sources[current].append(path)
        missing = self.objects.keys() - sources.keys()
        if missing:
            sys.exit(f"layers: build it first: {min(missing)}")
        return sources

    def include_arrows(self):
        """((library, unit), (library, unit), file) for each header of ours that a file includes."""
        sources = self._sources()
        library_of = {}  # by file
        by_unit = {}
        for built, paths in sources.items():
            library_of[paths[0]] = by_unit[unit_of(paths[0])] = self.objects[built]
        for paths in sources.values():
            for path in paths[1:]:
                library_of.setdefault(path, by_unit.get(unit_of(path)) or library_by_folder(path))
        arrows = set()
        for paths in sources.values():
            by_name = {os.path.basename(path): path for path in paths}
            for path in paths:
                with open(f"{TOP}/{path}", encoding="utf-8") as file:
                    for name in re.findall(r'^#include "([^"]+)"', file.read(), re.M):
                        if name in by_name:
                            target = by_name[name]
                            arrows.add(((library_of[path], unit_of(path)),
                                        (library_of[target], unit_of(target)), path))
        return arrows

    def link_arrows(self):
        """(library, library, symbol) for each symbol that one needs and another defines."""
        files = dict(self.archives)
        files.update((path, name) for path, name in self.objects.items()
                     if name not in self.archives.values())
        owner = {}
        needed = []
        for path, name in files.items():
            listing = subprocess.run([os.environ.get("NM", "nm"), "-g", f"{self.folder}/{path}"],
                                     capture_output=True, text=True, check=True).stdout
            for kind, symbol in re.findall(r"^(?:[0-9a-f]+)? +([TDBRSGU]) (\S+)$", listing, re.M):
                if kind == "U":
                    needed.append((name, symbol))
                else:
                    owner[symbol] = name
        return {(name, owner[symbol], symbol) for name, symbol in needed
                if owner.get(symbol, name) != name}


def unit_of(path):
    return os.path.splitext(os.path.basename(path))[0]


def library_by_folder(path):
    """The library of a header without a source: that of its folder."""
    folder = os.path.basename(os.path.dirname(path))
    return "kestrel_common_headers" if folder == "include" else f"kestrel_{folder}"


def main():
    build = Build(sys.argv[1])
    with open(f"{TOP}/docs/overview.md", encoding="utf-8") as file:
        layers = read_layers(file.read())
    includes = build.include_arrows()
    links = build.link_arrows()
    arrows = {(source[0], target[0], f"{path} includes {target[1]}.h")
              for source, target, path in includes if source[0] != target[0]}
    wrong = list(upward(layers, arrows | links))
    found = circles({(source[1], target[1]) for source, target, _ in includes if source != target})
    for circle in found:
        if circle not in KNOWN_CIRCLES:
            wrong.append(f"units that know each other: {' '.join(sorted(circle))}")
    for circle in KNOWN_CIRCLES:
        if circle not in found:
            wrong.append(f"no longer a circle: {' '.join(sorted(circle))}")
    for line in wrong:
        print(line)
    drawn = {name for layer in layers for name in layer}
    unused = drawn - {name for arrow in arrows | links for name in arrow[:2]}
    for name in sorted(unused):
        print(f"drawn in docs/overview.md, but no part of the build: {name}")
    print(f"{len(drawn)} libraries in {len(layers)} layers; between them"
          f" {len({arrow[:2] for arrow in arrows})} arrows by include,"
          f" {len({arrow[:2] for arrow in links})} by symbol; {len(wrong)} wrong")
    return 1 if wrong or unused else 0


if __name__ == "__main__":
    sys.exit(main())
