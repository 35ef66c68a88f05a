"""Price text at the tick's precision, and one form of a book: the package's
JSON against quvo-dump --json on the same shared memory."""

import dataclasses
import json
import math
import os
import random
import struct
import subprocess
import sys
import unittest

import quvo
from quvo import _layout as L
from quvo.__main__ import record
from support import KeySandbox, WritableSegments, dump_json


class PriceDecimalsTest(unittest.TestCase):
    def test_fewest_decimals_that_reproduce_every_price(self):
        self.assertEqual(quvo.price_decimals([72000 + 0.2 + 0.2 + 0.2, 72000.2, 0.0]), 1)
        self.assertEqual(quvo.price_decimals([72010.0, 72000.0, 0.0, -5.0]), 0)
        self.assertEqual(quvo.price_decimals([576.25, 576.2]), 2)
        self.assertEqual(quvo.price_decimals([0.12345678]), quvo.MAX_PRICE_DECIMALS)
        self.assertEqual(quvo.price_decimals([0.123456789]), -1)
        self.assertEqual(quvo.price_decimals([1 / 3]), -1)
        self.assertEqual(quvo.price_decimals([0.0, math.nan, math.inf]), 0)
        self.assertEqual(quvo.price_decimals([]), 0)

    def test_instrument_decimals_cover_last_high_low_and_every_level(self):
        levels = tuple((72000.0 - 10 * k, 1) for k in range(quvo.BOOK_LEVELS))
        inst = quvo.Instrument(
            "cu2501", 72010.0, 1, 0, 0, 0, 0, 0.125, 1.5, 0, 0, 0.5, 0.25, 72100.0, 71900.0, levels, levels, 0
        )
        # Amounts (turnover, totals, open interest) have a precision of their own.
        self.assertEqual(quvo.instrument_price_decimals(inst), 0)
        asks = levels[:9] + ((72000.5, 1),)
        self.assertEqual(quvo.instrument_price_decimals(dataclasses.replace(inst, asks=asks)), 1)
        self.assertEqual(quvo.instrument_price_decimals(dataclasses.replace(inst, lowest_price=71999.25)), 2)


class FormatPriceTest(unittest.TestCase):
    def test_the_decimal_not_the_binary_noise(self):
        noisy = 72000 + 0.2 + 0.2 + 0.2
        self.assertNotEqual(noisy, 72000.6)
        self.assertEqual(quvo.format_price(576.20000000000005, 1), "576.2")
        self.assertEqual(quvo.format_price(noisy, quvo.price_decimals([noisy])), "72000.6")
        self.assertEqual(quvo.format_price(72010.0, 0), "72010")
        self.assertEqual(quvo.format_price(576.25, 2), "576.25")
        self.assertEqual(quvo.format_price(576.2, 2), "576.20")
        self.assertEqual(quvo.format_price(-5.5, 1), "-5.5")

    def test_negative_zero_prints_as_zero(self):
        self.assertEqual(quvo.format_price(-0.0, 0), "0")
        self.assertEqual(quvo.format_price(-0.0, 2), "0.00")
        self.assertEqual(quvo.format_price(-0.001, 1), "0.0")

    def test_past_eight_decimals_the_shortest_round_trip(self):
        noisy = 72000 + 0.2 + 0.2 + 0.2
        self.assertEqual(quvo.format_price(1 / 3, quvo.price_decimals([1 / 3])), "0.3333333333333333")
        self.assertEqual(quvo.format_price(0.123456789, quvo.price_decimals([0.123456789])), "0.123456789")
        self.assertEqual(quvo.format_price(noisy, -1), "72000.59999999999")
        self.assertEqual(quvo.format_price(math.nan, 2), "nan")

    def test_round_price_gives_the_float_nearest_the_decimal(self):
        noisy = 72000 + 0.2 + 0.2 + 0.2
        self.assertEqual(quvo.round_price(noisy, 1), 72000.6)
        self.assertEqual(repr(quvo.round_price(noisy, 1)), "72000.6")
        self.assertEqual(quvo.round_price(576.20000000000005, 1), 576.2)
        self.assertEqual(quvo.round_price(576.25, 2), 576.25)
        self.assertEqual(quvo.round_price(noisy, -1), noisy)
        self.assertTrue(math.isinf(quvo.round_price(math.inf, 2)))

    def test_amounts_at_their_own_precision(self):
        self.assertEqual(quvo.format_amount(444370000.5), "444370000.5")
        self.assertEqual(quvo.format_amount(0.1 + 0.2), "0.3")
        self.assertEqual(quvo.format_amount(14400000.25), "14400000.25")
        self.assertEqual(quvo.format_amount(7200000.0), "7200000")
        self.assertEqual(quvo.format_amount(0.123456789), "0.123456789")
        # Real digits are never taken for noise, in large values or tiny ones.
        self.assertEqual(quvo.price_decimals([12345.678901]), 6)
        self.assertEqual(quvo.price_decimals([1e-9]), -1)
        self.assertEqual(quvo.format_amount(4320600.000000001), "4320600")


