// What every request goes through: it is counted and logged, its token
// checked, faults get their turn; a body is read by the service itself within
// a bound; answers are written as JSON, and connections whose bodies were left
// unread are closed after the answer.

#include "SandboxServiceImpl.h"

#include <JSONCodec/JSONCodec.h>
#include <Platform/Platform.h>

#include <algorithm>
#include <arpa/inet.h>
#include <cstdlib>
#include <dirent.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace velvox::sandbox {

namespace detail {

// Shuts down the sockets of this process whose local end is 127.0.0.1:port
// and whose peer is at `peerPort` (any port when 0): the connections the
// server accepted (a client of the same process has its own port at its end).
void shutDownConnections(int port, int peerPort)
{
    DIR* descriptors = opendir("/proc/self/fd");
    if (!descriptors)
        return;
    while (dirent* entry = readdir(descriptors)) {
        char* end = nullptr;
        long fd = strtol(entry->d_name, &end, 10);
        if (!end || *end || fd < 0 || fd == dirfd(descriptors))
            continue;
        sockaddr_in local {}, peer {};
        socklen_t localLength = sizeof(local), peerLength = sizeof(peer);
        if (getsockname(static_cast<int>(fd), reinterpret_cast<sockaddr*>(&local), &localLength) != 0 || local.sin_family != AF_INET)
            continue;
        if (ntohs(local.sin_port) != port || getpeername(static_cast<int>(fd), reinterpret_cast<sockaddr*>(&peer), &peerLength) != 0)
            continue;
        if (peerPort && ntohs(peer.sin_port) != peerPort)
            continue;
        shutdown(static_cast<int>(fd), SHUT_RDWR);
    }
    closedir(descriptors);
}

// Whether the request has a body the server has not read.
bool carriesBody(const httplib::Request& request)
{
    return request.has_header("Transfer-Encoding") || std::strtoull(request.get_header_value("Content-Length").c_str(), nullptr, 10) > 0;
}

// Sends the answer, then closes the connection: what is left of an unread
// body must not be taken for the next request. The server keeps a connection
// whatever the answer's headers say, but not when a content provider fails,
// so the body goes out through one that fails once it has written it.
void closeAfterAnswer(httplib::Response& response)
{
    if (response.body.empty())
        return;
    auto body = std::make_shared<std::string>(std::move(response.body));
    response.body.clear();
    std::string type = response.get_header_value("Content-Type");
    response.headers.erase("Content-Type");
    response.set_header("Connection", "close");
    response.set_content_provider(body->size(), type, [body](size_t offset, size_t, httplib::DataSink& sink) {
        if (!offset)
            sink.write(body->data(), body->size());
        return false;
    });
}

} // namespace detail

using namespace detail;

namespace {

// What a form field or multipart part costs beside its bytes (its node and
// strings), counted against the body limit: a body of empty fields must not
// grow into many times its size.
constexpr size_t fieldOverheadBytes = 128;

// Adds the fields of an application/x-www-form-urlencoded body to `params`;
// answers false, having added only some, when their cost passes `budget`.
bool parseForm(std::string_view body, httplib::Params& params, size_t budget)
{
    auto decode = [](std::string_view text) {
        std::string spaced(text);
        std::replace(spaced.begin(), spaced.end(), '+', ' ');
        return percentDecode(spaced);
    };
    while (!body.empty()) {
        size_t ampersand = body.find('&');
        std::string_view field = body.substr(0, ampersand);
        body = ampersand == std::string_view::npos ? std::string_view() : body.substr(ampersand + 1);
        if (field.empty())
            continue;
        if (budget < fieldOverheadBytes)
            return false;
        budget -= fieldOverheadBytes;
        size_t equals = field.find('=');
        params.emplace(decode(field.substr(0, equals)), equals == std::string_view::npos ? std::string() : decode(field.substr(equals + 1)));
    }
    return true;
}

} // namespace

void SandboxService::Impl::countRequest(const httplib::Request& request)
{
    std::string target = request.method + " " + request.path;
    bool first = true;
    for (auto& [name, value] : request.params) {
        if (request.method == "GET" || request.method == "DELETE") {
            target += (first ? "?" : "&") + name + "=" + value;
            first = false;
        }
    }
    std::lock_guard lock(mutex);
    ++totalRequests;
    if (auto it = requestCounts.find(target); it != requestCounts.end())
        ++it->second;
    else if (requestCounts.size() < maximumCountedTargets && countedTargetBytes + target.size() <= maximumCountedTargetBytes) {
        countedTargetBytes += target.size();
        requestCounts.emplace(std::move(target), 1);
    }
}

// Counts every request, logs it, checks the token and applies the fault modes.
void SandboxService::Impl::installAccounting()
{
    server.set_pre_routing_handler([this](const httplib::Request& request, httplib::Response& response) {
        countRequest(request);
        // Answered here, a request's body is never read.
        auto answered = [&] {
            if (carriesBody(request))
                closeAfterAnswer(response);
            return httplib::Server::HandlerResponse::Handled;
        };
        // The server would read a body of this method itself, without a bound.
        if (request.method == "PRI") {
            sendError(response, 405, "405 - Method Not Allowed");
            return answered();
        }
        if (options.logRequests)
            VXLog("velvox-sandbox: %s %s", request.method, request.path);
        if (!request.path.starts_with("/images/") && !authorized(request)) {
            sendError(response, 401, "401 - Unauthorized");
            return answered();
        }
        if (applyFault(request, response))
            return answered();
        return httplib::Server::HandlerResponse::Unhandled;
    });
    server.set_post_routing_handler([](const httplib::Request& request, httplib::Response& response) { validate(request, response); });
}

