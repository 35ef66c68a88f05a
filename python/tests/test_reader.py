"""The reader without the feed: the ring follower over a fake ring, consistent
copies, record decoding, and attaching to segments the test makes itself."""

import os
import struct
import time
import unittest
from unittest import mock

import quvo
import quvo.reader
from quvo import RingFollower, _shm
from support import KeySandbox, WritableSegments, attach_count, segment_id

END = quvo.UPDATE_RING_END
ENTRIES = quvo.UPDATE_RING_ENTRIES


def fresh_ring():
    """A ring as the feed leaves it at start: every entry an end marker."""
    ring = bytearray(quvo.UPDATE_RING_SIZE)
    memoryview(ring).cast("H")[:] = memoryview(bytes([0xFF]) * quvo.UPDATE_RING_SIZE).cast("H")
    return ring


class FeedModel:
    """The feed's stores to the ring, one at a time: before it fills entry p it
    marks entry p+1 as the end."""

    def __init__(self, ring, position=0):
        self.entries = memoryview(ring).cast("H")
        self.position = position
        self.written = []

    def announce(self, slot):
        for _ in self.stores(slot):
            pass

    def stores(self, slot):
        """Makes the two stores of one announcement, yielding after each."""
        self.entries[(self.position + 1) % ENTRIES] = END
        yield
        self.entries[self.position] = slot
        self.position = (self.position + 1) % ENTRIES
        self.written.append(slot)
        yield


def lapped_ring(position):
    """A ring in its second lap or later: entries hold old announcements, and
    the end marker is at `position`."""
    ring = bytearray(quvo.UPDATE_RING_SIZE)
    entries = memoryview(ring).cast("H")
    for i in range(ENTRIES):
        entries[i] = i % quvo.INST_SLOTS
    entries[position] = END
    return ring


def first_lap_ring(position):
    """A ring in its first lap: announcements before `position`, end markers from it on."""
    ring = fresh_ring()
    entries = memoryview(ring).cast("H")
    for i in range(position):
        entries[i] = i % quvo.INST_SLOTS
    return ring


def drain(follower):
    slots = []
    while (slot := follower.next()) is not None:
        slots.append(slot)
    return slots


