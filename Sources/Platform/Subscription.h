#pragma once

// The one way to stop a callback: notifications, key-value observations,
// timers, socket watches and image loads all hand back a Subscription, and the
// callback stops when the Subscription is destroyed or cancelled.
//
// A Subscription is move-only. release() lets the callback run on without a
// token (a fire-and-forget timer, an observer for the life of the process);
// nothing can stop it after that. Cancelling is idempotent and safe from
// inside the callback itself; the source drops the callback's closure at once.
// A Subscription may outlive its source (a notification centre, an observed
// object, a run loop): cancelling it then does nothing.
//
// A token for one call (a fetch, a page load, an upload) also knows when the
// call has ended: it is then no longer active, and cancelling it does nothing.

#include <algorithm>
#include <functional>
#include <deque>
#include <memory>
#include <utility>

namespace velvox {

class [[nodiscard]] Subscription {
public:
    Subscription() = default;
    explicit Subscription(std::function<void()> cancel)
        : m_cancel(std::move(cancel))
    {
    }
    // A token for something that ends by itself: active until `pending`
    // expires (the call's own record of being under way) or it is cancelled.
    Subscription(std::function<void()> cancel, std::weak_ptr<const void> pending)
        : m_cancel(std::move(cancel))
        , m_pending(std::move(pending))
        , m_ends(true)
    {
    }
    Subscription(Subscription&& other) noexcept
        : m_cancel(std::exchange(other.m_cancel, nullptr))
        , m_pending(std::move(other.m_pending))
        , m_ends(std::exchange(other.m_ends, false))
    {
    }
    Subscription& operator=(Subscription&& other) noexcept
    {
        if (this != &other) {
            cancel();
            m_cancel = std::exchange(other.m_cancel, nullptr);
            m_pending = std::move(other.m_pending);
            m_ends = std::exchange(other.m_ends, false);
        }
        return *this;
    }
    Subscription(const Subscription&) = delete;
    Subscription& operator=(const Subscription&) = delete;
    ~Subscription() { cancel(); }

    // Stops the callback now.
    void cancel()
    {
        if (auto cancel = std::exchange(m_cancel, nullptr))
            cancel();
    }
    // Lets the callback run on; this token no longer controls it.
    void release() { m_cancel = nullptr; }

    // Whether cancelling would stop something: false once cancelled or
    // released, and for a call, once it has ended.
    bool isActive() const { return m_cancel && (!m_ends || !m_pending.expired()); }
    explicit operator bool() const { return isActive(); }

private:
    std::function<void()> m_cancel;
    std::weak_ptr<const void> m_pending;
    bool m_ends { false };
};

// The tokens of everything one owner (a window, a view, a command) started:
// destroying the set, or cancel(), stops all of them. add() hands out a place
// for the token of a call about to be made:
//
//     store.trackForIdentifier("20005", true, block, m_calls.add());
//
// Tokens of calls that have ended are dropped as new ones come, so a set
// kept for a long session stays as large as what is under way.
class SubscriptionSet {
public:
    SubscriptionSet() = default;
    SubscriptionSet(const SubscriptionSet&) = delete;
    SubscriptionSet& operator=(const SubscriptionSet&) = delete;
    ~SubscriptionSet() { cancel(); }

    // A place for one token, valid until the next add(): fill it at once.
    Subscription* add()
    {
        if (m_tokens.size() >= m_pruneAt) {
            std::erase_if(m_tokens, [](const Subscription& token) { return !token.isActive(); });
            m_pruneAt = std::max<size_t>(16, 2 * m_tokens.size());
        }
        return &m_tokens.emplace_back();
    }
    void add(Subscription&& token) { *add() = std::move(token); }

    // Cancels every token, the newest first; a callback that adds a token
    // while this runs has it cancelled too.
    void cancel()
    {
        while (!m_tokens.empty()) {
            auto token = std::move(m_tokens.back());
            m_tokens.pop_back();
            token.cancel();
        }
    }
    // The tokens still active.
    size_t activeCount() const
    {
        size_t count = 0;
        for (auto& token : m_tokens)
            count += token.isActive();
        return count;
    }

private:
    std::deque<Subscription> m_tokens;
    size_t m_pruneAt { 16 };
};

} // namespace velvox
