// One worker thread named "PktHdr" with a FIFO task queue: the snapshot
// frames are handed to it one by one and processed in arrival order.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>

class CThread {
public:
    CThread();
    // Stops after every queued task has run, then joins (see Join).
    ~CThread();
    CThread(const CThread&) = delete;
    CThread& operator=(const CThread&) = delete;

    // Queues `f`; its result arrives through the returned future. Throws
    // std::runtime_error("Enqueue on stopped CThread") after Join.
    template <typename F>
    auto Enqueue(F&& f) -> std::future<decltype(f())> {
        using Result = decltype(f());
        auto task = std::make_shared<std::packaged_task<Result()>>(std::forward<F>(f));
        std::future<Result> result = task->get_future();
        {
            std::unique_lock<std::mutex> lock(queueMutex);
            if (stop) {
                throw std::runtime_error("Enqueue on stopped CThread");
            }
            tasks.emplace_back([task] { (*task)(); });
        }
        condition.notify_one();
        return result;
    }

    // Sets the stop flag, lets the worker finish the queue and joins it. A
    // join failure is reported on standard error and otherwise ignored.
    void Join();

private:
    void _Run();

    std::thread worker;
    std::deque<std::function<void()>> tasks;
    std::mutex queueMutex;
    std::condition_variable condition;
    bool stop;
};
