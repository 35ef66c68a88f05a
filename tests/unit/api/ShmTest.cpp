#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "src/api/SharedSegments.h"
#include "src/api/shfe_recv.h"
#include "tests/support/Seccomp.h"
#include "tests/support/ShmSandbox.h"

namespace {

// Anchored, with standard output sent to standard error inside the dying
// process, so these also show that nothing reaches the log on these paths.
constexpr const char* kDriverAdvice =
    "Please update the network card's driver[^\n]*download page[^\n]*retry\\.\n";
constexpr const char* kContactAdvice = "If the problem persists, contact quvo-md support[^\n]*\n";

std::string WithBothAdviceLines(const std::string& perrorLine) {
    return "^" + perrorLine + "\n" + kDriverAdvice + kContactAdvice + "$";
}

// Death tests fork ("fast" style) so the child uses this sandbox and the
// parent removes what the child created.
class ShmTest : public ::testing::Test {
protected:
    CShmSandbox m_sandbox;
};

TEST_F(ShmTest, KeyPathsDefaultToEtc) {
    unsetenv(QUVO_KEY_DIR_ENV);
    EXPECT_EQ(shm_key_path("key_f"), "/etc/key_f");
    EXPECT_EQ(shm_key_path("key_e"), "/etc/key_e");
    setenv(QUVO_KEY_DIR_ENV, "", 1);
    EXPECT_EQ(shm_key_path("key_e"), "/etc/key_e");
}

TEST_F(ShmTest, KeyPathsFollowQuvoKeyDir) {
    setenv(QUVO_KEY_DIR_ENV, "/var/run/quvo", 1);
    EXPECT_EQ(shm_key_path("key_f"), "/var/run/quvo/key_f");
    setenv(QUVO_KEY_DIR_ENV, "/var/run/quvo/", 1);
    EXPECT_EQ(shm_key_path("key_e"), "/var/run/quvo/key_e");
}

TEST_F(ShmTest, CreatesSegmentOfRequestedSizeWithMode0777) {
    char* addr = create_shm(m_sandbox.RingKeyPath().c_str(), QUVO_UPDATE_RING_SIZE);
    const int id = CShmSandbox::SegmentId(m_sandbox.RingKeyPath());
    ASSERT_GE(id, 0);
    struct shmid_ds info {};
    ASSERT_EQ(shmctl(id, IPC_STAT, &info), 0);
    EXPECT_EQ(info.shm_segsz, QUVO_UPDATE_RING_SIZE);
    EXPECT_EQ(info.shm_perm.mode & 0777, 0777u);
    const key_t key = ftok(m_sandbox.RingKeyPath().c_str(), 'R');
    EXPECT_EQ(info.shm_perm.__key, key);
    addr[0] = 1;
    addr[QUVO_UPDATE_RING_SIZE - 1] = 2;
    EXPECT_EQ(addr[QUVO_UPDATE_RING_SIZE - 1], 2);
    free_shm(addr);
}

TEST_F(ShmTest, SecondAttachReusesTheSameSegment) {
    char* first = create_shm(m_sandbox.AreaKeyPath().c_str(), QUVO_MD_AREA_SIZE);
    const int id = CShmSandbox::SegmentId(m_sandbox.AreaKeyPath());
    char* second = create_shm(m_sandbox.AreaKeyPath().c_str(), QUVO_MD_AREA_SIZE);
    EXPECT_EQ(CShmSandbox::SegmentId(m_sandbox.AreaKeyPath()), id);
    EXPECT_EQ(CShmSandbox::AttachCount(m_sandbox.AreaKeyPath()), 2);
    strcpy(first + 100, "written through the first attach");
    EXPECT_STREQ(second + 100, "written through the first attach");
    free_shm(second);
    free_shm(first);
}

TEST_F(ShmTest, SecondProcessAttachesToTheSameSegments) {
    SharedSegments segments = attach_shared_segments();
    const int ringId = CShmSandbox::SegmentId(m_sandbox.RingKeyPath());
    const int areaId = CShmSandbox::SegmentId(m_sandbox.AreaKeyPath());

    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        SharedSegments other = attach_shared_segments();
        const bool same = CShmSandbox::SegmentId(m_sandbox.RingKeyPath()) == ringId &&
                          CShmSandbox::SegmentId(m_sandbox.AreaKeyPath()) == areaId;
        other.pMdArea->shfe_inst_cnt = 77;
        other.pUpdateRing[5] = 1234;
        detach_shared_segments(other);
        _exit(same ? 0 : 3);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(segments.pMdArea->shfe_inst_cnt, 77);
    EXPECT_EQ(segments.pUpdateRing[5], 1234);
    detach_shared_segments(segments);
}

TEST_F(ShmTest, AttachFillsTheRingWithEndMarkersAndKeepsTheArea) {
    SharedSegments first = attach_shared_segments();
    memset(first.pUpdateRing, 0x11, QUVO_UPDATE_RING_SIZE);
    memset(first.pMdArea, 0x22, QUVO_MD_AREA_SIZE);
    detach_shared_segments(first);

    SharedSegments again = attach_shared_segments();
    for (uint32_t i = 0; i < QUVO_UPDATE_RING_ENTRIES; ++i) {
        ASSERT_EQ(again.pUpdateRing[i], QUVO_UPDATE_RING_END) << "entry " << i;
    }
    const unsigned char* area = reinterpret_cast<const unsigned char*>(again.pMdArea);
    for (size_t i = 0; i < QUVO_MD_AREA_SIZE; ++i) {
        ASSERT_EQ(area[i], 0x22) << "byte " << i;
    }
    detach_shared_segments(again);
}

TEST_F(ShmTest, DetachLeavesTheSegmentsAndTheirContents) {
    SharedSegments segments = attach_shared_segments();
    segments.pMdArea->ine_pktno = 4242;
    detach_shared_segments(segments);
    EXPECT_GE(CShmSandbox::SegmentId(m_sandbox.RingKeyPath()), 0);
    EXPECT_GE(CShmSandbox::SegmentId(m_sandbox.AreaKeyPath()), 0);
    EXPECT_EQ(CShmSandbox::AttachCount(m_sandbox.AreaKeyPath()), 0);

    share* area = reinterpret_cast<share*>(create_shm(m_sandbox.AreaKeyPath().c_str(), QUVO_MD_AREA_SIZE));
    EXPECT_EQ(area->ine_pktno, 4242);
    free_shm(reinterpret_cast<char*>(area));
}

TEST_F(ShmTest, MissingKeyFileExitsWithAttachFailureAndBothAdviceLines) {
    const std::string missing = m_sandbox.Dir() + "/no_such_key";
    EXPECT_EXIT(
        {
            dup2(STDERR_FILENO, STDOUT_FILENO);
            create_shm(missing.c_str(), QUVO_UPDATE_RING_SIZE);
        },
        ::testing::ExitedWithCode(1),
        WithBothAdviceLines("failed to attach memory: No such file or directory"));
}

TEST_F(ShmTest, RefusedSegmentExitsWithAccessFailureAndBothAdviceLines) {
    // A smaller segment already holds the key, so a larger request is refused.
    const key_t key = ftok(m_sandbox.AreaKeyPath().c_str(), QUVO_SHM_PROJ_ID);
    ASSERT_GE(shmget(key, 4096, IPC_CREAT | 0777), 0);
    EXPECT_EXIT(
        {
            dup2(STDERR_FILENO, STDOUT_FILENO);
            create_shm(m_sandbox.AreaKeyPath().c_str(), QUVO_MD_AREA_SIZE);
        },
        ::testing::ExitedWithCode(1), WithBothAdviceLines("failed to access memory: Invalid argument"));
}

TEST_F(ShmTest, RefusedAttachExitsWithAttachFailureAndOnlyTheContactLine) {
    EXPECT_EXIT(
        {
            dup2(STDERR_FILENO, STDOUT_FILENO);
            if (!deny_syscall(SYS_shmat, EACCES)) {
                fputs("seccomp filter not installed\n", stderr);
                _exit(2);
            }
            create_shm(m_sandbox.AreaKeyPath().c_str(), QUVO_MD_AREA_SIZE);
        },
        ::testing::ExitedWithCode(1),
        std::string("^failed to attach memory: Permission denied\n") + kContactAdvice + "$");
}

TEST_F(ShmTest, FailedDetachExitsWithFreeFailure) {
    static char notAttached[4096];
    EXPECT_EXIT(
        {
            dup2(STDERR_FILENO, STDOUT_FILENO);
            free_shm(notAttached);
        },
        ::testing::ExitedWithCode(1), "^failed to free memory: Invalid argument\n$");
}

void RecordUpdate(instrument*) {}

TEST_F(ShmTest, SetUpdateMdCallbackStoresThePointer) {
    EXPECT_EQ(update_md, nullptr);
    set_update_md_callback(RecordUpdate);
    EXPECT_EQ(update_md, &RecordUpdate);
    set_update_md_callback(nullptr);
    EXPECT_EQ(update_md, nullptr);
}

}  // namespace
