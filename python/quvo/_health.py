"""The feed's health segment, as declared in interface/quvohealth.h, and the
figures read from it as quvohealthreader.h gives them."""

import struct

HEALTH_PROJ_ID = 0x48
HEALTH_KEY_FILE = "key_e"
HEALTH_MAGIC = 0x4C485651
HEALTH_VERSION = 1
HEALTH_SIZE = 1800
HEALTH_PATH_MAX = 256
HEALTH_FEEDS = 4
LATENCY_BUCKETS = 77
LATENCY_SAMPLE_EVERY = 256

# Names in the order of the C enums and of quvohealthreader.h's name functions.
PHASES = ("starting", "configuring", "snapshot", "replay", "live", "stopping", "stopped", "failed")
RESTART_REASONS = ("gap", "topic", "short", "cache")
CLEAN_CAUSES = ("run_start", "rst_ack", "fragment", "held", "price_check")
FEEDS = ("shfe2ps", "ine2ps", "shfe4ps", "ine4ps")

PHASE_STOPPED = PHASES.index("stopped")
PHASE_FAILED = PHASES.index("failed")

PERCENTILES = (("p50_ns", 0.5), ("p90_ns", 0.9), ("p99_ns", 0.99), ("p999_ns", 0.999))


def _u64s(*names):
    return tuple((name, 8 * i, "Q", 1) for i, name in enumerate(names))


# Every record of the segment: name -> (size, fields). A field is (name,
# offset in its record, struct code or the name of a record, element count).
HEALTH_RECORDS = {
    "quvo_health": (
        HEALTH_SIZE,
        (
            ("magic", 0, "I", 1),
            ("version", 4, "I", 1),
            ("size", 8, "I", 1),
            ("reserved", 12, "I", 1),
            ("process", 16, "quvo_health_process", 1),
            ("restarts", 376, "quvo_health_restarts", 1),
            ("snapshot", 424, "quvo_health_snapshot", 1),
            ("tcp", 752, "quvo_health_tcp", 1),
            ("records", 928, "quvo_health_records", 1),
            ("cache", 1056, "quvo_health_cache", 1),
            ("ring", 1104, "quvo_health_ring", 1),
            ("latency", 1144, "quvo_health_latency", 1),
        ),
    ),
    "quvo_health_process": (
        360,
        (
            ("pid", 0, "Q", 1),
            ("start_ns", 8, "Q", 1),
            ("start_ticks", 16, "Q", 1),
            ("phase", 24, "Q", 1),
            ("run", 32, "Q", 1),
            ("phase_started_ns", 40, "Q", len(PHASES)),
            ("config_path", 104, "s", HEALTH_PATH_MAX),
        ),
    ),
    "quvo_health_restarts": (
        48,
        (
            ("by_reason", 0, "Q", len(RESTART_REASONS)),
            ("last_ns", 32, "Q", 1),
            ("last_reason", 40, "Q", 1),
        ),
    ),
    "quvo_health_feed": (
        64,
        _u64s("started_ns", "completed_ns", "instruments", "messages", "bytes", "completed", "messages_total",
              "bytes_total"),
    ),
    "quvo_health_snapshot": (
        328,
        (
            ("feeds", 0, "quvo_health_feed", HEALTH_FEEDS),
            ("cleared", 256, "Q", len(CLEAN_CAUSES)),
            ("price_check_failures", 296, "Q", 1),
            ("completed", 304, "Q", 1),
            ("last_duration_ns", 312, "Q", 1),
            ("total_duration_ns", 320, "Q", 1),
        ),
    ),
    "quvo_health_tcp": (
        176,
        _u64s("polls_empty", "polls_busy", "abnormal_length", "late", "frames", "short_ip", "bad_ip_header",
              "not_tcp", "short_tcp", "other_port", "bad_tcp_header", "no_payload", "checksum", "rst_ack",
              "not_start", "other_host", "in_order", "held", "held_peak", "duplicates", "old", "not_mdqp"),
    ),
    "quvo_health_records": (
        128,
        _u64s("received", "abnormal_length", "applied", "stale", "restored", "unsubscribed", "options",
              "out_of_range", "short_record", "unsupported_topic", "gaps", "unknown_fields", "other_field_id",
              "bad_level", "bad_event", "bad_entry"),
    ),
    "quvo_health_cache": (48, _u64s("cached", "peak", "overflows", "replayed", "corrupt", "cleared")),
    "quvo_health_ring": (40, _u64s("write_count", "exchange_time", "exchange_millis", "shfe_packet_no",
                                   "ine_packet_no")),
    "quvo_health_latency": (
        656,
        (
            ("samples", 0, "Q", 1),
            ("sum_ns", 8, "Q", 1),
            ("max_ns", 16, "Q", 1),
            ("buckets", 24, "Q", LATENCY_BUCKETS),
            ("polls_empty", 640, "Q", 1),
            ("polls_busy", 648, "Q", 1),
        ),
    ),
}

