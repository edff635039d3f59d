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

#include <functional>
#include <utility>

namespace velvox {

class [[nodiscard]] Subscription {
public:
    Subscription() = default;
    explicit Subscription(std::function<void()> cancel)
        : m_cancel(std::move(cancel))
    {
    }
    Subscription(Subscription&& other) noexcept
        : m_cancel(std::exchange(other.m_cancel, nullptr))
    {
    }
    Subscription& operator=(Subscription&& other) noexcept
    {
        if (this != &other) {
            cancel();
            m_cancel = std::exchange(other.m_cancel, nullptr);
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

    bool isActive() const { return static_cast<bool>(m_cancel); }
    explicit operator bool() const { return isActive(); }

private:
    std::function<void()> m_cancel;
};

} // namespace velvox
