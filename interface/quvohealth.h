/*
 * The feed's health segment: what it is doing and what it has counted, for
 * quvo-stat, quvo-exporter and any other reader. Self-contained, valid C11
 * and C++.
 *
 * A third System V segment beside the update ring and the market-data area,
 * keyed by ftok("<dir>/key_e", QUVO_HEALTH_PROJ_ID), where <dir> is /etc or
 * $QUVO_KEY_DIR. The feed creates it 0644, fills it once at start and never
 * removes it, so the figures of a stopped feed stay readable.
 *
 * Every field is a naturally aligned 64-bit word written by one thread of
 * the feed at a time with a plain (relaxed atomic) store; there is no lock
 * and no fence. A reader copies the whole record until two successive copies
 * agree, then checks `magic`, `version` and `size` before trusting anything
 * else: a layout it does not know is refused, not guessed at. The feed writes
 * `magic` last when it sets the segment up, so a zero magic means a feed is
 * still setting it up.
 *
 * Counters only grow while one feed process runs; a new process starts them
 * from zero. Times are nanoseconds since the epoch (CLOCK_REALTIME) unless
 * named otherwise; 0 means "not yet".
 */
#ifndef QUVO_INTERFACE_QUVOHEALTH_H
#define QUVO_INTERFACE_QUVOHEALTH_H

#include <stddef.h>
#include <stdint.h>

#define QUVO_HEALTH_PROJ_ID 0x48 /* 'H' */
#define QUVO_HEALTH_KEY_FILE "key_e"
#define QUVO_HEALTH_MAGIC 0x4C485651u /* "QVHL" in memory order */
#define QUVO_HEALTH_VERSION 1u
#define QUVO_HEALTH_PATH_MAX 256

/* Phases of a run, in the order a run goes through them. */
enum quvo_health_phase {
    QUVO_PHASE_STARTING = 0,    /* segments attached, cache being prepared */
    QUVO_PHASE_CONFIGURING = 1, /* reading the configuration, setting the card up */
    QUVO_PHASE_SNAPSHOT = 2,    /* loading the snapshot, caching records */
    QUVO_PHASE_REPLAY = 3,      /* applying the cached records */
    QUVO_PHASE_LIVE = 4,        /* applying records as they arrive */
    QUVO_PHASE_STOPPING = 5,    /* asked to stop, releasing the card */
    QUVO_PHASE_STOPPED = 6,     /* stopped in order; the figures are final */
    QUVO_PHASE_FAILED = 7,      /* start-up or snapshot failed; the process ends */
    QUVO_PHASE_COUNT = 8
};

/* Why the pipeline restarted from the configuration. */
enum quvo_health_restart {
    QUVO_RESTART_GAP = 0,   /* a change-number gap */
    QUVO_RESTART_TOPIC = 1, /* a record of an unsupported topic */
    QUVO_RESTART_SHORT = 2, /* a record shorter than its header */
    QUVO_RESTART_CACHE = 3, /* a corrupt cache entry */
    QUVO_RESTART_COUNT = 4
};

/* Why the whole snapshot state was cleared. */
enum quvo_health_clean {
    QUVO_CLEAN_RUN_START = 0,   /* every snapshot phase begins with one */
    QUVO_CLEAN_RST_ACK = 1,     /* a reset snapshot connection */
    QUVO_CLEAN_FRAGMENT = 2,    /* a message over the fragment limit */
    QUVO_CLEAN_HELD = 3,        /* 500 out-of-order frames held */
    QUVO_CLEAN_PRICE_CHECK = 4, /* the loaded books failed the price check */
    QUVO_CLEAN_COUNT = 5
};

/* Snapshot feeds, indexed as the feed types: SHFE 2ps, INE 2ps, SHFE 4ps, INE 4ps. */
#define QUVO_HEALTH_FEEDS 4

/*
 * Latency buckets, log-linear: four per power of two. Bucket i < 4 holds
 * exactly i ns; bucket i >= 4 holds [(4 + i % 4) << (i / 4 - 1),
 * (5 + i % 4) << (i / 4 - 1)) ns; the last bucket holds everything from
 * 2^20 ns (about 1.05 ms) up.
 */
#define QUVO_HEALTH_LATENCY_BUCKETS 77
/* One applied record in this many has its latency measured. */
#define QUVO_HEALTH_LATENCY_SAMPLE_EVERY 256

