// quvo-bridge's parts that need no NATS: the book message in both forms, its
// subject and key, the conflation table, the replica's writer, the follower's
// position against the feed, and the command line.
#include <gtest/gtest.h>
#include <prometheus/text_serializer.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "interface/quvoreader.h"
#include "tools/bridge/BridgeMessage.h"
#include "tools/bridge/BridgeMetrics.h"
#include "tools/bridge/BridgeOptions.h"
#include "tools/bridge/FeedPosition.h"
#include "tools/bridge/MirrorBooks.h"
#include "tools/bridge/PendingSet.h"

extern "C" {
size_t quvo_c_book_msg_size(void);
size_t quvo_c_book_msg_book_offset(void);
}

namespace {

void set_id(instrument& book, const std::string& id) {
    memset(book.inst_id, 0, sizeof(book.inst_id));
    memcpy(book.inst_id, id.data(), std::min(id.size(), sizeof(book.inst_id)));
}

// A record whose every byte is drawn from `random`, with an identifier.
instrument random_book(std::mt19937_64& random, const std::string& id) {
    instrument book;
    unsigned char* bytes = reinterpret_cast<unsigned char*>(&book);
    for (size_t i = 0; i < sizeof(book); ++i) {
        bytes[i] = static_cast<unsigned char>(random());
    }
    set_id(book, id);
    return book;
}

// A record as the feed writes them: prices on a tick, finite amounts.
instrument market_book(std::mt19937_64& random, const std::string& id) {
    instrument book{};
    set_id(book, id);
    std::uniform_int_distribution<int> ticks(1, 200000);
    const double tick = 0.2;
    book.last_px = ticks(random) * tick;
    book.volume = static_cast<uint32_t>(random());
    book.update_time = 93015;
    book.update_milli_sec = 500;
    book.type = 3;
    book.change_no = static_cast<uint32_t>(random());
    book.turnover = static_cast<double>(random() % 100000000) * 5.1;
    book.open_interest = static_cast<double>(random() % 1000000);
    book.bid_totvol = -static_cast<int32_t>(random() % 1000);
    book.ask_totvol = static_cast<int32_t>(random() % 1000);
    book.bid_totamount = 1.0 / 3.0;
    book.ask_totamount = std::numeric_limits<double>::denorm_min();
    book.highest_price = -0.0;
    book.lowest_price = std::numeric_limits<double>::max();
    for (int level = 0; level < QUVO_BOOK_LEVELS; ++level) {
        book.bid_px[level] = ticks(random) * tick;
        book.ask_px[level] = ticks(random) * tick;
        book.bid_vol[level] = static_cast<int32_t>(random());
        book.ask_vol[level] = static_cast<int32_t>(random());
    }
    return book;
}

TEST(BridgeMessageTest, CAndCppAgreeOnTheLayout) {
    EXPECT_EQ(quvo_c_book_msg_size(), sizeof(quvo_book_msg));
    EXPECT_EQ(quvo_c_book_msg_book_offset(), offsetof(quvo_book_msg, book));
}

TEST(BridgeMessageTest, BinaryFormIsTheRecordBehindAThirtyTwoByteHeader) {
    std::mt19937_64 random(1);
    const instrument book = random_book(random, "cu2501");
    const quvo_book_msg msg = bridge_message(20477, 111, 7, 222, book);
    const std::string data = bridge_encode(msg);
    ASSERT_EQ(data.size(), 368u);
    const unsigned char header[8] = {'Q', 'V', 'B', 'K', 1, 0, 0xFD, 0x4F};
    EXPECT_EQ(memcmp(data.data(), header, sizeof(header)), 0);
    uint64_t epoch = 0;
    uint64_t seq = 0;
    uint64_t publishNs = 0;
    memcpy(&epoch, data.data() + 8, 8);
    memcpy(&seq, data.data() + 16, 8);
    memcpy(&publishNs, data.data() + 24, 8);
    EXPECT_EQ(epoch, 111u);
    EXPECT_EQ(seq, 7u);
    EXPECT_EQ(publishNs, 222u);
    EXPECT_EQ(memcmp(data.data() + 32, &book, sizeof(book)), 0);
}

TEST(BridgeMessageTest, BinaryRoundTripKeepsEveryByte) {
    std::mt19937_64 random(2);
    for (int i = 0; i < 200; ++i) {
        const uint32_t slot = static_cast<uint32_t>(random() % QUVO_INST_SLOTS);
        const quvo_book_msg msg =
            bridge_message(slot, random(), random(), random(), random_book(random, "x"));
        const std::string data = bridge_encode(msg);
        quvo_book_msg back;
        std::string error;
        ASSERT_TRUE(bridge_decode(data.data(), data.size(), back, error)) << error;
        ASSERT_EQ(memcmp(&back, &msg, sizeof(msg)), 0);
    }
}

TEST(BridgeMessageTest, RefusesEveryTruncationAndEveryExtension) {
    std::mt19937_64 random(3);
    const std::string data = bridge_encode(bridge_message(5, 1, 1, 1, random_book(random, "al2502")));
    quvo_book_msg out;
    std::string error;
    for (size_t length = 0; length < data.size(); ++length) {
        EXPECT_FALSE(bridge_decode(data.data(), length, out, error)) << length;
    }
    const std::string longer = data + "x";
    EXPECT_FALSE(bridge_decode(longer.data(), longer.size(), out, error));
    EXPECT_NE(error.find("369 bytes"), std::string::npos) << error;
}

TEST(BridgeMessageTest, RefusesAnotherMagicVersionOrSlot) {
    std::mt19937_64 random(4);
    const quvo_book_msg msg = bridge_message(5, 1, 1, 1, random_book(random, "al2502"));
    quvo_book_msg out;
    std::string error;
    quvo_book_msg changed = msg;
    changed.magic ^= 1;
    std::string data = bridge_encode(changed);
    EXPECT_FALSE(bridge_decode(data.data(), data.size(), out, error));
    EXPECT_NE(error.find("magic"), std::string::npos) << error;
    changed = msg;
    changed.version = 2;
    data = bridge_encode(changed);
    EXPECT_FALSE(bridge_decode(data.data(), data.size(), out, error));
    EXPECT_NE(error.find("version 2"), std::string::npos) << error;
    changed = msg;
    changed.slot = QUVO_INST_SLOTS;
    data = bridge_encode(changed);
    EXPECT_FALSE(bridge_decode(data.data(), data.size(), out, error));
    EXPECT_NE(error.find("slot 20480"), std::string::npos) << error;
}

TEST(BridgeMessageTest, JsonRoundTripGivesTheSameBytes) {
    std::mt19937_64 random(5);
    const std::vector<std::string> ids = {"cu2501",        "sc2503",          "cu2501C72000",
                                          "cu2501-cu2601", "fifteen-chars-1", "sixteen-chars-12",
                                          "\xe9t\xe9"};
    for (int i = 0; i < 300; ++i) {
        const uint32_t slot = static_cast<uint32_t>(random() % QUVO_INST_SLOTS);
        const quvo_book_msg msg =
            bridge_message(slot, random(), random(), random(), market_book(random, ids[i % ids.size()]));
        const std::string text = bridge_encode_json(msg);
        ASSERT_EQ(text.find('\n'), std::string::npos);
        quvo_book_msg back;
        std::string error;
        ASSERT_TRUE(bridge_decode(text.data(), text.size(), back, error)) << error << "\n" << text;
        ASSERT_EQ(memcmp(&back, &msg, sizeof(msg)), 0) << text;
    }
}

TEST(BridgeMessageTest, JsonNamesTheExchangeAndWritesNonFiniteAsNull) {
    instrument book{};
    set_id(book, "sc2503");
    book.last_px = std::numeric_limits<double>::infinity();
    book.bid_px[0] = 555.6;
    const std::string text = bridge_encode_json(bridge_message(quvo_ine_slot(2), 9, 3, 4, book));
    EXPECT_NE(text.find("\"exchange\":\"INE\",\"slot\":20477,\"inst_no\":2"), std::string::npos) << text;
    EXPECT_NE(text.find("\"id\":\"sc2503\""), std::string::npos) << text;
    EXPECT_NE(text.find("\"last_px\":null"), std::string::npos) << text;
    EXPECT_NE(text.find("\"bid_px\":[555.6,0.0"), std::string::npos) << text;
    quvo_book_msg back;
    std::string error;
    ASSERT_TRUE(bridge_decode(text.data(), text.size(), back, error)) << error;
    EXPECT_TRUE(std::isnan(back.book.last_px));
}

TEST(BridgeMessageTest, JsonRefusesMissingOrOutOfRangeFields) {
    instrument book{};
    set_id(book, "cu2501");
    const std::string text = bridge_encode_json(bridge_message(3, 1, 1, 1, book));
    quvo_book_msg out;
    std::string error;
    const auto without = [&](const std::string& from, const std::string& to) {
        std::string changed = text;
        const size_t at = changed.find(from);
        EXPECT_NE(at, std::string::npos) << from;
        changed.replace(at, from.size(), to);
        return changed;
    };
    for (const auto& [from, to] : std::vector<std::pair<std::string, std::string>>{
             {"\"v\":1", "\"v\":2"},
             {"\"slot\":3", "\"slot\":20480"},
             {"\"volume\":0", "\"volume\":-1"},
             {"\"volume\":0", "\"volume\":4294967296"},
             {"\"type\":0", "\"type\":\"0\""},
             {"\"change_no\":0,", ""},
             {"\"id\":\"cu2501\"", "\"id\":\"seventeen-chars-1\""},
             {"\"bid_vol\":[0,", "\"bid_vol\":["},
         }) {
        const std::string changed = without(from, to);
        EXPECT_FALSE(bridge_decode(changed.data(), changed.size(), out, error)) << changed;
    }
    const std::string cut = text.substr(0, text.size() - 1);
    EXPECT_FALSE(bridge_decode(cut.data(), cut.size(), out, error));
}

TEST(BridgeMessageTest, SubjectAndKeyNameTheExchangeAndTheIdentifier) {
    instrument book{};
    set_id(book, "cu2501-cu2601");
    EXPECT_EQ(bridge_subject("quvo.book", quvo_shfe_slot(3), book), "quvo.book.SHFE.cu2501-cu2601");
    EXPECT_EQ(bridge_key(quvo_shfe_slot(16383), book), "SHFE.cu2501-cu2601");
    set_id(book, "sc2503");
    EXPECT_EQ(bridge_key(quvo_ine_slot(0), book), "INE.sc2503");
    EXPECT_EQ(bridge_key(quvo_ine_slot(4095), book), "INE.sc2503");
    // Bytes no subject token may hold are written as =XX.
    set_id(book, "a b.c*>=\xff");
    EXPECT_EQ(bridge_id_token(book), "a=20b=2Ec=2A=3E=3D=FF");
    set_id(book, "");
    EXPECT_EQ(bridge_id_token(book), "=");
}

TEST(BridgeMessageTest, OrderIsEpochThenSequence) {
    EXPECT_TRUE(bridge_newer(1, 2, 1, 1));
    EXPECT_FALSE(bridge_newer(1, 1, 1, 1));
    EXPECT_FALSE(bridge_newer(1, 1, 1, 2));
    EXPECT_TRUE(bridge_newer(2, 1, 1, 900));
    EXPECT_FALSE(bridge_newer(1, 900, 2, 1));
}

TEST(PendingSetTest, HoldsEachSlotOnceOldestFirst) {
    CPendingSet pending;
    EXPECT_TRUE(pending.Mark(7, 100));
    EXPECT_TRUE(pending.Mark(20479, 110));
    // waiting: [7 @100, 20479 @110]; a second mark of 7 is conflated
    EXPECT_FALSE(pending.Mark(7, 120));
    EXPECT_EQ(pending.Size(), 2u);
    uint32_t slot = 0;
    uint64_t marked = 0;
    bool force = true;
    ASSERT_TRUE(pending.Take(slot, marked, force));
    EXPECT_EQ(slot, 7u);
    EXPECT_EQ(marked, 100u);
    EXPECT_FALSE(force);
    EXPECT_TRUE(pending.Mark(7, 130));
    ASSERT_TRUE(pending.Take(slot, marked, force));
    EXPECT_EQ(slot, 20479u);
    ASSERT_TRUE(pending.Take(slot, marked, force));
    EXPECT_EQ(slot, 7u);
    EXPECT_EQ(marked, 130u);
    EXPECT_FALSE(pending.Take(slot, marked, force));
    EXPECT_EQ(pending.Size(), 0u);
}

TEST(PendingSetTest, ForceSticksToAWaitingSlot) {
    CPendingSet pending;
    EXPECT_TRUE(pending.Mark(1, 1));
    EXPECT_FALSE(pending.Mark(1, 2, true));
    EXPECT_FALSE(pending.Mark(1, 3, false));
    uint32_t slot = 0;
    uint64_t marked = 0;
    bool force = false;
    ASSERT_TRUE(pending.Take(slot, marked, force));
    EXPECT_TRUE(force);
    EXPECT_TRUE(pending.Mark(1, 4));
    ASSERT_TRUE(pending.Take(slot, marked, force));
    EXPECT_FALSE(force);
}

TEST(PendingSetTest, NeverHoldsMoreThanTheSlotsUnderAnyLoad) {
    CPendingSet pending;
    std::mt19937_64 random(6);
    std::vector<bool> model(QUVO_INST_SLOTS, false);
    size_t waiting = 0;
    for (int step = 0; step < 400000; ++step) {
        if (random() % 4 != 0) {
            const uint32_t slot = static_cast<uint32_t>(random() % QUVO_INST_SLOTS);
            ASSERT_EQ(pending.Mark(slot, static_cast<uint64_t>(step)), !model[slot]);
            waiting += model[slot] ? 0 : 1;
            model[slot] = true;
        } else {
            uint32_t slot = 0;
            uint64_t marked = 0;
            bool force = false;
            ASSERT_EQ(pending.Take(slot, marked, force), waiting > 0);
            if (waiting > 0) {
                ASSERT_TRUE(model[slot]);
                model[slot] = false;
                --waiting;
            }
        }
        ASSERT_EQ(pending.Size(), waiting);
        ASSERT_LE(pending.Size(), static_cast<size_t>(QUVO_INST_SLOTS));
    }
}

TEST(PendingSetTest, RefusesSlotsOutsideTheArea) {
    CPendingSet pending;
    EXPECT_FALSE(pending.Mark(QUVO_INST_SLOTS, 1));
    EXPECT_FALSE(pending.Mark(QUVO_UPDATE_RING_END, 1));
    EXPECT_EQ(pending.Size(), 0u);
}

class MirrorBooksTest : public ::testing::Test {
protected:
    MirrorBooksTest()
        : m_area(std::make_unique<share>()),
          m_entries(QUVO_UPDATE_RING_ENTRIES, QUVO_UPDATE_RING_END),
          m_ring(m_entries.data()),
          m_follower(m_entries.data()) {
        memset(m_area.get(), 0x5A, sizeof(share));
    }

