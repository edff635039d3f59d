#include "VXTrackPoller.h"

#include <Platform/Platform.h>

#include <deque>
#include <map>
#include <set>
#include <string>

namespace velvox {

struct VXTrackPoller::State : std::enable_shared_from_this<State> {
    explicit State(Refresh refresh)
        : refresh(std::move(refresh))
    {
    }
    void fire(const std::string& key, uint64_t serial, Ref<String> identifier);
    void refreshWhenRoom(Ref<String> identifier);
    void refreshDidEnd();

    Refresh refresh;
    Limits limits;
    struct Pending {
        double due;
        uint64_t serial;
        Subscription timer;
    };
    std::multimap<std::string, Pending, std::less<>> pending;
    uint64_t nextSerial { 1 };
    size_t inFlight { 0 };
    std::deque<Ref<String>> waiting;
    std::set<std::string, std::less<>> waitingKeys;
};

VXTrackPoller::VXTrackPoller(Refresh refresh)
    : m_state(std::make_shared<State>(std::move(refresh)))
{
}

VXTrackPoller::~VXTrackPoller()
{
    stop();
}

void VXTrackPoller::stop()
{
    m_state->pending.clear();
    m_state->waiting.clear();
    m_state->waitingKeys.clear();
}

void VXTrackPoller::setLimits(Limits limits)
{
    m_state->limits = limits;
}

size_t VXTrackPoller::pendingCount() const
{
    return m_state->pending.size() + m_state->waiting.size() + m_state->inFlight;
}

void VXTrackPoller::schedule(String* trackIdentifier, double delay)
{
    if (!trackIdentifier)
        return;
    auto& state = *m_state;
    std::string key = trackIdentifier->str();
    double due = RunLoop::current().now() + delay;
    if (state.limits.mergesRefreshes) {
        // One refresh per track: a track listed on many pages (or by many
        // lists) is asked for once, at the soonest time any listing wants.
        if (state.waitingKeys.contains(key))
            return;
        if (auto found = state.pending.find(key); found != state.pending.end()) {
            if (found->second.due <= due)
                return;
            state.pending.erase(found);
        }
    }
    uint64_t serial = state.nextSerial++;
    // The timers stop with the state, so they may use it bare.
    auto timer = RunLoop::current().performAfterDelay(delay, [&state, key, serial, identifier = Ref<String>(*trackIdentifier)] {
        state.fire(key, serial, identifier);
    });
    state.pending.emplace(std::move(key), State::Pending { due, serial, std::move(timer) });
}

void VXTrackPoller::State::fire(const std::string& key, uint64_t serial, Ref<String> identifier)
{
    auto [first, last] = pending.equal_range(key);
    for (auto entry = first; entry != last; ++entry) {
        if (entry->second.serial == serial) {
            // Kept until the call ends: erasing it cancels this very timer.
            auto finished = pending.extract(entry);
            auto keepAlive = shared_from_this();
            refreshWhenRoom(std::move(identifier));
            return;
        }
    }
}

void VXTrackPoller::State::refreshWhenRoom(Ref<String> identifier)
{
    if (!limits.maximumInFlight) {
        refresh(identifier.ptr(), nullptr);
        return;
    }
    if (inFlight >= limits.maximumInFlight) {
        waitingKeys.insert(identifier->str());
        waiting.push_back(std::move(identifier));
        return;
    }
    // The place is given back when the refresh's block goes, whether it ran
    // or a raise dropped it; later, from the loop, since that may be in the
    // middle of unwinding. A poller gone by then is left alone.
    struct Slot {
        std::weak_ptr<State> state;
        ~Slot()
        {
            RunLoop::current().post([state = state] {
                if (auto alive = state.lock())
                    alive->refreshDidEnd();
            });
        }
    };
    ++inFlight;
    refresh(identifier.ptr(), std::shared_ptr<Slot>(new Slot { weak_from_this() }));
}

void VXTrackPoller::State::refreshDidEnd()
{
    --inFlight;
    if (waiting.empty())
        return;
    auto next = std::move(waiting.front());
    waiting.pop_front();
    waitingKeys.erase(next->str());
    refreshWhenRoom(std::move(next));
}

} // namespace velvox