/* Written by the main thread. */
struct quvo_health_process {
    uint64_t pid;
    uint64_t start_ns;    /* when the feed set the segment up */
    uint64_t start_ticks; /* the process's start in clock ticks since boot (/proc/PID/stat field 22) */
    uint64_t phase;       /* enum quvo_health_phase */
    uint64_t run;         /* pipeline runs begun: 1 for the first, +1 per restart */
    uint64_t phase_started_ns[QUVO_PHASE_COUNT]; /* last time each phase began */
    char config_path[QUVO_HEALTH_PATH_MAX];      /* NUL-terminated, cut to fit */
};

/* Written by the main thread. */
struct quvo_health_restarts {
    uint64_t by_reason[QUVO_RESTART_COUNT];
    uint64_t last_ns;
    uint64_t last_reason; /* enum quvo_health_restart; meaningful once last_ns is set */
};

/* One snapshot feed; written by the snapshot worker. */
struct quvo_health_feed {
    uint64_t started_ns;   /* its last snapshot's first segment */
    uint64_t completed_ns; /* its last snapshot's last message; 0 while loading */
    uint64_t instruments;  /* instrument definitions taken, in the last snapshot */
    uint64_t messages;     /* messages decoded, in the last snapshot */
    uint64_t bytes;        /* message bytes decoded, headers included, in the last snapshot */
    uint64_t completed;    /* snapshots of this feed completed */
    uint64_t messages_total;
    uint64_t bytes_total;
};

/* The snapshot phase as a whole. */
struct quvo_health_snapshot {
    struct quvo_health_feed feeds[QUVO_HEALTH_FEEDS];
    uint64_t cleared[QUVO_CLEAN_COUNT]; /* run start by the decoder loop, the rest by the worker */
    uint64_t price_check_failures;      /* worker */
    uint64_t completed;                 /* main thread: snapshot phases that ended in success */
    uint64_t last_duration_ns;          /* main thread: the last successful snapshot phase */
    uint64_t total_duration_ns;         /* main thread: all successful snapshot phases */
};

/* Raw snapshot frames. Polls and lengths by the decoder loop, the rest by the worker. */
struct quvo_health_tcp {
    uint64_t polls_empty;
    uint64_t polls_busy;
    uint64_t abnormal_length; /* frames of 1..14 bytes, over 2048, or receive errors */
    uint64_t late;            /* frames dropped because every feed had finished */
    uint64_t frames;          /* frames handled */
    uint64_t short_ip;
    uint64_t bad_ip_header;
    uint64_t not_tcp; /* other protocols, the silent ones included */
    uint64_t short_tcp;
    uint64_t other_port;
    uint64_t bad_tcp_header;
    uint64_t no_payload;
    uint64_t checksum; /* failed the checksum or its length checks */
    uint64_t rst_ack;
    uint64_t not_start;  /* no session, and not a snapshot start */
    uint64_t other_host; /* addresses differ from the session's */
    uint64_t in_order;   /* segments taken in sequence */
    uint64_t held;       /* out-of-order segments held */
    uint64_t held_peak;  /* the longest held list */
    uint64_t duplicates; /* out-of-order segments already held */
    uint64_t old;        /* segments below the expected sequence number */
    uint64_t not_mdqp;   /* in-sequence data that does not start a message */
};

/* Decoded records; written by the main thread. */
struct quvo_health_records {
    uint64_t received;        /* frames of a usable length read from the card */
    uint64_t abnormal_length; /* frames of 1..23 bytes, over 2048, or receive errors */
    uint64_t applied;         /* the book took the record (announced unless replayed early) */
    uint64_t stale;           /* change number already in the book */
    uint64_t restored;        /* undone by the book check */
    uint64_t unsubscribed;
    uint64_t options;
    uint64_t out_of_range; /* instrument number beyond the exchange's range */
    uint64_t short_record; /* shorter than a record header */
    uint64_t unsupported_topic;
    uint64_t gaps;           /* change-number gaps */
    uint64_t unknown_fields; /* an unknown field or a short tail ended the field loop */
    uint64_t other_field_id; /* a second header field other than 3 */
    uint64_t bad_level;      /* price level outside 1..10 */
    uint64_t bad_event;      /* unknown event type */
    uint64_t bad_entry;      /* unknown entry type */
};

/* The decoded-record cache; written by the main thread. */
struct quvo_health_cache {
    uint64_t cached;    /* frames stored */
    uint64_t peak;      /* most frames held at once */
    uint64_t overflows; /* times every cached frame was abandoned for room */
    uint64_t replayed;  /* frames applied from the cache */
    uint64_t corrupt;   /* entries refused as out of range */
    uint64_t cleared;
};

