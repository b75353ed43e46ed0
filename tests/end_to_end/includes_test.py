"""Includes point downward: the order of the folders, and no circle of files."""

import pathlib
import re
import tempfile
import unittest

from harness import SOURCE

# The layers of each tree from the top down. A folder includes itself and the layers below its own; folders of one
# layer do not include each other; files beside the folders are above all of them. A tree whose folders have such an
# order gets a row here, and its drawing in docs/architecture.md a line a layer.
ORDERS = {
    "src": (
        ("recording", "capture_encode", "stills", "pcm"),
        ("modules",),
        ("table",),
        ("base",),
    ),
    "client": (
        ("commands", "documentation"),
        ("movie",),
        ("running", "showing"),
        ("command_line",),
        ("files",),
        ("machine",),
        ("process",),
    ),
    "platform/host": (
        ("capture", "encoder", "multiplexer", "renderer"),
        ("audio", "files", "picture", "system"),
        ("log", "memory", "os", "statistics", "utils"),
        ("base",),
        ("include",),
    ),
}
OFFERED = ("include", "platform/include")  # for everything in src


def files(tree):
    return sorted(path for path in tree.rglob("*") if path.suffix in (".h", ".cpp"))


def includes(path):
    """(opening bracket, name) of each include of a file."""
    return re.findall(r'^\s*#\s*include\s+(["<])([^">]+)[">]', path.read_text("utf-8"), flags=re.M)


def upward(tree, order):
    """Each include that leads to a layer that is not below, to a sibling, or to no file of the tree."""
    depth = {folder: level for level, layer in enumerate(order) for folder in layer}
    found = []
    for path in files(tree):
        folder = path.relative_to(tree).parts[0]
        height = depth.get(folder, -1)
        for bracket, name in includes(path):
            target = name.split("/")[0]
            if bracket == '"' and not (tree / name).is_file():
                found.append(f"{path.relative_to(tree)} includes {name}, which is no file here")
            elif (tree / name).is_file() and target != folder and depth.get(target, -1) <= height:
                found.append(f"{path.relative_to(tree)} includes {name}")
    return found


def circles(tree):
    """Each set of pairs (.h and .cpp count as one) that include each other around."""
    below = {}
    for path in files(tree):
        pair = str(path.relative_to(tree).with_suffix(""))
        targets = {str(pathlib.PurePath(name).with_suffix("")) for _, name in includes(path) if (tree / name).is_file()}
        below.setdefault(pair, set()).update(targets - {pair})

    def reachable(start):
        seen, todo = set(), [start]
        while todo:
            for pair in below[todo.pop()] - seen:
                seen.add(pair)
                todo.append(pair)
        return seen

    reach = {pair: reachable(pair) for pair in below}
    return {tuple(sorted(other for other in reach[pair] if pair in reach[other]))
            for pair in below if pair in reach[pair]}


class Includes(unittest.TestCase):
    def test_includes_point_downward(self):
        for name, order in ORDERS.items():
            with self.subTest(tree=name):
                tree = SOURCE / name
                folders = {path.name for path in tree.iterdir() if path.is_dir()}
                self.assertEqual({folder for layer in order for folder in layer}, folders)
                self.assertEqual(upward(tree, order), [])
                self.assertEqual(circles(tree), set())

    def test_library_includes_only_itself_and_the_contract(self):
        """Beside the language's headers, which have no folder."""
        for path in files(SOURCE / "src"):
            for bracket, name in includes(path):
                if bracket == "<" and ("/" in name or name.endswith(".h")):
                    self.assertTrue(any((SOURCE / offer / name).is_file() for offer in OFFERED), f"{path}: {name}")

    def test_drawing_shows_this_order(self):
        drawing = re.search(r"```\n(.*?)```", (SOURCE / "docs/architecture.md").read_text("utf-8"), flags=re.S)[1]
        for name, order in ORDERS.items():
            rows = (re.findall(rf"\b{name}/(\w+)", line) for line in drawing.splitlines())
            self.assertEqual(tuple(tuple(row) for row in rows if row), order, name)

    def test_faults_are_found(self):
        with tempfile.TemporaryDirectory() as folder:
            tree = pathlib.Path(folder)
            order = (("left", "right"), ("low",))
            for name, text in {
                "left/a.h": '#include "low/c.h"\n',  # the only one that is allowed
                "right/b.cpp": '#include "left/a.h"\n',
                "low/c.h": '#include <left/a.h>\n#include "low/none.h"\n',
            }.items():
                (tree / name).parent.mkdir(exist_ok=True)
                (tree / name).write_text(text, "utf-8")
            self.assertEqual(
                upward(tree, order),
                ["low/c.h includes left/a.h", "low/c.h includes low/none.h, which is no file here",
                 "right/b.cpp includes left/a.h"],
            )
            self.assertEqual(circles(tree), {("left/a", "low/c")})
