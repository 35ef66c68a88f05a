"""Layout of the records quvo-md publishes, as declared in interface/commonheader.h."""

import functools
import struct

SHM_PROJ_ID = 0x52
UPDATE_RING_KEY_FILE = "key_f"
MD_AREA_KEY_FILE = "key_e"
KEY_DIR_ENV = "QUVO_KEY_DIR"
DEFAULT_KEY_DIR = "/etc"

UPDATE_RING_SIZE = 0x20000
UPDATE_RING_ENTRIES = 65536
UPDATE_RING_END = 0xFFFF
MD_AREA_SIZE = 0x690010

BOOK_LEVELS = 10
EXCHANGE_LEVELS = 5
SHFE_MAX_INST_CNT = 16384
INE_MAX_INST_CNT = 4096
INST_SLOTS = SHFE_MAX_INST_CNT + INE_MAX_INST_CNT
INSTRUMENT_SIZE = 336

# (name, offset, struct code of one element, element count)
INSTRUMENT_FIELDS = (
    ("inst_id", 0, "s", 16),
    ("last_px", 16, "d", 1),
    ("volume", 24, "I", 1),
    ("update_time", 28, "I", 1),
    ("update_milli_sec", 32, "H", 1),
    ("type", 34, "H", 1),
    ("change_no", 36, "I", 1),
    ("turnover", 40, "d", 1),
    ("open_interest", 48, "d", 1),
    ("bid_totvol", 56, "i", 1),
    ("ask_totvol", 60, "i", 1),
    ("bid_totamount", 64, "d", 1),
    ("ask_totamount", 72, "d", 1),
    ("highest_price", 80, "d", 1),
    ("lowest_price", 88, "d", 1),
    # Deliberate order: bid prices, bid volumes, ask volumes, ask prices.
    ("bid_px", 96, "d", BOOK_LEVELS),
    ("bid_vol", 176, "i", BOOK_LEVELS),
    ("ask_vol", 216, "i", BOOK_LEVELS),
    ("ask_px", 256, "d", BOOK_LEVELS),
)

# (name, offset, size) of the market-data area's fields.
SHARE_FIELDS = (
    ("instmts", 0, INST_SLOTS * INSTRUMENT_SIZE),
    ("shfe_inst_cnt", 6881280, 4),
    ("ine_inst_cnt", 6881284, 4),
    ("shfe_pktno", 6881288, 4),
    ("ine_pktno", 6881292, 4),
)
SHARE_OFFSETS = {name: offset for name, offset, _ in SHARE_FIELDS}
COUNTERS_FORMAT = "=4i"


def _struct_format(fields, size):
    parts = ["="]
    position = 0
    for _, offset, code, count in fields:
        if offset > position:
            parts.append(f"{offset - position}x")
        parts.append(f"{count}{code}")
        position = offset + struct.calcsize(f"={count}{code}")
    if size > position:
        parts.append(f"{size - position}x")
    return "".join(parts)


INSTRUMENT_STRUCT = struct.Struct(_struct_format(INSTRUMENT_FIELDS, INSTRUMENT_SIZE))
assert INSTRUMENT_STRUCT.size == INSTRUMENT_SIZE

_NUMPY_CODES = {"s": "S", "d": "f8", "I": "u4", "H": "u2", "i": "i4"}


@functools.lru_cache(maxsize=None)
def instrument_dtype():
    """numpy dtype of one `instrument`, field for field; imports numpy."""
    try:
        import numpy
    except ImportError as error:
        raise ImportError("quvo: numpy is needed for INSTRUMENT_DTYPE and Reader.instruments()") from error
    formats = []
    for _, _, code, count in INSTRUMENT_FIELDS:
        if code == "s":
            formats.append(f"S{count}")
        elif count == 1:
            formats.append("=" + _NUMPY_CODES[code])
        else:
            formats.append(("=" + _NUMPY_CODES[code], (count,)))
    return numpy.dtype(
        {
            "names": [name for name, _, _, _ in INSTRUMENT_FIELDS],
            "formats": formats,
            "offsets": [offset for _, offset, _, _ in INSTRUMENT_FIELDS],
            "itemsize": INSTRUMENT_SIZE,
        }
    )
