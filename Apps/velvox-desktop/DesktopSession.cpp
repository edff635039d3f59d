#include "DesktopSession.h"

#include <VelvoxAPI/VXVelvoxAPI.h>

namespace velvox::desktop {

DesktopSession::DesktopSession(Options options, QObject* parent)
    : QObject(parent)
    , m_options(std::move(options))
    , m_driver(std::make_unique<RunLoopDriver>())
{
}

DesktopSession::~DesktopSession()
{
    m_calls.cancel();
    if (m_store)
        VXResourceController::setSharedResourceController(nullptr);
    m_store = nullptr;
    if (m_target.sandbox)
        m_target.sandbox->stop();
}

bool DesktopSession::open(QString& problem)
{
    std::string reason;
    switch (app::prepareService(m_options.service, m_target, reason, m_options.sandbox)) {
    case app::ServiceProblem::Token:
        problem = QString::fromStdString(reason);
        return false;
    case app::ServiceProblem::Sandbox:
        problem = QStringLiteral("cannot start the embedded sandbox: %1").arg(QString::fromStdString(reason));
        return false;
    case app::ServiceProblem::None:
        break;
    }
    m_folder = QString::fromStdString(m_target.folder);
    auto options = app::hostStoreOptions();
    // A desktop shows a follow or a favorite at once and rolls it back on failure.
    options.optimisticChanges = true;
    m_store = VXResourceController::connect(m_target.baseURL, m_target.token, options, &reason);
    if (!m_store) {
        problem = QString::fromStdString(reason);
        return false;
    }
    auto* api = m_store->apiController()->api();
    api->setTimeout(m_options.timeout);
    api->setConnectTimeout(std::min(m_options.timeout, api->connectTimeout()));
    api->setRetryPolicy(VXVelvoxAPI::RetryPolicy::recommended());
    return true;
}

void DesktopSession::signIn()
{
    // The signed-in account of an earlier run is known; asking again keeps it current.
    m_store->meUserForceRefresh(true, [this](VXUser* user, Error* error) {
        if (!user) {
            emit signInFailed(describeError(error));
            return;
        }
        m_me = user;
        emit signedIn(user);
    },
        m_calls.add());
}

QString DesktopSession::save()
{
    if (!m_store)
        return {};
    if (auto error = m_store->save())
        return QString::fromUtf8(error->localizedDescription()->utf8());
    return {};
}

QString describeError(Error* error)
{
    if (!error)
        return QStringLiteral("The service's answer was not understood.");
    QString message = QString::fromUtf8(error->localizedDescription()->utf8()).left(300);
    if (error->domain()->isEqualToString(URLErrorDomain))
        return QStringLiteral("Offline or unreachable: %1").arg(message);
    int64_t status = error->code();
    if (error->domain()->isEqualToString(VXVelvoxAPIErrorDomain) && status >= 400 && status < 600) {
        if (status == 401 || status == 403)
            return QStringLiteral("Not authorised (%1): pass a valid token with --token, --token-file or $VELVOX_TOKEN.").arg(status);
        if (status == 404)
            return QStringLiteral("Not found (404).");
        return QStringLiteral("The service failed (%1): %2").arg(status).arg(message);
    }
    return message;
}

} // namespace velvox::desktop