// A JSON answer to a GET carries an ETag made from its body, and a request
// whose If-None-Match names it is answered 304 without the body, as caching
// clients expect of a service.
void SandboxService::Impl::validate(const httplib::Request& request, httplib::Response& response)
{
    if (request.method != "GET" || response.status != 200 || response.has_header("ETag")
        || !response.get_header_value("Content-Type").starts_with("application/json"))
        return;
    char tag[32];
    snprintf(tag, sizeof tag, "\"v%016zx\"", std::hash<std::string>()(response.body));
    response.set_header("ETag", tag);
    std::string header = request.get_header_value("If-None-Match");
    std::string_view asked = header;
    while (!asked.empty()) {
        auto comma = asked.find(',');
        auto candidate = asked.substr(0, comma);
        while (!candidate.empty() && (candidate.front() == ' ' || candidate.front() == '\t'))
            candidate.remove_prefix(1);
        while (!candidate.empty() && (candidate.back() == ' ' || candidate.back() == '\t'))
            candidate.remove_suffix(1);
        if (candidate.starts_with("W/"))
            candidate.remove_prefix(2);
        if (candidate == tag || candidate == "*") {
            response.status = 304;
            response.body.clear();
            response.headers.erase("Content-Length");
            response.headers.erase("Content-Type");
            return;
        }
        if (comma == std::string_view::npos)
            break;
        asked.remove_prefix(comma + 1);
    }
}

// MARK: Answers

void SandboxService::Impl::sendJSON(httplib::Response& response, Object* value, int status) const
{
    auto text = jc_encode(value, JCSerializeOptionNone, JCEncodeAsString, nullptr);
    std::string body = text ? downcast<String>(text.get())->str() : std::string("null");
    // URLs of the catalogue point at the sandbox itself.
    fillBase(body, "http://127.0.0.1:" + std::to_string(port));
    response.status = status;
    response.set_content(body, "application/json; charset=utf-8");
}

void SandboxService::Impl::sendError(httplib::Response& response, int status, std::string_view message) const
{
    auto error = Dictionary::create({ { "error_message", String::create(message).ptr() } });
    sendJSON(response, Dictionary::create({ { "errors", Array::create({ error.ptr() }).ptr() } }).ptr(), status);
}

void SandboxService::Impl::sendPage(const httplib::Request& request, httplib::Response& response, const std::vector<int64_t>& identifiers,
    const std::function<Ref<Dictionary>(int64_t)>& build) const
{
    size_t limit = 50, offset = 0;
    if (request.has_param("limit"))
        limit = std::clamp<long>(std::atol(request.get_param_value("limit").c_str()), 0, 200);
    if (request.has_param("offset"))
        offset = std::max<long>(0, std::atol(request.get_param_value("offset").c_str()));
    auto page = MutableArray::create();
    for (size_t i = offset; i < identifiers.size() && i < offset + limit; ++i)
        page->addObject(build(identifiers[i]).ptr());
    sendJSON(response, page.ptr());
}

bool SandboxService::Impl::authorized(const httplib::Request& request) const
{
    if (request.get_header_value("Authorization") == "OAuth " + options.token)
        return true;
    return request.has_param("oauth_token") && request.get_param_value("oauth_token") == options.token;
}

void SandboxService::Impl::bodyRoute(BodyMethod method, const std::string& pattern, Handler handler)
{
    auto route = [this, handler = std::move(handler)](const httplib::Request& request, httplib::Response& response, const httplib::ContentReader& reader) {
        httplib::Request filled = request;
        if (readBody(request, response, reader, filled))
            handler(filled, response);
    };
    switch (method) {
    case BodyMethod::Post:
        server.Post(pattern, std::move(route));
        break;
    case BodyMethod::Put:
        server.Put(pattern, std::move(route));
        break;
    case BodyMethod::Patch:
        server.Patch(pattern, std::move(route));
        break;
    case BodyMethod::Delete:
        server.Delete(pattern, std::move(route));
        break;
    }
}

bool SandboxService::Impl::readBody(const httplib::Request& request, httplib::Response& response, const httplib::ContentReader& reader,
    httplib::Request& into) const
{
    if (!carriesBody(request))
        return true;
    const size_t limit = options.maximumUploadBytes;
    size_t taken = 0;
    bool tooLarge = false;
    auto take = [&](size_t bytes) {
        if (bytes > limit - taken) {
            tooLarge = true;
            return false;
        }
        taken += bytes;
        return true;
    };
    bool read = false;
    if (request.is_multipart_form_data()) {
        httplib::MultipartFormDataMap::iterator part = into.files.end();
        read = reader(
            [&](const httplib::MultipartFormData& header) {
                if (!take(fieldOverheadBytes + header.name.size() + header.filename.size() + header.content_type.size()))
                    return false;
                part = into.files.emplace(header.name, header);
                return true;
            },
            [&](const char* data, size_t length) {
                if (part == into.files.end() || !take(length))
                    return false;
                part->second.content.append(data, length);
                return true;
            });
    } else {
        read = reader([&](const char* data, size_t length) {
            if (!take(length))
                return false;
            into.body.append(data, length);
            return true;
        });
        if (read && request.get_header_value("Content-Type").starts_with("application/x-www-form-urlencoded")
            && !parseForm(into.body, into.params, limit - taken))
            tooLarge = true;
    }
    if (read && !tooLarge)
        return true;
    // A body declared too large is refused by the server's reader with 413 before
    // any of it is taken; one that grows too large in chunks is cut here.
    if (tooLarge || response.status == 413)
        sendError(response, 413, "413 - Request Entity Too Large");
    else
        sendError(response, 400, "400 - Bad Request");
    closeAfterAnswer(response);
    return false;
}

} // namespace velvox::sandbox
