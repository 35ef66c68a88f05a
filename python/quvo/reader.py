"""Reader side of quvo-md's shared memory.

What the update ring can and cannot tell a reader:
  - An announcement says which slot changed, not what changed or how often:
    compare with your own last copy to find out.
  - The record may already reflect later updates when it is read; it is never
    older than the announcement.
  - The ring holds the last 65536 announcements and no count of laps. A reader
    more than 65536 announcements behind cannot tell that it was lapped: it
    silently reads newer entries in place of the ones it missed.
  - An update the feed rejected and restored is never announced.
  - If the feed restarts, it refills the ring with end markers and starts again
    at entry 0: a follower further on waits until the feed gets back to its
    position. If the segments are removed and created anew, an attached reader
    keeps seeing the old ones; attach again.
The feed writes without a lock, so a record read while it is being written can
mix old and new fields: Reader.book() copies until two copies agree.
"""

import errno as errno_codes
import operator
import os
import struct
import time
from collections import namedtuple
from dataclasses import dataclass
from typing import Optional, Tuple

from . import _health
from . import _layout as L
from . import _shm


class QuvoError(Exception):
    """Base of the errors this package raises."""


class AttachError(QuvoError):
    """The shared memory cannot be attached; the message says why."""


class InconsistentRecordError(QuvoError):
    """No two successive copies of a record agreed: the feed kept writing it."""


Counters = namedtuple("Counters", "shfe_inst_cnt ine_inst_cnt shfe_pktno ine_pktno")

Level = Tuple[float, int]


@dataclass(frozen=True)
class Instrument:
    """A copy of one instrument's record, in plain values.

    bids and asks hold ten (price, volume) levels, best first. The exchange
    publishes five; levels 6 to 10 are kept locally by the feed. An empty level
    is (0.0, 0).
    """

    inst_id: str
    last_px: float
    volume: int
    update_time: int
    update_milli_sec: int
    type: int
    change_no: int
    turnover: float
    open_interest: float
    bid_totvol: int
    ask_totvol: int
    bid_totamount: float
    ask_totamount: float
    highest_price: float
    lowest_price: float
    bids: Tuple[Level, ...]
    asks: Tuple[Level, ...]
    slot: int

    @property
    def exchange(self) -> str:
        return "INE" if slot_is_ine(self.slot) else "SHFE"

    @property
    def inst_no(self) -> int:
        return L.INST_SLOTS - 1 - self.slot if slot_is_ine(self.slot) else self.slot

    @classmethod
    def from_bytes(cls, record: bytes, slot: int) -> "Instrument":
        """Decodes the 336 bytes of one `instrument` record held in `slot`."""
        values = L.INSTRUMENT_STRUCT.unpack(record)
        n = L.BOOK_LEVELS
        scalars = values[1:15]
        bid_px = values[15 : 15 + n]
        bid_vol = values[15 + n : 15 + 2 * n]
        ask_vol = values[15 + 2 * n : 15 + 3 * n]
        ask_px = values[15 + 3 * n : 15 + 4 * n]
        return cls(
            inst_id_text(values[0]),
            *scalars,
            tuple(zip(bid_px, bid_vol)),
            tuple(zip(ask_px, ask_vol)),
            slot,
        )


def inst_id_text(field: bytes) -> str:
    """The identifier up to its first NUL; latin-1 so that every byte maps to one character."""
    return field.split(b"\0", 1)[0].decode("latin-1")


def key_path(key_file: str, key_dir: Optional[str] = None) -> str:
    """<dir>/<key_file>, where <dir> is `key_dir`, else $QUVO_KEY_DIR when set and not empty, else /etc."""
    if not key_dir:
        key_dir = os.environ.get(L.KEY_DIR_ENV) or L.DEFAULT_KEY_DIR
    return key_dir + ("" if key_dir.endswith("/") else "/") + key_file


def shfe_slot(inst_no: int) -> int:
    return inst_no


def ine_slot(inst_no: int) -> int:
    return L.INST_SLOTS - 1 - inst_no


def slot_is_ine(slot: int) -> bool:
    return slot >= L.SHFE_MAX_INST_CNT


def slot_in_use(first_byte: int) -> bool:
    """Whether a record whose inst_id starts with this byte holds an instrument."""
    return first_byte not in (0, ord(" "))


