// The reader header included first: it must be self-contained.
#include "interface/quvoreader.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <thread>

#include "src/api/SharedSegments.h"
#include "src/api/UpdateRing.h"
#include "src/api/shfe_recv.h"
#include "tests/support/FeedSegments.h"
#include "tests/support/Records.h"
#include "tests/support/ShmSandbox.h"

namespace {

// Segments created as the feed creates them, and a reader attached to them.
class ReaderTest : public ::testing::Test, protected CFeedSegments {
protected:
    void SetUp() override {
        std::string error;
        ASSERT_TRUE(m_reader.Attach(error)) << error;
    }

    // The ring as the feed leaves it after marking entry 0 and before filling entry 65535.
    uint16_t* LeaveRingBetweenTheWrapStores() {
        uint16_t* entries = m_segments.pUpdateRing;
        for (uint32_t i = 1; i < QUVO_UPDATE_RING_ENTRIES - 1; ++i) {
            entries[i] = 1;
        }
        entries[0] = QUVO_UPDATE_RING_END;
        entries[QUVO_UPDATE_RING_ENTRIES - 1] = QUVO_UPDATE_RING_END;
        return entries;
    }

    CQuvoReader m_reader;
};

TEST_F(ReaderTest, AccessorsShowWhatTheFeedWrote) {
    m_segments.pMdArea->shfe_pktno = 1234;
    Slot(7).last_px = 72010.0;
    EXPECT_EQ(m_reader.Area()->shfe_pktno, 1234);
    EXPECT_EQ(m_reader.Area()->instmts[7].last_px, 72010.0);
    m_segments.pUpdateRing[3] = 99;
    EXPECT_EQ(m_reader.Ring()[3], 99);
    EXPECT_NE(static_cast<const void*>(m_reader.Area()), static_cast<const void*>(m_segments.pMdArea));
}

TEST_F(ReaderTest, FindsShfeAndIneInstrumentsByExactIdentifier) {
    set_id(Slot(quvo_shfe_slot(0)), "abcdefghijklmno");
    memcpy(Slot(quvo_shfe_slot(1)).inst_id, "ABCDEFGHIJKLMNOP", 16);  // no NUL
    set_id(Slot(quvo_shfe_slot(2)), " x");
    set_id(Slot(quvo_shfe_slot(3)), "cu2501");
    set_id(Slot(quvo_shfe_slot(10)), "al2501");  // beyond the count
    set_id(Slot(quvo_ine_slot(2)), "sc2501");
    set_id(Slot(quvo_ine_slot(5)), "nr2501");  // beyond the count
    m_segments.pMdArea->shfe_inst_cnt = 4;
    m_segments.pMdArea->ine_inst_cnt = 3;

    EXPECT_EQ(m_reader.FindSlot("cu2501"), 3);
    EXPECT_EQ(m_reader.FindSlot("sc2501"), 20477);
    EXPECT_EQ(m_reader.FindSlot("abcdefghijklmno"), 0);
    EXPECT_EQ(m_reader.FindSlot("ABCDEFGHIJKLMNOP"), 1);
    EXPECT_EQ(m_reader.FindSlot("ABCDEFGHIJKLMNO"), -1);
    EXPECT_EQ(m_reader.FindSlot("cu250"), -1);
    EXPECT_EQ(m_reader.FindSlot("cu25011"), -1);
    EXPECT_EQ(m_reader.FindSlot("al2501"), -1);
    EXPECT_EQ(m_reader.FindSlot("nr2501"), -1);
    EXPECT_EQ(m_reader.FindSlot(" x"), -1);
    EXPECT_EQ(m_reader.FindSlot(""), -1);
    EXPECT_EQ(m_reader.ListSlots(), (std::vector<uint32_t>{0, 1, 3, 20477}));

    m_segments.pMdArea->shfe_inst_cnt = 11;
    m_segments.pMdArea->ine_inst_cnt = 6;
    EXPECT_EQ(m_reader.FindSlot("al2501"), 10);
    EXPECT_EQ(m_reader.FindSlot("nr2501"), 20474);
    EXPECT_EQ(m_reader.ListSlots(), (std::vector<uint32_t>{0, 1, 3, 10, 20477, 20474}));
}

TEST_F(ReaderTest, CountsAreBoundedByEachExchangesSlots) {
    m_segments.pMdArea->shfe_inst_cnt = 100000;
    m_segments.pMdArea->ine_inst_cnt = -5;
    EXPECT_EQ(m_reader.ShfeCount(), 16384u);
    EXPECT_EQ(m_reader.IneCount(), 0u);
    m_segments.pMdArea->ine_inst_cnt = 4097;
    EXPECT_EQ(m_reader.IneCount(), 4096u);
}

TEST_F(ReaderTest, FollowerStartsAtTheEndAndReadsAnnouncementsInOrder) {
    for (uint32_t slot = 0; slot < 5; ++slot) {
        m_ring.Publish(slot);
    }
    CRingFollower follower(m_reader.Ring());
    EXPECT_EQ(follower.Index(), 5);
    uint16_t slot = 4321;
    EXPECT_FALSE(follower.Next(slot));
    EXPECT_EQ(slot, 4321);

    m_ring.Publish(20479);
    m_ring.Publish(8);
    ASSERT_TRUE(follower.Next(slot));
    EXPECT_EQ(slot, 20479);
    ASSERT_TRUE(follower.Next(slot));
    EXPECT_EQ(slot, 8);
    EXPECT_FALSE(follower.Next(slot));
    m_ring.Publish(9);
    ASSERT_TRUE(follower.Next(slot));
    EXPECT_EQ(slot, 9);
    EXPECT_EQ(follower.Index(), 8);
}

TEST_F(ReaderTest, FollowerOnAFreshRingStartsAtZero) {
    EXPECT_EQ(CRingFollower(m_reader.Ring()).Index(), 0);
}

TEST_F(ReaderTest, FollowerCrossesTheWrapFrom65535ToZero) {
    for (uint32_t n = 0; n < 65530; ++n) {
        m_ring.Publish(n % 20480);
    }
    CRingFollower follower(m_reader.Ring());
    ASSERT_EQ(follower.Index(), 65530);
    for (uint32_t k = 0; k < 10; ++k) {
        m_ring.Publish(100 + k);
    }
    for (uint32_t k = 0; k < 10; ++k) {
        uint16_t slot = 0;
        ASSERT_TRUE(follower.Next(slot)) << "announcement " << k;
        EXPECT_EQ(slot, 100 + k);
    }
    uint16_t slot = 0;
    EXPECT_FALSE(follower.Next(slot));
    EXPECT_EQ(follower.Index(), 4);
}

TEST_F(ReaderTest, FollowerStartedAfterAFullLapFindsTheSingleEndMarker) {
    for (uint32_t n = 0; n < 2 * QUVO_UPDATE_RING_ENTRIES + 7; ++n) {
        m_ring.Publish(n % 20480);
    }
    CRingFollower follower(m_reader.Ring());
    EXPECT_EQ(follower.Index(), 7);
    m_ring.Publish(55);
    uint16_t slot = 0;
    ASSERT_TRUE(follower.Next(slot));
    EXPECT_EQ(slot, 55);
}

TEST_F(ReaderTest, FollowerCaughtBetweenTheTwoStoresOfTheLastEntryStartsThere) {
    uint16_t* entries = LeaveRingBetweenTheWrapStores();
    CRingFollower follower(m_reader.Ring());
    EXPECT_EQ(follower.Index(), 65535);
    entries[QUVO_UPDATE_RING_ENTRIES - 1] = 42;
    uint16_t slot = 0;
    ASSERT_TRUE(follower.Next(slot));
    EXPECT_EQ(slot, 42);
    EXPECT_EQ(follower.Index(), 0);
    EXPECT_FALSE(follower.Next(slot));
}

TEST_F(ReaderTest, FollowerNoticesARingResetByANewFeedAndRereadsFromZero) {
    for (uint32_t n = 0; n < 100; ++n) {
        m_ring.Publish(n);
    }
    CRingFollower follower(m_reader.Ring());
    ASSERT_EQ(follower.Index(), 100);
    // A new feed process: the ring refilled with end markers, three announcements.
    CUpdateRing restarted(m_segments.pUpdateRing);
    restarted.Reset();
    for (uint32_t slot : {7u, 8u, 9u}) {
        restarted.Publish(slot);
    }
    uint16_t slot = 0;
    EXPECT_FALSE(follower.Next(slot));
    EXPECT_TRUE(follower.CheckRestart());
    EXPECT_EQ(follower.Index(), 0);
    for (uint16_t expected : {7, 8, 9}) {
        ASSERT_TRUE(follower.Next(slot));
        EXPECT_EQ(slot, expected);
    }
    EXPECT_FALSE(follower.Next(slot));
    EXPECT_FALSE(follower.CheckRestart());
    EXPECT_EQ(follower.Index(), 3);
}

TEST_F(ReaderTest, FollowerSeesNoRestartAtTheEndOfARingThatWasNotReset) {
    CRingFollower fresh(m_reader.Ring());
    EXPECT_FALSE(fresh.CheckRestart());
    for (uint32_t n = 0; n < 5; ++n) {
        m_ring.Publish(n);
    }
    // Behind the end, with announcements still to read.
    EXPECT_FALSE(fresh.CheckRestart());
    EXPECT_EQ(fresh.Index(), 0);
    CRingFollower atEnd(m_reader.Ring());
    EXPECT_FALSE(atEnd.CheckRestart());
    EXPECT_EQ(atEnd.Index(), 5);
    for (uint32_t n = 0; n < 2 * QUVO_UPDATE_RING_ENTRIES; ++n) {
        m_ring.Publish(n % 20480);
    }
    CRingFollower afterLaps(m_reader.Ring());
    ASSERT_EQ(afterLaps.Index(), 5);
    EXPECT_FALSE(afterLaps.CheckRestart());
    EXPECT_EQ(afterLaps.Index(), 5);
}

TEST_F(ReaderTest, FollowerCaughtAtTheWrapSeesNoRestart) {
    LeaveRingBetweenTheWrapStores();
    CRingFollower follower(m_reader.Ring());
    ASSERT_EQ(follower.Index(), 65535);
    EXPECT_FALSE(follower.CheckRestart());
    EXPECT_EQ(follower.Index(), 65535);
}

TEST_F(ReaderTest, RecordReadAfterAnAnnouncementIsAtLeastAsNew) {
    // Fewer announcements than entries, so the follower cannot be lapped.
    constexpr uint32_t kAnnouncements = 50000;
    const uint32_t slots[2] = {quvo_shfe_slot(3), quvo_ine_slot(2)};
    CRingFollower follower(m_reader.Ring());
    std::thread writer([&] {
        for (uint32_t n = 1; n <= kAnnouncements; ++n) {
            __atomic_store_n(&Slot(slots[n % 2]).change_no, n, __ATOMIC_RELAXED);
            m_ring.Publish(slots[n % 2]);
        }
    });
    uint32_t wrongSlots = 0;
    uint32_t staleRecords = 0;
    for (uint32_t n = 1; n <= kAnnouncements;) {
        uint16_t slot = 0;
        if (!follower.Next(slot)) {
            std::this_thread::yield();
            continue;
        }
        wrongSlots += slot != slots[n % 2];
        staleRecords += __atomic_load_n(&m_reader.Area()->instmts[slot].change_no, __ATOMIC_RELAXED) < n;
        ++n;
    }
    writer.join();
    EXPECT_EQ(wrongSlots, 0u);
    EXPECT_EQ(staleRecords, 0u);
}

TEST_F(ReaderTest, SegmentsAreAttachedReadOnly) {
    const share* area = m_reader.Area();
    const uint16_t* ring = m_reader.Ring();
    // The sanitizers' own handler would turn the fault into an exit code.
    EXPECT_EXIT(
        {
            signal(SIGSEGV, SIG_DFL);
            const_cast<volatile int32_t&>(area->shfe_inst_cnt) = 7;
        },
        ::testing::KilledBySignal(SIGSEGV), "");
    EXPECT_EXIT(
        {
            signal(SIGSEGV, SIG_DFL);
            const_cast<volatile uint16_t&>(ring[0]) = 7;
        },
        ::testing::KilledBySignal(SIGSEGV), "");
    // The same stores through the feed's own attach succeed.
    EXPECT_EXIT(
        {
            const_cast<volatile int32_t&>(m_segments.pMdArea->shfe_inst_cnt) = 7;
            const_cast<volatile uint16_t&>(m_segments.pUpdateRing[0]) = 7;
            _exit(m_reader.Area()->shfe_inst_cnt == 7 && m_reader.Ring()[0] == 7 ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST_F(ReaderTest, DetachesBothSegmentsOnDestruction) {
    const long ring = CShmSandbox::AttachCount(m_sandbox.RingKeyPath());
    const long area = CShmSandbox::AttachCount(m_sandbox.AreaKeyPath());
    {
        CQuvoReader second;
        std::string error;
        ASSERT_TRUE(second.Attach(error)) << error;
        EXPECT_EQ(CShmSandbox::AttachCount(m_sandbox.RingKeyPath()), ring + 1);
        EXPECT_EQ(CShmSandbox::AttachCount(m_sandbox.AreaKeyPath()), area + 1);
    }
    EXPECT_EQ(CShmSandbox::AttachCount(m_sandbox.RingKeyPath()), ring);
    EXPECT_EQ(CShmSandbox::AttachCount(m_sandbox.AreaKeyPath()), area);
}

TEST_F(ReaderTest, AttachCountIncludesTheFeedAndEveryReader) {
    // The fixture's feed side and m_reader.
    EXPECT_EQ(m_reader.AttachCount(), 2);
    {
        CQuvoReader second;
        std::string error;
        ASSERT_TRUE(second.Attach(error)) << error;
        EXPECT_EQ(m_reader.AttachCount(), 3);
    }
    detach_shared_segments(m_segments);
    m_segments = SharedSegments{};
    EXPECT_EQ(m_reader.AttachCount(), 1);
    m_reader.Detach();
    EXPECT_EQ(m_reader.AttachCount(), -1);
}

TEST_F(ReaderTest, IsCurrentUntilTheSegmentsAreRemovedOrMadeAnew) {
    EXPECT_TRUE(m_reader.IsCurrent());
    detach_shared_segments(m_segments);
    m_segments = SharedSegments{};
    // The feed gone but its segments kept: still the current ones.
    EXPECT_TRUE(m_reader.IsCurrent());
    ASSERT_EQ(shmctl(CShmSandbox::SegmentId(m_sandbox.AreaKeyPath()), IPC_RMID, nullptr), 0);
    EXPECT_FALSE(m_reader.IsCurrent());
    // A new feed makes them anew under the same key files.
    m_segments = attach_shared_segments();
    EXPECT_FALSE(m_reader.IsCurrent());
    std::string error;
    ASSERT_TRUE(m_reader.Attach(error)) << error;
    EXPECT_TRUE(m_reader.IsCurrent());
    m_reader.Detach();
    EXPECT_FALSE(m_reader.IsCurrent());
}

TEST_F(ReaderTest, ConsistentCopyReturnsTheRecord) {
    instrument& source = Slot(quvo_ine_slot(0));
    set_id(source, "sc2501");
    source.last_px = 512.1;
    source.ask_px[9] = 530.0;
    source.change_no = 77;
    instrument copy{};
    ASSERT_TRUE(quvo_copy_consistent(m_reader.Area()->instmts[quvo_ine_slot(0)], copy));
    EXPECT_EQ(memcmp(&copy, &source, sizeof(copy)), 0);
}

// Attach failures, each with its own message; nothing stays attached.
class ReaderAttachErrorTest : public ::testing::Test {
protected:
    std::string AttachError() {
        CQuvoReader reader;
        std::string error;
        EXPECT_FALSE(reader.Attach(error));
        EXPECT_FALSE(reader.IsAttached());
        EXPECT_EQ(reader.Area(), nullptr);
        return error;
    }

    CShmSandbox m_sandbox;
};

TEST_F(ReaderAttachErrorTest, MissingKeyFileNamesItAndQuvoKeyDir) {
    ASSERT_EQ(unlink(m_sandbox.RingKeyPath().c_str()), 0);
    EXPECT_EQ(AttachError(),
              "key file " + m_sandbox.RingKeyPath() + " does not exist: is QUVO_KEY_DIR right?");
}

TEST_F(ReaderAttachErrorTest, MissingAreaKeyFileLeavesTheRingDetached) {
    char* ring = create_shm(m_sandbox.RingKeyPath().c_str(), QUVO_UPDATE_RING_SIZE);
    ASSERT_EQ(unlink(m_sandbox.AreaKeyPath().c_str()), 0);
    EXPECT_EQ(AttachError(),
              "key file " + m_sandbox.AreaKeyPath() + " does not exist: is QUVO_KEY_DIR right?");
    EXPECT_EQ(CShmSandbox::AttachCount(m_sandbox.RingKeyPath()), 1);
    free_shm(ring);
}

TEST_F(ReaderAttachErrorTest, MissingSegmentAsksWhetherTheFeedRuns) {
    EXPECT_EQ(AttachError(), "no market-data segment for key file " + m_sandbox.RingKeyPath() +
                                 ": is quvo-md running on this host?");
    EXPECT_EQ(CShmSandbox::SegmentId(m_sandbox.RingKeyPath()), -1);
}

TEST_F(ReaderAttachErrorTest, SegmentOfAnotherSizeGivesBothSizes) {
    char* ring = create_shm(m_sandbox.RingKeyPath().c_str(), QUVO_UPDATE_RING_SIZE);
    ASSERT_GE(shmget(ftok(m_sandbox.AreaKeyPath().c_str(), QUVO_SHM_PROJ_ID), 4096, IPC_CREAT | 0600), 0);
    EXPECT_EQ(AttachError(), "the segment for key file " + m_sandbox.AreaKeyPath() +
                                 " is 4096 bytes, expected 6881296 bytes");
    EXPECT_EQ(CShmSandbox::AttachCount(m_sandbox.RingKeyPath()), 1);
    EXPECT_EQ(CShmSandbox::AttachCount(m_sandbox.AreaKeyPath()), 0);
    free_shm(ring);
}

TEST_F(ReaderAttachErrorTest, RefusedAttachGivesTheSystemsReason) {
    ASSERT_GE(
        shmget(ftok(m_sandbox.RingKeyPath().c_str(), QUVO_SHM_PROJ_ID), QUVO_UPDATE_RING_SIZE, IPC_CREAT | 0),
        0);
    // The segment grants no one access; the attach runs as an ordinary user,
    // since root may attach anything.
    ASSERT_EQ(chmod(m_sandbox.Dir().c_str(), 0755), 0);
    ASSERT_EQ(chmod((m_sandbox.Dir() + "/..").c_str(), 0755), 0);
    const std::string expected = "^cannot attach the segment for key file " + m_sandbox.RingKeyPath() +
                                 " read-only: Permission denied\n$";
    EXPECT_EXIT(
        {
            if (geteuid() == 0 && setuid(65534) != 0) {
                _exit(3);
            }
            CQuvoReader reader;
            std::string error;
            fprintf(stderr, "%s\n", reader.Attach(error) ? "attached" : error.c_str());
            _exit(1);
        },
        ::testing::ExitedWithCode(1), expected);
}

TEST(ConsistentCopyTest, GivesUpWhenNoTwoSuccessiveCopiesAgree) {
    instrument source{};
    unsigned calls = 0;
    auto changing = [&](const instrument& from, instrument& to) {
        memcpy(&to, &from, sizeof(to));
        to.change_no = ++calls;
    };
    instrument out{};
    EXPECT_FALSE(quvo_copy_consistent(source, out, 16, changing));
    EXPECT_EQ(calls, 16u);
    EXPECT_EQ(out.change_no, 16u);

    calls = 0;
    EXPECT_FALSE(quvo_copy_consistent(source, out, 1, changing));
    EXPECT_EQ(calls, 0u);
}

TEST(ConsistentCopyTest, StopsAtTheFirstTwoCopiesThatAgree) {
    instrument source{};
    source.last_px = 72010.0;
    unsigned calls = 0;
    // Copies 1, 2, 2, 2 ...: the second and third agree.
    auto settling = [&](const instrument& from, instrument& to) {
        memcpy(&to, &from, sizeof(to));
        ++calls;
        to.change_no = calls < 2 ? calls : 2;
    };
    instrument out{};
    EXPECT_TRUE(quvo_copy_consistent(source, out, 16, settling));
    EXPECT_EQ(calls, 3u);
    EXPECT_EQ(out.change_no, 2u);
    EXPECT_EQ(out.last_px, 72010.0);

    calls = 0;
    EXPECT_FALSE(quvo_copy_consistent(source, out, 2, settling));
    EXPECT_EQ(calls, 2u);
}

}  // namespace