HEAD_FORMAT = "=3I"  # magic, version, size


def _offset(record, name):
    return next(offset for field, offset, _, _ in HEALTH_RECORDS[record][1] if field == name)


# The receive loops count every poll, tens of millions a second: no two
# copies taken from Python, microseconds apart, agree on them. Each is one
# word read whole, so copies are compared without them.
POLL_COUNTERS = tuple(
    _offset("quvo_health", section) + _offset("quvo_health_" + section, name)
    for section in ("tcp", "latency")
    for name in ("polls_empty", "polls_busy")
)
_U64_MASK = (1 << 64) - 1


def decode(record, name="quvo_health", offset=0) -> dict:
    """The values of record `name` at `offset` in `record` (bytes of the
    segment), field by field under the C names: arrays as lists, records as
    dicts, config_path as the bytes before its first NUL."""
    values = {}
    for field, field_offset, code, count in HEALTH_RECORDS[name][1]:
        at = offset + field_offset
        if code in HEALTH_RECORDS:
            size = HEALTH_RECORDS[code][0]
            items = [decode(record, code, at + k * size) for k in range(count)]
            values[field] = items[0] if count == 1 else items
        elif code == "s":
            values[field] = bytes(record[at : at + count]).split(b"\0", 1)[0]
        else:
            items = list(struct.unpack_from(f"={count}{code}", record, at))
            values[field] = items[0] if count == 1 else items
    return values


def steady(record: bytes) -> bytes:
    """`record` with the poll counters zeroed: two copies of a feed that only
    polled meanwhile give the same."""
    masked = bytearray(record)
    for offset in POLL_COUNTERS:
        masked[offset : offset + 8] = bytes(8)
    return bytes(masked)


def bucket(ns: int) -> int:
    """Bucket of a latency of `ns` nanoseconds (quvo_health_bucket)."""
    if ns < 4:
        return ns
    if ns >= 1 << 20:
        return LATENCY_BUCKETS - 1
    e = ns.bit_length() - 1
    return 4 * (e - 1) + ((ns >> (e - 2)) & 3)