def copy_consistent(read, max_copies: int = 16, key=None) -> bytes:
    """Calls `read` until two successive results are equal (or, given `key`,
    give equal keys) and returns the later, taking at most `max_copies`
    copies; raises InconsistentRecordError when no two agreed."""
    if max_copies < 2:
        raise ValueError("max_copies must be at least 2")
    if key is None:
        key = _same
    previous = key(read())
    for _ in range(max_copies - 1):
        current = read()
        compared = key(current)
        if compared == previous:
            return current
        previous = compared
    raise InconsistentRecordError(f"no two of {max_copies} successive copies agreed")


def find_end(entries) -> int:
    """Index of the ring's current end in `entries` (65536 unsigned 16-bit values)."""
    values = entries.tolist()
    try:
        index = values.index(L.UPDATE_RING_END)
    except ValueError:
        return 0
    # The feed marks entry 0 before it fills entry 65535: caught between the
    # two stores, the end is 65535, not 0.
    if index == 0 and values[1] != L.UPDATE_RING_END and values[-1] == L.UPDATE_RING_END:
        index = L.UPDATE_RING_ENTRIES - 1
    return index


class RingFollower:
    """Follows the update ring from the end it finds when made.

    `ring` is any buffer of 65536 native unsigned 16-bit entries: the shared
    ring, or a bytearray in tests.
    """

    def __init__(self, ring):
        entries = memoryview(ring).cast("B").cast("H")
        if len(entries) != L.UPDATE_RING_ENTRIES:
            raise ValueError(f"the update ring has {L.UPDATE_RING_ENTRIES} entries, not {len(entries)}")
        self._entries = entries
        self._index = find_end(entries)

    @property
    def index(self) -> int:
        """Index of the next entry to read; wraps from 65535 to 0."""
        return self._index

    def next(self) -> Optional[int]:
        """The next announced slot, or None at the end marker."""
        value = self._entries[self._index]
        if value == L.UPDATE_RING_END:
            return None
        self._index = (self._index + 1) % L.UPDATE_RING_ENTRIES
        return value

    def check_restart(self) -> bool:
        """Whether a new feed process reset the ring behind this follower: at
        the end marker, with the ring's first end marker before it. If so the
        follower goes back to entry 0 and reads what the new feed announced.
        A restart is not seen once the new feed has passed the follower."""
        if self._entries[self._index] != L.UPDATE_RING_END or find_end(self._entries) >= self._index:
            return False
        self._index = 0
        return True

    def poll(self, idle_timeout=None, timeout=None, poll_interval=0.0005, restart_check_interval=0.5):
        """Yields announced slots as they come. Stops once nothing was
        announced for `idle_timeout` seconds, or `timeout` seconds after the
        start; with neither, it runs until the caller stops iterating. While
        idle it checks every `restart_check_interval` seconds whether the feed
        restarted (check_restart)."""
        start = last = checked = time.monotonic()
        while True:
            slot = self.next()
            if slot is not None:
                yield slot
                last = time.monotonic()
                if timeout is not None and last - start >= timeout:
                    return
                continue
            now = time.monotonic()
            if now - max(last, checked) >= restart_check_interval:
                checked = now
                if self.check_restart():
                    continue
            if (idle_timeout is not None and now - last >= idle_timeout) or (
                timeout is not None and now - start >= timeout
            ):
                return
            time.sleep(poll_interval)


