#include "DesktopSession.h"

#include <Service/VXForwardingDelegate.h>
#include <VelvoxAPI/VXVelvoxAPI.h>

#include <QPointer>

namespace velvox::desktop {

namespace {

// The service's client, telling the session how much of a request's body
// has been sent (the store's own progress says only "under way" or "done").
class UploadWatchingAPI final : public VXVelvoxAPI {
public:
    using Sent = std::function<void(uint64_t sent, uint64_t total)>;
    static RefPtr<UploadWatchingAPI> create(std::string_view baseURL, std::string_view token, Sent sent, std::string* problem)
    {
        if (auto refused = configurationProblem(baseURL, token); !refused.empty()) {
            if (problem)
                *problem = refused;
            return nullptr;
        }
        return adoptRef(*new UploadWatchingAPI(std::string(baseURL), std::string(token), std::move(sent)));
    }

    Ref<VXVelvoxAPI> copyWithAPIDelegate(VXVelvoxAPIDelegate* delegate) const override
    {
        auto copy = adoptRef(*new UploadWatchingAPI(baseURL(), accessToken(), m_sent));
        copy->m_tap = std::make_unique<Tap>(delegate, m_sent);
        copy->setDelegate(copy->m_tap.get());
        app::copyClientConfiguration(*this, *copy.ptr());
        return copy;
    }

private:
    class Tap final : public app::VXForwardingDelegate {
    public:
        Tap(VXVelvoxAPIDelegate* controller, Sent sent)
            : VXForwardingDelegate(controller)
            , m_sent(std::move(sent))
        {
        }
        void velvoxAPIDidSendBytes(VXVelvoxAPI& api, uint64_t bytes, uint64_t total, Object* context, Dictionary* userInfo) override
        {
            if (m_sent && total && bytes <= total)
                m_sent(bytes, total);
            VXForwardingDelegate::velvoxAPIDidSendBytes(api, bytes, total, context, userInfo);
        }

    private:
        Sent m_sent;
    };

    UploadWatchingAPI(std::string baseURL, std::string token, Sent sent)
        : VXVelvoxAPI(std::move(baseURL), std::move(token))
        , m_sent(std::move(sent))
    {
    }
    Sent m_sent;
    std::unique_ptr<Tap> m_tap;
};

} // namespace

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
    QPointer<DesktopSession> session(this);
    auto api = UploadWatchingAPI::create(m_target.baseURL, m_target.token, [session](uint64_t sent, uint64_t total) {
        if (session)
            emit session->bodySent(sent, total);
    },
        &reason);
    if (!api) {
        problem = QString::fromStdString(reason);
        return false;
    }
    // The steps VXResourceController::connect takes, with this client.
    m_store = VXResourceController::create(VXAPIController::create(api.get()).ptr(), options);
    VXResourceController::setSharedResourceController(m_store);
    api = nullptr;
    auto* client = m_store->apiController()->api();
    client->setTimeout(m_options.timeout);
    client->setConnectTimeout(std::min(m_options.timeout, client->connectTimeout()));
    client->setRetryPolicy(VXVelvoxAPI::RetryPolicy::recommended());
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