class RingFollowerTest(unittest.TestCase):
    def test_fresh_ring_starts_at_entry_0_and_waits(self):
        ring = fresh_ring()
        follower = RingFollower(ring)
        self.assertEqual(follower.index, 0)
        self.assertIsNone(follower.next())
        FeedModel(ring).announce(17)
        self.assertEqual(follower.next(), 17)
        self.assertEqual(follower.index, 1)
        self.assertIsNone(follower.next())

    def test_starts_at_the_current_end_not_at_older_announcements(self):
        # held: [3, 5, 7, END, END ...]  expected start: 3
        ring = fresh_ring()
        model = FeedModel(ring)
        for slot in (3, 5, 7):
            model.announce(slot)
        follower = RingFollower(ring)
        self.assertEqual(follower.index, 3)
        self.assertIsNone(follower.next())
        model.announce(20479)
        model.announce(0)
        self.assertEqual(drain(follower), [20479, 0])
        self.assertEqual(follower.index, 5)

    def test_stops_at_the_end_marker_and_resumes_there(self):
        ring = fresh_ring()
        model = FeedModel(ring)
        follower = RingFollower(ring)
        model.announce(1)
        model.announce(2)
        self.assertEqual(drain(follower), [1, 2])
        self.assertEqual(follower.index, 2)
        model.announce(3)
        self.assertEqual(drain(follower), [3])

    def test_wraps_from_65535_to_0(self):
        # held: [old ... END at 65534, old]  announcements go to 65534, 65535, 0, 1
        ring = lapped_ring(65534)
        model = FeedModel(ring, 65534)
        follower = RingFollower(ring)
        self.assertEqual(follower.index, 65534)
        model.announce(11)
        model.announce(12)
        self.assertEqual(drain(follower), [11, 12])
        self.assertEqual(follower.index, 0)
        model.announce(13)
        model.announce(14)
        self.assertEqual(drain(follower), [13, 14])
        self.assertEqual(follower.index, 2)

    def test_end_caught_between_marking_entry_0_and_filling_65535_is_65535(self):
        # held: [END, old, old ... old, END]  the feed has marked entry 0 and not yet filled 65535
        ring = lapped_ring(65535)
        model = FeedModel(ring, 65535)
        stores = model.stores(42)
        next(stores)
        entries = memoryview(ring).cast("H")
        self.assertEqual((entries[0], entries[65535]), (END, END))
        self.assertNotEqual(entries[1], END)
        follower = RingFollower(ring)
        self.assertEqual(follower.index, 65535)
        next(stores)
        self.assertEqual(follower.next(), 42)
        self.assertEqual(follower.index, 0)

    def test_entry_0_is_the_end_when_entry_1_is_marked_too(self):
        # held: [END, END, old ... old, END]: 65535 is old data marked by no store, the end is 0
        ring = lapped_ring(0)
        entries = memoryview(ring).cast("H")
        entries[1] = END
        entries[65535] = END
        self.assertEqual(RingFollower(ring).index, 0)

    def test_entry_0_is_the_end_after_65535_was_filled(self):
        # held: [END, old, ... old, 9]  expected start: 0
        ring = lapped_ring(65535)
        FeedModel(ring, 65535).announce(9)
        self.assertEqual(RingFollower(ring).index, 0)

    def test_start_is_the_end_at_every_store_around_the_wrap(self):
        for name, make in (("first lap", first_lap_ring), ("later lap", lapped_ring)):
            start = ENTRIES - 6
            ring = make(start)
            model = FeedModel(ring, start)
            followers = []
            for slot in range(12):
                for _ in model.stores(slot):
                    follower = RingFollower(ring)
                    with self.subTest(ring=name, position=model.position, written=len(model.written)):
                        self.assertEqual(follower.index, model.position)
                    followers.append((follower, len(model.written)))
            for follower, already in followers:
                with self.subTest(ring=name, from_announcement=already):
                    self.assertEqual(drain(follower), model.written[already:])
                    self.assertEqual(follower.index, model.position)

    def test_ring_without_end_marker_starts_at_0(self):
        self.assertEqual(RingFollower(bytearray(quvo.UPDATE_RING_SIZE)).index, 0)

    def test_refuses_a_buffer_of_another_size(self):
        with self.assertRaises(ValueError):
            RingFollower(bytearray(quvo.UPDATE_RING_SIZE - 2))

    def test_poll_yields_then_stops_when_idle(self):
        ring = fresh_ring()
        follower = RingFollower(ring)
        model = FeedModel(ring)
        for slot in (4, 5, 6):
            model.announce(slot)
        started = time.monotonic()
        self.assertEqual(list(follower.poll(idle_timeout=0.05)), [4, 5, 6])
        self.assertLess(time.monotonic() - started, 5)

    def test_poll_stops_at_the_timeout_without_announcements(self):
        follower = RingFollower(fresh_ring())
        started = time.monotonic()
        self.assertEqual(list(follower.poll(timeout=0.1)), [])
        self.assertGreaterEqual(time.monotonic() - started, 0.1)


