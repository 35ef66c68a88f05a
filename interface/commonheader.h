/*
 * Shared-memory records published by quvo-md. This is the one header a reader
 * process includes; it is self-contained and valid C11 and C++.
 *
 * Two System V segments, each keyed by ftok(path, QUVO_SHM_PROJ_ID):
 *   - the update ring, keyed by "<dir>/key_f": QUVO_UPDATE_RING_ENTRIES unsigned
 *     16-bit instrument slots; QUVO_UPDATE_RING_END marks the current end;
 *   - the market-data area, keyed by "<dir>/key_e": one `share` record.
 * <dir> is /etc, or the directory named by the environment variable QUVO_KEY_DIR.
 *
 * The feed writes both segments without a lock. Before it announces a slot in
 * the ring it has finished writing that slot's record, and it writes the end
 * marker after an entry before the entry itself, so a reader that stops at
 * QUVO_UPDATE_RING_END never reads past the last announcement.
 */
#ifndef QUVO_INTERFACE_COMMONHEADER_H
#define QUVO_INTERFACE_COMMONHEADER_H

#include <stddef.h>
#include <stdint.h>

#define QUVO_SHM_PROJ_ID 0x52
#define QUVO_UPDATE_RING_KEY_FILE "key_f"
#define QUVO_MD_AREA_KEY_FILE "key_e"
#define QUVO_KEY_DIR_ENV "QUVO_KEY_DIR"
#define QUVO_DEFAULT_KEY_DIR "/etc"

#define QUVO_UPDATE_RING_SIZE 0x20000u
#define QUVO_UPDATE_RING_ENTRIES 65536u
#define QUVO_UPDATE_RING_END 0xFFFFu
#define QUVO_MD_AREA_SIZE 0x690010u

#define QUVO_BOOK_LEVELS 10
#define QUVO_SHFE_MAX_INST_CNT 16384
#define QUVO_INE_MAX_INST_CNT 4096
#define QUVO_INST_SLOTS (QUVO_SHFE_MAX_INST_CNT + QUVO_INE_MAX_INST_CNT)

typedef struct instrument {
    unsigned char inst_id[16];
    double last_px;
    uint32_t volume;
    uint32_t update_time;
    uint16_t update_milli_sec;
    uint16_t type;
    uint32_t change_no;
    double turnover;
    double open_interest;
    int32_t bid_totvol;
    int32_t ask_totvol;
    double bid_totamount;
    double ask_totamount;
    double highest_price;
    double lowest_price;
    /* Deliberate order: bid prices, bid volumes, ask volumes, ask prices. */
    double bid_px[QUVO_BOOK_LEVELS];
    int32_t bid_vol[QUVO_BOOK_LEVELS];
    int32_t ask_vol[QUVO_BOOK_LEVELS];
    double ask_px[QUVO_BOOK_LEVELS];
} instrument;

/*
 * An SHFE instrument number n (0..16383) uses slot n; an INE instrument number
 * n (0..4095) uses slot 20479 - n. Slots below 16384 are SHFE, the rest INE.
 */
typedef struct share {
    instrument instmts[QUVO_INST_SLOTS];
    int32_t shfe_inst_cnt; /* highest SHFE instrument number seen + 1 */
    int32_t ine_inst_cnt;  /* highest INE instrument number seen + 1 */
    int32_t shfe_pktno;    /* last packet number seen on the SHFE side */
    int32_t ine_pktno;     /* last packet number seen on the INE side */
} share, share_t;

static inline uint32_t quvo_shfe_slot(uint32_t inst_no) {
    return inst_no;
}
static inline uint32_t quvo_ine_slot(uint32_t inst_no) {
    return QUVO_INST_SLOTS - 1 - inst_no;
}
static inline int quvo_slot_is_ine(uint32_t slot) {
    return slot >= QUVO_SHFE_MAX_INST_CNT;
}
/* The exchange's instrument number held in `slot`. */
static inline uint32_t quvo_slot_inst_no(uint32_t slot) {
    return quvo_slot_is_ine(slot) ? QUVO_INST_SLOTS - 1 - slot : slot;
}

