#include "WorkPool.h"

#include <algorithm>

#ifdef __GLIBC__
#include <malloc.h>
#endif

namespace implvm {

WorkPool::WorkPool(int workers) {
    if (workers <= 1) return;
#ifdef __GLIBC__
    // glibc gives each thread that allocates an arena of its own, which
    // doubles a survey's peak memory for calls that mostly wait on tools;
    // two arenas keep the contention low and the memory flat.
    ::mallopt(M_ARENA_MAX, 2);
#endif
    threads_.reserve(static_cast<size_t>(workers));
    for (int i = 0; i < workers; ++i) threads_.emplace_back([this] { work(); });
}

WorkPool::~WorkPool() {
    wait();
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        ending_ = true;
    }
    ready_.notify_all();
    for (std::thread& thread : threads_) thread.join();
}

void WorkPool::post(std::function<void()> task) {
    if (threads_.empty()) {
        task();
        return;
    }
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        tasks_.push_back(std::move(task));
    }
    ready_.notify_one();
}

void WorkPool::wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    idle_.wait(lock, [this] { return tasks_.empty() && running_ == 0; });
}

int WorkPool::DefaultWorkers() {
    const unsigned processors = std::thread::hardware_concurrency();
    return static_cast<int>(std::clamp(processors, 1u, 8u));
}

void WorkPool::work() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        ready_.wait(lock, [this] { return ending_ || !tasks_.empty(); });
        if (tasks_.empty()) return;  // ending, and nothing left
        std::function<void()> task = std::move(tasks_.front());
        tasks_.pop_front();
        ++running_;
        lock.unlock();
        task();
        task = nullptr;  // what it captured goes before the pool counts it done
        lock.lock();
        --running_;
        if (running_ == 0 && tasks_.empty()) idle_.notify_all();
    }
}

}  // namespace implvm
