// Prints the layout of the shared records and the constants a reader needs as
// one JSON object, so the Python package can be checked against the compiler.
#include <sys/ipc.h>
#include <sys/shm.h>

#include <cstddef>
#include <cstdio>
#include <type_traits>

#include "interface/commonheader.h"

namespace {

template <typename T>
struct Element {
    using type = T;
    static constexpr size_t count = 1;
};
template <typename T, size_t N>
struct Element<T[N]> {
    using type = T;
    static constexpr size_t count = N;
};

template <typename T>
const char* kind_of() {
    if constexpr (std::is_floating_point_v<T>) {
        return "f";
    } else if constexpr (std::is_class_v<T>) {
        return "record";
    } else if constexpr (std::is_signed_v<T>) {
        return "i";
    } else {
        return "u";
    }
}

template <typename Field>
void print_field(const char* name, size_t offset, bool& first) {
    using E = Element<Field>;
    printf(
        "%s\n    {\"name\": \"%s\", \"offset\": %zu, \"size\": %zu, \"kind\": \"%s\", \"element_size\": %zu, "
        "\"count\": %zu}",
        first ? "" : ",", name, offset, sizeof(Field), kind_of<typename E::type>(), sizeof(typename E::type),
        E::count);
    first = false;
}

}  // namespace

#define QUVO_FIELD(record, name) print_field<decltype(record::name)>(#name, offsetof(record, name), first)

int main() {
    bool first = true;
    printf("{\"instrument\": {\"size\": %zu, \"fields\": [", sizeof(instrument));
    QUVO_FIELD(instrument, inst_id);
    QUVO_FIELD(instrument, last_px);
    QUVO_FIELD(instrument, volume);
    QUVO_FIELD(instrument, update_time);
    QUVO_FIELD(instrument, update_milli_sec);
    QUVO_FIELD(instrument, type);
    QUVO_FIELD(instrument, change_no);
    QUVO_FIELD(instrument, turnover);
    QUVO_FIELD(instrument, open_interest);
    QUVO_FIELD(instrument, bid_totvol);
    QUVO_FIELD(instrument, ask_totvol);
    QUVO_FIELD(instrument, bid_totamount);
    QUVO_FIELD(instrument, ask_totamount);
    QUVO_FIELD(instrument, highest_price);
    QUVO_FIELD(instrument, lowest_price);
    QUVO_FIELD(instrument, bid_px);
    QUVO_FIELD(instrument, bid_vol);
    QUVO_FIELD(instrument, ask_vol);
    QUVO_FIELD(instrument, ask_px);

    first = true;
    printf("]},\n\"share\": {\"size\": %zu, \"fields\": [", sizeof(share));
    QUVO_FIELD(share, instmts);
    QUVO_FIELD(share, shfe_inst_cnt);
    QUVO_FIELD(share, ine_inst_cnt);
    QUVO_FIELD(share, shfe_pktno);
    QUVO_FIELD(share, ine_pktno);

    first = true;
    printf("]},\n\"shmid_ds\": {\"size\": %zu, \"fields\": [", sizeof(struct shmid_ds));
    QUVO_FIELD(shmid_ds, shm_segsz);
    QUVO_FIELD(shmid_ds, shm_nattch);

    printf(
        "]},\n\"constants\": {\"SHM_PROJ_ID\": %d, \"UPDATE_RING_KEY_FILE\": \"%s\", \"MD_AREA_KEY_FILE\": "
        "\"%s\", "
        "\"KEY_DIR_ENV\": \"%s\", \"DEFAULT_KEY_DIR\": \"%s\", \"UPDATE_RING_SIZE\": %u, "
        "\"UPDATE_RING_ENTRIES\": %u, \"UPDATE_RING_END\": %u, \"MD_AREA_SIZE\": %u, \"BOOK_LEVELS\": %d, "
        "\"SHFE_MAX_INST_CNT\": %d, \"INE_MAX_INST_CNT\": %d, \"INST_SLOTS\": %d, "
        "\"IPC_RMID\": %d, \"IPC_STAT\": %d, \"SHM_RDONLY\": %d}}\n",
        QUVO_SHM_PROJ_ID, QUVO_UPDATE_RING_KEY_FILE, QUVO_MD_AREA_KEY_FILE, QUVO_KEY_DIR_ENV,
        QUVO_DEFAULT_KEY_DIR, QUVO_UPDATE_RING_SIZE, QUVO_UPDATE_RING_ENTRIES, QUVO_UPDATE_RING_END,
        QUVO_MD_AREA_SIZE, QUVO_BOOK_LEVELS, QUVO_SHFE_MAX_INST_CNT, QUVO_INE_MAX_INST_CNT, QUVO_INST_SLOTS,
        IPC_RMID, IPC_STAT, SHM_RDONLY);
    return 0;
}

#undef QUVO_FIELD