def bucket_low(i: int) -> int:
    """Smallest latency, in ns, that falls in bucket `i` (quvo_health_bucket_low)."""
    if i < 4:
        return i
    if i >= LATENCY_BUCKETS - 1:
        return 1 << 20
    return (4 + i % 4) << (i // 4 - 1)


def percentile(latency: dict, q: float) -> int:
    """quvo_health_percentile over a decoded quvo_health_latency: the upper end
    of the bucket holding fraction `q` of the measured records, capped by
    max_ns; 0 when nothing was measured. Computed in doubles as the C does, so
    both give the same value for the same record."""
    buckets = latency["buckets"]
    max_ns = latency["max_ns"]
    total = sum(buckets) & _U64_MASK
    if total == 0:
        return 0
    wanted = q * float(total)
    seen = 0
    for i, count in enumerate(buckets):
        seen = (seen + count) & _U64_MASK
        if count != 0 and float(seen) >= wanted:
            high = bucket_low(i + 1) - 1 if i + 1 < LATENCY_BUCKETS else max_ns
            return min(high, max_ns)
    return max_ns


def process_start_ticks(pid: int) -> int:
    """Clock ticks since boot at which process `pid` started (/proc/PID/stat
    field 22), or 0 when there is no such process."""
    try:
        with open(f"/proc/{pid}/stat", "rb") as stat:
            text = stat.read()
    except OSError:
        return 0
    # The command name may hold spaces and parentheses: count from its end.
    end = text.rfind(b")")
    fields = text[end + 1 :].split(b" ") if end >= 0 else []
    # fields[0] is empty (the space after the name); field 3 is fields[1].
    if len(fields) <= 20:
        return 0
    digits = fields[20].split(b"\n", 1)[0]
    return int(digits) if digits.isdigit() else 0


def writer_alive(process: dict) -> bool:
    """Whether the process that wrote the record still runs (and is not
    another that took its number since): quvo_health_writer_alive."""
    return (
        process["pid"] != 0
        and process["start_ticks"] != 0
        and process_start_ticks(process["pid"]) == process["start_ticks"]
    )


def _name(names, index):
    return names[index] if index < len(names) else "unknown"


def state(process: dict) -> str:
    if process["phase"] == PHASE_STOPPED:
        return "stopped"
    if process["phase"] == PHASE_FAILED:
        return "failed"
    return "running" if writer_alive(process) else "gone"


def figures(values: dict) -> dict:
    """The figures of a decoded segment as one JSON-ready object, in the form
    and key order quvo-dump --health --json writes."""
    process = values["process"]
    restarts = values["restarts"]
    snapshot = values["snapshot"]
    latency = values["latency"]
    by_reason = restarts["by_reason"]
    return {
        "layout_version": values["version"],
        "state": state(process),
        "pid": process["pid"],
        "start_ns": process["start_ns"],
        "config_path": process["config_path"].decode("utf-8", "replace"),
        "phase": _name(PHASES, process["phase"]),
        "run": process["run"],
        "phase_started_ns": dict(zip(PHASES, process["phase_started_ns"])),
        "restarts": {
            **dict(zip(RESTART_REASONS, by_reason)),
            "total": sum(by_reason) & _U64_MASK,
            "last_ns": restarts["last_ns"],
            "last_reason": _name(RESTART_REASONS, restarts["last_reason"]) if restarts["last_ns"] else None,
        },
        "snapshot": {
            "feeds": dict(zip(FEEDS, snapshot["feeds"])),
            "cleared": dict(zip(CLEAN_CAUSES, snapshot["cleared"])),
            "price_check_failures": snapshot["price_check_failures"],
            "completed": snapshot["completed"],
            "last_duration_ns": snapshot["last_duration_ns"],
            "total_duration_ns": snapshot["total_duration_ns"],
        },
        "tcp": values["tcp"],
        "records": {**values["records"], "announced": values["ring"]["write_count"]},
        "cache": values["cache"],
        "ring": values["ring"],
        "latency": {
            "samples": latency["samples"],
            "sum_ns": latency["sum_ns"],
            "max_ns": latency["max_ns"],
            "polls_empty": latency["polls_empty"],
            "polls_busy": latency["polls_busy"],
            **{key: percentile(latency, q) for key, q in PERCENTILES},
            "buckets": latency["buckets"],
        },
    }


def layout_error(magic: int, version: int, size: int):
    """Why a segment whose header holds these is refused, or None when this
    package knows its layout (quvo_health_layout_ok's texts)."""
    if magic == 0:
        return "the health segment is not set up yet: a feed is starting"
    if magic != HEALTH_MAGIC:
        return "the health segment does not hold quvo-md health figures"
    if version != HEALTH_VERSION or size != HEALTH_SIZE:
        return (
            f"the health segment has layout version {version} of {size} bytes; "
            f"this reader knows version {HEALTH_VERSION} of {HEALTH_SIZE} bytes"
        )
    return None
