// One background thread that runs one job at a time, so that a digest can
// proceed on the second core while the calling thread copies or writes.
// start() hands over a job and returns at once; wait() returns when it is
// done. One caller thread; start() first waits for the job before.
#pragma once

#include <pthread.h>
#include <sched.h>

#include <condition_variable>
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
    Worker() : thread_([this] { loop(); }) {}
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

    void start(std::function<void()> job) {
        wait();
        {
            std::lock_guard<std::mutex> lock(mutex_);
            job_ = std::move(job);
            busy_ = true;
        }
        wake_.notify_all();
    }

    void wait() {
        std::unique_lock<std::mutex> lock(mutex_);
        done_.wait(lock, [this] { return !busy_; });
    }

private:
    void loop() {
        background_thread();
        std::unique_lock<std::mutex> lock(mutex_);
        for (;;) {
            wake_.wait(lock, [this] { return quit_ || (busy_ && job_); });
            if (quit_) return;
            auto job = std::move(job_);
            job_ = nullptr;
            lock.unlock();
            job();
            lock.lock();
            busy_ = false;
            done_.notify_all();
        }
    }

    std::mutex mutex_;
    std::condition_variable wake_, done_;
    std::function<void()> job_;
    bool busy_ = false, quit_ = false;
    std::thread thread_;
};
