// The status board: how the front end's loop hands a status snapshot to the
// HTTP thread without either waiting on the other's clients.
//
// The HTTP side asks with fresh(); when the last snapshot is older than
// max_age it raises a flag, wakes the loop and waits at most `patience`
// seconds for the next one. The loop looks at wanted() once per pass (one
// atomic load) and, when raised, builds a snapshot and publish()es it. Many
// HTTP clients at once therefore cost the loop at most one snapshot per
// max_age. Snapshots are immutable once published and shared by pointer.
#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>

#include "status/status.h"

class StatusBoard {
public:
    using Ptr = std::shared_ptr<const status::Snapshot>;

    // Called (from the HTTP thread) to make the loop look at the board.
    void set_wake(std::function<void()> wake);

    // HTTP side. Null only when the loop never answered.
    Ptr fresh(double max_age, double patience);

    // Loop side.
    bool wanted() const { return wanted_.load(std::memory_order_relaxed); }
    void publish(status::Snapshot snapshot);

private:
    std::mutex mu_;
    std::condition_variable cv_;
    std::function<void()> wake_;
    Ptr latest_;
    double published_at_ = 0;   // monotonic
    std::atomic<bool> wanted_{false};
};
