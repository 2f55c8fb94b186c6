#!/usr/bin/env python3
"""Small self-checks of ref_model.py against known values.

Run: python3 tests/reference/test_model.py
"""

import os
import sys
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import ref_model as rm  # noqa: E402


class Payload(unittest.TestCase):
    def test_wm_id_validate(self):
        v = rm.wm_id_validate
        self.assertEqual(v(b"1FFF", 13), 0)
        self.assertEqual(v(b"2000", 13), -4)
        self.assertEqual(v(b"0001FFF", 13), 0)
        self.assertEqual(v(b"0", 2048), 0)
        self.assertEqual(v(b"zz", 2049), -3)
        self.assertEqual(v(b"", 13), -2)
        self.assertEqual(v(b"0x1", 13), -5)
        self.assertEqual(v(b"1 ", 13), -5)
        self.assertEqual(v(b"\xc3\xa9", 13), -5)
        self.assertEqual(v(b"0", -1), -4)
        self.assertEqual(rm.hex_to_bits(b"1F", 5), "11111")
        self.assertEqual(rm.hex_to_bits(b"f", 5), rm.hex_to_bits(b"F", 5))
        self.assertEqual(rm.hex_to_bits(b"000", 7), "0000000")

    def test_urn_hash(self):
        self.assertEqual(rm.urn_hash(b"0" * 32), 0)
        self.assertNotEqual(rm.urn_hash(b"0" * 31 + b"A"),
                            rm.urn_hash(b"A" + b"0" * 31))
        # prefix, sign and white space handling of the group parser
        self.assertEqual(rm._strtoul16(b"0x1f"), 0x1F)
        self.assertEqual(rm._strtoul16(b" -1"), 0xFFFFFFFF)
        self.assertEqual(rm._strtoul16(b"12g4"), 0x12)

    def test_fec_mode0_layout(self):
        # 13 bits: 7 data, parity, 6 data, parity
        out = rm.fec_encode(b"1FFF", 13, 15, 0).decode()
        self.assertEqual(out, "1111111" + "1" + "111111" + "0")
        self.assertEqual(len(rm.fec_encode(b"1", 9, 11, 0)), 11)
        self.assertEqual(len(rm.fec_encode(b"1", 8, 9, 0)), 9)
        self.assertIsNone(rm.fec_encode(b"0", 0, 0, 0))
        self.assertIsNone(rm.fec_encode(b"1", 5, 4, 2))

    def test_rm_single_symbol(self):
        out = bytearray(1)
        self.assertEqual(rm.rm_block_encode(out, 0, 1, 1, "1", 1, 3, 7), 0)
        self.assertIn(out[0], b"01")

    def test_sign_pattern_strength0(self):
        pat = rm.sign_pattern_generate(0, 4, 4, 9, 0)
        self.assertTrue(all(v == 1 for v in pat))


class Filter(unittest.TestCase):
    def test_key_hash(self):
        self.assertEqual(rm.key_hash(b"1"), 49)
        self.assertEqual(rm.key_hash(b"10"), 1567)
        self.assertEqual(rm.key_hash(b""), 0)

    def test_image_seed(self):
        self.assertEqual(rm.image_seed(bytes([128]) * 98, 14, 7, 14, 1, 1,
                                       2, 1), 0)

    def test_position_classes(self):
        rows = [[rm.position_class(x, y, 16, 12) for x in range(16)]
                for y in range(12)]
        edge = [0, 0, 0, 0, 2, 1, 1, 1, 1, 1, 1, 1, 2, 0, 0, 0]
        mid = [1, 1, 1, 1, 2, 2, 3, 3, 3, 3, 3, 2, 2, 1, 1, 1]
        for y in (0, 1, 2, 10, 11):
            self.assertEqual(rows[y], edge)
        for y in (3, 9):
            self.assertEqual(rows[y], [2] * 16)
        for y in range(4, 9):
            self.assertEqual(rows[y], mid)

    def test_selection_counts(self):
        out = bytearray(10)
        rm.selection_block(out, 0, 10, 50, 3)
        self.assertEqual(sum(out), 5)
        rm.selection_block(out, 0, 10, 0, 3)
        self.assertEqual(sum(out), 0)
        rm.selection_block(out, 0, 10, 100, 3)
        self.assertEqual(sum(out), 10)

    def test_bank_jump_matches_sequential(self):
        st = (5 | (77 << 32))
        seq = st
        for _ in range(1234):
            seq = rm._step(seq)
        self.assertEqual(rm.prng_jump(st, 1234), seq)


class Kernels(unittest.TestCase):
    def test_signal_measure(self):
        flat = bytearray([40]) * 256
        self.assertEqual(rm.signal_measure(flat, 0, 0, 16, 16, 16, 0, 0), 0)
        for r in range(2, 14):
            for c in range(2, 14):
                flat[r * 16 + c] = 43
        self.assertEqual(rm.signal_measure(flat, 0, 0, 16, 16, 16, 0, 0),
                         3 * 12 * 12)

    def test_texture_single_bright_pixel(self):
        img = bytearray(21 * 21)
        img[10 * 21 + 10] = 255
        self.assertEqual(rm.texture_map(img, 21, 21, 21, 10)[10 * 21 + 10],
                         50)
        self.assertEqual(set(rm.texture_map(bytearray([9]) * 100, 10, 10, 10,
                                            10)), {0})

    def test_embed_modes(self):
        pat = [0] * 49
        pat[3 * 7 + 3] = 5
        luma = bytearray([100]) * 49
        self.assertEqual(rm.embed_superpixel(luma, 0, 0, 7, 7, 7, 0, 0, -2, 7,
                                             7, pat, None, 1), -1)
        self.assertEqual(luma[24], 99)
        # flat border in mode 2 behaves like mode 1
        self.assertEqual(rm.embed_superpixel(luma, 0, 0, 7, 7, 7, 0, 0, 2, 7,
                                             7, pat, None, 2), 1)
        pat[24] = 1
        tex0 = bytearray(49)
        self.assertEqual(rm.embed_superpixel(luma, 0, 0, 7, 7, 7, 0, 0, 1, 7,
                                             7, pat, tex0, 3), 0)
        tex50 = bytearray([50]) * 49
        self.assertEqual(rm.embed_superpixel(luma, 0, 0, 7, 7, 7, 0, 0, 1, 7,
                                             7, pat, tex50, 3), 1)

    def test_log_inner_area(self):
        self.assertEqual(rm.EmbedLog(None, 7, 0, 0, 7).inner_area, 25)
        self.assertEqual(rm.EmbedLog(None, 16, 0, 0, 16).inner_area, 144)
        self.assertEqual(rm.EmbedLog(None, 8, 4, 0, 8).inner_area, 1)


if __name__ == "__main__":
    unittest.main()