TICKS = (0.01, 0.02, 0.05, 0.1, 0.2, 0.5, 1.0, 2.0, 5.0, 10.0, 0.25, 0.125, 2.5)


def pack(inst_id, rng):
    """A record whose prices are a base plus whole ticks, summed tick by tick
    as a careless writer would, so that most carry binary noise."""
    tick = rng.choice(TICKS)
    base = round(rng.uniform(10, 80000) / tick) * tick

    def price():
        value = base
        for _ in range(rng.randrange(0, 12)):
            value += tick
        return value

    def amount():
        return rng.choice((0.0, rng.randrange(10**9) * 0.5, rng.randrange(10**6) * 0.1 + 0.2))

    depth = rng.randrange(0, quvo.BOOK_LEVELS + 1)
    bid_px = [price() if k < depth else 0.0 for k in range(quvo.BOOK_LEVELS)]
    ask_px = [price() if k < depth else 0.0 for k in range(quvo.BOOK_LEVELS)]
    bid_vol = [rng.randrange(1, 500) if k < depth else 0 for k in range(quvo.BOOK_LEVELS)]
    ask_vol = [rng.randrange(1, 500) if k < depth else 0 for k in range(quvo.BOOK_LEVELS)]
    return L.INSTRUMENT_STRUCT.pack(
        inst_id,
        price(),
        rng.randrange(2**32),
        rng.randrange(240000),
        rng.randrange(1000),
        rng.randrange(3),
        rng.randrange(2**32),
        amount(),
        amount(),
        rng.randrange(-(2**31), 2**31),
        rng.randrange(2**31),
        amount(),
        amount(),
        price(),
        price(),
        *bid_px,
        *bid_vol,
        *ask_vol,
        *ask_px,
    )


