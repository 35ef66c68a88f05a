#include "src/tcp/thread/Thread.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <string>
#include <vector>

namespace {

TEST(ThreadTest, RunsTasksInOrderOnAThreadNamedPktHdr) {
    CThread worker;
    std::vector<int> order;
    std::string name;
    for (int i = 0; i < 100; ++i) {
        worker.Enqueue([&order, i] { order.push_back(i); });
    }
    worker
        .Enqueue([&name] {
            char buf[16] = {};
            pthread_getname_np(pthread_self(), buf, sizeof(buf));
            name = buf;
        })
        .wait();
    EXPECT_EQ(name, "PktHdr");
    ASSERT_EQ(order.size(), 100u);
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(order[i], i);
    }
}

TEST(ThreadTest, EnqueueReturnsTheTasksResult) {
    CThread worker;
    EXPECT_EQ(worker.Enqueue([] { return 6 * 7; }).get(), 42);
}

TEST(ThreadTest, JoinRunsEveryQueuedTaskFirst) {
    std::atomic<int> ran{0};
    std::atomic<bool> release{false};
    CThread worker;
    worker.Enqueue([&] {
        while (!release.load()) {
        }
        ++ran;
    });
    for (int i = 0; i < 50; ++i) {
        worker.Enqueue([&] { ++ran; });
    }
    release = true;
    worker.Join();
    EXPECT_EQ(ran.load(), 51);
}

TEST(ThreadTest, EnqueueAfterJoinThrows) {
    CThread worker;
    worker.Join();
    try {
        worker.Enqueue([] {});
        FAIL() << "no exception";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "Enqueue on stopped CThread");
    }
}

TEST(ThreadTest, JoiningTwiceKeepsTheThreadStoppedAfterItsWork) {
    std::atomic<int> ran{0};
    CThread worker;
    worker.Enqueue([&ran] { ++ran; });
    worker.Join();
    worker.Join();
    EXPECT_EQ(ran.load(), 1);
    EXPECT_THROW(worker.Enqueue([] {}), std::runtime_error);
}

}  // namespace
