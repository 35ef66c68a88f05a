// Prints the layout of the shared records and the constants a reader needs as
// one JSON object, so the Python package can be checked against the compiler;
// with it, what the health reader's functions give for a set of inputs.
#include <sys/ipc.h>
#include <sys/shm.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <type_traits>
#include <vector>

#include "interface/commonheader.h"
#include "interface/quvohealthreader.h"

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

template <typename Record>
ordered_json record(std::initializer_list<ordered_json> fields) {
    return {{"size", sizeof(Record)}, {"fields", fields}};
}

// Latencies around every bucket edge, and far past the last.
std::vector<uint64_t> latencies() {
    std::vector<uint64_t> values;
    for (uint64_t ns = 0; ns <= 4200; ++ns) {
        values.push_back(ns);
    }
    for (unsigned e = 12; e < 64; ++e) {
        for (uint64_t step = 0; step < 4; ++step) {
            const uint64_t edge = (4 + step) << (e - 2);
            values.insert(values.end(), {edge - 1, edge, edge + 1});
        }
    }
    values.push_back(UINT64_MAX);
    return values;
}

// Hand-made histograms and what quvo_health_percentile gives for them.
ordered_json percentiles() {
    std::vector<quvo_health_latency> cases;
    auto add = [&cases](uint64_t maxNs, auto fill) {
        quvo_health_latency latency{};
        latency.max_ns = maxNs;
        fill(latency.buckets);
        cases.push_back(latency);
    };
    add(0, [](uint64_t*) {});
    add(700, [](uint64_t* b) { b[quvo_health_bucket(600)] = 1; });
    add(2000, [](uint64_t* b) { b[quvo_health_bucket(600)] = 1; });
    add(1u << 21, [](uint64_t* b) {
        for (unsigned i = 0; i < QUVO_HEALTH_LATENCY_BUCKETS; ++i) {
            b[i] = i % 7;
        }
    });
    add(5000000, [](uint64_t* b) { b[QUVO_HEALTH_LATENCY_BUCKETS - 1] = 3; });
    add(900000, [](uint64_t* b) {
        b[QUVO_HEALTH_LATENCY_BUCKETS - 1] = 3;
        b[3] = 1;
    });
    // 1000 records whose 999th is the last of bucket 40: q = 0.999 lands on it exactly.
    add(1u << 20, [](uint64_t* b) {
        b[20] = 500;
        b[40] = 499;
        b[60] = 1;
    });
    // Counts past 2^53, where the sums round as doubles.
    add(UINT64_MAX, [](uint64_t* b) {
        uint64_t x = 88172645463325252ull;
        for (unsigned i = 0; i < QUVO_HEALTH_LATENCY_BUCKETS; ++i) {
            x ^= x << 13;
            x ^= x >> 7;
            x ^= x << 17;
            b[i] = (x >> 8) % 3 == 0 ? 0 : x >> 8;
        }
    });
    // 2^53 + 3 records, then 2^53 + 5: the first sum reads as 2^53 + 4 in a
    // double, which is exactly half the total, so the median is in bucket 10.
    add(1u << 20, [](uint64_t* b) {
        b[10] = (1ull << 53) + 3;
        b[20] = (1ull << 53) + 5;
    });
    const double qs[] = {0.0, 0.001, 0.1, 0.25, 0.5, 0.9, 0.99, 0.999, 1.0};
    ordered_json out = ordered_json::array();
    for (const quvo_health_latency& latency : cases) {
        ordered_json results = ordered_json::array();
        for (double q : qs) {
            results.push_back({{"q", q}, {"ns", quvo_health_percentile(latency, q)}});
        }
        out.push_back({{"max_ns", latency.max_ns},
                       {"buckets", std::vector<uint64_t>(latency.buckets,
                                                         latency.buckets + QUVO_HEALTH_LATENCY_BUCKETS)},
                       {"percentiles", results}});
    }
    return out;
}

