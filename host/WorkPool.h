// A bounded pool of threads for the method calls of one command. Tasks may
// post further tasks; wait() returns once every task posted has run. With
// one worker no thread is made at all: each task runs as it is posted, in
// the caller's thread, so the calls happen in exactly the order a serial
// host makes them.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace implvm {

class WorkPool {
public:
    explicit WorkPool(int workers);
    ~WorkPool();  // waits for every task, then ends the threads
    WorkPool(const WorkPool&) = delete;
    WorkPool& operator=(const WorkPool&) = delete;

    // A task must not throw: what it finds, it writes into its own slot.
    void post(std::function<void()> task);
    void wait();

    // The default number of workers: the processors there are, 1 to 8.
    static int DefaultWorkers();

private:
    void work();

    std::mutex mutex_;
    std::condition_variable ready_;  // a task was posted, or the pool ends
    std::condition_variable idle_;   // the last running task ended
    std::deque<std::function<void()>> tasks_;
    size_t running_ = 0;
    bool ending_ = false;
    std::vector<std::thread> threads_;
};

}  // namespace implvm
