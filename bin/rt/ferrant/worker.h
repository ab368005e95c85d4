// One background thread that runs jobs in the order they were handed over,
// so that a digest can proceed on the second core while the calling thread
// copies or writes. start() queues a job and returns at once, first waiting
// while `capacity` jobs are still outstanding (with the default of one it
// waits for the job before); each job has a ticket to wait for. One caller
// thread.
#pragma once

#include <pthread.h>
#include <sched.h>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

// Marks the calling thread as a batch thread, which does not preempt a
// running thread when it wakes: the digesting thread keeps its core rather
// than yielding it to every helper it signals.
inline void background_thread() {
    sched_param none{};
    pthread_setschedparam(pthread_self(), SCHED_BATCH, &none);
}

class Worker {
public:
    explicit Worker(uint64_t capacity = 1) : capacity_(capacity), thread_([this] { loop(); }) {}
    ~Worker() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            quit_ = true;
        }
        wake_.notify_all();
        thread_.join();
    }
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    uint64_t start(std::function<void()> job) {
        uint64_t ticket;
        {
            std::unique_lock<std::mutex> lock(mutex_);
            done_.wait(lock, [this] { return queued_ - finished_ < capacity_; });
            jobs_.push_back(std::move(job));
            ticket = ++queued_;
        }
        wake_.notify_all();
        return ticket;
    }

    bool finished(uint64_t ticket) {
        std::lock_guard<std::mutex> lock(mutex_);
        return finished_ >= ticket;
    }

    void wait(uint64_t ticket) {
        std::unique_lock<std::mutex> lock(mutex_);
        done_.wait(lock, [this, ticket] { return finished_ >= ticket; });
    }

    // Until every job handed over so far is done.
    void wait() {
        std::unique_lock<std::mutex> lock(mutex_);
        done_.wait(lock, [this] { return finished_ == queued_; });
    }

private:
    void loop() {
        background_thread();
        std::unique_lock<std::mutex> lock(mutex_);
        for (;;) {
            wake_.wait(lock, [this] { return quit_ || !jobs_.empty(); });
            if (quit_) return;
            auto job = std::move(jobs_.front());
            jobs_.pop_front();
            lock.unlock();
            job();
            lock.lock();
            finished_++;
            done_.notify_all();
        }
    }

    std::mutex mutex_;
    std::condition_variable wake_, done_;
    std::deque<std::function<void()>> jobs_;
    uint64_t queued_ = 0, finished_ = 0;
    const uint64_t capacity_;
    bool quit_ = false;
    std::thread thread_;
};