class RingRestartTest(unittest.TestCase):
    def test_notices_a_ring_reset_by_a_new_feed_and_rereads_from_0(self):
        ring = fresh_ring()
        feed = FeedModel(ring)
        for slot in range(100):
            feed.announce(slot)
        follower = RingFollower(ring)
        self.assertEqual(follower.index, 100)
        ring[:] = fresh_ring()
        restarted = FeedModel(ring)
        for slot in (7, 8, 9):
            restarted.announce(slot)
        self.assertIsNone(follower.next())
        self.assertTrue(follower.check_restart())
        self.assertEqual([follower.next() for _ in range(4)], [7, 8, 9, None])
        self.assertFalse(follower.check_restart())
        self.assertEqual(follower.index, 3)

    def test_no_restart_at_the_end_of_a_ring_that_was_not_reset(self):
        for ring in (fresh_ring(), first_lap_ring(5), lapped_ring(5)):
            follower = RingFollower(ring)
            self.assertFalse(follower.check_restart())
            FeedModel(ring, follower.index).announce(3)
            self.assertFalse(follower.check_restart())
            self.assertEqual(follower.next(), 3)
            self.assertFalse(follower.check_restart())

    def test_no_restart_when_caught_at_the_wrap(self):
        ring = lapped_ring(0)
        entries = memoryview(ring).cast("H")
        entries[ENTRIES - 1] = END
        follower = RingFollower(ring)
        self.assertEqual(follower.index, ENTRIES - 1)
        self.assertFalse(follower.check_restart())
        self.assertEqual(follower.index, ENTRIES - 1)

    def test_poll_goes_on_after_a_restart_while_idle(self):
        ring = fresh_ring()
        feed = FeedModel(ring)
        for slot in range(50):
            feed.announce(slot)
        follower = RingFollower(ring)
        ring[:] = fresh_ring()
        FeedModel(ring).announce(11)
        got = list(follower.poll(idle_timeout=0.3, restart_check_interval=0.05))
        self.assertEqual(got, [11])


class CopyConsistentTest(unittest.TestCase):
    def reads(self, values):
        calls = []

        def read():
            calls.append(1)
            return values[len(calls) - 1]

        return read, calls

    def test_two_equal_copies_are_enough(self):
        read, calls = self.reads([b"a", b"a", b"x"])
        self.assertEqual(quvo.copy_consistent(read), b"a")
        self.assertEqual(len(calls), 2)

    def test_returns_the_first_pair_that_agrees(self):
        read, calls = self.reads([b"a", b"b", b"c", b"c", b"d"])
        self.assertEqual(quvo.copy_consistent(read, 4), b"c")
        self.assertEqual(len(calls), 4)

    def test_raises_when_no_two_successive_copies_agree(self):
        read, calls = self.reads([b"a", b"b"] * 8)
        with self.assertRaises(quvo.InconsistentRecordError):
            quvo.copy_consistent(read, 5)
        self.assertEqual(len(calls), 5)

    def test_needs_at_least_two_copies(self):
        with self.assertRaises(ValueError):
            quvo.copy_consistent(lambda: b"a", 1)


def pack_record(inst_id, seed=0):
    """An instrument record packed by hand at the offsets of commonheader.h."""
    record = bytearray(quvo.INSTRUMENT_SIZE)
    record[0 : len(inst_id)] = inst_id
    struct.pack_into("=d", record, 16, 1234.5 + seed)
    struct.pack_into("=IIHHI", record, 24, 4000000001, 93015, 500, 1, 77 + seed)
    struct.pack_into("=dd", record, 40, 9.25e9, 379572.0)
    struct.pack_into("=ii", record, 56, -3, 2855)
    struct.pack_into("=dddd", record, 64, 1.5, 2.5, 1300.0, 1100.0)
    struct.pack_into("=10d", record, 96, *(1000.0 - k for k in range(10)))
    struct.pack_into("=10i", record, 176, *(10 + k for k in range(10)))
    struct.pack_into("=10i", record, 216, *(20 + k for k in range(10)))
    struct.pack_into("=10d", record, 256, *(2000.0 + k for k in range(10)))
    return bytes(record)


