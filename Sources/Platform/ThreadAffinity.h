#pragma once

// The thread an object belongs to: the one whose run loop delivers its
// callbacks. Objects that are not thread-safe (the store, the API controller,
// the lists) check every entry point against it, so that a call from another
// thread raises at once, naming the call, instead of doing nothing or racing.
// The check is one comparison of thread identifiers.

#include "Exception.h"
#include "RunLoop.h"
#include "Subscription.h"

#include <functional>
#include <memory>
#include <string_view>
#include <thread>

namespace velvox {

inline constexpr std::string_view WrongThreadException = "VXWrongThreadException";

class ThreadAffinity {
public:
    // The current thread and its run loop.
    ThreadAffinity()
        : m_thread(std::this_thread::get_id())
        , m_post(std::make_shared<const RunLoop::Poster>(RunLoop::current().poster()))
    {
    }

    bool isCurrent() const { return std::this_thread::get_id() == m_thread; }
    // Raises WrongThreadException naming the call ("VXResourceController::userForIdentifier")
    // unless the current thread is the owner.
    void check(std::string_view type, const char* function) const
    {
        if (!isCurrent()) [[unlikely]]
            raise(type, function);
    }

    // A token whose cancel runs on the owner's thread: at once there, posted
    // to its run loop from any other (a token may be destroyed anywhere; that
    // must not raise). `cancel` must hold nothing but weak references.
    template<typename Cancel>
    Subscription token(Cancel cancel, std::weak_ptr<const void> pending) const
    {
        return Subscription(
            [thread = m_thread, post = m_post, cancel = std::move(cancel)] {
                if (std::this_thread::get_id() == thread)
                    cancel();
                else
                    (*post)(cancel);
            },
            std::move(pending));
    }

private:
    [[noreturn]] static void raise(std::string_view type, const char* function);

    std::thread::id m_thread;
    // Shared: every token of the owner holds it.
    std::shared_ptr<const RunLoop::Poster> m_post;
};

} // namespace velvox
