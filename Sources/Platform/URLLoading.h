#pragma once

// Asynchronous HTTP on libcurl's multi interface, driven by the run loop of
// the thread that starts the task: no thread of its own, and every callback
// of a task arrives on that run loop's thread, never from inside another call
// into the loader.
//
// A task calls didSendBytes / didReceiveBytes / didReceiveData any number of
// times, then exactly one didComplete: with the response (any HTTP status),
// or with an error in URLErrorDomain when the transfer failed (refused
// connection, time-out, reset, TLS failure...). A cancelled task calls nothing.
// Only http and https are spoken; redirects are not followed.

#include "Collections.h"
#include "Object.h"
#include "String.h"
#include "Values.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace velvox {

class RunLoop;

// Transfer failures: the code is libcurl's error number, the description says
// what happened ("Couldn't connect to server: ...", "Timeout was reached: ...").
inline constexpr std::string_view URLErrorDomain = "VXURLErrorDomain";

struct URLFormPart {
    std::string name;
    // Exactly one of these: text, bytes, or a file to read from disk.
    std::string text;
    RefPtr<Data> data;
    std::string filePath;
    std::string fileName;    // for data and files; defaults to the file's own name
    std::string contentType; // for data and files; defaults to application/octet-stream
};

struct URLRequest {
    std::string method { "GET" };
    std::string url;
    std::vector<std::pair<std::string, std::string>> headers;
    // A body of bytes (with its Content-Type among the headers), or a
    // multipart form when `formParts` is not empty.
    std::string body;
    std::vector<URLFormPart> formParts;
    double connectTimeout { 10 };
    double timeout { 60 };
    bool verifyTLS { true };
    // The largest body accepted, counted after decompression: a longer one ends
    // the transfer with an error (URLErrorDomain, code 63) instead of filling
    // memory. The response headers are bounded too (256 KiB in all).
    size_t maximumBodySize { defaultMaximumBodySize };
    static constexpr size_t defaultMaximumBodySize = 64 * 1024 * 1024;
};

class URLResponse final : public Object {
    VX_OBJECT(URLResponse)
public:
    static Ref<URLResponse> create(long statusCode, Ref<Dictionary>&& headers, Ref<Data>&& body);

    long statusCode() const { return m_statusCode; }
    // Lower-cased header names to values.
    Dictionary& headers() const { return m_headers; }
    // The value of a header by its lower-cased name, empty when absent.
    std::string headerValue(std::string_view name) const
    {
        auto* value = m_headers->objectForKey<String>(name);
        return value ? value->str() : std::string();
    }
    Data& body() const { return m_body; }

private:
    URLResponse(long statusCode, Ref<Dictionary>&& headers, Ref<Data>&& body)
        : m_statusCode(statusCode)
        , m_headers(std::move(headers))
        , m_body(std::move(body))
    {
    }
    long m_statusCode;
    Ref<Dictionary> m_headers;
    Ref<Data> m_body;
};

struct URLTaskCallbacks {
    std::function<void(uint64_t sent, uint64_t total)> didSendBytes;
    std::function<void(uint64_t received, uint64_t total)> didReceiveBytes;
    std::function<void(Data& chunk)> didReceiveData;
    // Exactly one of response and error is set.
    std::function<void(URLResponse* response, Error* error)> didComplete;
};

class URLLoader;

class URLTask final : public Object {
    VX_OBJECT(URLTask)
public:
    // Stops the transfer; no callback follows. Harmless after completion.
    void cancel();
    bool isFinished() const { return m_finished; }

private:
    friend class URLLoader;
    URLTask() = default;
    ~URLTask() override;
    // Room for an answer of the declared length, within bounds; false when memory runs out.
    bool reserveBody(uint64_t declaredLength);
    bool resizeBody(size_t capacity);

    URLLoader* m_loader { nullptr };
    void* m_handle { nullptr }; // CURL*
    URLTaskCallbacks m_callbacks;
    // The body, in one malloc() block that the response's Data adopts.
    char* m_bodyBytes { nullptr };
    size_t m_bodyLength { 0 };
    size_t m_bodyCapacity { 0 };
    size_t m_maximumBodySize { 0 };
    size_t m_headerBytes { 0 };
    std::vector<std::pair<std::string, std::string>> m_responseHeaders;
    // Set by a callback that stopped the transfer: the error to report instead of libcurl's.
    std::string m_failure;
    int64_t m_failureCode { 0 };
    void* m_headerList { nullptr }; // curl_slist*
    void* m_mime { nullptr };       // curl_mime*
    char m_errorBuffer[256] {};
    uint64_t m_lastSent { 0 };
    uint64_t m_lastReceived { 0 };
    bool m_finished { false };
};

// The loader of the current thread's run loop.
class URLLoader {
public:
    static URLLoader& current();

    // Starts the request; the callbacks run on this loader's run loop.
    Ref<URLTask> start(const URLRequest&, URLTaskCallbacks);
    size_t runningTaskCount() const;

    ~URLLoader();

private:
    URLLoader();
    friend class URLTask;
    struct Impl;
    std::shared_ptr<Impl> m_impl;
    void cancel(URLTask&);
};

// Percent-encodes text for a query string or form body (RFC 3986 unreserved characters stay).
std::string percentEncode(std::string_view);
// Turns %XX escapes back into bytes; malformed escapes stay as they are.
std::string percentDecode(std::string_view);

} // namespace velvox
