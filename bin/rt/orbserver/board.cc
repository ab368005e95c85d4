#include "board.h"

#include <chrono>

namespace {

double monotonic() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

}  // namespace

void StatusBoard::set_wake(std::function<void()> wake) {
    std::lock_guard<std::mutex> lock(mu_);
    wake_ = std::move(wake);
}

StatusBoard::Ptr StatusBoard::fresh(double max_age, double patience) {
    std::unique_lock<std::mutex> lock(mu_);
    double asked = monotonic();
    if (latest_ && asked - published_at_ <= max_age) return latest_;
    wanted_.store(true, std::memory_order_relaxed);
    if (wake_) wake_();
    cv_.wait_for(lock, std::chrono::duration<double>(patience), [&] { return published_at_ >= asked; });
    return latest_;
}

void StatusBoard::publish(status::Snapshot snapshot) {
    auto p = std::make_shared<const status::Snapshot>(std::move(snapshot));
    {
        std::lock_guard<std::mutex> lock(mu_);
        wanted_.store(false, std::memory_order_relaxed);
        latest_ = std::move(p);
        published_at_ = monotonic();
    }
    cv_.notify_all();
}
