// Prints the layout of the shared records and the constants a reader needs as
// one JSON object, so the Python package can be checked against the compiler.
#include <sys/ipc.h>
#include <sys/shm.h>

#include <cstddef>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <type_traits>

#include "interface/commonheader.h"

namespace {

using nlohmann::ordered_json;

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
ordered_json field(const char* name, size_t offset) {
    using E = Element<Field>;
    return {{"name", name},
            {"offset", offset},
            {"size", sizeof(Field)},
            {"kind", kind_of<typename E::type>()},
            {"element_size", sizeof(typename E::type)},
            {"count", E::count}};
}

}  // namespace

#define QUVO_FIELD(record, name) field<decltype(record::name)>(#name, offsetof(record, name))

int main() {
    const ordered_json layout = {
        {"instrument",
         {{"size", sizeof(instrument)},
          {"fields",
           {QUVO_FIELD(instrument, inst_id), QUVO_FIELD(instrument, last_px), QUVO_FIELD(instrument, volume),
            QUVO_FIELD(instrument, update_time), QUVO_FIELD(instrument, update_milli_sec),
            QUVO_FIELD(instrument, type), QUVO_FIELD(instrument, change_no), QUVO_FIELD(instrument, turnover),
            QUVO_FIELD(instrument, open_interest), QUVO_FIELD(instrument, bid_totvol),
            QUVO_FIELD(instrument, ask_totvol), QUVO_FIELD(instrument, bid_totamount),
            QUVO_FIELD(instrument, ask_totamount), QUVO_FIELD(instrument, highest_price),
            QUVO_FIELD(instrument, lowest_price), QUVO_FIELD(instrument, bid_px),
            QUVO_FIELD(instrument, bid_vol), QUVO_FIELD(instrument, ask_vol),
            QUVO_FIELD(instrument, ask_px)}}}},
        {"share",
         {{"size", sizeof(share)},
          {"fields",
           {QUVO_FIELD(share, instmts), QUVO_FIELD(share, shfe_inst_cnt), QUVO_FIELD(share, ine_inst_cnt),
            QUVO_FIELD(share, shfe_pktno), QUVO_FIELD(share, ine_pktno)}}}},
        {"shmid_ds",
         {{"size", sizeof(struct shmid_ds)},
          {"fields", {QUVO_FIELD(shmid_ds, shm_segsz), QUVO_FIELD(shmid_ds, shm_nattch)}}}},
        {"constants",
         {{"SHM_PROJ_ID", QUVO_SHM_PROJ_ID},
          {"UPDATE_RING_KEY_FILE", QUVO_UPDATE_RING_KEY_FILE},
          {"MD_AREA_KEY_FILE", QUVO_MD_AREA_KEY_FILE},
          {"KEY_DIR_ENV", QUVO_KEY_DIR_ENV},
          {"DEFAULT_KEY_DIR", QUVO_DEFAULT_KEY_DIR},
          {"UPDATE_RING_SIZE", QUVO_UPDATE_RING_SIZE},
          {"UPDATE_RING_ENTRIES", QUVO_UPDATE_RING_ENTRIES},
          {"UPDATE_RING_END", QUVO_UPDATE_RING_END},
          {"MD_AREA_SIZE", QUVO_MD_AREA_SIZE},
          {"BOOK_LEVELS", QUVO_BOOK_LEVELS},
          {"SHFE_MAX_INST_CNT", QUVO_SHFE_MAX_INST_CNT},
          {"INE_MAX_INST_CNT", QUVO_INE_MAX_INST_CNT},
          {"INST_SLOTS", QUVO_INST_SLOTS},
          {"IPC_RMID", IPC_RMID},
          {"IPC_STAT", IPC_STAT},
          {"SHM_RDONLY", SHM_RDONLY}}},
    };
    std::puts(layout.dump(1).c_str());
    return 0;
}

#undef QUVO_FIELD
