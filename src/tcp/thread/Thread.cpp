#include "src/tcp/thread/Thread.h"

#include <pthread.h>

#include <cstdio>

CThread::CThread() : stop(false) {
    try {
        worker = std::thread([this] { _Run(); });
    } catch (const std::exception& e) {
        fprintf(stderr, "Failed to start thread: %s\n", e.what());
    }
}

CThread::~CThread() {
    Join();
}

void CThread::Join() {
    {
        std::unique_lock<std::mutex> lock(queueMutex);
        stop = true;
    }
    condition.notify_all();
    if (worker.joinable()) {
        try {
            worker.join();
        } catch (const std::exception& e) {
            fprintf(stderr, "Failed to join thread: %s\n", e.what());
        }
    }
}

void CThread::_Run() {
    pthread_setname_np(pthread_self(), "PktHdr");
    for (;;) {
        std::function<void()> task;
        {
            std::unique_lock<std::mutex> lock(queueMutex);
            condition.wait(lock, [this] { return stop || !tasks.empty(); });
            if (stop && tasks.empty()) {
                return;
            }
            task = std::move(tasks.front());
            tasks.pop_front();
        }
        task();
    }
}