class OneFormTest(unittest.TestCase):
    """quvo-dump --json and python3 -m quvo --json over the same segments."""

    @classmethod
    def setUpClass(cls):
        cls.sandbox = KeySandbox()
        cls.segments = WritableSegments(cls.sandbox)
        area = cls.segments.area
        rng = random.Random(20250101)
        slots = [quvo.shfe_slot(n) for n in range(300)] + [quvo.ine_slot(n) for n in range(60)]
        for slot in slots:
            offset = slot * quvo.INSTRUMENT_SIZE
            area[offset : offset + quvo.INSTRUMENT_SIZE] = pack(f"i{slot}".encode(), rng)
        # Odd records: an identifier byte past ASCII and a control byte, values that
        # are not finite, negative zero, and prices past eight decimals.
        odd = bytearray(pack(b"x\xe9\tq", rng))
        struct.pack_into("=d", odd, 16, math.nan)
        struct.pack_into("=dd", odd, 80, math.inf, -0.0)
        struct.pack_into("=d", odd, 40, -math.inf)
        area[300 * quvo.INSTRUMENT_SIZE : 301 * quvo.INSTRUMENT_SIZE] = odd
        third = bytearray(pack(b"third", rng))
        struct.pack_into("=dd", third, 96, 1 / 3, 2 / 3)
        area[301 * quvo.INSTRUMENT_SIZE : 302 * quvo.INSTRUMENT_SIZE] = third
        struct.pack_into("=4i", area, L.SHARE_OFFSETS["shfe_inst_cnt"], 302, 60, 7, 8)

    @classmethod
    def tearDownClass(cls):
        cls.segments.close()
        cls.sandbox.cleanup()

    def run_python(self, *args):
        return subprocess.run(
            [sys.executable, "-m", "quvo", *args],
            env=dict(os.environ, QUVO_KEY_DIR=self.sandbox.path),
            capture_output=True,
            text=True,
            timeout=60,
        )

    def test_python_json_equals_quvo_dump_json(self):
        dumped = dump_json(self.sandbox.path)
        result = self.run_python("--json")
        self.assertEqual(result.returncode, 0, result.stderr)
        printed = [json.loads(line) for line in result.stdout.splitlines()]
        self.assertEqual(len(printed), 362)
        self.assertEqual(len(dumped), len(printed))
        for ours, theirs in zip(printed, dumped):
            self.assertEqual(list(ours), list(theirs))
            self.assertEqual(ours, theirs)

    def test_prices_are_the_decimals_the_table_shows(self):
        by_slot = {line["slot"]: line for line in dump_json(self.sandbox.path)}
        rounded = 0
        with quvo.Reader(self.sandbox.path) as reader:
            for slot in range(300):
                book = reader.book(slot)
                line = by_slot[slot]
                decimals = quvo.instrument_price_decimals(book)
                self.assertGreaterEqual(decimals, 0, book)
                for side, prices in (("bid_px", book.bids), ("ask_px", book.asks)):
                    for (px, _), written in zip(prices, line[side]):
                        self.assertEqual(written, float(quvo.format_price(px, decimals)))
                        fraction = repr(written).split(".")[1]
                        self.assertLessEqual(len(fraction), max(decimals, 1), written)
                        rounded += written != px
        self.assertGreater(rounded, 100)

    def test_odd_values(self):
        by_slot = {line["slot"]: line for line in dump_json(self.sandbox.path)}
        line = by_slot[300]
        self.assertEqual(line["id"], "x\xe9\tq")
        self.assertIsNone(line["last_px"])
        self.assertIsNone(line["turnover"])
        self.assertIsNone(line["highest_price"])
        self.assertEqual(line["lowest_price"], 0.0)
        self.assertEqual((line["exchange"], line["slot"], line["inst_no"]), ("SHFE", 300, 300))
        with quvo.Reader(self.sandbox.path) as reader:
            self.assertEqual(record(reader.book(300)), line)
        self.assertEqual(by_slot[301]["bid_px"][:2], [1 / 3, 2 / 3])
        ine = by_slot[quvo.ine_slot(7)]
        self.assertEqual((ine["id"], ine["exchange"], ine["inst_no"]), (f"i{quvo.ine_slot(7)}", "INE", 7))

    def test_table_writes_prices_at_their_tick(self):
        with quvo.Reader(self.sandbox.path) as reader:
            book = reader.book(5)
        result = self.run_python(book.inst_id)
        self.assertEqual(result.returncode, 0, result.stderr)
        decimals = quvo.instrument_price_decimals(book)
        self.assertIn(f"  last {quvo.format_price(book.last_px, decimals)}  ", result.stdout)
        self.assertIn(f"  open_interest {quvo.format_amount(book.open_interest)}", result.stdout)
        for px, vol in book.bids:
            if (px, vol) != (0.0, 0):
                self.assertIn(f"{vol:>9}{quvo.format_price(px, decimals):>13} | ", result.stdout)
        self.assertNotIn("9999999", result.stdout)


if __name__ == "__main__":
    unittest.main()
