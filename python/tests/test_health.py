"""Reader.health(): the latency functions against the C ones, figures read from
health segments the test writes itself, and the figures of a feed run on the
simulator against quvo-dump --health --json."""

import ctypes
import json
import os
import signal
import struct
import subprocess
import sys
import time
import unittest
import weakref
from unittest import mock

import quvo
import quvo.reader
from quvo import _shm
from support import IPC_CREAT, Feed, KeySandbox, WritableSegments, health_segment_id, tool_path

STOPPED, FAILED, LIVE = 6, 7, 4


def c_layout():
    output = subprocess.run([tool_path("QUVO_LAYOUT_PATH")], capture_output=True, text=True, check=True).stdout
    return json.loads(output)["health"]


def own_start_ticks():
    with open("/proc/self/stat") as stat:
        return int(stat.read().rsplit(")", 1)[1].split()[19])


def dead_pid():
    child = subprocess.Popen(["true"])
    child.wait()
    return child.pid


def assert_same_key_order(test, got, want, where="figures"):
    """Equal objects whose keys also come in the same order, at every depth."""
    test.assertEqual(got, want)
    if isinstance(want, dict):
        test.assertEqual(list(got), list(want), where)
        for key in want:
            assert_same_key_order(test, got[key], want[key], f"{where}.{key}")


class FunctionsTest(unittest.TestCase):
    """bucket, bucket_low and percentile give what quvohealth(reader).h give."""

    @classmethod
    def setUpClass(cls):
        cls.functions = c_layout()["functions"]

    def test_bucket_of_every_latency_the_c_function_was_given(self):
        cases = self.functions["buckets"]
        self.assertGreater(len(cases), 4000)
        wrong = [(ns, quvo.health_bucket(ns), want) for ns, want in cases if quvo.health_bucket(ns) != want]
        self.assertEqual(wrong, [])

    def test_bucket_low_of_every_bucket(self):
        lows = self.functions["bucket_lows"]
        self.assertEqual(len(lows), quvo.LATENCY_BUCKETS)
        self.assertEqual([quvo.health_bucket_low(i) for i in range(quvo.LATENCY_BUCKETS)], lows)

    def test_bucket_low_is_the_first_latency_of_its_bucket(self):
        for i in range(quvo.LATENCY_BUCKETS):
            low = quvo.health_bucket_low(i)
            self.assertEqual(quvo.health_bucket(low), i)
            if i > 0:
                self.assertEqual(quvo.health_bucket(low - 1), i - 1)

    def test_percentiles_of_hand_made_histograms(self):
        cases = self.functions["percentiles"]
        self.assertGreaterEqual(len(cases), 8)
        for n, case in enumerate(cases):
            latency = {"buckets": case["buckets"], "max_ns": case["max_ns"]}
            for result in case["percentiles"]:
                with self.subTest(histogram=n, q=result["q"]):
                    self.assertEqual(quvo.health_percentile(latency, result["q"]), result["ns"])
        # Not every answer is the same one: the histograms tell the quantiles apart.
        self.assertGreater(len({r["ns"] for case in cases for r in case["percentiles"]}), 10)


class HealthSegment:
    """A health segment made by the test in a sandbox and attached writable,
    written field by field at the offsets the compiler gives."""

    def __init__(self, sandbox, records, size=quvo.HEALTH_SIZE):
        key = _shm.ftok(os.path.join(sandbox.path, quvo.HEALTH_KEY_FILE), quvo.HEALTH_PROJ_ID)
        self.shmid = _shm.shmget(key, size, IPC_CREAT | 0o600)
        if self.shmid < 0:
            raise OSError(_shm.errno(), "cannot create a health segment")
        address = _shm._libc.shmat(self.shmid, None, 0)
        if address == ctypes.c_void_p(-1).value:
            raise OSError(_shm.errno(), "cannot attach the health segment")
        block = (ctypes.c_ubyte * size).from_address(address)
        weakref.finalize(block, _shm.shmdt, address)
        self.view = memoryview(block).cast("B")
        self.records = records

    def fields(self, record="quvo_health", base=0, path=()):
        """(path, offset, element size, count) of every leaf field, in C order."""
        for field in self.records[record]["fields"]:
            offset = base + field["offset"]
            name = path + (field["name"],)
            if field["kind"] == "record":
                inner = "quvo_health_feed" if field["name"] == "feeds" else "quvo_health_" + field["name"]
                for k in range(field["count"]):
                    index = (k,) if field["count"] > 1 else ()
                    yield from self.fields(inner, offset + k * field["element_size"], name + index)
            else:
                yield name, offset, field["element_size"], field["count"]

    def write(self, values):
        """Writes `values`, a dict of leaf paths ('process', 'pid') to an int,
        a list of ints or bytes; every leaf must be given."""
        for path, offset, element_size, count in self.fields():
            value = values[path]
            if isinstance(value, bytes):
                self.view[offset : offset + count] = value.ljust(count, b"\0")
            else:
                code = {4: "I", 8: "Q"}[element_size]
                struct.pack_into(f"={count}{code}", self.view, offset, *(value if count > 1 else [value]))

    def close(self):
        self.view = None


class FakeSegmentTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.layout = c_layout()

    def setUp(self):
        self.sandbox = KeySandbox()
        self.addCleanup(self.sandbox.cleanup)

    def make_segment(self, size=quvo.HEALTH_SIZE):
        segment = HealthSegment(self.sandbox, self.layout["records"], size)
        self.addCleanup(segment.close)
        return segment

    def known_values(self, segment):
        """Every counter a different number, and the fields that mean
        something set to a feed that runs live: this process."""
        values = {}
        number = 1000
        for path, _, element_size, count in segment.fields():
            if element_size == 1:
                values[path] = b""
                continue
            values[path] = list(range(number, number + count)) if count > 1 else number
            number += 10 * count
        buckets = [0] * quvo.LATENCY_BUCKETS
        buckets[20], buckets[30], buckets[40], buckets[50], buckets[60] = 400, 450, 120, 25, 5
        values.update(
            {
                ("magic",): quvo.HEALTH_MAGIC,
                ("version",): quvo.HEALTH_VERSION,
                ("size",): quvo.HEALTH_SIZE,
                ("reserved",): 0,
                ("process", "pid"): os.getpid(),
                ("process", "start_ticks"): own_start_ticks(),
                ("process", "phase"): LIVE,
                ("process", "config_path"): b"/etc/quvo/md.ini\0left over from a longer path",
                ("restarts", "last_reason"): 1,
                ("latency", "samples"): 1000,
                ("latency", "max_ns"): 70000,
                ("latency", "buckets"): buckets,
            }
        )
        return values

    def expected(self, values, state, phase, last_reason="topic", config_path="/etc/quvo/md.ini"):
        """The JSON object the figures must give, built from the written values and the C names."""

        def record(name, path):
            return {f["name"]: values[path + (f["name"],)] for f in self.layout["records"][name]["fields"]}

        by_reason = values[("restarts", "by_reason")]
        feeds = {}
        for k, name in enumerate(("shfe2ps", "ine2ps", "shfe4ps", "ine4ps")):
            feeds[name] = record("quvo_health_feed", ("snapshot", "feeds", k))
        return {
            "layout_version": 1,
            "state": state,
            "pid": values[("process", "pid")],
            "start_ns": values[("process", "start_ns")],
            "config_path": config_path,
            "phase": phase,
            "run": values[("process", "run")],
            "phase_started_ns": dict(
                zip(
                    ("starting", "configuring", "snapshot", "replay", "live", "stopping", "stopped", "failed"),
                    values[("process", "phase_started_ns")],
                )
            ),
            "restarts": {
                "gap": by_reason[0],
                "topic": by_reason[1],
                "short": by_reason[2],
                "cache": by_reason[3],
                "total": sum(by_reason),
                "last_ns": values[("restarts", "last_ns")],
                "last_reason": last_reason,
            },
            "snapshot": {
                "feeds": feeds,
                "cleared": dict(
                    zip(("run_start", "rst_ack", "fragment", "held", "price_check"), values[("snapshot", "cleared")])
                ),
                "price_check_failures": values[("snapshot", "price_check_failures")],
                "completed": values[("snapshot", "completed")],
                "last_duration_ns": values[("snapshot", "last_duration_ns")],
                "total_duration_ns": values[("snapshot", "total_duration_ns")],
            },
            "tcp": record("quvo_health_tcp", ("tcp",)),
            "records": {**record("quvo_health_records", ("records",)), "announced": values[("ring", "write_count")]},
            "cache": record("quvo_health_cache", ("cache",)),
            "ring": record("quvo_health_ring", ("ring",)),
            "latency": {
                "samples": 1000,
                "sum_ns": values[("latency", "sum_ns")],
                "max_ns": 70000,
                "polls_empty": values[("latency", "polls_empty")],
                "polls_busy": values[("latency", "polls_busy")],
                # 400, 450, 120, 25 and 5 records in buckets 20, 30, 40, 50 and 60: the
                # upper ends of buckets 30, 40 and 50, and the largest latency seen.
                "p50_ns": 447,
                "p90_ns": 2559,
                "p99_ns": 14335,
                "p999_ns": 70000,
                "buckets": values[("latency", "buckets")],
            },
        }

    def test_a_running_feed_gives_every_figure_under_its_name_and_in_order(self):
        segment = self.make_segment()
        values = self.known_values(segment)
        segment.write(values)
        assert_same_key_order(self, quvo.read_health(self.sandbox.path), self.expected(values, "running", "live"))

    def test_reader_health_reads_its_own_key_directory(self):
        segment = self.make_segment()
        values = self.known_values(segment)
        segment.write(values)
        books = WritableSegments(self.sandbox)
        self.addCleanup(books.close)
        with quvo.Reader(self.sandbox.path) as reader:
            assert_same_key_order(self, reader.health(), self.expected(values, "running", "live"))
        with mock.patch.dict(os.environ, {"QUVO_KEY_DIR": self.sandbox.path}):
            with quvo.Reader() as reader:
                self.assertEqual(reader.health()["pid"], os.getpid())
            self.assertEqual(quvo.read_health()["pid"], os.getpid())

    def test_reading_leaves_the_segment_detached(self):
        segment = self.make_segment()
        segment.write(self.known_values(segment))
        for _ in range(3):
            quvo.read_health(self.sandbox.path)
        self.assertEqual(_shm.stat(segment.shmid).shm_nattch, 1)

    def test_states(self):
        segment = self.make_segment()
        values = self.known_values(segment)
        gone = dead_pid()
        cases = (
            # (pid, start ticks, phase) -> state, phase name
            ((os.getpid(), own_start_ticks(), LIVE), "running", "live"),
            ((os.getpid(), own_start_ticks(), 0), "running", "starting"),
            ((os.getpid(), own_start_ticks(), 9), "running", "unknown"),
            ((gone, own_start_ticks(), LIVE), "gone", "live"),
            ((os.getpid(), own_start_ticks() + 1, LIVE), "gone", "live"),
            ((os.getpid(), 0, LIVE), "gone", "live"),
            ((0, own_start_ticks(), LIVE), "gone", "live"),
            ((gone, 1234, STOPPED), "stopped", "stopped"),
            ((os.getpid(), own_start_ticks(), STOPPED), "stopped", "stopped"),
            ((gone, 1234, FAILED), "failed", "failed"),
            ((os.getpid(), own_start_ticks(), FAILED), "failed", "failed"),
        )
        for (pid, ticks, phase), state, phase_name in cases:
            with self.subTest(pid=pid, ticks=ticks, phase=phase):
                values.update({("process", "pid"): pid, ("process", "start_ticks"): ticks, ("process", "phase"): phase})
                segment.write(values)
                want = self.expected(values, state, phase_name)
                assert_same_key_order(self, quvo.read_health(self.sandbox.path), want)

    def test_last_restart_reason(self):
        segment = self.make_segment()
        values = self.known_values(segment)
        for last_ns, reason, name in ((0, 2, None), (0, 0, None), (5, 0, "gap"), (5, 3, "cache"), (5, 4, "unknown")):
            with self.subTest(last_ns=last_ns, reason=reason):
                values.update({("restarts", "last_ns"): last_ns, ("restarts", "last_reason"): reason})
                segment.write(values)
                figures = quvo.read_health(self.sandbox.path)
                self.assertEqual(figures["restarts"]["last_reason"], name)
                assert_same_key_order(self, figures, self.expected(values, "running", "live", last_reason=name))

    def test_config_path_of_every_length(self):
        segment = self.make_segment()
        values = self.known_values(segment)
        for text in ("", "/a", "/etc/" + "x" * 250, "/" + "y" * 254):
            with self.subTest(length=len(text)):
                values[("process", "config_path")] = text.encode()
                segment.write(values)
                self.assertEqual(quvo.read_health(self.sandbox.path)["config_path"], text)

    def test_an_empty_histogram_gives_zero_percentiles(self):
        segment = self.make_segment()
        values = self.known_values(segment)
        values.update({("latency", "buckets"): [0] * quvo.LATENCY_BUCKETS, ("latency", "max_ns"): 0})
        segment.write(values)
        latency = quvo.read_health(self.sandbox.path)["latency"]
        self.assertEqual([latency[k] for k in ("p50_ns", "p90_ns", "p99_ns", "p999_ns")], [0, 0, 0, 0])

    def test_unknown_layouts_are_refused(self):
        segment = self.make_segment()
        values = self.known_values(segment)
        cases = (
            ({("magic",): 0}, "not set up yet: a feed is starting"),
            ({("magic",): 0x12345678}, "does not hold quvo-md health figures"),
            ({("version",): 2}, "layout version 2 of 1800 bytes; this reader knows version 1 of 1800 bytes"),
            ({("size",): 1792}, "layout version 1 of 1792 bytes; this reader knows version 1 of 1800 bytes"),
        )
        for change, message in cases:
            with self.subTest(change=change):
                segment.write({**values, **change})
                with self.assertRaises(quvo.AttachError) as caught:
                    quvo.read_health(self.sandbox.path)
                self.assertIn(message, str(caught.exception))
        segment.write(values)
        self.assertEqual(quvo.read_health(self.sandbox.path)["state"], "running")

    def test_a_segment_shorter_than_the_layout_is_refused(self):
        segment = self.make_segment(size=1000)
        struct.pack_into("=3I", segment.view, 0, quvo.HEALTH_MAGIC, quvo.HEALTH_VERSION, quvo.HEALTH_SIZE)
        with self.assertRaises(quvo.AttachError) as caught:
            quvo.read_health(self.sandbox.path)
        self.assertIn("the health segment is 1000 bytes, smaller than this layout", str(caught.exception))
        struct.pack_into("=3I", segment.view, 0, quvo.HEALTH_MAGIC, 2, 2000)
        with self.assertRaises(quvo.AttachError) as caught:
            quvo.read_health(self.sandbox.path)
        self.assertIn("layout version 2 of 2000 bytes", str(caught.exception))

    def test_a_segment_without_a_header_is_refused(self):
        self.make_segment(size=8)
        with self.assertRaises(quvo.AttachError) as caught:
            quvo.read_health(self.sandbox.path)
        self.assertIn("the health segment is 8 bytes: too small", str(caught.exception))

    def test_no_segment(self):
        self.assertEqual(health_segment_id(self.sandbox.path), -1)
        with self.assertRaises(quvo.AttachError) as caught:
            quvo.read_health(self.sandbox.path)
        message = str(caught.exception)
        self.assertIn(f"no quvo-md has made a health segment for key directory {self.sandbox.path}:", message)
        self.assertIn("start the feed, or set QUVO_KEY_DIR", message)
        books = WritableSegments(self.sandbox)
        self.addCleanup(books.close)
        with quvo.Reader(self.sandbox.path) as reader:
            with self.assertRaises(quvo.AttachError):
                reader.health()

    def test_no_key_file(self):
        os.remove(os.path.join(self.sandbox.path, quvo.HEALTH_KEY_FILE))
        with self.assertRaises(quvo.AttachError) as caught:
            quvo.read_health(self.sandbox.path)
        self.assertIn("key_e does not exist: is QUVO_KEY_DIR right?", str(caught.exception))

    def test_copies_until_two_agree(self):
        segment = self.make_segment()
        values = self.known_values(segment)
        segment.write(values)
        real_read = _shm.read
        copies = []

        def changing(address, size):
            # The feed moves a counter before each of the first three copies, then stops.
            if size == quvo.HEALTH_SIZE:
                copies.append(size)
                if len(copies) <= 3:
                    values[("records", "applied")] += 1
                    segment.write(values)
            return real_read(address, size)

        with mock.patch.object(quvo.reader._shm, "read", changing):
            figures = quvo.read_health(self.sandbox.path)
        self.assertEqual(figures["records"]["applied"], values[("records", "applied")])
        self.assertEqual(len(copies), 4)

        def always_changing(address, size):
            values[("records", "applied")] += 1
            segment.write(values)
            return real_read(address, size)

        with mock.patch.object(quvo.reader._shm, "read", always_changing):
            with self.assertRaises(quvo.InconsistentRecordError):
                quvo.read_health(self.sandbox.path, max_copies=4)

    def test_poll_counters_moving_between_copies_do_not_stop_a_read(self):
        segment = self.make_segment()
        values = self.known_values(segment)
        segment.write(values)
        real_read = _shm.read
        polls = ("tcp", "polls_empty"), ("tcp", "polls_busy"), ("latency", "polls_empty"), ("latency", "polls_busy")

        def polling(address, size):
            # As a live feed does: every poll counter moves before every copy.
            for path in polls:
                values[path] += 1
            segment.write(values)
            return real_read(address, size)

        with mock.patch.object(quvo.reader._shm, "read", polling):
            figures = quvo.read_health(self.sandbox.path, max_copies=2)
        # The last copy's.
        self.assertEqual(figures["tcp"]["polls_empty"], values[("tcp", "polls_empty")])
        self.assertEqual(figures["tcp"]["polls_busy"], values[("tcp", "polls_busy")])
        self.assertEqual(figures["latency"]["polls_empty"], values[("latency", "polls_empty")])
        self.assertEqual(figures["latency"]["polls_busy"], values[("latency", "polls_busy")])
        # Any other word that moves still does.
        for path in (("tcp", "late"), ("latency", "max_ns"), ("ring", "write_count"), ("process", "phase")):
            with self.subTest(field=path):
                values[path] = 0

                def moving(address, size, path=path):
                    values[path] += 1
                    segment.write(values)
                    return real_read(address, size)

                with mock.patch.object(quvo.reader._shm, "read", moving):
                    with self.assertRaises(quvo.InconsistentRecordError):
                        quvo.read_health(self.sandbox.path, max_copies=3)

    def test_command_line(self):
        segment = self.make_segment()
        values = self.known_values(segment)
        segment.write(values)
        env = dict(os.environ, QUVO_KEY_DIR=self.sandbox.path)
        run = [sys.executable, "-m", "quvo", "--health"]
        result = subprocess.run(run + ["--json"], env=env, capture_output=True, text=True, timeout=60)
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(len(result.stdout.splitlines()), 1)
        assert_same_key_order(self, json.loads(result.stdout), self.expected(values, "running", "live"))
        result = subprocess.run(run, env=env, capture_output=True, text=True, timeout=60)
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertIn(f"state running  phase live  run {values[('process', 'run')]}  pid {os.getpid()}", result.stdout)
        self.assertIn("config_path /etc/quvo/md.ini", result.stdout)
        self.assertIn("latency bucket 60 from 65536 ns  5", result.stdout)
        segment.write({**values, ("magic",): 7})
        result = subprocess.run(run, env=env, capture_output=True, text=True, timeout=60)
        self.assertEqual(result.returncode, 2)
        self.assertIn("does not hold quvo-md health figures", result.stderr)
        result = subprocess.run(run + ["cu2501"], env=env, capture_output=True, text=True, timeout=60)
        self.assertEqual(result.returncode, 2)
        self.assertIn("--health takes no instrument identifiers", result.stderr)


