"""Read quvo-md's books from System V shared memory, read-only.

    with quvo.Reader() as reader:
        print(reader.book("cu2501"))

Reader.health() (or read_health()) gives the feed's health figures.
numpy is needed only for INSTRUMENT_DTYPE and Reader.instruments().
"""

from ._health import (
    CLEAN_CAUSES,
    FEEDS,
    HEALTH_KEY_FILE,
    HEALTH_MAGIC,
    HEALTH_PROJ_ID,
    HEALTH_RECORDS,
    HEALTH_SIZE,
    HEALTH_VERSION,
    LATENCY_BUCKETS,
    LATENCY_SAMPLE_EVERY,
    PHASES,
    RESTART_REASONS,
)
from ._health import bucket as health_bucket
from ._health import bucket_low as health_bucket_low
from ._health import percentile as health_percentile
from ._layout import (
    BOOK_LEVELS,
    DEFAULT_KEY_DIR,
    EXCHANGE_LEVELS,
    INE_MAX_INST_CNT,
    INST_SLOTS,
    INSTRUMENT_FIELDS,
    INSTRUMENT_SIZE,
    KEY_DIR_ENV,
    MD_AREA_KEY_FILE,
    MD_AREA_SIZE,
    SHARE_FIELDS,
    SHFE_MAX_INST_CNT,
    SHM_PROJ_ID,
    UPDATE_RING_END,
    UPDATE_RING_ENTRIES,
    UPDATE_RING_KEY_FILE,
    UPDATE_RING_SIZE,
)
from ._prices import (
    MAX_PRICE_DECIMALS,
    format_amount,
    format_price,
    instrument_price_decimals,
    price_decimals,
    round_price,
)
from .reader import (
    AttachError,
    Counters,
    InconsistentRecordError,
    Instrument,
    QuvoError,
    Reader,
    RingFollower,
    copy_consistent,
    find_end,
    ine_slot,
    key_path,
    read_health,
    shfe_slot,
    slot_in_use,
    slot_is_ine,
)

__all__ = [
    "CLEAN_CAUSES",
    "FEEDS",
    "HEALTH_KEY_FILE",
    "HEALTH_MAGIC",
    "HEALTH_PROJ_ID",
    "HEALTH_RECORDS",
    "HEALTH_SIZE",
    "HEALTH_VERSION",
    "LATENCY_BUCKETS",
    "LATENCY_SAMPLE_EVERY",
    "PHASES",
    "RESTART_REASONS",
    "health_bucket",
    "health_bucket_low",
    "health_percentile",
    "BOOK_LEVELS",
    "DEFAULT_KEY_DIR",
    "EXCHANGE_LEVELS",
    "INE_MAX_INST_CNT",
    "INST_SLOTS",
    "INSTRUMENT_FIELDS",
    "INSTRUMENT_SIZE",
    "KEY_DIR_ENV",
    "MD_AREA_KEY_FILE",
    "MD_AREA_SIZE",
    "SHARE_FIELDS",
    "SHFE_MAX_INST_CNT",
    "SHM_PROJ_ID",
    "UPDATE_RING_END",
    "UPDATE_RING_ENTRIES",
    "UPDATE_RING_KEY_FILE",
    "UPDATE_RING_SIZE",
    "MAX_PRICE_DECIMALS",
    "format_amount",
    "format_price",
    "instrument_price_decimals",
    "price_decimals",
    "round_price",
    "AttachError",
    "Counters",
    "InconsistentRecordError",
    "Instrument",
    "QuvoError",
    "Reader",
    "RingFollower",
    "copy_consistent",
    "find_end",
    "ine_slot",
    "key_path",
    "read_health",
    "shfe_slot",
    "slot_in_use",
    "slot_is_ine",
    "INSTRUMENT_DTYPE",
]


def __getattr__(name):
    # The dtype is built on first use so that the package imports without numpy.
    if name == "INSTRUMENT_DTYPE":
        from ._layout import instrument_dtype

        return instrument_dtype()
    raise AttributeError(f"module 'quvo' has no attribute {name!r}")
