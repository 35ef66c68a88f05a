"""The package against a feed run on the simulator: books, counts and array
against quvo-dump and the simulator's expected books."""

import json
import math
import os
import subprocess
import sys
import unittest

import numpy

import quvo
from support import Feed, KeySandbox, attach_count, dump_json

PRICES = ("last_px", "highest_price", "lowest_price")
AMOUNTS = ("turnover", "open_interest", "bid_totamount", "ask_totamount")
SCALARS = (
    "type",
    "change_no",
    "update_time",
    "update_milli_sec",
    "last_px",
    "volume",
    "turnover",
    "open_interest",
    "bid_totvol",
    "ask_totvol",
    "bid_totamount",
    "ask_totamount",
    "highest_price",
    "lowest_price",
)


def same_number(got, want):
    # quvo-dump writes a value that is not finite as null.
    return (want is None and not math.isfinite(got)) or got == want


def as_dumped(book, name, value):
    """`value` of field `name` as quvo-dump writes it: prices at the book's
    precision, amounts at their own."""
    if name in AMOUNTS:
        return quvo.round_price(value, quvo.price_decimals([value]))
    if name in PRICES or name in ("bid_px", "ask_px"):
        return quvo.round_price(value, quvo.instrument_price_decimals(book))
    return value


class FeedTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.sandbox = KeySandbox()
        try:
            cls.expect_path = os.path.join(cls.sandbox.path, "expect.json")
            feed = Feed(
                cls.sandbox,
                f"sim:shfe=200,ine=40,rate=50000,records=20000,seed=7,exit=0.3,expect={cls.expect_path}",
            )
            status = feed.wait(timeout=90)
            if status != 0:
                raise AssertionError(f"quvo-md ended with status {status}:\n{feed.output()}")
            with open(cls.expect_path) as text:
                cls.expected = json.load(text)["instruments"]
            cls.dumped = dump_json(cls.sandbox.path)
            cls.dumped_counts = dump_json(cls.sandbox.path, "--counts")[0]
        except BaseException:
            cls.sandbox.cleanup()
            raise

    @classmethod
    def tearDownClass(cls):
        cls.sandbox.cleanup()

    def setUp(self):
        self.reader = quvo.Reader(self.sandbox.path)
        self.addCleanup(self.reader.close)

    def test_counts(self):
        counters = self.reader.counters
        self.assertEqual(counters._asdict(), self.dumped_counts)
        for exchange, count in (("SHFE", self.reader.shfe_count), ("INE", self.reader.ine_count)):
            numbers = [inst["inst_no"] for inst in self.expected if inst["exchange"] == exchange]
            self.assertTrue(numbers)
            self.assertEqual(count, max(numbers) + 1, exchange)
        self.assertEqual(counters.shfe_inst_cnt, self.reader.shfe_count)
        self.assertEqual(counters.ine_inst_cnt, self.reader.ine_count)
        self.assertGreater(counters.shfe_pktno, 0)
        self.assertGreater(counters.ine_pktno, 0)

    def test_slots_are_the_expected_instruments_in_order(self):
        shfe = sorted(inst["inst_no"] for inst in self.expected if inst["exchange"] == "SHFE")
        ine = sorted(inst["inst_no"] for inst in self.expected if inst["exchange"] == "INE")
        self.assertEqual(self.reader.slots(), [quvo.shfe_slot(n) for n in shfe] + [quvo.ine_slot(n) for n in ine])
        self.assertEqual(self.reader.slots(), [line["slot"] for line in self.dumped])

    def test_every_book_equals_quvo_dump(self):
        self.assertEqual(len(self.dumped), len(self.expected))
        for line in self.dumped:
            with self.subTest(inst=line["id"]):
                by_slot = self.reader.book(line["slot"])
                self.assertEqual(self.reader.book(line["id"]), by_slot)
                self.assertEqual(by_slot.inst_id, line["id"])
                self.assertEqual(
                    (by_slot.slot, by_slot.exchange, by_slot.inst_no), (line["slot"], line["exchange"], line["inst_no"])
                )
                for name in SCALARS:
                    value = as_dumped(by_slot, name, getattr(by_slot, name))
                    self.assertTrue(same_number(value, line[name]), name)
                for side, prices, volumes in (("bids", "bid_px", "bid_vol"), ("asks", "ask_px", "ask_vol")):
                    levels = getattr(by_slot, side)
                    self.assertEqual(len(levels), quvo.BOOK_LEVELS)
                    for k, (price, volume) in enumerate(levels):
                        dumped = as_dumped(by_slot, prices, price)
                        self.assertTrue(same_number(dumped, line[prices][k]), f"{prices}[{k}]")
                        self.assertEqual(volume, line[volumes][k], f"{volumes}[{k}]")

    def test_python_json_equals_quvo_dump(self):
        result = subprocess.run(
            [sys.executable, "-m", "quvo", "--json"],
            env=dict(os.environ, QUVO_KEY_DIR=self.sandbox.path),
            capture_output=True,
            text=True,
            timeout=60,
        )
        self.assertEqual(result.returncode, 0, result.stderr)
        printed = [json.loads(line) for line in result.stdout.splitlines()]
        self.assertEqual(len(printed), len(self.expected))
        self.assertEqual(printed, self.dumped)
        for line in printed:
            self.assertIn(line["exchange"], ("SHFE", "INE"))

    def test_dumped_names_are_the_expected_states(self):
        shared = set(self.expected[0]) & set(self.dumped[0])
        for name in ("id", "exchange", "slot", "inst_no", "change_no", "last_px", "volume", "turnover",
                     "open_interest", "bid_totvol", "ask_totvol", "bid_totamount", "ask_totamount",
                     "highest_price", "lowest_price", "bid_px", "bid_vol", "ask_px", "ask_vol"):
            self.assertIn(name, shared)

    def test_every_book_equals_the_simulators_expected_book(self):
        for want in self.expected:
            with self.subTest(inst=want["id"]):
                got = self.reader.book(want["slot"])
                # The identifier field keeps 15 characters and a NUL.
                self.assertEqual(got.inst_id, want["id"][:15])
                for name in SCALARS:
                    if name in want:
                        self.assertEqual(getattr(got, name), want[name], name)
                for k in range(quvo.EXCHANGE_LEVELS):
                    self.assertEqual(got.bids[k], (want["bid_px"][k], want["bid_vol"][k]), f"bid level {k + 1}")
                    self.assertEqual(got.asks[k], (want["ask_px"][k], want["ask_vol"][k]), f"ask level {k + 1}")

    def test_array_agrees_with_the_plain_values(self):
        array = self.reader.instruments()
        self.assertEqual(array.shape, (quvo.INST_SLOTS,))
        self.assertEqual(array.dtype, quvo.INSTRUMENT_DTYPE)
        self.assertFalse(array.flags.writeable)
        first = array["inst_id"].astype("S1")
        in_use = numpy.flatnonzero((first != b"") & (first != b" "))
        self.assertEqual(sorted(in_use.tolist()), sorted(self.reader.slots()))
        for slot in self.reader.slots():
            row = array[slot]
            book = self.reader.book(slot)
            with self.subTest(inst=book.inst_id):
                self.assertEqual(row["inst_id"].decode("latin-1"), book.inst_id)
                self.assertEqual(self.reader.book(numpy.int64(slot)), book)
                for name in SCALARS:
                    self.assertEqual(row[name].item(), getattr(book, name), name)
                self.assertEqual(list(zip(row["bid_px"].tolist(), row["bid_vol"].tolist())), list(book.bids))
                self.assertEqual(list(zip(row["ask_px"].tolist(), row["ask_vol"].tolist())), list(book.asks))

    def test_find(self):
        for line in self.dumped:
            self.assertEqual(self.reader.find(line["id"]), line["slot"])
        for unknown in ("zz9999", "", "cu250", "cu25011", "cu2501 ", "x" * 17):
            self.assertIsNone(self.reader.find(unknown), unknown)
        with self.assertRaises(KeyError):
            self.reader.book("zz9999")

    def test_close_detaches(self):
        area_key = self.sandbox.key_paths[1]
        before = attach_count(area_key)
        reader = quvo.Reader(self.sandbox.path)
        self.assertEqual(attach_count(area_key), before + 1)
        reader.close()
        self.assertEqual(attach_count(area_key), before)
        with self.assertRaises(quvo.QuvoError):
            reader.slots()

    def test_plain_api_without_numpy(self):
        script = (
            "import sys\n"
            "sys.modules['numpy'] = None\n"
            "import quvo\n"
            f"reader = quvo.Reader({self.sandbox.path!r})\n"
            "slots = reader.slots()\n"
            "book = reader.book(slots[0])\n"
            "assert reader.find(book.inst_id) == slots[0]\n"
            "assert list(reader.follow(idle_timeout=0.01)) == []\n"
            "try:\n"
            "    reader.instruments()\n"
            "except ImportError as error:\n"
            "    print('instruments:', error)\n"
            "print(len(slots), book.inst_id, reader.counters.shfe_inst_cnt)\n"
        )
        result = subprocess.run([sys.executable, "-c", script], capture_output=True, text=True, timeout=60)
        self.assertEqual(result.returncode, 0, result.stderr)
        first = self.dumped[0]
        self.assertIn("instruments: quvo: numpy is needed", result.stdout)
        self.assertIn(f"{len(self.dumped)} {first['id']} {self.dumped_counts['shfe_inst_cnt']}", result.stdout)

    def test_command_line(self):
        first = self.dumped[0]
        result = subprocess.run(
            [sys.executable, "-m", "quvo", "--json", first["id"], "zz9999"],
            env=dict(os.environ, QUVO_KEY_DIR=self.sandbox.path),
            capture_output=True,
            text=True,
            timeout=60,
        )
        self.assertEqual(result.returncode, 1)
        self.assertIn("zz9999 is not in use", result.stderr)
        printed = json.loads(result.stdout)
        self.assertEqual(printed, first)
        self.assertEqual((printed["id"], printed["exchange"]), (first["id"], first["exchange"]))


if __name__ == "__main__":
    unittest.main()
