// quvo-md killed with SIGKILL while live, with readers attached: a C++ reader
// in this process (CQuvoReader with a ring follower) and quvo-view in tmux.
// While no feed runs both keep the last books; a successor started on the
// same key files starts normally, and both readers notice the new run and
// follow it.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "interface/quvoreader.h"
#include "tests/support/BookCheck.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Poll.h"
#include "tests/support/Records.h"
#include "tests/support/ShmSandbox.h"
#include "tests/support/TempDir.h"
#include "tests/support/TextUtil.h"
#include "tests/support/TmuxPane.h"
#include "tests/support/ViewScreen.h"

namespace {

// Generous: under the sanitizers every process here runs several times slower.
constexpr double kTimeoutSeconds = 60;

// The books and counts as they are now.
std::string area_bytes(const CQuvoReader& reader) {
    return std::string(reinterpret_cast<const char*>(reader.Area()), sizeof(share));
}

class KillE2E : public ::testing::Test {
protected:
    std::unique_ptr<CChildProcess> StartFeed(const std::string& name, const std::string& market) {
        const std::string config = m_dir.WriteFile(
            name + ".ini", "[config]\ndevice = sim:shfe=200,ine=40," + market +
                               "\ncpucore = -1\ninsts = all\nshfe2ps = enabled\nine2ps = enabled\n");
        return std::make_unique<CChildProcess>(std::vector<std::string>{QUVO_MD_PATH, config}, m_dir.Path(),
                                               Output(name));
    }
    std::string Output(const std::string& name) const { return m_dir.Path() + "/" + name + ".out"; }

    bool WaitForLog(const std::string& name, const std::string& text) {
        return wait_for_text(Output(name), text, kTimeoutSeconds, 10);
    }

    // Reads at most `limit` announcements, up to the end marker; each must
    // name a slot in use. Returns how many.
    static size_t Read(CRingFollower& follower, const CQuvoReader& reader, size_t limit) {
        size_t read = 0;
        uint16_t slot;
        while (read < limit && follower.Next(slot)) {
            ++read;
            EXPECT_TRUE(slot < QUVO_INST_SLOTS && quvo_slot_in_use(reader.Area()->instmts[slot])) << slot;
        }
        return read;
    }

    // Reads announcements until `wanted` were read; returns how many.
    size_t Follow(CRingFollower& follower, const CQuvoReader& reader, size_t wanted) {
        size_t read = 0;
        poll_until(
            [&] {
                read += Read(follower, reader, wanted - read);
                return read >= wanted;
            },
            kTimeoutSeconds, 1);
        return read;
    }

    // Reads the announcements up to the end marker; returns how many.
    static size_t Drain(CRingFollower& follower, const CQuvoReader& reader) {
        return Read(follower, reader, SIZE_MAX);
    }

    // Copies of the area until two agree, once the feed has stopped moving it.
    static std::string SettledArea(const CQuvoReader& reader) {
        std::string area;
        if (!wait_settled([&] { return area_bytes(reader); }, kTimeoutSeconds, 300, area)) {
            ADD_FAILURE() << "the books did not settle";
        }
        return area;
    }