def dump_health(key_dir):
    result = subprocess.run(
        [tool_path("QUVO_DUMP_PATH"), "--health", "--json"],
        env=dict(os.environ, QUVO_KEY_DIR=key_dir),
        capture_output=True,
        text=True,
        timeout=60,
    )
    if result.returncode != 0:
        raise AssertionError(f"quvo-dump --health --json exited {result.returncode}: {result.stderr}")
    lines = result.stdout.splitlines()
    if len(lines) != 1:
        raise AssertionError(f"quvo-dump --health --json wrote {len(lines)} lines")
    return json.loads(lines[0])


class FeedHealthTest(unittest.TestCase):
    """The figures of quvo-md on the simulator, live and once stopped."""

    @classmethod
    def setUpClass(cls):
        cls.sandbox = KeySandbox()
        cls.feed = None
        try:
            cls.feed = Feed(cls.sandbox, "sim:shfe=200,ine=40,rate=2000,seed=5,stale=0.02,unknown_field=0.01,gap=0.002")
            if not cls.feed.wait_for_output("initialization completed", timeout=60):
                raise AssertionError(f"the feed did not start:\n{cls.feed.output()}")
            cls.live = cls.wait_for_live_figures()
            cls.live_reads = cls.read_while_live(200)
            cls.feed.process.send_signal(signal.SIGINT)
            cls.status = cls.feed.wait(timeout=60)
            cls.final = quvo.read_health(cls.sandbox.path)
            cls.dumped = dump_health(cls.sandbox.path)
        except BaseException:
            if cls.feed is not None and cls.feed.process.poll() is None:
                cls.feed.process.kill()
                cls.feed.process.wait()
            cls.sandbox.cleanup()
            raise

    @classmethod
    def tearDownClass(cls):
        cls.sandbox.cleanup()

    @classmethod
    def wait_for_live_figures(cls):
        deadline = time.monotonic() + 60
        while time.monotonic() < deadline:
            figures = quvo.read_health(cls.sandbox.path)
            if (
                figures["phase"] == "live"
                and figures["restarts"]["gap"] > 0
                and figures["latency"]["samples"] >= 20
                and figures["records"]["stale"] > 0
            ):
                return figures
            time.sleep(0.05)
        raise AssertionError(f"no live figures within 60 s: {figures}\n{cls.feed.output()}")

    @classmethod
    def read_while_live(cls, times):
        """What each of `times` reads of the live feed gave: its phase, or the error."""
        outcomes = []
        for _ in range(times):
            try:
                outcomes.append(quvo.read_health(cls.sandbox.path)["phase"])
            except quvo.QuvoError as error:
                outcomes.append(str(error))
        return outcomes

    def test_a_live_feed_is_read_every_time(self):
        # Its receive loops move the poll counters between any two copies. A
        # lost record may restart it meanwhile: any phase, but never an error.
        self.assertEqual(len(self.live_reads), 200)
        self.assertEqual([outcome for outcome in self.live_reads if outcome not in quvo.PHASES], [])
        self.assertIn("live", self.live_reads)

    def test_the_feed_stopped_in_order(self):
        self.assertEqual(self.status, 0, self.feed.output())

    def test_reader_health_equals_quvo_dump(self):
        with quvo.Reader(self.sandbox.path) as reader:
            assert_same_key_order(self, reader.health(), self.dumped)
        assert_same_key_order(self, self.final, self.dumped)

    def test_command_line_equals_quvo_dump(self):
        result = subprocess.run(
            [sys.executable, "-m", "quvo", "--health", "--json"],
            env=dict(os.environ, QUVO_KEY_DIR=self.sandbox.path),
            capture_output=True,
            text=True,
            timeout=60,
        )
        self.assertEqual(result.returncode, 0, result.stderr)
        assert_same_key_order(self, json.loads(result.stdout), self.dumped)

    def test_running_feed(self):
        live = self.live
        self.assertEqual(live["state"], "running")
        self.assertEqual(live["pid"], self.feed.process.pid)
        self.assertEqual(live["config_path"], os.path.realpath(os.path.join(self.sandbox.path, "config.ini")))
        self.assertGreaterEqual(live["run"], 1)
        self.assertGreater(live["records"]["applied"], 0)
        self.assertGreater(live["records"]["announced"], 0)
        self.assertEqual(live["records"]["announced"], live["ring"]["write_count"])
        self.assertEqual(sum(live["latency"]["buckets"]), live["latency"]["samples"])

    def test_final_figures(self):
        final = self.final
        self.assertEqual((final["state"], final["phase"]), ("stopped", "stopped"))
        self.assertEqual(final["pid"], self.live["pid"])
        self.assertEqual(final["start_ns"], self.live["start_ns"])
        phases = final["phase_started_ns"]
        self.assertGreater(phases["live"], 0)
        self.assertGreaterEqual(phases["stopping"], phases["live"])
        self.assertGreaterEqual(phases["stopped"], phases["stopping"])
        self.assertEqual(phases["failed"], 0)
        for name in ("shfe2ps", "ine2ps"):
            self.assertGreaterEqual(final["snapshot"]["feeds"][name]["completed"], 1, name)
        self.assertGreaterEqual(final["snapshot"]["completed"], 1)
        restarts = final["restarts"]
        self.assertEqual(restarts["total"], sum(restarts[r] for r in quvo.RESTART_REASONS))
        # Lost records (gap=) are the only cause of restarts here.
        self.assertGreaterEqual(restarts["gap"], 1)
        self.assertEqual(restarts["total"], restarts["gap"])
        self.assertEqual(restarts["last_reason"], "gap")
        self.assertGreater(restarts["last_ns"], phases["starting"])
        self.assertEqual(final["run"], restarts["total"] + 1)
        self.assertEqual(sum(final["latency"]["buckets"]), final["latency"]["samples"])
        self.assertLessEqual(final["latency"]["p50_ns"], final["latency"]["p999_ns"])
        self.assertLessEqual(final["latency"]["p999_ns"], final["latency"]["max_ns"])

    def test_counters_only_grew_after_the_live_copy(self):
        for section in ("tcp", "records", "cache", "ring"):
            for name, value in self.live[section].items():
                if section == "ring" and name != "write_count":
                    continue
                with self.subTest(section=section, name=name):
                    self.assertGreaterEqual(self.final[section][name], value)
        self.assertGreater(self.final["records"]["stale"], 0)
        self.assertGreater(self.final["records"]["unknown_fields"], 0)


if __name__ == "__main__":
    unittest.main()
