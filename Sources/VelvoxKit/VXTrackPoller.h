#pragma once

// Polls the tracks the service is still processing: each scheduled refresh is
// a timer on the current run loop that, when due, hands the track's
// identifier to the store's refresh. Optionally one refresh per track (the
// soonest wins) and a bound on the refreshes awaiting their answers, beyond
// which due ones wait in order. The timers stop when the poller goes.

#include <Platform/Object.h>

#include <cstddef>
#include <functional>
#include <memory>

namespace velvox {

class String;

class VXTrackPoller {
public:
    struct Limits {
        bool mergesRefreshes { false };
        size_t maximumInFlight { 0 }; // 0: none
    };
    // Refreshes a track now. Under a bound `slot` is not null: the refresh's
    // block keeps it, and the place is given back when the block goes
    // (whether it ran or was dropped).
    using Refresh = std::function<void(String* identifier, std::shared_ptr<void> slot)>;

    explicit VXTrackPoller(Refresh);
    ~VXTrackPoller();
    VXTrackPoller(const VXTrackPoller&) = delete;
    VXTrackPoller& operator=(const VXTrackPoller&) = delete;

    void setLimits(Limits);
    // Refreshes the track after `delay` seconds (merged with a pending one when the limits say so).
    void schedule(String* identifier, double delay);
    // Scheduled, waiting for a place, and awaiting their answers.
    size_t pendingCount() const;
    void stop();

private:
    struct State;
    std::shared_ptr<State> m_state;
};

} // namespace velvox
