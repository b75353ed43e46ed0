"""The installed package, for a project that builds on it: the README's first program and the examples."""

import os
import re
import shutil

import judges
import sound_test
from harness import BUILD, SOURCE, UnmeasuredEndToEndTest, wait_until


class Package(UnmeasuredEndToEndTest):
    @classmethod
    def prepare(cls):
        # Moved after the installation: nothing in it may name the place where it was made.
        cls.run_program("cmake", "--install", BUILD, "--prefix", cls.path("made"))
        cls.path("made").rename(cls.path("tree"))
        cls.start_display("640x480")
        # The time limit of the service loses up to 64 KiB at the end, so each second must have more.
        cls.start_screen("--noise")
        cls.environment["PKG_CONFIG_PATH"] = str(cls.path("tree/lib/pkgconfig"))
        cls.flags = cls.run_program("pkg-config", "--cflags", "--libs", "screenrecord").split()
        text = re.search(r"## A first program\n\n```c\n(.*?)```", (SOURCE / "README.md").read_text("utf-8"),
                         flags=re.S)[1]
        cls.compile("first.cpp", text, "g++")
        cls.compile("first.c", text, "gcc", "-std=c11")
        cls.first = cls.start("./first.c.program", environment={"LD_LIBRARY_PATH": str(cls.path("tree/lib"))})
        shutil.copytree(cls.path("tree/share/doc/screenrecord/examples"), cls.path("examples"))
        cls.run_program("cmake", "-G", "Ninja", "-S", "examples", "-B", "built", "-DCMAKE_CXX_FLAGS=-Werror",
                        "-DCMAKE_C_FLAGS=-Werror", f'-DCMAKE_PREFIX_PATH={cls.path("tree")}')
        cls.run_program("cmake", "--build", "built", seconds=60)
        cls.service = cls.start("built/recording_service", ".", "1")
        cls.stream = cls.start("built/pull_stream", "2")

    @classmethod
    def compile(cls, name, text, *compiler):
        cls.path(name).write_text(text, encoding="utf-8")
        cls.run_program(*compiler, "-Wall", "-Wextra", "-Werror", name, *cls.flags, "-o", name + ".program")

    def assert_plays(self, path, pictures):
        self.assertEqual(judges.decoder_messages(path), "")
        self.assertGreater(len(judges.packets(path)), pictures)

    def test_first_program(self):
        # Catches a README that does not compile, and flags that name no place or a wrong one.
        self.assert_exit(self.first, 0)
        self.assert_plays(self.path("screen.ts"), 75)

    def test_every_function_links_from_c(self):
        # Catches a header that is no C, and a name in it that C does not find in the library.
        header = (SOURCE / "include/screenrecord/screenrecord.h").read_text("utf-8")
        names = set(re.findall(r"SCREENRECORD_EXPORT \w+ (\w+)\(", header)) - {"video_capenc_setWatermark"}
        self.compile("all.c", "#include <screenrecord/screenrecord.h>\nvoid* const all[] = {(void*)" +
                     ", (void*)".join(sorted(names)) + "};\nint main(void) { return 0; }\n", "gcc", "-std=c11")

    def test_recording_service(self):
        wait_until(lambda: self.service.output().count("\n") >= 2, "two files")
        self.assert_stops(self.service)
        names = self.service.output().split()
        self.assertEqual(names, [f"./recording-{n + 1}.ts" for n in range(len(names))])
        for name in names[:2]:
            self.assert_plays(self.path(name), 25)

    def test_pull_stream(self):
        self.assert_exit(self.stream, 0)
        self.assert_plays(self.stream.out.name, 20)

    def test_record_movie(self):
        self.run_program("built/record_movie", "movie.mkv", "2", environment={"ZU3_AUDIO": "tone"})
        self.assert_plays(self.path("movie.mkv"), 20)
        sound = judges.decode_timed_sound(self.path("movie.mkv"))
        self.assertAlmostEqual(len(sound) / 48000, judges.packets(self.path("movie.mkv"))[-1][0], delta=0.3)
        self.assertTrue(sound_test.hears(sound[24000:72000], 440))

    def test_screenshot_loop(self):
        said = self.run_program("built/screenshot_loop", "3", "100", "last.ppm").splitlines()
        self.assertEqual(len(said), 2)
        self.assertTrue(all(int(line.split()[1]) > 0 for line in said), said)
        self.assertEqual(len(judges.decode(self.path("last.ppm"), 0)), 640 * 480 * 3)

    def test_program_and_components(self):
        # Catches a program that finds its libraries only where they were built, and headers that land among others.
        program = self.path("tree/bin/screenrecord")
        self.assertTrue(self.run_program(program, "--version").startswith("screenrecord "))
        loaded = self.run_program("ldd", program)
        self.assertEqual(loaded.count(f"{program.parent}/../lib/libscreenrecord"), 1, loaded)
        self.assertEqual(loaded.count(f"{program.parent}/../lib/screenrecord/"), 2, loaded)
        self.run_program("cmake", "--install", BUILD, "--prefix", self.path("apart"), "--component", "contract")
        self.assertEqual(os.listdir(self.path("apart/include")), ["screenrecord-contract"])