class Reader:
    """Both segments of quvo-md attached read-only; they are never created.

    `key_dir` is the directory of key_f and key_e; by default $QUVO_KEY_DIR
    when set and not empty, else /etc. Raises AttachError when either segment
    cannot be attached.
    """

    def __init__(self, key_dir: Optional[str] = None):
        self._key_dir = key_dir
        self._ring = None
        self._area = None
        self.attach()

    def attach(self) -> None:
        """Attaches again (after close(), or to see segments the feed made anew)."""
        self.close()
        ring = self._attach_segment(L.UPDATE_RING_KEY_FILE, L.UPDATE_RING_SIZE)
        self._area = self._attach_segment(L.MD_AREA_KEY_FILE, L.MD_AREA_SIZE)
        self._ring = ring

    def close(self) -> None:
        """Lets go of both segments. Arrays from instruments() and followers
        made before stay usable: a segment is detached once nothing uses it."""
        self._area = None
        self._ring = None

    def __enter__(self) -> "Reader":
        return self

    def __exit__(self, *exc_info) -> None:
        self.close()

    @property
    def attached(self) -> bool:
        return self._area is not None

    @property
    def counters(self) -> Counters:
        """shfe_inst_cnt, ine_inst_cnt, shfe_pktno and ine_pktno as published."""
        return Counters._make(_unpack_counters(self._view(), L.SHARE_OFFSETS["shfe_inst_cnt"]))

    @property
    def shfe_count(self) -> int:
        """SHFE instrument count, bounded to 0..16384."""
        return _bounded(self.counters.shfe_inst_cnt, L.SHFE_MAX_INST_CNT)

    @property
    def ine_count(self) -> int:
        """INE instrument count, bounded to 0..4096."""
        return _bounded(self.counters.ine_inst_cnt, L.INE_MAX_INST_CNT)

    def slots(self) -> list:
        """Slots in use: SHFE by instrument number, then INE by instrument number."""
        area = self._view()
        counters = self.counters
        candidates = [shfe_slot(n) for n in range(_bounded(counters.shfe_inst_cnt, L.SHFE_MAX_INST_CNT))]
        candidates += [ine_slot(n) for n in range(_bounded(counters.ine_inst_cnt, L.INE_MAX_INST_CNT))]
        return [slot for slot in candidates if slot_in_use(area[slot * L.INSTRUMENT_SIZE])]

    def find(self, inst_id) -> Optional[int]:
        """Slot of the in-use instrument whose identifier is exactly `inst_id`, or None."""
        wanted = inst_id.encode("latin-1") if isinstance(inst_id, str) else bytes(inst_id)
        if len(wanted) > 16:
            return None
        area = self._view()
        for slot in self.slots():
            offset = slot * L.INSTRUMENT_SIZE
            if area[offset : offset + 16].tobytes().split(b"\0", 1)[0] == wanted:
                return slot
        return None

    def book(self, id_or_slot, max_copies: int = 16) -> Instrument:
        """A consistent copy of an instrument, by identifier or by slot.

        Raises KeyError for an identifier not in use, IndexError for a slot out
        of range and InconsistentRecordError when no two of `max_copies`
        successive copies agreed. A slot is read whether in use or not.
        """
        slot = self._slot_of(id_or_slot)
        area = self._view()
        offset = slot * L.INSTRUMENT_SIZE
        try:
            record = copy_consistent(
                lambda: area[offset : offset + L.INSTRUMENT_SIZE].tobytes(), max_copies
            )
        except InconsistentRecordError as error:
            raise InconsistentRecordError(f"slot {slot}: {error}; the feed kept writing it") from None
        return Instrument.from_bytes(record, slot)

    def instruments(self):
        """A read-only numpy view of all 20480 slots (dtype INSTRUMENT_DTYPE).

        The view is live and unlocked: a record can change while it is read.
        Use book() for a consistent copy."""
        dtype = L.instrument_dtype()
        import numpy

        return numpy.frombuffer(self._view(), dtype=dtype, count=L.INST_SLOTS)

    def ring(self):
        """The update ring's 65536 entries, a live read-only memoryview of unsigned 16-bit values."""
        if self._ring is None:
            raise QuvoError("the reader is closed")
        return self._ring.cast("H")

    def follower(self) -> RingFollower:
        """A RingFollower over the shared ring, starting at its current end."""
        return RingFollower(self.ring())

    def follow(self, books=False, idle_timeout=None, timeout=None, poll_interval=0.0005, max_copies=16):
        """Yields each slot the ring announces from now on, or with books=True
        a consistent copy (Instrument) of it. See RingFollower.poll for when it
        stops; the starting point is taken at this call."""
        follower = self.follower()
        slots = follower.poll(idle_timeout, timeout, poll_interval)
        if not books:
            return slots
        return (self.book(slot, max_copies) for slot in slots)

    def health(self, max_copies: int = 16) -> dict:
        """The feed's health figures (read_health) for this reader's key directory."""
        return read_health(self._key_dir, max_copies)

    def _slot_of(self, id_or_slot) -> int:
        if isinstance(id_or_slot, (str, bytes, bytearray)):
            slot = self.find(id_or_slot)
            if slot is None:
                raise KeyError(f"no instrument {id_or_slot!r} is in use")
            return slot
        slot = operator.index(id_or_slot)
        if not 0 <= slot < L.INST_SLOTS:
            raise IndexError(f"slot {slot} is out of range 0..{L.INST_SLOTS - 1}")
        return slot

    def _view(self):
        if self._area is None:
            raise QuvoError("the reader is closed")
        return self._area

    def _attach_segment(self, key_file, expected_size):
        path = key_path(key_file, self._key_dir)
        shmid = _find_segment(
            path, L.SHM_PROJ_ID, "segment", f"no market-data segment for key file {path}: is quvo-md running on this host?"
        )
        address = _shm.shmat_readonly(shmid)
        if address is None:
            raise AttachError(
                f"cannot attach the segment for key file {path} read-only: {os.strerror(_shm.errno())}"
            )
        info = _shm.stat(shmid)
        if info is None:
            message = f"cannot read the size of the segment for key file {path}: {os.strerror(_shm.errno())}"
        elif info.shm_segsz != expected_size:
            message = (
                f"the segment for key file {path} is {info.shm_segsz} bytes, expected {expected_size} bytes"
            )
        else:
            return _shm.mapping(address, expected_size)
        _shm.shmdt(address)
        raise AttachError(message)


