"""The exported and the needed symbols of the built library."""

import re
import subprocess
import tempfile
import unittest

from harness import BUILD, SOURCE

LIBRARY = BUILD / "lib/libscreenrecord.so"
RUNTIME = ("libc.so.6", "libstdc++.so.6", "libgcc_s.so.1", "libm.so.6", "ld-linux-x86-64.so.2")
CONTRACT_LIBRARIES = ("libzu3.so", "libSrGlWorker.so")


def said_by(*command):
    return subprocess.run(command, capture_output=True, check=True, text=True).stdout


def symbols(path, *options):
    return {re.sub(r"@.*", "", line.split()[-1]) for line in said_by("nm", "-D", *options, path).splitlines()}


def demangled(names):
    return dict(zip(sorted(names), said_by("c++filt", *sorted(names)).splitlines()))


class Symbols(unittest.TestCase):
    def test_exports_are_the_public_list_and_the_header(self):
        exported = symbols(LIBRARY, "--defined-only")
        listed = re.findall(r"^    (\w+);", (SOURCE / "src/screenrecord.map").read_text("utf-8"), flags=re.M)
        self.assertEqual(exported, set(listed))
        header = (SOURCE / "include/screenrecord/screenrecord.h").read_text("utf-8")
        declared = re.findall(r"SCREENRECORD_EXPORT\s+\w+\s+(\w+)\(", re.sub(r"/\*.*?\*/", "", header, flags=re.S))
        self.assertEqual({name.partition("(")[0] for name in demangled(exported).values()}, set(declared))

    def test_needs_of_the_platform_are_the_contract(self):
        """The library must not use other functions of the platform's libraries."""
        headers = (SOURCE / "platform/include").rglob("*.h")
        words = set(re.findall(r"\w+", " ".join(header.read_text("utf-8") for header in headers)))
        offered = set().union(*(symbols(BUILD / "lib" / name, "--defined-only") for name in CONTRACT_LIBRARIES))
        needed = demangled(symbols(LIBRARY, "--undefined-only") & offered).values()
        self.assertGreater(len(needed), 60)
        for name in needed:
            parts = re.findall(r"\w+", re.sub(r"^(vtable|typeinfo|VTT) for |\(.*", "", name))
            self.assertLessEqual(set(parts), words, name)

    def test_exports_of_the_platform_are_the_contract(self):
        headers = [path for folder in ("platform/include", "platform/host/include")
                   for path in (SOURCE / folder).rglob("*.h")]
        text = "\n".join(path.read_text("utf-8") for path in headers)
        declared = set(re.findall(r"^(?:void|u32|s32|int|nsecs_t|uint32_t|uint64_t|const char\*) (\w+)\(", text,
                                  flags=re.M))
        self.assertGreater(len(declared), 70)
        worker = "android::vexa_screenrecord::SrGlWorker::"
        expected = {"libzu3.so": declared | {"android::RefBase"},
                    "libSrGlWorker.so": {worker + name for name in (
                        "newWorker", "prepare", "setWatermark", "render", "reset", "VideoBuffer::newBuffer")}}
        for library, names in expected.items():
            exported = demangled(symbols(BUILD / "lib" / library, "--defined-only")).values()
            self.assertEqual({re.sub(r".*(android::RefBase).*|\(.*", r"\1", name) for name in exported}, names)

    def test_needed_libraries(self):
        needed = set(re.findall(r"NEEDED\D*\[([^\]]+)\]", said_by("readelf", "-d", LIBRARY)))
        self.assertLessEqual(needed, set(RUNTIME + CONTRACT_LIBRARIES))

    def test_interface_is_the_saved_one(self):
        """A program built on an earlier version still fits: names, arguments, records, the values of enumerations."""
        saved = (SOURCE / "src/screenrecord.abi").read_text("utf-8")
        canaries = {
            "as saved": (saved, False),
            "a function that is gone": (saved.replace("video_cap_close", "video_cap_clone"), True),
            "a record with a field elsewhere":
                (saved.replace("layout-offset-in-bits='128'", "layout-offset-in-bits='192'", 1), True),
        }
        for name, (description, differs) in canaries.items():
            with self.subTest(name), tempfile.NamedTemporaryFile("w", suffix=".abi") as file:
                file.write(description)
                file.flush()
                result = subprocess.run(["abidiff", "--harmless", "--exported-interfaces-only", file.name, LIBRARY],
                                        capture_output=True, text=True)
                self.assertEqual(result.returncode != 0, differs, result.stdout + result.stderr)
