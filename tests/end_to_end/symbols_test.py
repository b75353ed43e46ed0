"""What the built library offers and what it needs."""

import os
import re
import subprocess
import tempfile
import unittest

from harness import BUILD, SOURCE

LIBRARY = os.path.join(BUILD, "lib", "libscreenrecord.so")
RUNTIME = ("libc.so.6", "libstdc++.so.6", "libgcc_s.so.1", "libm.so.6", "ld-linux-x86-64.so.2")
CONTRACT_LIBRARIES = ("libzu3.so", "libSrGlWorker.so")


def symbols(path, *options):
    listing = subprocess.run(["nm", "-D", *options, path], capture_output=True, check=True, text=True).stdout
    return {re.sub(r"@.*", "", line.split()[-1]) for line in listing.splitlines()}


def demangled(names):
    plain = subprocess.run(["c++filt", *sorted(names)], capture_output=True, check=True, text=True).stdout.splitlines()
    return dict(zip(sorted(names), plain))


def read(*path):
    with open(os.path.join(SOURCE, *path), encoding="utf-8") as file:
        return file.read()


def contract_names():
    """The C functions and the C++ classes that the contract's headers declare."""
    functions, classes = set(), set()
    for folder, _, files in os.walk(os.path.join(SOURCE, "platform", "include")):
        for name in files:
            text = re.sub(r"/\*.*?\*/|//[^\n]*", "", read(folder, name), flags=re.S)
            functions |= set(re.findall(r"^(?:u32|s32|int|nsecs_t)\s+(\w+)\(", text, flags=re.M))
            classes |= set(re.findall(r"^\s*class (\w+)\b[^;]*\{", text, flags=re.M))
    return functions, classes


class Symbols(unittest.TestCase):
    def test_exports_are_the_public_list(self):
        listed = set(re.findall(r"^    (\w+);", read("src", "screenrecord.map"), flags=re.M))
        self.assertEqual(symbols(LIBRARY, "--defined-only"), listed)

    def test_public_list_is_the_header(self):
        header = re.sub(r"/\*.*?\*/", "", read("include", "screenrecord", "screenrecord.h"), flags=re.S)
        declared = set(re.findall(r"SCREENRECORD_EXPORT\s+\w+\s+(\w+)\(", header))
        exported = demangled(symbols(LIBRARY, "--defined-only")).values()
        self.assertEqual({name.partition("(")[0] for name in exported}, declared)

    def test_needs_are_the_contract_and_the_runtime(self):
        functions, classes = contract_names()
        self.assertGreater(len(functions), 60)
        provided = set().union(*(symbols(path, "--defined-only") for path in self.runtime_libraries()))
        foreign = []
        for name, plain in demangled(symbols(LIBRARY, "--undefined-only")).items():
            of_contract = re.match(r"(?:(?:vtable|typeinfo|VTT) for )?android::((?:\w+::)*?)(\w+)(?:::~?\w+\(|$)", plain)
            in_contract = of_contract and (set(of_contract[1].split("::")) | {of_contract[2]}) & classes
            weak = name in ("_ITM_deregisterTMCloneTable", "_ITM_registerTMCloneTable", "__gmon_start__")
            if not (name in functions or in_contract or name in provided or weak):
                foreign.append(plain)
        self.assertEqual(foreign, [])

    def test_needed_libraries(self):
        listing = subprocess.run(["readelf", "-d", LIBRARY], capture_output=True, check=True, text=True).stdout
        needed = set(re.findall(r"NEEDED\D*\[([^\]]+)\]", listing))
        self.assertLessEqual(needed, set(RUNTIME + CONTRACT_LIBRARIES))

    def test_interface_is_the_saved_one(self):
        """Whoever was built on an earlier version still fits: names, arguments, records, the values of enumerations."""
        saved = read("src", "screenrecord.abi")
        canaries = {
            "as saved": (saved, False),
            "a function that is gone": (saved.replace("video_cap_close", "video_cap_clone"), True),
            "a record with a field elsewhere": (saved.replace("layout-offset-in-bits='128'", "layout-offset-in-bits='192'", 1), True),
        }
        for name, (description, differs) in canaries.items():
            with self.subTest(name), tempfile.NamedTemporaryFile("w", suffix=".abi") as file:
                file.write(description)
                file.flush()
                compare = ["abidiff", "--harmless", "--exported-interfaces-only"]
                result = subprocess.run([*compare, file.name, LIBRARY], capture_output=True, text=True)
                self.assertEqual(result.returncode != 0, differs, result.stdout + result.stderr)

    @staticmethod
    def runtime_libraries():
        """Where the loader finds the language's runtime."""
        listing = subprocess.run(["ldd", LIBRARY], capture_output=True, check=True, text=True).stdout
        return [path for path in re.findall(r"(/\S+)", listing) if os.path.basename(path) in RUNTIME]


if __name__ == "__main__":
    unittest.main()
