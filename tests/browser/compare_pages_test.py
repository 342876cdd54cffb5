"""Tests of the page comparison's judgements (no browser needed)."""

import os
import sys
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import chromium  # noqa: E402
import compare_pages  # noqa: E402


def solid(width, height, rgba):
    return chromium.Image(width, height, bytes(rgba) * (width * height))


class CompareImages(unittest.TestCase):
    def test_counts_only_pixels_beyond_the_threshold_and_boxes_them(self):
        a = solid(10, 10, (200, 200, 200, 255))
        pixels = bytearray(a.rgba)
        pixels[(2 * 10 + 3) * 4] = 100          # (3, 2): red off by 100
        pixels[(7 * 10 + 8) * 4 + 1] = 230      # (8, 7): green off by 30 only
        pixels[(9 * 10 + 6) * 4 + 3] = 0        # (6, 9): transparent
        result = compare_pages.compare_images(a, chromium.Image(10, 10, bytes(pixels)), 48)
        self.assertEqual(result["differentPixels"], 2)
        self.assertEqual(result["maxChannelDelta"], 255)
        self.assertEqual(result["box"], [3, 2, 6, 9])
        self.assertAlmostEqual(result["fraction"], 0.02)

    def test_a_different_size_is_a_complete_difference(self):
        result = compare_pages.compare_images(solid(4, 4, (0, 0, 0, 255)),
                                              solid(4, 5, (0, 0, 0, 255)), 48)
        self.assertEqual(result["fraction"], 1.0)
        self.assertEqual(result["optimisedSize"], [4, 5])


class CompareState(unittest.TestCase):
    def test_optimiser_globals_are_left_out_and_others_reported(self):
        a = {"order": ["a", "b"], "globals": {"x": "number:1"}}
        b = {"order": ["b", "a"], "globals": {"x": "number:1",
                                              "zp_C115BF0C_4E62_4D27_8890_9F0B5AF5D14F_1": "s"}}
        lines = compare_pages.differences(compare_pages.without_optimiser_globals(a),
                                          compare_pages.without_optimiser_globals(b))
        self.assertEqual(lines, ['$.order[0]: original "a", optimised "b"',
                                 '$.order[1]: original "b", optimised "a"'])
        b["globals"]["y"] = "function/0"
        lines = compare_pages.differences(a, compare_pages.without_optimiser_globals(b))
        self.assertIn('$.globals.y only in the optimised page: "function/0"', lines)

    def test_origins_are_taken_out_of_error_texts(self):
        self.assertEqual(
            compare_pages.without_origin("network: 404 (http://127.1.2.3:8080/a.png)"),
            "network: 404 (ORIGIN/a.png)")


if __name__ == "__main__":
    unittest.main()