ordered_json health_functions() {
    ordered_json buckets = ordered_json::array();
    for (uint64_t ns : latencies()) {
        buckets.push_back({ns, quvo_health_bucket(ns)});
    }
    ordered_json lows = ordered_json::array();
    for (unsigned i = 0; i < QUVO_HEALTH_LATENCY_BUCKETS; ++i) {
        lows.push_back(quvo_health_bucket_low(i));
    }
    ordered_json names = {{"phases", ordered_json::array()},
                          {"restart_reasons", ordered_json::array()},
                          {"clean_causes", ordered_json::array()},
                          {"feeds", ordered_json::array()}};
    for (unsigned i = 0; i <= QUVO_PHASE_COUNT; ++i) {
        names["phases"].push_back(quvo_health_phase_name(i));
    }
    for (unsigned i = 0; i <= QUVO_RESTART_COUNT; ++i) {
        names["restart_reasons"].push_back(quvo_health_restart_name(i));
    }
    for (unsigned i = 0; i <= QUVO_CLEAN_COUNT; ++i) {
        names["clean_causes"].push_back(quvo_health_clean_name(i));
    }
    for (unsigned i = 0; i <= QUVO_HEALTH_FEEDS; ++i) {
        names["feeds"].push_back(quvo_health_feed_name(i));
    }
    return {{"buckets", buckets}, {"bucket_lows", lows}, {"percentiles", percentiles()}, {"names", names}};
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
        {"health",
         {{"records",
           {{"quvo_health",
             record<quvo_health>({QUVO_FIELD(quvo_health, magic), QUVO_FIELD(quvo_health, version),
                                  QUVO_FIELD(quvo_health, size), QUVO_FIELD(quvo_health, reserved),
                                  QUVO_FIELD(quvo_health, process), QUVO_FIELD(quvo_health, restarts),
                                  QUVO_FIELD(quvo_health, snapshot), QUVO_FIELD(quvo_health, tcp),
                                  QUVO_FIELD(quvo_health, records), QUVO_FIELD(quvo_health, cache),
                                  QUVO_FIELD(quvo_health, ring), QUVO_FIELD(quvo_health, latency)})},
            {"quvo_health_process",
             record<quvo_health_process>(
                 {QUVO_FIELD(quvo_health_process, pid), QUVO_FIELD(quvo_health_process, start_ns),
                  QUVO_FIELD(quvo_health_process, start_ticks), QUVO_FIELD(quvo_health_process, phase),
                  QUVO_FIELD(quvo_health_process, run), QUVO_FIELD(quvo_health_process, phase_started_ns),
                  QUVO_FIELD(quvo_health_process, config_path)})},
            {"quvo_health_restarts",
             record<quvo_health_restarts>({QUVO_FIELD(quvo_health_restarts, by_reason),
                                           QUVO_FIELD(quvo_health_restarts, last_ns),
                                           QUVO_FIELD(quvo_health_restarts, last_reason)})},
            {"quvo_health_feed",
             record<quvo_health_feed>(
                 {QUVO_FIELD(quvo_health_feed, started_ns), QUVO_FIELD(quvo_health_feed, completed_ns),
                  QUVO_FIELD(quvo_health_feed, instruments), QUVO_FIELD(quvo_health_feed, messages),
                  QUVO_FIELD(quvo_health_feed, bytes), QUVO_FIELD(quvo_health_feed, completed),
                  QUVO_FIELD(quvo_health_feed, messages_total), QUVO_FIELD(quvo_health_feed, bytes_total)})},
            {"quvo_health_snapshot",
             record<quvo_health_snapshot>({QUVO_FIELD(quvo_health_snapshot, feeds),
                                           QUVO_FIELD(quvo_health_snapshot, cleared),
                                           QUVO_FIELD(quvo_health_snapshot, price_check_failures),
                                           QUVO_FIELD(quvo_health_snapshot, completed),
                                           QUVO_FIELD(quvo_health_snapshot, last_duration_ns),
                                           QUVO_FIELD(quvo_health_snapshot, total_duration_ns)})},
            {"quvo_health_tcp", record<quvo_health_tcp>({QUVO_FIELD(quvo_health_tcp, polls_empty),
                                                         QUVO_FIELD(quvo_health_tcp, polls_busy),
                                                         QUVO_FIELD(quvo_health_tcp, abnormal_length),
                                                         QUVO_FIELD(quvo_health_tcp, late),
                                                         QUVO_FIELD(quvo_health_tcp, frames),
                                                         QUVO_FIELD(quvo_health_tcp, short_ip),
                                                         QUVO_FIELD(quvo_health_tcp, bad_ip_header),
                                                         QUVO_FIELD(quvo_health_tcp, not_tcp),
                                                         QUVO_FIELD(quvo_health_tcp, short_tcp),
                                                         QUVO_FIELD(quvo_health_tcp, other_port),
                                                         QUVO_FIELD(quvo_health_tcp, bad_tcp_header),
                                                         QUVO_FIELD(quvo_health_tcp, no_payload),
                                                         QUVO_FIELD(quvo_health_tcp, checksum),
                                                         QUVO_FIELD(quvo_health_tcp, rst_ack),
                                                         QUVO_FIELD(quvo_health_tcp, not_start),
                                                         QUVO_FIELD(quvo_health_tcp, other_host),
                                                         QUVO_FIELD(quvo_health_tcp, in_order),
                                                         QUVO_FIELD(quvo_health_tcp, held),
                                                         QUVO_FIELD(quvo_health_tcp, held_peak),
                                                         QUVO_FIELD(quvo_health_tcp, duplicates),
                                                         QUVO_FIELD(quvo_health_tcp, old),
                                                         QUVO_FIELD(quvo_health_tcp, not_mdqp)})},
            {"quvo_health_records",
             record<quvo_health_records>(
                 {QUVO_FIELD(quvo_health_records, received), QUVO_FIELD(quvo_health_records, abnormal_length),
                  QUVO_FIELD(quvo_health_records, applied), QUVO_FIELD(quvo_health_records, stale),
                  QUVO_FIELD(quvo_health_records, restored), QUVO_FIELD(quvo_health_records, unsubscribed),
                  QUVO_FIELD(quvo_health_records, options), QUVO_FIELD(quvo_health_records, out_of_range),
                  QUVO_FIELD(quvo_health_records, short_record),
                  QUVO_FIELD(quvo_health_records, unsupported_topic), QUVO_FIELD(quvo_health_records, gaps),
                  QUVO_FIELD(quvo_health_records, unknown_fields),
                  QUVO_FIELD(quvo_health_records, other_field_id), QUVO_FIELD(quvo_health_records, bad_level),
                  QUVO_FIELD(quvo_health_records, bad_event), QUVO_FIELD(quvo_health_records, bad_entry)})},
            {"quvo_health_cache",
             record<quvo_health_cache>(
                 {QUVO_FIELD(quvo_health_cache, cached), QUVO_FIELD(quvo_health_cache, peak),
                  QUVO_FIELD(quvo_health_cache, overflows), QUVO_FIELD(quvo_health_cache, replayed),
                  QUVO_FIELD(quvo_health_cache, corrupt), QUVO_FIELD(quvo_health_cache, cleared)})},
            {"quvo_health_ring",
             record<quvo_health_ring>(
                 {QUVO_FIELD(quvo_health_ring, write_count), QUVO_FIELD(quvo_health_ring, exchange_time),
                  QUVO_FIELD(quvo_health_ring, exchange_millis), QUVO_FIELD(quvo_health_ring, shfe_packet_no),
                  QUVO_FIELD(quvo_health_ring, ine_packet_no)})},
            {"quvo_health_latency",
             record<quvo_health_latency>(
                 {QUVO_FIELD(quvo_health_latency, samples), QUVO_FIELD(quvo_health_latency, sum_ns),
                  QUVO_FIELD(quvo_health_latency, max_ns), QUVO_FIELD(quvo_health_latency, buckets),
                  QUVO_FIELD(quvo_health_latency, polls_empty),
                  QUVO_FIELD(quvo_health_latency, polls_busy)})}}},
          {"constants",
           {{"HEALTH_PROJ_ID", QUVO_HEALTH_PROJ_ID},
            {"HEALTH_KEY_FILE", QUVO_HEALTH_KEY_FILE},
            {"HEALTH_MAGIC", QUVO_HEALTH_MAGIC},
            {"HEALTH_VERSION", QUVO_HEALTH_VERSION},
            {"HEALTH_SIZE", sizeof(quvo_health)},
            {"HEALTH_PATH_MAX", QUVO_HEALTH_PATH_MAX},
            {"HEALTH_FEEDS", QUVO_HEALTH_FEEDS},
            {"LATENCY_BUCKETS", QUVO_HEALTH_LATENCY_BUCKETS},
            {"LATENCY_SAMPLE_EVERY", QUVO_HEALTH_LATENCY_SAMPLE_EVERY},
            {"PHASE_STOPPED", QUVO_PHASE_STOPPED},
            {"PHASE_FAILED", QUVO_PHASE_FAILED}}},
          {"functions", health_functions()}}},
    };
    std::puts(layout.dump(1).c_str());
    return 0;
}

#undef QUVO_FIELD