def read_health(key_dir: Optional[str] = None, max_copies: int = 16) -> dict:
    """The health figures of the feed of a key directory (by default
    $QUVO_KEY_DIR when set and not empty, else /etc), in the form and key order
    of quvo-dump --health --json; "state" is running, stopped, failed or gone.

    Attaches the health segment read-only for the call and copies it until two
    copies agree (InconsistentRecordError when no two of `max_copies` do);
    the four poll counters, which a running feed moves on every poll, are left
    out of the comparison and taken from the last copy.
    Raises AttachError when there is no segment, or when its header names a
    layout this package does not know: figures are never guessed at.
    """
    path = key_path(_health.HEALTH_KEY_FILE, key_dir)
    shmid = _find_segment(
        path,
        _health.HEALTH_PROJ_ID,
        "health segment",
        f"no quvo-md has made a health segment for key directory {os.path.dirname(path)}: "
        f"start the feed, or set {L.KEY_DIR_ENV}",
    )
    info = _shm.stat(shmid)
    if info is None:
        raise AttachError(f"cannot read the health segment's size: {os.strerror(_shm.errno())}")
    size = info.shm_segsz
    head_size = struct.calcsize(_health.HEAD_FORMAT)
    if size < head_size:
        raise AttachError(f"the health segment is {size} bytes: too small")
    address = _shm.shmat_readonly(shmid)
    if address is None:
        raise AttachError(f"cannot attach the health segment read-only: {os.strerror(_shm.errno())}")
    try:
        magic, version, layout_size = struct.unpack(_health.HEAD_FORMAT, _shm.read(address, head_size))
        # A known magic with another version or size is refused before the
        # copy: the record may be shorter than this layout.
        error = _health.layout_error(magic, version, layout_size) if magic == _health.HEALTH_MAGIC else None
        if error is not None:
            raise AttachError(error)
        if size < _health.HEALTH_SIZE:
            raise AttachError(f"the health segment is {size} bytes, smaller than this layout")
        try:
            record = copy_consistent(lambda: _shm.read(address, _health.HEALTH_SIZE), max_copies, _health.steady)
        except InconsistentRecordError as error:
            raise InconsistentRecordError(f"the health segment: {error}; the feed kept writing it") from None
    finally:
        _shm.shmdt(address)
    error = _health.layout_error(*struct.unpack_from(_health.HEAD_FORMAT, record))
    if error is not None:
        raise AttachError(error)
    return _health.figures(_health.decode(record))


def _find_segment(path: str, proj_id: int, what: str, missing: str) -> int:
    """The id of the segment keyed by ftok(path, proj_id), never creating it;
    AttachError in an operator's words when there is none (`missing` is the
    whole message for a key file that names no segment)."""
    try:
        os.stat(path)
    except FileNotFoundError:
        raise AttachError(f"key file {path} does not exist: is {L.KEY_DIR_ENV} right?") from None
    except OSError as error:
        raise AttachError(f"cannot use key file {path}: {error.strerror}") from None
    key = _shm.ftok(path, proj_id)
    if key == -1:
        raise AttachError(f"cannot make a key from {path}: {os.strerror(_shm.errno())}")
    shmid = _shm.shmget(key, 0, 0)
    if shmid == -1:
        code = _shm.errno()
        if code == errno_codes.ENOENT:
            raise AttachError(missing)
        raise AttachError(f"cannot open the {what} for key file {path}: {os.strerror(code)}")
    return shmid


def _same(value):
    return value


def _bounded(value: int, limit: int) -> int:
    return 0 if value < 0 else min(value, limit)


def _unpack_counters(area, offset):
    return struct.unpack_from(L.COUNTERS_FORMAT, area, offset)
