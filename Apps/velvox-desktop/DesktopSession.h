#pragma once

// What every window of velvox-desktop stands on: the service (the embedded
// sandbox, or --base-url with a token), the shared store with the options a
// desktop wants (optimistic follows and favorites, retries, errors instead of
// raises), the signed-in user, the run loop served by Qt's, and saving.

#include "RunLoopDriver.h"

#include <Service/VXServiceAccess.h>

#include <QObject>
#include <QString>

#include <memory>

namespace velvox::desktop {

class DesktopSession final : public QObject {
    Q_OBJECT
public:
    struct Options {
        app::ServiceChoice service;
        double timeout { 30 }; // seconds a request may take
        sandbox::SandboxService::Options sandbox {};
    };
    explicit DesktopSession(Options, QObject* parent = nullptr);
    ~DesktopSession() override;

    // Starts the service connection and the store; false with the reason.
    bool open(QString& problem);
    // Asks for the signed-in user; signedIn or failed follows.
    void signIn();
    VXResourceController& store() { return *m_store; }
    VXUser* me() const { return m_me.get(); }
    // The embedded sandbox, when there is one (tests inject faults through it).
    sandbox::SandboxService* sandbox() const { return m_target.sandbox.get(); }
    RunLoopDriver& driver() { return *m_driver; }
    const QString& folder() const { return m_folder; }

    // Writes the identity map, the play history and the refresh dates now;
    // an empty text, or why it failed.
    QString save();

signals:
    void signedIn(VXUser* me);
    void signInFailed(const QString& message);
    // How much of a request's body the client has sent (an upload's progress).
    void bodySent(quint64 sent, quint64 total);

private:
    Options m_options;
    app::ServiceTarget m_target;
    QString m_folder;
    RefPtr<VXResourceController> m_store;
    RefPtr<VXUser> m_me;
    std::unique_ptr<RunLoopDriver> m_driver;
    SubscriptionSet m_calls;
};

// What a person reads of an error: what failed, briefly, never a token.
QString describeError(Error*);

} // namespace velvox::desktop