/* The update ring and the last record; written by the main thread. */
struct quvo_health_ring {
    uint64_t write_count;     /* announcements made: the ring's write counter */
    uint64_t exchange_time;   /* the last record's snapTime, as the record carries it */
    uint64_t exchange_millis; /* and its snapMillisec */
    uint64_t shfe_packet_no;
    uint64_t ine_packet_no;
};

/* Live records, from the moment the frame was read to its announcement; main thread. */
struct quvo_health_latency {
    uint64_t samples;
    uint64_t sum_ns;
    uint64_t max_ns;
    uint64_t buckets[QUVO_HEALTH_LATENCY_BUCKETS];
    uint64_t polls_empty; /* live receive loop: polls that found nothing */
    uint64_t polls_busy;  /* and polls that read a frame */
};

typedef struct quvo_health {
    uint32_t magic;
    uint32_t version;
    uint32_t size; /* sizeof(quvo_health) */
    uint32_t reserved;
    struct quvo_health_process process;
    struct quvo_health_restarts restarts;
    struct quvo_health_snapshot snapshot;
    struct quvo_health_tcp tcp;
    struct quvo_health_records records;
    struct quvo_health_cache cache;
    struct quvo_health_ring ring;
    struct quvo_health_latency latency;
} quvo_health;

/* Bucket of a latency of `ns` nanoseconds. */
static inline unsigned quvo_health_bucket(uint64_t ns) {
    unsigned e;
    if (ns < 4) {
        return (unsigned)ns;
    }
    if (ns >= (1ull << 20)) {
        return QUVO_HEALTH_LATENCY_BUCKETS - 1;
    }
    e = 63u - (unsigned)__builtin_clzll(ns);
    return 4u * (e - 1u) + (unsigned)((ns >> (e - 2u)) & 3u);
}

/* Smallest latency, in ns, that falls in bucket `i`. */
static inline uint64_t quvo_health_bucket_low(unsigned i) {
    if (i < 4) {
        return i;
    }
    if (i >= QUVO_HEALTH_LATENCY_BUCKETS - 1) {
        return 1ull << 20;
    }
    return (uint64_t)(4u + i % 4u) << (i / 4u - 1u);
}

#ifdef __cplusplus
#define QUVO_STATIC_ASSERT(cond, msg) static_assert(cond, msg)
#else
#define QUVO_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#endif

QUVO_STATIC_ASSERT(offsetof(quvo_health, magic) == 0, "magic first");
QUVO_STATIC_ASSERT(offsetof(quvo_health, version) == 4, "version offset");
QUVO_STATIC_ASSERT(offsetof(quvo_health, size) == 8, "size offset");
QUVO_STATIC_ASSERT(offsetof(quvo_health, process) == 16, "process offset");
QUVO_STATIC_ASSERT(sizeof(struct quvo_health_process) == 5 * 8 + QUVO_PHASE_COUNT * 8 + QUVO_HEALTH_PATH_MAX,
                   "process size");
QUVO_STATIC_ASSERT(offsetof(quvo_health, restarts) == 376, "restarts offset");
QUVO_STATIC_ASSERT(sizeof(struct quvo_health_feed) == 64, "feed size");
QUVO_STATIC_ASSERT(offsetof(quvo_health, snapshot) == 424, "snapshot offset");
QUVO_STATIC_ASSERT(sizeof(struct quvo_health_snapshot) == 4 * 64 + 9 * 8, "snapshot size");
QUVO_STATIC_ASSERT(offsetof(quvo_health, tcp) == 752, "tcp offset");
QUVO_STATIC_ASSERT(sizeof(struct quvo_health_tcp) == 22 * 8, "tcp size");
QUVO_STATIC_ASSERT(offsetof(quvo_health, records) == 928, "records offset");
QUVO_STATIC_ASSERT(sizeof(struct quvo_health_records) == 16 * 8, "records size");
QUVO_STATIC_ASSERT(offsetof(quvo_health, cache) == 1056, "cache offset");
QUVO_STATIC_ASSERT(offsetof(quvo_health, ring) == 1104, "ring offset");
QUVO_STATIC_ASSERT(offsetof(quvo_health, latency) == 1144, "latency offset");
QUVO_STATIC_ASSERT(sizeof(struct quvo_health_latency) == (5 + QUVO_HEALTH_LATENCY_BUCKETS) * 8,
                   "latency size");
QUVO_STATIC_ASSERT(sizeof(quvo_health) == 1800, "health size");

#undef QUVO_STATIC_ASSERT

#endif /* QUVO_INTERFACE_QUVOHEALTH_H */
