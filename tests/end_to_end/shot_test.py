"""Screenshots, against what xwd sees."""

import os
import struct
import unittest

import judges
from harness import SANITIZED, ShortEndToEndTest


def luma_of(pixels):
    """BT.601 limited-range luma of pixels in the order blue, green, red, unused."""
    return [16 + (65.481 * r + 128.553 * g + 24.966 * b) / 255
            for b, g, r in zip(pixels[0::4], pixels[1::4], pixels[2::4])]


def chroma_of(blue, green, red):
    return (128 + (-37.797 * red - 74.203 * green + 112 * blue) / 255,
            128 + (112 * red - 93.786 * green - 18.214 * blue) / 255)


class Shots(ShortEndToEndTest):
    @classmethod
    def prepare(cls):
        cls.start_display("640x352")
        cls.start_screen("--static", "--noise")
        cls.width, cls.height, cls.screen = judges.dump_screen(cls.environment["DISPLAY"])

    def shoot(self, name, *options):
        self.run_program(judges.program("screenrecord"), "shot", "-o", name, *options)
        with open(self.path(name), "rb") as file:
            return file.read()

    def assert_within(self, shown, wanted, tolerance):
        self.assertEqual(len(shown), len(wanted))
        self.assertLessEqual(max(abs(a - b) for a, b in zip(shown, wanted)), tolerance)

    def test_bgra_is_exact(self):
        for channel, raw in enumerate([self.shoot("a.raw", "--format", "bgra")] * 3):
            self.assertEqual(raw[channel::4], self.screen[channel::4])

    def test_png_is_exact(self):
        self.shoot("a.png")
        shown = judges.decode(self.path("a.png"), 0)
        for channel in range(3):
            self.assertEqual(shown[channel::3], self.screen[2 - channel::4])

    def test_rgb565(self):
        raw = self.shoot("b.raw", "--format", "rgb565")
        words = struct.unpack(f"<{len(raw) // 2}H", raw)
        self.assert_within([(w >> 11) * 255 / 31 for w in words], self.screen[2::4], 8.3)
        self.assert_within([(w >> 5 & 63) * 255 / 63 for w in words], self.screen[1::4], 4.2)
        self.assert_within([(w & 31) * 255 / 31 for w in words], self.screen[0::4], 8.3)

    def test_nv12_and_yuyv(self):
        luma = luma_of(self.screen)
        pixels = self.width * self.height
        nv12 = self.shoot("c.raw", "--format", "nv12")
        yuyv = self.shoot("d.raw", "--format", "yuyv")
        self.assert_within(nv12[:pixels], luma, 1.6)
        self.assert_within(yuyv[0::2], luma, 1.6)
        self.assertEqual(len(nv12), pixels * 3 // 2)
        # Chroma where the colour is the same all around: inside the patches.
        for (left, top), (red, green, blue) in judges.PATCHES.items():
            x, y = left + 64, top + 64
            wanted = chroma_of(blue, green, red)
            at = pixels + y // 2 * self.width + x
            self.assert_within(nv12[at:at + 2], wanted, 1.6)
            at = 2 * (y * self.width + x)
            self.assert_within((yuyv[at + 1], yuyv[at + 3]), wanted, 1.6)

    def test_many_into_four_buffers(self):
        # Catches a descriptor or a picture that each capture leaves behind.
        if not SANITIZED:  # a sanitizer's own memory grows
            self.run_program(judges.program("still_captures"), 100)

    def test_numbered_files(self):
        self.run_program(judges.program("screenrecord"), "shot", "-o", "n.png", "-n", "3", "--interval", "50")
        names = sorted(name for name in os.listdir(self.folder) if name.startswith("n") and name.endswith(".png"))
        self.assertEqual(len(names), 3, names)
        for name in names:
            self.assertEqual(judges.decode(self.path(name), 0)[1::3], self.screen[1::4])


if __name__ == "__main__":
    unittest.main()
