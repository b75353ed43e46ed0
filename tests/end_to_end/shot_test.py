"""Screenshots, compared with xwd."""

import struct
import subprocess

import judges
from harness import SANITIZED, ShortEndToEndTest, wait_until


class Shots(ShortEndToEndTest):
    @classmethod
    def prepare(cls):
        cls.start_display("640x352")
        cls.start_screen("--static", "--noise")
        cls.width, cls.height, cls.screen = judges.dump_screen(cls.environment["DISPLAY"])

    def shoot(self, form):
        self.run_program("screenrecord", "shot", "-o", form + ".raw", "--format", form)
        return self.path(form + ".raw").read_bytes()

    def assert_within(self, shown, wanted, tolerance):
        self.assertEqual(len(shown), len(wanted))
        self.assertLessEqual(max(abs(a - b) for a, b in zip(shown, wanted)), tolerance)

    def test_bgra_is_exact(self):
        raw = self.shoot("bgra")
        for channel in range(3):
            self.assertEqual(raw[channel::4], self.screen[channel::4])

    def test_rgb565(self):
        raw = self.shoot("rgb565")
        words = struct.unpack(f"<{len(raw) // 2}H", raw)
        self.assert_within([(w >> 11) * 255 / 31 for w in words], self.screen[2::4], 8.3)
        self.assert_within([(w >> 5 & 63) * 255 / 63 for w in words], self.screen[1::4], 4.2)
        self.assert_within([(w & 31) * 255 / 31 for w in words], self.screen[0::4], 8.3)

    def test_nv12_and_yuyv(self):
        # BT.601, limited range.
        luma = [16 + (65.481 * r + 128.553 * g + 24.966 * b) / 255
                for b, g, r in zip(*(self.screen[channel::4] for channel in range(3)))]
        pixels = self.width * self.height
        nv12, yuyv = self.shoot("nv12"), self.shoot("yuyv")
        self.assert_within(nv12[:pixels], luma, 1.6)
        self.assert_within(yuyv[0::2], luma, 1.6)
        self.assertEqual(len(nv12), pixels * 3 // 2)
        # Chroma inside the patches, whose color is the same all around.
        for (left, top), (red, green, blue) in judges.PATCHES.items():
            x, y = left + 64, top + 64
            wanted = (128 + (-37.797 * red - 74.203 * green + 112 * blue) / 255,
                      128 + (112 * red - 93.786 * green - 18.214 * blue) / 255)
            at = pixels + y // 2 * self.width + x
            self.assert_within(nv12[at:at + 2], wanted, 1.6)
            at = 2 * (y * self.width + x)
            self.assert_within(yuyv[at + 1:at + 4:2], wanted, 1.6)

    def test_many_into_four_buffers(self):
        # Catches a descriptor or a picture that each capture leaves behind.
        if not SANITIZED:  # a sanitizer's own memory grows
            self.run_program("still_captures", 100)

    def test_standard_output_gets_the_picture_alone(self):
        self.run_program("screenrecord", "shot", "-o", "f.png")
        piped = self.client("shot", "-o", "-", stdout=subprocess.PIPE)
        with piped.process.stdout as reader:
            self.assertEqual(reader.read(), self.path("f.png").read_bytes())
        self.assert_exit(piped, 0)

    def test_failure_after_one_was_saved(self):
        # Catches an exit code that denies a usable result.
        shots = self.client("shot", "-o", "s.png", "-n", "2", "--interval", "1500")
        wait_until(self.path("s-001.png").exists, "the first picture")
        self.path("s-002.png").mkdir()
        self.assert_exit(shots, 3)

    def test_numbered_files_are_exact(self):
        self.run_program("screenrecord", "shot", "-o", "n.png", "-n", "3", "--interval", "50")
        names = list(self.path(".").glob("n*.png"))
        self.assertEqual(len(names), 3, names)
        for name in names:
            shown = judges.decode(name, 0)
            for channel in range(3):
                self.assertEqual(shown[channel::3], self.screen[2 - channel::4])