#ifdef __cplusplus
#define QUVO_STATIC_ASSERT(cond, msg) static_assert(cond, msg)
#else
#define QUVO_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#endif

QUVO_STATIC_ASSERT(offsetof(instrument, inst_id) == 0, "inst_id offset");
QUVO_STATIC_ASSERT(offsetof(instrument, last_px) == 16, "last_px offset");
QUVO_STATIC_ASSERT(offsetof(instrument, volume) == 24, "volume offset");
QUVO_STATIC_ASSERT(offsetof(instrument, update_time) == 28, "update_time offset");
QUVO_STATIC_ASSERT(offsetof(instrument, update_milli_sec) == 32, "update_milli_sec offset");
QUVO_STATIC_ASSERT(offsetof(instrument, type) == 34, "type offset");
QUVO_STATIC_ASSERT(offsetof(instrument, change_no) == 36, "change_no offset");
QUVO_STATIC_ASSERT(offsetof(instrument, turnover) == 40, "turnover offset");
QUVO_STATIC_ASSERT(offsetof(instrument, open_interest) == 48, "open_interest offset");
QUVO_STATIC_ASSERT(offsetof(instrument, bid_totvol) == 56, "bid_totvol offset");
QUVO_STATIC_ASSERT(offsetof(instrument, ask_totvol) == 60, "ask_totvol offset");
QUVO_STATIC_ASSERT(offsetof(instrument, bid_totamount) == 64, "bid_totamount offset");
QUVO_STATIC_ASSERT(offsetof(instrument, ask_totamount) == 72, "ask_totamount offset");
QUVO_STATIC_ASSERT(offsetof(instrument, highest_price) == 80, "highest_price offset");
QUVO_STATIC_ASSERT(offsetof(instrument, lowest_price) == 88, "lowest_price offset");
QUVO_STATIC_ASSERT(offsetof(instrument, bid_px) == 96, "bid_px offset");
QUVO_STATIC_ASSERT(offsetof(instrument, bid_vol) == 176, "bid_vol offset");
QUVO_STATIC_ASSERT(offsetof(instrument, ask_vol) == 216, "ask_vol offset");
QUVO_STATIC_ASSERT(offsetof(instrument, ask_px) == 256, "ask_px offset");
QUVO_STATIC_ASSERT(sizeof(((instrument*)0)->inst_id) == 16, "inst_id size");
QUVO_STATIC_ASSERT(sizeof(((instrument*)0)->bid_px) == 80, "bid_px size");
QUVO_STATIC_ASSERT(sizeof(((instrument*)0)->bid_vol) == 40, "bid_vol size");
QUVO_STATIC_ASSERT(sizeof(((instrument*)0)->ask_vol) == 40, "ask_vol size");
QUVO_STATIC_ASSERT(sizeof(((instrument*)0)->ask_px) == 80, "ask_px size");
QUVO_STATIC_ASSERT(sizeof(instrument) == 336, "instrument size");

QUVO_STATIC_ASSERT(offsetof(share, instmts) == 0, "instmts offset");
QUVO_STATIC_ASSERT(sizeof(((share*)0)->instmts) == 6881280, "instmts size");
QUVO_STATIC_ASSERT(offsetof(share, shfe_inst_cnt) == 6881280, "shfe_inst_cnt offset");
QUVO_STATIC_ASSERT(offsetof(share, ine_inst_cnt) == 6881284, "ine_inst_cnt offset");
QUVO_STATIC_ASSERT(offsetof(share, shfe_pktno) == 6881288, "shfe_pktno offset");
QUVO_STATIC_ASSERT(offsetof(share, ine_pktno) == 6881292, "ine_pktno offset");
QUVO_STATIC_ASSERT(sizeof(share) == QUVO_MD_AREA_SIZE, "share size");
QUVO_STATIC_ASSERT(QUVO_UPDATE_RING_ENTRIES * sizeof(uint16_t) == QUVO_UPDATE_RING_SIZE, "ring size");

#undef QUVO_STATIC_ASSERT

#endif /* QUVO_INTERFACE_COMMONHEADER_H */
