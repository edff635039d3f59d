#include "NotificationCenter.h"

#include "Collections.h"

#include <algorithm>

namespace velvox {

VX_DEFINE_CLASS(Notification, Object)
VX_DEFINE_CLASS(NotificationObserver, Object)

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

Ref<NotificationObserver> NotificationCenter::addObserver(std::string_view name, const Object* object, Handler handler)
{
    auto token = adoptRef(*new NotificationObserver);
    std::lock_guard lock(m_mutex);
    m_registrations.push_back({ token, std::string(name), object, std::make_shared<Handler>(std::move(handler)) });
    return token;
}

void NotificationCenter::removeObserver(NotificationObserver& token)
{
    std::vector<Registration> removed;
    std::lock_guard lock(m_mutex);
    token.m_removed = true;
    auto it = std::stable_partition(m_registrations.begin(), m_registrations.end(),
        [&](auto& registration) { return registration.token.ptr() != &token; });
    std::move(it, m_registrations.end(), std::back_inserter(removed));
    m_registrations.erase(it, m_registrations.end());
}

size_t NotificationCenter::observerCount() const
{
    std::lock_guard lock(m_mutex);
    return m_registrations.size();
}

void NotificationCenter::postNotification(Notification& notification)
{
    struct Match {
        Ref<NotificationObserver> token;
        std::shared_ptr<Handler> handler;
    };
    std::vector<Match> matches;
    {
        std::lock_guard lock(m_mutex);
        for (auto& registration : m_registrations) {
            if (!registration.name.empty() && registration.name != notification.name()->view())
                continue;
            if (registration.object && registration.object != notification.object())
                continue;
            matches.push_back({ registration.token, registration.handler });
        }
    }
    Ref protectedNotification { notification };
    for (auto& match : matches) {
        bool removed;
        {
            std::lock_guard lock(m_mutex);
            removed = match.token->m_removed;
        }
        if (!removed)
            (*match.handler)(notification);
    }
}

void NotificationCenter::postNotification(std::string_view name, Object* object, Dictionary* userInfo)
{
    postNotification(Notification::create(name, object, userInfo));
}

} // namespace velvox
