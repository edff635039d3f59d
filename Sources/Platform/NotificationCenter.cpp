#include "NotificationCenter.h"

#include "Collections.h"

#include <algorithm>

namespace velvox {

VX_DEFINE_CLASS(Notification, Object)

Notification::Notification(Ref<String>&& name, Object* object, Dictionary* userInfo)
    : m_name(std::move(name))
    , m_object(object)
    , m_userInfo(userInfo)
{
}

Notification::~Notification() = default;

Ref<Notification> Notification::create(std::string_view name, Object* object, Dictionary* userInfo)
{
    return adoptRef(*new Notification(String::create(name), object, userInfo));
}

Ref<String> Notification::description() const
{
    return String::format("<Notification 0x%08X {name = %@; object = %@; userInfo = %@}>",
        static_cast<unsigned>(reinterpret_cast<uintptr_t>(this)), m_name, m_object, m_userInfo);
}

NotificationCenter& NotificationCenter::defaultCenter()
{
    static NotificationCenter* center = new NotificationCenter;
    return *center;
}

NotificationCenter::NotificationCenter()
    : m_self(std::make_shared<NotificationCenter*>(this))
{
}

NotificationCenter::~NotificationCenter()
{
    std::lock_guard lock(m_mutex);
    *m_self = nullptr;
}

Subscription NotificationCenter::addObserver(std::string_view name, const Object* object, Handler handler)
{
    std::lock_guard lock(m_mutex);
    uint64_t identifier = m_nextIdentifier++;
    m_registrations.push_back({ identifier, std::string(name), object, std::make_shared<Handler>(std::move(handler)), std::make_shared<std::atomic<bool>>(false) });
    return Subscription([self = m_self, identifier] {
        if (*self)
            (*self)->removeObserver(identifier);
    });
}

void NotificationCenter::removeObserver(uint64_t identifier)
{
    std::shared_ptr<Handler> removed; // released outside the lock: its captures may post
    std::lock_guard lock(m_mutex);
    auto it = std::find_if(m_registrations.begin(), m_registrations.end(), [&](auto& registration) { return registration.identifier == identifier; });
    if (it == m_registrations.end())
        return;
    it->removed->store(true);
    removed = std::move(it->handler);
    m_registrations.erase(it);
}

size_t NotificationCenter::observerCount() const
{
    std::lock_guard lock(m_mutex);
    return m_registrations.size();
}

void NotificationCenter::postNotification(Notification& notification)
{
    struct Match {
        std::shared_ptr<Handler> handler;
        std::shared_ptr<std::atomic<bool>> removed;
    };
    std::vector<Match> matches;
    {
        std::lock_guard lock(m_mutex);
        for (auto& registration : m_registrations) {
            if (!registration.name.empty() && registration.name != notification.name()->view())
                continue;
            if (registration.object && registration.object != notification.object())
                continue;
            matches.push_back({ registration.handler, registration.removed });
        }
    }
    Ref protectedNotification { notification };
    for (auto& match : matches) {
        // An observer removed by an earlier one in this post is not called.
        if (!match.removed->load())
            (*match.handler)(notification);
    }
}

void NotificationCenter::postNotification(std::string_view name, Object* object, Dictionary* userInfo)
{
    postNotification(*Notification::create(name, object, userInfo));
}

} // namespace velvox