class InstrumentTest(unittest.TestCase):
    def test_decodes_every_field(self):
        inst = quvo.Instrument.from_bytes(pack_record(b"cu2501"), 20479)
        self.assertEqual(inst.inst_id, "cu2501")
        self.assertEqual(inst.last_px, 1234.5)
        self.assertEqual(inst.volume, 4000000001)
        self.assertEqual((inst.update_time, inst.update_milli_sec, inst.type, inst.change_no), (93015, 500, 1, 77))
        self.assertEqual((inst.turnover, inst.open_interest), (9.25e9, 379572.0))
        self.assertEqual((inst.bid_totvol, inst.ask_totvol), (-3, 2855))
        self.assertEqual(
            (inst.bid_totamount, inst.ask_totamount, inst.highest_price, inst.lowest_price), (1.5, 2.5, 1300.0, 1100.0)
        )
        self.assertEqual(inst.bids, tuple((1000.0 - k, 10 + k) for k in range(10)))
        self.assertEqual(inst.asks, tuple((2000.0 + k, 20 + k) for k in range(10)))
        self.assertEqual((inst.slot, inst.exchange, inst.inst_no), (20479, "INE", 0))

    def test_identifier_ends_at_the_first_nul_or_fills_16_bytes(self):
        self.assertEqual(quvo.Instrument.from_bytes(pack_record(b"al\0junk"), 1).inst_id, "al")
        self.assertEqual(quvo.Instrument.from_bytes(pack_record(b"sc2503C500-ABCDE"), 1).inst_id, "sc2503C500-ABCDE")

    def test_exchange_and_instrument_number_by_slot(self):
        record = pack_record(b"x")
        cases = ((0, "SHFE", 0), (16383, "SHFE", 16383), (16384, "INE", 4095), (20479, "INE", 0))
        for slot, exchange, inst_no in cases:
            inst = quvo.Instrument.from_bytes(record, slot)
            self.assertEqual((inst.exchange, inst.inst_no), (exchange, inst_no))
            expected_slot = quvo.ine_slot(inst_no) if exchange == "INE" else quvo.shfe_slot(inst_no)
            self.assertEqual(expected_slot, slot)

    def test_slot_in_use(self):
        self.assertFalse(quvo.slot_in_use(0))
        self.assertFalse(quvo.slot_in_use(ord(" ")))
        self.assertTrue(quvo.slot_in_use(ord("c")))


class KeyPathTest(unittest.TestCase):
    def setUp(self):
        self.saved = os.environ.get(quvo.KEY_DIR_ENV)

    def tearDown(self):
        if self.saved is None:
            os.environ.pop(quvo.KEY_DIR_ENV, None)
        else:
            os.environ[quvo.KEY_DIR_ENV] = self.saved

    def test_environment_then_etc(self):
        os.environ[quvo.KEY_DIR_ENV] = "/run/quvo"
        self.assertEqual(quvo.key_path("key_f"), "/run/quvo/key_f")
        os.environ[quvo.KEY_DIR_ENV] = "/run/quvo/"
        self.assertEqual(quvo.key_path("key_e"), "/run/quvo/key_e")
        os.environ[quvo.KEY_DIR_ENV] = ""
        self.assertEqual(quvo.key_path("key_f"), "/etc/key_f")
        del os.environ[quvo.KEY_DIR_ENV]
        self.assertEqual(quvo.key_path("key_e"), "/etc/key_e")
        self.assertEqual(quvo.key_path("key_e", "/elsewhere"), "/elsewhere/key_e")


