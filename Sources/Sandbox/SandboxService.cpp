// The service's life cycle (start, stop), its route table and its public
// accessors. What it serves is in the SandboxService+*.cpp files (see
// SandboxServiceImpl.h).

#include "SandboxService.h"

#include "SandboxServiceImpl.h"

#include <Platform/Platform.h>

#include <sys/socket.h>

namespace velvox::sandbox {

using namespace detail;

SandboxService::SandboxService(Options options)
    : m_impl(std::make_unique<Impl>())
{
    m_impl->options = std::move(options);
}

SandboxService::~SandboxService()
{
    stop();
}

// MARK: Routes

void SandboxService::Impl::installRoutes()
{
    installAccounting();
    installMeRoutes();
    installSocialRoutes();
    installActivityRoutes();
    installUserRoutes();
    installTrackRoutes();
    installUploadRoutes();
    installImageRoutes();
    // Where no route takes a body, none is read: the answer closes the connection instead.
    auto nowhere = [this](const httplib::Request&, httplib::Response& response, const httplib::ContentReader&) {
        sendError(response, 404, "404 - Not Found");
        closeAfterAnswer(response);
    };
    server.Post(".*", nowhere).Put(".*", nowhere).Patch(".*", nowhere).Delete(".*", nowhere);
    server.set_error_handler([this](const httplib::Request&, httplib::Response& response) {
        // An answer that closes its connection has its body in a content provider already.
        if (response.status == 404 && response.body.empty() && !response.has_header("Connection"))
            sendError(response, 404, "404 - Not Found");
    });
    server.set_exception_handler([this](const httplib::Request&, httplib::Response& response, std::exception_ptr) {
        sendError(response, 500, "500 - Internal Server Error");
    });
}

// MARK: Life cycle

bool SandboxService::start(std::string* error)
{
    auto& impl = *m_impl;
    {
        std::lock_guard lock(impl.mutex);
        if (impl.users.empty() && !impl.loadCatalogue(error))
            return false;
    }
    impl.installRoutes();
    // Headers and body go out in separate writes: without this, Nagle's
    // algorithm holds the body back for a delayed acknowledgement (40 ms).
    impl.server.set_tcp_nodelay(true);
    // Idle kept-alive connections hold a worker until they time out, and stop()
    // waits for the workers: keep that wait short.
    impl.server.set_keep_alive_timeout(1);
    // A busy client keeps its connection for a hundred requests, as services
    // commonly allow, rather than reconnecting every fifth.
    impl.server.set_keep_alive_max_count(100);
    // A client that sends slowly gives up its worker after a short wait per
    // read, and there are workers to spare for the others.
    impl.server.set_read_timeout(2, 0);
    impl.server.set_write_timeout(5, 0);
    impl.server.new_task_queue = [] { return new httplib::ThreadPool(32); };
    // Uploads are read into memory: bounded.
    impl.server.set_payload_max_length(impl.options.maximumUploadBytes);
    // No SO_REUSEPORT: a port in use is refused, not shared with another listener.
    impl.server.set_socket_options([](int socket) {
        int yes = 1;
        setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
    });
    impl.port = impl.options.port ? (impl.server.bind_to_port("127.0.0.1", impl.options.port) ? impl.options.port : -1)
                                  : impl.server.bind_to_any_port("127.0.0.1");
    if (impl.port <= 0) {
        if (error)
            *error = "cannot listen on 127.0.0.1:" + std::to_string(impl.options.port) + " (is the port in use?)";
        return false;
    }
    impl.stopping = false;
    impl.thread = std::thread([&impl] { impl.server.listen_after_bind(); });
    // The socket is bound already; connections queue until the loop runs.
    while (!impl.server.is_running())
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return true;
}

void SandboxService::stop()
{
    auto& impl = *m_impl;
    if (!impl.thread.joinable())
        return;
    {
        std::lock_guard lock(impl.mutex);
        impl.stopping = true;
    }
    impl.stopped.notify_all();
    impl.server.stop();
    // Workers finish the request they are reading before they look at the
    // stop; a client that sends slowly (or not at all) would hold stop() for as
    // long as it likes. Cut the server's side of every open connection instead.
    shutDownConnections(impl.port);
    impl.thread.join();
}

std::string SandboxService::baseURL() const
{
    return "http://127.0.0.1:" + std::to_string(m_impl->port);
}

int SandboxService::port() const
{
    return m_impl->port;
}

const std::string& SandboxService::token() const
{
    return m_impl->options.token;
}

int64_t SandboxService::meUserIdentifier() const
{
    std::lock_guard lock(m_impl->mutex);
    return m_impl->me;
}

void SandboxService::addFault(Fault fault)
{
    std::lock_guard lock(m_impl->mutex);
    m_impl->faults.push_back(std::move(fault));
}

void SandboxService::clearFaults()
{
    std::lock_guard lock(m_impl->mutex);
    m_impl->faults.clear();
}

int SandboxService::requestCount(const std::string& methodAndPath) const
{
    std::lock_guard lock(m_impl->mutex);
    auto it = m_impl->requestCounts.find(methodAndPath);
    return it == m_impl->requestCounts.end() ? 0 : it->second;
}

int SandboxService::totalRequestCount() const
{
    std::lock_guard lock(m_impl->mutex);
    return m_impl->totalRequests;
}

size_t SandboxService::countedTargetCount() const
{
    std::lock_guard lock(m_impl->mutex);
    return m_impl->requestCounts.size();
}

void SandboxService::resetRequestCounts()
{
    std::lock_guard lock(m_impl->mutex);
    m_impl->requestCounts.clear();
    m_impl->countedTargetBytes = 0;
    m_impl->totalRequests = 0;
}

int SandboxService::heldRequestCount() const
{
    std::lock_guard lock(m_impl->mutex);
    return m_impl->heldRequests;
}

size_t SandboxService::cachedImageCount() const
{
    std::lock_guard lock(m_impl->imageMutex);
    return m_impl->images.size();
}

} // namespace velvox::sandbox
