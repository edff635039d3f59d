#pragma once

// Synchronous notifications. Observers register for a name, an object, both
// or neither, and stay registered while the Subscription that registration
// returns lives.
// Posting calls the observers registered at the moment of the post, in the
// order they registered, on the posting thread; an observer removed during
// a post is not called afterwards.

#include "Object.h"
#include "String.h"
#include "Subscription.h"

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string_view>
#include <vector>

namespace velvox {

class Dictionary;

inline constexpr std::string_view ApplicationWillTerminateNotification = "NSApplicationWillTerminateNotification";

class Notification final : public Object {
    VX_OBJECT(Notification)
public:
    static Ref<Notification> create(std::string_view name, Object* object = nullptr, Dictionary* userInfo = nullptr);

    String* name() const { return m_name.ptr(); }
    Object* object() const { return m_object.get(); }
    Dictionary* userInfo() const { return m_userInfo.get(); }

    Ref<String> description() const override;

private:
    Notification(Ref<String>&& name, Object* object, Dictionary* userInfo);
    ~Notification() override;

    Ref<String> m_name;
    RefPtr<Object> m_object;
    RefPtr<Dictionary> m_userInfo;
};

class NotificationCenter {
public:
    static NotificationCenter& defaultCenter();
    NotificationCenter();
    ~NotificationCenter();

    using Handler = std::function<void(Notification&)>;
    // An empty name matches every name; a null object every sender. The
    // sender is compared by identity and is not retained. The observer is
    // removed, and its handler released, when the Subscription goes.
    Subscription addObserver(std::string_view name, const Object* object, Handler handler);

    void postNotification(Notification&);
    void postNotification(std::string_view name, Object* object = nullptr, Dictionary* userInfo = nullptr);

    size_t observerCount() const;

private:
    struct Registration {
        uint64_t identifier;
        std::string name;
        const Object* object;
        std::shared_ptr<Handler> handler;
        // Set on removal, so that a post in progress skips the observer.
        std::shared_ptr<std::atomic<bool>> removed;
    };
    void removeObserver(uint64_t identifier);

    mutable std::mutex m_mutex;
    std::vector<Registration> m_registrations;
    uint64_t m_nextIdentifier { 1 };
    // Tokens that outlive the centre find it gone through this.
    std::shared_ptr<NotificationCenter*> m_self;
};

} // namespace velvox
