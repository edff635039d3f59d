#pragma once

// Synchronous notifications. Observers register for a name, an object, both
// or neither, and are removed through the token that registration returns.
// Posting calls the observers registered at the moment of the post, in the
// order they registered, on the posting thread; an observer removed during
// a post is not called afterwards.

#include "Object.h"
#include "String.h"

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

// The token of one registration.
class NotificationObserver final : public Object {
    VX_OBJECT(NotificationObserver)
private:
    friend class NotificationCenter;
    NotificationObserver() = default;
    bool m_removed { false };
};

class NotificationCenter {
public:
    static NotificationCenter& defaultCenter();
    NotificationCenter() = default;

    using Handler = std::function<void(Notification&)>;
    // An empty name matches every name; a null object every sender. The
    // sender is compared by identity and is not retained.
    Ref<NotificationObserver> addObserver(std::string_view name, const Object* object, Handler handler);
    void removeObserver(NotificationObserver&);

    void postNotification(Notification&);
    void postNotification(std::string_view name, Object* object = nullptr, Dictionary* userInfo = nullptr);

    size_t observerCount() const;

private:
    struct Registration {
        Ref<NotificationObserver> token;
        std::string name;
        const Object* object;
        std::shared_ptr<Handler> handler;
    };
    mutable std::mutex m_mutex;
    std::vector<Registration> m_registrations;
};

} // namespace velvox