class AttachTest(unittest.TestCase):
    def setUp(self):
        self.sandbox = KeySandbox()
        self.addCleanup(self.sandbox.cleanup)
        self.ring_key, self.area_key = self.sandbox.key_paths

    def test_missing_key_file_names_the_environment_variable(self):
        missing = os.path.join(self.sandbox.path, "absent")
        with self.assertRaises(quvo.AttachError) as caught:
            quvo.Reader(missing)
        self.assertIn(f"key file {missing}/key_f does not exist", str(caught.exception))
        self.assertIn("QUVO_KEY_DIR", str(caught.exception))

    def test_key_dir_from_the_environment(self):
        saved = os.environ.get(quvo.KEY_DIR_ENV)
        os.environ[quvo.KEY_DIR_ENV] = self.sandbox.path
        try:
            with self.assertRaises(quvo.AttachError) as caught:
                quvo.Reader()
        finally:
            if saved is None:
                del os.environ[quvo.KEY_DIR_ENV]
            else:
                os.environ[quvo.KEY_DIR_ENV] = saved
        self.assertIn(self.ring_key, str(caught.exception))

    def test_no_segment_asks_whether_the_feed_runs_and_creates_none(self):
        with self.assertRaises(quvo.AttachError) as caught:
            quvo.Reader(self.sandbox.path)
        self.assertIn(f"no market-data segment for key file {self.ring_key}", str(caught.exception))
        self.assertIn("is quvo-md running on this host?", str(caught.exception))
        self.assertEqual((segment_id(self.ring_key), segment_id(self.area_key)), (-1, -1))

    def test_missing_area_leaves_the_ring_detached(self):
        segments = WritableSegments(self.sandbox, area_size=None)
        self.addCleanup(segments.close)
        with self.assertRaises(quvo.AttachError) as caught:
            quvo.Reader(self.sandbox.path)
        self.assertIn(f"no market-data segment for key file {self.area_key}", str(caught.exception))
        self.assertEqual(segment_id(self.area_key), -1)
        self.assertEqual(attach_count(self.ring_key), 1)

    def test_wrong_size_says_actual_and_expected(self):
        segments = WritableSegments(self.sandbox, area_size=4096)
        self.addCleanup(segments.close)
        with self.assertRaises(quvo.AttachError) as caught:
            quvo.Reader(self.sandbox.path)
        self.assertEqual(
            str(caught.exception), f"the segment for key file {self.area_key} is 4096 bytes, expected 6881296 bytes"
        )
        self.assertEqual((attach_count(self.ring_key), attach_count(self.area_key)), (1, 1))