    CShmSandbox m_shm;
    CTempDir m_dir;
};

TEST_F(KillE2E, ReadersKeepTheBooksThenFollowTheSuccessor) {
    std::unique_ptr<CChildProcess> first = StartFeed("first", "rate=3000,seed=1");
    ASSERT_TRUE(WaitForLog("first", "process decode buffer")) << read_file(Output("first"));
    CQuvoReader reader;
    std::string error;
    ASSERT_TRUE(reader.Attach(error)) << error;
    CRingFollower follower(reader.Ring());
    ASSERT_EQ(Follow(follower, reader, 1000), 1000u);
    const std::vector<uint32_t> slots = reader.ListSlots();
    ASSERT_FALSE(slots.empty());
    const std::string id = id_of(reader.Area()->instmts[slots[0]]);

    CTmuxPane view(QUVO_TMUX_PATH, m_dir.Path(),
                   "exec env " QUVO_KEY_DIR_ENV "=" + m_shm.Dir() + " " + QUVO_VIEW_PATH, 160, 30);
    ASSERT_TRUE(view.Started());
    view.WaitScreen(
        [&](const std::vector<std::string>& s) {
            return !s.empty() && contains(s[0], "quvo-md live") && status_counts_updates(s)
                       ? ""
                       : std::string("the view does not follow the live feed");
        },
        kTimeoutSeconds);

    first->Signal(SIGKILL);
    int status = -1;
    ASSERT_TRUE(first->Wait(kTimeoutSeconds, status));
    ASSERT_EQ(status, 128 + SIGKILL);
    const std::string left = area_bytes(reader);
    const instrument& record = reader.Area()->instmts[slots[0]];
    const std::string volume = std::to_string(record.volume);
    size_t quoted = 0;
    for (const uint32_t slot : slots) {
        const instrument& inst = reader.Area()->instmts[slot];
        quoted += inst.bid_vol[0] > 0 || inst.ask_vol[0] > 0 ? 1 : 0;
    }
    EXPECT_GT(quoted, 0u);
    Drain(follower, reader);

    // No feed runs: the books stay as the killed feed left them.
    const std::vector<std::string> kept = view.WaitScreen(
        [&](const std::vector<std::string>& s) {
            if (s.empty() || !contains(s[0], " 0 updates/s") || contains(s[0], "quvo-md live")) {
                return std::string("the status does not show the feed quiet");
            }
            return list_cell(s, id, kVolume) == volume && list_cell(s, id, kRate) == "0"
                       ? ""
                       : id + " does not show the books left, volume " + volume;
        },
        kTimeoutSeconds);
    usleep(1000 * 1000);
    const std::vector<std::string> later = view.Screen();
    ASSERT_EQ(later.size(), kept.size());
    for (size_t y = 1; y < later.size(); ++y) {
        EXPECT_EQ(later[y], kept[y]) << "line " << y;
    }
    EXPECT_TRUE(area_bytes(reader) == left) << "the books changed with no feed running";
    uint16_t slot;
    EXPECT_FALSE(follower.Next(slot));
    EXPECT_FALSE(follower.CheckRestart());

    // The successor on the same key files: the killed feed's lock went with it.
    std::unique_ptr<CChildProcess> second = StartFeed("second", "rate=3000,records=6000,seed=2");
    bool restarted = false;
    poll_until(
        [&] {
            restarted = second->Running() && follower.CheckRestart();
            return restarted || !second->Running();
        },
        kTimeoutSeconds, 1);
    ASSERT_TRUE(restarted) << read_file(Output("second"));
    EXPECT_EQ(follower.Index(), 0u);
    ASSERT_TRUE(WaitForLog("second", "initialization completed")) << read_file(Output("second"));
    ASSERT_EQ(Follow(follower, reader, 500), 500u);
    view.WaitScreen(
        [&](const std::vector<std::string>& s) {
            return !s.empty() && contains(s[0], "quvo-md live") && status_counts_updates(s)
                       ? ""
                       : std::string("the view does not follow the new run");
        },
        kTimeoutSeconds);

    // Once the new market stops, both readers hold the new run's books: the
    // follower read every announcement of it from the ring's first entry.
    const std::string settled = SettledArea(reader);
    EXPECT_FALSE(settled == left) << "the new run changed nothing";
    EXPECT_GT(Drain(follower, reader), 0u);
    size_t announced = 0;
    const std::vector<std::string> problems = check_ring(reader.Ring(), *reader.Area(), announced);
    EXPECT_TRUE(problems.empty()) << problems.front();
    EXPECT_EQ(follower.Index(), announced);
    // The new run may give the first slot to another instrument.
    const instrument& now = reader.Area()->instmts[reader.ListSlots()[0]];
    const std::string newId = id_of(now);
    const std::string newVolume = std::to_string(now.volume);
    view.WaitScreen(
        [&](const std::vector<std::string>& s) {
            return list_cell(s, newId, kVolume) == newVolume ? ""
                                                             : newId + " does not show volume " + newVolume;
        },
        kTimeoutSeconds);
    EXPECT_TRUE(second->Running());
    second->Signal(SIGINT);
    ASSERT_TRUE(second->Wait(kTimeoutSeconds, status));
    EXPECT_EQ(status, 0) << read_file(Output("second"));
}

}  // namespace