    // Slots announced on the replica's ring since the last call.
    std::vector<uint16_t> Announced() {
        std::vector<uint16_t> slots;
        for (uint16_t slot; m_follower.Next(slot);) {
            slots.push_back(slot);
        }
        return slots;
    }

    std::unique_ptr<share> m_area;
    std::vector<uint16_t> m_entries;
    CUpdateRing m_ring;
    CRingFollower m_follower;
};

TEST_F(MirrorBooksTest, ClearZeroesTheWholeArea) {
    CMirrorBooks books(*m_area, m_ring);
    books.Clear();
    const std::vector<unsigned char> zeros(sizeof(share), 0);
    EXPECT_EQ(memcmp(m_area.get(), zeros.data(), sizeof(share)), 0);
}

TEST_F(MirrorBooksTest, AppliesNewerBooksAndAnnouncesThem) {
    CMirrorBooks books(*m_area, m_ring);
    books.Clear();
    std::mt19937_64 random(7);
    const instrument first = random_book(random, "cu2501");
    const instrument second = random_book(random, "cu2501");
    EXPECT_EQ(books.Apply(bridge_message(3, 10, 1, 0, first)), EMirrorApply::Applied);
    EXPECT_EQ(memcmp(&m_area->instmts[3], &first, sizeof(first)), 0);
    EXPECT_EQ(books.Apply(bridge_message(3, 10, 2, 0, second)), EMirrorApply::Applied);
    EXPECT_EQ(memcmp(&m_area->instmts[3], &second, sizeof(second)), 0);
    EXPECT_EQ(Announced(), (std::vector<uint16_t>{3, 3}));
    EXPECT_EQ(books.Applied(), 2u);
}

TEST_F(MirrorBooksTest, NeverWritesAnOlderBookOverANewerOne) {
    CMirrorBooks books(*m_area, m_ring);
    books.Clear();
    std::mt19937_64 random(8);
    const instrument newer = random_book(random, "al2502");
    // applied: (epoch 10, seq 5); then seq 4, seq 5 again and an older epoch arrive
    ASSERT_EQ(books.Apply(bridge_message(9, 10, 5, 0, newer)), EMirrorApply::Applied);
    EXPECT_EQ(books.Apply(bridge_message(9, 10, 4, 0, random_book(random, "al2502"))), EMirrorApply::Stale);
    EXPECT_EQ(books.Apply(bridge_message(9, 10, 5, 0, random_book(random, "al2502"))), EMirrorApply::Stale);
    EXPECT_EQ(books.Apply(bridge_message(9, 9, 900, 0, random_book(random, "al2502"))), EMirrorApply::Stale);
    EXPECT_EQ(memcmp(&m_area->instmts[9], &newer, sizeof(newer)), 0);
    EXPECT_EQ(Announced(), (std::vector<uint16_t>{9}));
    EXPECT_EQ(books.Stale(), 3u);
    // A restarted bridge's epoch wins from its first sequence number.
    const instrument restarted = random_book(random, "al2502");
    EXPECT_EQ(books.Apply(bridge_message(9, 11, 1, 0, restarted)), EMirrorApply::Applied);
    EXPECT_EQ(memcmp(&m_area->instmts[9], &restarted, sizeof(restarted)), 0);
    // Each slot has an order of its own.
    EXPECT_EQ(books.Apply(bridge_message(10, 10, 1, 0, random_book(random, "al2503"))),
              EMirrorApply::Applied);
}

TEST_F(MirrorBooksTest, RaisesTheCountsSoThatReadersListTheSlots) {
    CMirrorBooks books(*m_area, m_ring);
    books.Clear();
    std::mt19937_64 random(9);
    books.Apply(bridge_message(quvo_shfe_slot(40), 1, 1, 0, random_book(random, "cu2501")));
    books.Apply(bridge_message(quvo_shfe_slot(2), 1, 1, 0, random_book(random, "cu2502")));
    books.Apply(bridge_message(quvo_ine_slot(7), 1, 1, 0, random_book(random, "sc2503")));
    EXPECT_EQ(m_area->shfe_inst_cnt, 41);
    EXPECT_EQ(m_area->ine_inst_cnt, 8);
    EXPECT_EQ(m_area->shfe_pktno, 0);
}

TEST(FeedPositionTest, MeasuresTheFollowerAgainstTheFeedsCounter) {
    CFeedPosition position;
    EXPECT_EQ(position.Behind(1000), -1);
    EXPECT_FALSE(position.Lapped(1000000));
    // The follower is at the end at entry 100 while the counter read 70000 - 65536 + 90 (trailing by 10).
    position.AtEnd(100, 65536 + 90);
    EXPECT_EQ(position.Behind(65536 + 90), 0);
    EXPECT_EQ(position.Behind(65536 + 100), 0);
    EXPECT_EQ(position.Behind(65536 + 150), 50);
    position.Took(30);
    EXPECT_EQ(position.Behind(65536 + 150), 20);
    EXPECT_FALSE(position.Lapped(65536 + 130 + QUVO_UPDATE_RING_ENTRIES - CFeedPosition::kMargin - 1));
    EXPECT_TRUE(position.Lapped(65536 + 130 + QUVO_UPDATE_RING_ENTRIES - CFeedPosition::kMargin));
    position.Forget();
    EXPECT_EQ(position.Behind(0), -1);
}

TEST(FeedPositionTest, HoldsAcrossTheCountersWrap) {
    CFeedPosition position;
    position.AtEnd(5, 0xFFFFFFF0u);
    EXPECT_EQ(position.Behind(0xFFFFFFF0u), 0);
    EXPECT_EQ(position.Behind(0xFFFFFFF0u + 0x15u + 10u), 10);
}

std::vector<char*> argv_of(std::vector<std::string>& args) {
    std::vector<char*> argv;
    for (std::string& arg : args) {
        argv.push_back(arg.data());
    }
    return argv;
}

TEST(BridgeOptionsTest, ReadsEveryOption) {
    std::vector<std::string> args = {"quvo-bridge",
                                     "--server",
                                     "nats://a:1,nats://b:2",
                                     "--server=nats://c:3",
                                     "--creds",
                                     "/x.creds",
                                     "--prefix=md.books",
                                     "--bucket",
                                     "b-1",
                                     "--stream",
                                     "s_1",
                                     "--history-age=60",
                                     "--history-bytes",
                                     "1000",
                                     "--replicas",
                                     "3",
                                     "--json",
                                     "--send-at-once",
                                     "--stats=0.5",
                                     "--metrics",
                                     "127.0.0.1:9470"};
    std::vector<char*> argv = argv_of(args);
    BridgeOptions options;
    std::string error;
    ASSERT_TRUE(parse_bridge_options(static_cast<int>(argv.size()), argv.data(), options, error)) << error;
    EXPECT_EQ(options.servers, (std::vector<std::string>{"nats://a:1", "nats://b:2", "nats://c:3"}));
    EXPECT_EQ(options.creds, "/x.creds");
    EXPECT_EQ(options.prefix, "md.books");
    EXPECT_EQ(options.bucket, "b-1");
    EXPECT_EQ(options.stream, "s_1");
    EXPECT_EQ(options.historySeconds, 60);
    EXPECT_EQ(options.historyBytes, 1000);
    EXPECT_EQ(options.replicas, 3);
    EXPECT_TRUE(options.json);
    EXPECT_TRUE(options.sendAtOnce);
    EXPECT_EQ(options.statsSeconds, 0.5);
    EXPECT_EQ(options.metrics, "127.0.0.1:9470");
    EXPECT_FALSE(options.mirror);
}

TEST(BridgeOptionsTest, DefaultsToALocalServer) {
    std::vector<std::string> args = {"quvo-bridge", "--mirror", "--stats"};
    std::vector<char*> argv = argv_of(args);
    BridgeOptions options;
    std::string error;
    ASSERT_TRUE(parse_bridge_options(static_cast<int>(argv.size()), argv.data(), options, error)) << error;
    EXPECT_EQ(options.servers, (std::vector<std::string>{"nats://127.0.0.1:4222"}));
    EXPECT_EQ(options.prefix, "quvo.book");
    EXPECT_EQ(options.bucket, "quvo-books");
    EXPECT_EQ(options.stream, "quvo-history");
    EXPECT_EQ(options.statsSeconds, 1);
    EXPECT_TRUE(options.metrics.empty());
    EXPECT_FALSE(options.sendAtOnce);
    EXPECT_TRUE(options.mirror);
}

TEST(BridgeOptionsTest, RefusesBadValues) {
    for (const std::vector<std::string>& bad : std::vector<std::vector<std::string>>{
             {"--prefix", "a..b"},
             {"--prefix", "a.*"},
             {"--prefix", "a b"},
             {"--bucket", "a.b"},
             {"--stream", ""},
             {"--history-age", "-1"},
             {"--replicas", "0"},
             {"--stats=0"},
             {"--server", "a,,b"},
             {"--server"},
             {"--json=1"},
             {"--send-at-once=1"},
             {"--mirror", "--json"},
             {"--metrics", "9470"},
             {"--metrics", "127.0.0.1:65536"},
             {"--metrics"},
             {"--what"},
             {"extra"},
         }) {
        std::vector<std::string> args = {"quvo-bridge"};
        args.insert(args.end(), bad.begin(), bad.end());
        std::vector<char*> argv = argv_of(args);
        BridgeOptions options;
        std::string error;
        EXPECT_FALSE(parse_bridge_options(static_cast<int>(argv.size()), argv.data(), options, error))
            << bad[0];
        EXPECT_FALSE(error.empty());
    }
}

// Every number of the figures is served: counters with _total, the rest
// (true as 1) as gauges, the mode's name left out.
TEST(BridgeFiguresTest, ServesEveryNumberOfTheFigures) {
    uint64_t published = 7;
    CBridgeFigures figures("quvo_bridge", [&published] {
        return nlohmann::ordered_json{{"mode", "publish"}, {"connected", true}, {"published", published},
                                      {"lag", -1},         {"pending", 3},      {"something_new", 2.5}};
    });
    std::vector<prometheus::MetricFamily> families = figures.Collect();
    ASSERT_EQ(families.size(), 5u);
    std::vector<std::pair<std::string, prometheus::MetricType>> kinds;
    for (const prometheus::MetricFamily& family : families) {
        kinds.emplace_back(family.name, family.type);
        EXPECT_FALSE(family.help.empty()) << family.name;
    }
    EXPECT_EQ(kinds, (std::vector<std::pair<std::string, prometheus::MetricType>>{
                         {"quvo_bridge_connected", prometheus::MetricType::Gauge},
                         {"quvo_bridge_published_total", prometheus::MetricType::Counter},
                         {"quvo_bridge_lag", prometheus::MetricType::Gauge},
                         {"quvo_bridge_pending", prometheus::MetricType::Gauge},
                         {"quvo_bridge_something_new", prometheus::MetricType::Gauge}}));
    published = 9;
    const std::string text = prometheus::TextSerializer().Serialize(figures.Collect());
    EXPECT_NE(text.find("\nquvo_bridge_connected 1\n"), std::string::npos) << text;
    EXPECT_NE(text.find("\nquvo_bridge_published_total 9\n"), std::string::npos) << text;
    EXPECT_NE(text.find("\nquvo_bridge_lag -1\n"), std::string::npos) << text;
    EXPECT_NE(text.find("\nquvo_bridge_something_new 2.5\n"), std::string::npos) << text;
    EXPECT_EQ(text.find("mode"), std::string::npos) << text;
}

}  // namespace
