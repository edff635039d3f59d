#pragma once

// Pictures for the views, from the library's loading image cache: decoded
// once per address into a bounded table of pixmaps shared by every window,
// loaded once however many views wait. Each window has its own Pictures,
// whose loads end with the window's calls (its SubscriptionSet), and which
// counts the loads under way so that a window knows when its pictures are in.

#include <Platform/Subscription.h>
#include <Platform/URL.h>

#include <QObject>
#include <QPixmap>
#include <QSet>
#include <QString>

namespace velvox::desktop {

class Pictures final : public QObject {
    Q_OBJECT
public:
    Pictures(SubscriptionSet& calls, QObject* parent)
        : QObject(parent)
        , m_calls(calls)
    {
    }
    // The picture when it is at hand (decoded, or in the library's memory or
    // disk tier); else a null pixmap, and a load whose end emits arrived()
    // (unless this window's load of it failed before).
    QPixmap picture(URL* address);
    QPixmap picture(const QString& address);
    // Loads asked by this window that have not ended.
    int pending() const { return m_pending; }

signals:
    // A picture came (or could not be had: `address` then stays without one).
    void arrived(const QString& address);
    // No load of this window is under way any more.
    void settled();

private:
    SubscriptionSet& m_calls;
    int m_pending { 0 };
    // Addresses whose load failed: not asked again by this window (a page
    // drawn again when a picture fails must not ask for it once more).
    QSet<QString> m_failed;
};

} // namespace velvox::desktop