class ReaderOnTestSegmentsTest(unittest.TestCase):
    """The test writes the segments as the feed would and reads them back."""

    def setUp(self):
        self.sandbox = KeySandbox()
        self.addCleanup(self.sandbox.cleanup)
        self.segments = WritableSegments(self.sandbox)
        self.addCleanup(self.segments.close)
        self.segments.ring[:] = b"\xff" * quvo.UPDATE_RING_SIZE

    def put(self, slot, record):
        offset = slot * quvo.INSTRUMENT_SIZE
        self.segments.area[offset : offset + quvo.INSTRUMENT_SIZE] = record

    def set_counters(self, *values):
        struct.pack_into("=4i", self.segments.area, quvo.SHARE_FIELDS[1][1], *values)

    def test_attaches_both_segments_read_only(self):
        with quvo.Reader(self.sandbox.path) as reader:
            self.assertTrue(reader.attached)
            with open("/proc/self/maps") as maps:
                mapped = [line.split() for line in maps if "/SYSV" in line]
            keys = {f"/SYSV{quvo_key(path):08x}" for path in self.sandbox.key_paths}
            modes = sorted(fields[1] for fields in mapped if fields[5] in keys)
            # Ours: one read-only mapping per segment; the test's own are writable.
            self.assertEqual(modes.count("r--s"), 2, mapped)
            self.assertEqual(attach_count(self.sandbox.key_paths[1]), 2)
        self.assertFalse(reader.attached)
        self.assertEqual(attach_count(self.sandbox.key_paths[1]), 1)
        self.assertEqual(attach_count(self.sandbox.key_paths[0]), 1)

    def test_counts_slots_find_and_book(self):
        self.put(0, pack_record(b"cu2501"))
        self.put(2, pack_record(b" space-led"))
        self.put(5, pack_record(b"sc2503C500-ABCDE", 1))
        self.put(7, pack_record(b"beyond-count"))
        self.put(quvo.ine_slot(0), pack_record(b"sc2501"))
        self.put(quvo.ine_slot(3), pack_record(b"lu2502"))
        self.set_counters(7, 4, 123, 456)
        with quvo.Reader(self.sandbox.path) as reader:
            self.assertEqual(tuple(reader.counters), (7, 4, 123, 456))
            self.assertEqual((reader.shfe_count, reader.ine_count), (7, 4))
            self.assertEqual(reader.slots(), [0, 5, 20479, 20476])
            self.assertEqual(reader.find("cu2501"), 0)
            self.assertEqual(reader.find("sc2503C500-ABCDE"), 5)
            self.assertEqual(reader.find(b"lu2502"), 20476)
            for absent in ("cu250", "cu25011", "space-led", " space-led", "beyond-count", "", "sc2503C500-ABCDEF"):
                self.assertIsNone(reader.find(absent), absent)
            book = reader.book("sc2503C500-ABCDE")
            self.assertEqual(book, quvo.Instrument.from_bytes(pack_record(b"sc2503C500-ABCDE", 1), 5))
            self.assertEqual(reader.book(5), book)
            self.assertEqual(reader.book(2).inst_id, " space-led")
            with self.assertRaises(KeyError):
                reader.book("zz9999")
            with self.assertRaises(IndexError):
                reader.book(quvo.INST_SLOTS)

    def test_counts_are_bounded(self):
        self.put(quvo.SHFE_MAX_INST_CNT - 1, pack_record(b"last-shfe"))
        self.put(quvo.SHFE_MAX_INST_CNT, pack_record(b"last-ine"))
        for counters, bounded in (((99999, 99999, 0, 0), (16384, 4096)), ((-1, -7, 0, 0), (0, 0))):
            self.set_counters(*counters)
            with quvo.Reader(self.sandbox.path) as reader:
                self.assertEqual((reader.shfe_count, reader.ine_count), bounded)
                self.assertEqual(len(reader.slots()), 2 if bounded[0] else 0)

    def test_follow_yields_slots_or_books(self):
        self.put(3, pack_record(b"ni2501"))
        self.set_counters(4, 0, 0, 0)
        model = FeedModel(self.segments.ring)
        model.announce(3)
        with quvo.Reader(self.sandbox.path) as reader:
            slots = reader.follow(idle_timeout=0.05)
            books = reader.follow(books=True, idle_timeout=0.05)
            model.announce(3)
            model.announce(3)
            self.assertEqual(list(slots), [3, 3])
            self.assertEqual([book.inst_id for book in books], ["ni2501", "ni2501"])

    def write_between_copies(self, slot, changes):
        """Stands in for the feed writing the record's change_no between the
        reader's copies, for the first `changes` copies."""
        real = quvo.reader.copy_consistent
        offset = slot * quvo.INSTRUMENT_SIZE + 36
        copies = []

        def copy_while_written(read, max_copies):
            def read_while_written():
                copies.append(1)
                if len(copies) <= changes:
                    struct.pack_into("=I", self.segments.area, offset, len(copies))
                return read()

            return real(read_while_written, max_copies)

        return mock.patch.object(quvo.reader, "copy_consistent", copy_while_written), copies

    def test_book_copies_until_two_copies_agree(self):
        self.put(1, pack_record(b"rb2501"))
        with quvo.Reader(self.sandbox.path) as reader:
            patch, copies = self.write_between_copies(1, 3)
            with patch:
                self.assertEqual(reader.book(1).change_no, 3)
            self.assertEqual(len(copies), 4)

    def test_book_reports_a_record_that_never_settles(self):
        self.put(1, pack_record(b"rb2501"))
        with quvo.Reader(self.sandbox.path) as reader:
            patch, copies = self.write_between_copies(1, 1000)
            with patch, self.assertRaises(quvo.InconsistentRecordError) as caught:
                reader.book(1, max_copies=16)
            self.assertEqual(len(copies), 16)
            self.assertIn("slot 1:", str(caught.exception))

    def test_array_stays_readable_after_close_and_detaches_when_dropped(self):
        self.put(0, pack_record(b"cu2501"))
        area_key = self.sandbox.key_paths[1]
        reader = quvo.Reader(self.sandbox.path)
        array = reader.instruments()
        reader.close()
        self.assertEqual(attach_count(area_key), 2)
        self.assertEqual(array[0]["inst_id"], b"cu2501")
        self.assertFalse(array.flags.writeable)
        with self.assertRaises(ValueError):
            array[0]["volume"] = 1
        del array
        self.assertEqual(attach_count(area_key), 1)


def quvo_key(path):
    return _shm.ftok(path, quvo.SHM_PROJ_ID) & 0xFFFFFFFF


if __name__ == "__main__":
    unittest.main()
