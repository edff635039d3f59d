#include "URLLoading.h"

#include "Exception.h"
#include "FileManager.h"
#include "Format.h"
#include "RunLoop.h"

#include <curl/curl.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <climits>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <unordered_map>
#include <utility>
#include <vector>

#include <unistd.h>

namespace velvox {

VX_DEFINE_CLASS(URLResponse, Object)
VX_DEFINE_CLASS(URLTask, Object)

Ref<URLResponse> URLResponse::create(long statusCode, Ref<Dictionary>&& headers, Ref<Data>&& body)
{
    return adoptRef(*new URLResponse(statusCode, std::move(headers), std::move(body)));
}

std::string percentEncode(std::string_view text)
{
    static const char digits[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(text.size() * 3);
    for (unsigned char c : text) {
        if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '_' || c == '.' || c == '~')
            out.push_back(static_cast<char>(c));
        else {
            out.push_back('%');
            out.push_back(digits[c >> 4]);
            out.push_back(digits[c & 15]);
        }
    }
    return out;
}

std::string percentDecode(std::string_view text)
{
    auto hex = [](char c) -> int {
        if (c >= '0' && c <= '9')
            return c - '0';
        if (c >= 'a' && c <= 'f')
            return c - 'a' + 10;
        if (c >= 'A' && c <= 'F')
            return c - 'A' + 10;
        return -1;
    };
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size() && hex(text[i + 1]) >= 0 && hex(text[i + 2]) >= 0) {
            out.push_back(static_cast<char>(hex(text[i + 1]) * 16 + hex(text[i + 2])));
            i += 2;
        } else
            out.push_back(text[i]);
    }
    return out;
}

namespace {

// A file part's contents, read from a descriptor the platform opened (so that
// only a readable regular file is ever sent) and closed with the form.
struct UploadFile {
    int fd;

    static size_t read(char* buffer, size_t size, size_t count, void* self)
    {
        while (true) {
            ssize_t n = ::read(static_cast<UploadFile*>(self)->fd, buffer, size * count);
            if (n >= 0)
                return static_cast<size_t>(n);
            if (errno != EINTR)
                return CURL_READFUNC_ABORT;
        }
    }
    static int seek(void* self, curl_off_t offset, int origin)
    {
        return lseek(static_cast<UploadFile*>(self)->fd, offset, origin) < 0 ? CURL_SEEKFUNC_FAIL : CURL_SEEKFUNC_OK;
    }
    static void release(void* self)
    {
        close(static_cast<UploadFile*>(self)->fd);
        delete static_cast<UploadFile*>(self);
    }
};

} // namespace

struct URLLoader::Impl : std::enable_shared_from_this<URLLoader::Impl> {
    CURLM* multi { nullptr };
    RunLoop* loop { nullptr };
    Subscription timer;
    std::map<curl_socket_t, Subscription> watches;
    std::unordered_map<CURL*, Ref<URLTask>> tasks;
    // Events gathered while libcurl runs, delivered once it has returned, so
    // that callbacks may start and cancel tasks freely.
    std::deque<std::function<void()>> pending;

    void action(curl_socket_t socket, int flags);
    void deliverPending();

    // Calls one of a running task's callbacks through a copy: the callback may
    // cancel its own task, which drops the task's callbacks while it runs.
    template<typename Callback, typename... Args>
    static void callBack(URLTask& task, Callback URLTaskCallbacks::*member, Args&&... args)
    {
        if (task.m_finished)
            return;
        if (auto callback = task.m_callbacks.*member)
            callback(std::forward<Args>(args)...);
    }

    static size_t writeCallback(char* bytes, size_t size, size_t count, void* userData);
    static size_t headerCallback(char* bytes, size_t size, size_t count, void* userData);
    static int progressCallback(void* userData, curl_off_t downloadTotal, curl_off_t downloaded, curl_off_t uploadTotal, curl_off_t uploaded);
    static size_t failTransfer(URLTask*, int64_t code, std::string message, size_t stopValue);
};

URLLoader::URLLoader()
    : m_impl(std::make_shared<Impl>())
{
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
    m_impl->loop = &RunLoop::current();
    m_impl->multi = curl_multi_init();
    if (!m_impl->multi)
        throw std::bad_alloc();
    auto* impl = m_impl.get();

    curl_multi_setopt(m_impl->multi, CURLMOPT_SOCKETDATA, impl);
    curl_multi_setopt(
        m_impl->multi, CURLMOPT_SOCKETFUNCTION,
        +[](CURL*, curl_socket_t socket, int what, void* userData, void*) -> int {
            auto* impl = static_cast<Impl*>(userData);
            auto it = impl->watches.find(socket);
            if (what == CURL_POLL_REMOVE) {
                if (it != impl->watches.end())
                    impl->watches.erase(it);
                return 0;
            }
            SocketEvent events = SocketEvent::None;
            if (what == CURL_POLL_IN || what == CURL_POLL_INOUT)
                events = events | SocketEvent::Readable;
            if (what == CURL_POLL_OUT || what == CURL_POLL_INOUT)
                events = events | SocketEvent::Writable;
            if (it != impl->watches.end()) {
                impl->loop->updateSocket(socket, events);
                return 0;
            }
            auto watch = impl->loop->watchSocket(socket, events, [impl](int fd, SocketEvent ready) {
                int flags = 0;
                if (any(ready & SocketEvent::Readable))
                    flags |= CURL_CSELECT_IN;
                if (any(ready & SocketEvent::Writable))
                    flags |= CURL_CSELECT_OUT;
                if (any(ready & SocketEvent::Error))
                    flags |= CURL_CSELECT_ERR;
                impl->action(fd, flags);
            });
            impl->watches.emplace(socket, std::move(watch));
            return 0;
        });
    curl_multi_setopt(m_impl->multi, CURLMOPT_TIMERDATA, impl);
    curl_multi_setopt(
        m_impl->multi, CURLMOPT_TIMERFUNCTION,
        +[](CURLM*, long timeoutMilliseconds, void* userData) -> int {
            auto* impl = static_cast<Impl*>(userData);
            impl->timer.cancel();
            if (timeoutMilliseconds < 0)
                return 0;
            // libcurl must not be called from inside this callback: go through the loop.
            impl->timer = impl->loop->performAfterDelay(static_cast<double>(timeoutMilliseconds) / 1000.0,
                [impl] { impl->action(CURL_SOCKET_TIMEOUT, 0); });
            return 0;
        });
}

URLLoader::~URLLoader()
{
    for (auto& [handle, task] : m_impl->tasks) {
        curl_multi_remove_handle(m_impl->multi, handle);
        task->m_loader = nullptr;
    }
    m_impl->tasks.clear();
    m_impl->timer.cancel();
    m_impl->watches.clear();
    curl_multi_cleanup(m_impl->multi);
    m_impl->multi = nullptr;
}

URLLoader& URLLoader::current()
{
    thread_local std::unique_ptr<URLLoader> loader(new URLLoader);
    return *loader;
}

size_t URLLoader::runningTaskCount() const
{
    return m_impl->tasks.size();
}

namespace {

// Finished handles of this thread, reset and kept for the next requests: a
// handle costs more to make than to reset.
class SpareHandles {
public:
    ~SpareHandles()
    {
        for (auto* handle : m_handles)
            curl_easy_cleanup(handle);
    }
    CURL* take()
    {
        if (m_handles.empty())
            return curl_easy_init();
        auto* handle = m_handles.back();
        m_handles.pop_back();
        return handle;
    }
    void give(CURL* handle)
    {
        if (m_handles.size() == capacity) {
            curl_easy_cleanup(handle);
            return;
        }
        curl_easy_reset(handle);
        m_handles.push_back(handle);
    }

private:
    static constexpr size_t capacity = 8;
    std::vector<CURL*> m_handles;
};

SpareHandles& spareHandles()
{
    thread_local SpareHandles handles;
    return handles;
}

} // namespace

URLTask::~URLTask()
{
    free(m_bodyBytes);
    if (m_loader)
        m_loader->cancel(*this);
    if (m_handle)
        spareHandles().give(static_cast<CURL*>(m_handle));
    curl_slist_free_all(static_cast<curl_slist*>(m_headerList));
    curl_mime_free(static_cast<curl_mime*>(m_mime));
}

bool URLTask::reserveBody(uint64_t declaredLength)
{
    // The block is made once at the declared size instead of being copied as
    // it doubles. Bounded by the limit (libcurl refuses a longer declaration
    // anyway) and by 16 MB, so that a length a server only claims costs
    // nothing: a longer answer grows as it comes.
    constexpr uint64_t largestReservation = 16 << 20;
    size_t wanted = static_cast<size_t>(std::min<uint64_t>({ declaredLength, m_maximumBodySize, largestReservation }));
    return wanted <= m_bodyCapacity || resizeBody(wanted);
}

bool URLTask::resizeBody(size_t capacity)
{
    if (!capacity) {
        free(std::exchange(m_bodyBytes, nullptr));
        m_bodyCapacity = 0;
        return true;
    }
    auto* resized = static_cast<char*>(realloc(m_bodyBytes, capacity));
    if (!resized)
        return false;
    m_bodyBytes = resized;
    m_bodyCapacity = capacity;
    return true;
}

void URLTask::cancel()
{
    m_finished = true;
    m_callbacks = {};
    if (m_loader)
        m_loader->cancel(*this);
}

void URLLoader::cancel(URLTask& task)
{
    auto* handle = static_cast<CURL*>(task.m_handle);
    task.m_loader = nullptr;
    curl_multi_remove_handle(m_impl->multi, handle);
    // The task may die with this erase; nothing touches it after.
    m_impl->tasks.erase(handle);
}

Ref<URLTask> URLLoader::start(const URLRequest& request, URLTaskCallbacks callbacks)
{
    auto task = adoptRef(*new URLTask);
    task->m_callbacks = std::move(callbacks);
    CURL* handle = spareHandles().take();
    if (!handle)
        throw std::bad_alloc();
    task->m_handle = handle;
    URLTask* raw = task.ptr();

    curl_easy_setopt(handle, CURLOPT_URL, request.url.c_str());
    curl_easy_setopt(handle, CURLOPT_PRIVATE, raw);
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, raw->m_errorBuffer);
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, Impl::writeCallback);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, raw);
    curl_easy_setopt(handle, CURLOPT_HEADERFUNCTION, Impl::headerCallback);
    curl_easy_setopt(handle, CURLOPT_HEADERDATA, raw);
    // Progress is asked of libcurl only for a caller who listens to it.
    if (task->m_callbacks.didSendBytes || task->m_callbacks.didReceiveBytes) {
        curl_easy_setopt(handle, CURLOPT_NOPROGRESS, 0L);
        curl_easy_setopt(handle, CURLOPT_XFERINFOFUNCTION, Impl::progressCallback);
        curl_easy_setopt(handle, CURLOPT_XFERINFODATA, raw);
    }
    curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(request.connectTimeout * 1000));
    curl_easy_setopt(handle, CURLOPT_TIMEOUT_MS, static_cast<long>(request.timeout * 1000));
    curl_easy_setopt(handle, CURLOPT_SSL_VERIFYPEER, request.verifyTLS ? 1L : 0L);
    curl_easy_setopt(handle, CURLOPT_SSL_VERIFYHOST, request.verifyTLS ? 2L : 0L);
    curl_easy_setopt(handle, CURLOPT_ACCEPT_ENCODING, "");
    task->m_maximumBodySize = request.maximumBodySize;
    // A declared length beyond the limit is refused before anything is read.
    curl_easy_setopt(handle, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(std::min<size_t>(request.maximumBodySize, INT64_MAX)));
    // Only the web is spoken: no file://, dict://, gopher:// or any other
    // protocol libcurl knows, whatever a URL or a caller asks for.
    curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(handle, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");

    curl_slist* headers = nullptr;
    for (auto& [name, value] : request.headers)
        headers = curl_slist_append(headers, (name + ": " + value).c_str());
    // A body goes at once, without waiting for a "100 Continue".
    headers = curl_slist_append(headers, "Expect:");
    task->m_headerList = headers;
    curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers);

    // A failure before the transfer arrives through the loop, as any other would.
    auto failBeforeSending = [this](Ref<URLTask> task, Ref<Error> error) {
        m_impl->loop->post([task, error] {
            if (auto didComplete = std::exchange(task->m_callbacks.didComplete, nullptr); didComplete && !task->m_finished) {
                task->m_finished = true;
                didComplete(nullptr, error.ptr());
            }
        });
        return task;
    };

    const std::string& method = request.method;
    if (!request.formParts.empty()) {
        curl_mime* mime = curl_mime_init(handle);
        task->m_mime = mime;
        for (auto& part : request.formParts) {
            curl_mimepart* field = curl_mime_addpart(mime);
            curl_mime_name(field, part.name.c_str());
            if (part.data) {
                curl_mime_data(field, reinterpret_cast<const char*>(part.data->bytes()), part.data->length());
                curl_mime_filename(field, part.fileName.empty() ? "data" : part.fileName.c_str());
                curl_mime_type(field, part.contentType.empty() ? "application/octet-stream" : part.contentType.c_str());
            } else if (!part.filePath.empty()) {
                RefPtr<Error> error;
                uint64_t size = 0;
                int fd = FileManager::openFileForReading(part.filePath, &error, &size);
                if (fd < 0)
                    return failBeforeSending(task, error.releaseNonNull());
                curl_mime_data_cb(field, static_cast<curl_off_t>(size), UploadFile::read, UploadFile::seek, UploadFile::release, new UploadFile { fd });
                curl_mime_filename(field, (part.fileName.empty() ? lastPathComponent(part.filePath) : part.fileName).c_str());
                curl_mime_type(field, part.contentType.empty() ? "application/octet-stream" : part.contentType.c_str());
            } else
                curl_mime_data(field, part.text.data(), part.text.size());
        }
        curl_easy_setopt(handle, CURLOPT_MIMEPOST, mime);
        if (method != "POST")
            curl_easy_setopt(handle, CURLOPT_CUSTOMREQUEST, method.c_str());
    } else if (method == "GET") {
        curl_easy_setopt(handle, CURLOPT_HTTPGET, 1L);
    } else if (method == "HEAD") {
        curl_easy_setopt(handle, CURLOPT_NOBODY, 1L);
    } else if (!request.body.empty() || method == "POST" || method == "PUT") {
        curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE, static_cast<long>(request.body.size()));
        curl_easy_setopt(handle, CURLOPT_COPYPOSTFIELDS, request.body.c_str());
        if (method != "POST")
            curl_easy_setopt(handle, CURLOPT_CUSTOMREQUEST, method.c_str());
    } else
        curl_easy_setopt(handle, CURLOPT_CUSTOMREQUEST, method.c_str());

    task->m_loader = this;
    m_impl->tasks.emplace(handle, task);
    CURLMcode added = curl_multi_add_handle(m_impl->multi, handle);
    if (added != CURLM_OK) {
        m_impl->tasks.erase(handle);
        task->m_loader = nullptr;
        return failBeforeSending(task, Error::create(URLErrorDomain, static_cast<int64_t>(CURLE_FAILED_INIT), curl_multi_strerror(added)));
    }
    return task;
}

void URLLoader::Impl::action(curl_socket_t socket, int flags)
{
    int running = 0;
    curl_multi_socket_action(multi, socket, flags, &running);
    int left = 0;
    while (CURLMsg* message = curl_multi_info_read(multi, &left)) {
        if (message->msg != CURLMSG_DONE)
            continue;
        CURL* handle = message->easy_handle;
        CURLcode result = message->data.result;
        auto it = tasks.find(handle);
        if (it == tasks.end())
            continue;
        Ref<URLTask> task = it->second;
        tasks.erase(it);
        curl_multi_remove_handle(multi, handle);
        task->m_loader = nullptr;
        RefPtr<URLResponse> response;
        RefPtr<Error> error;
        if (!task->m_failure.empty()) {
            error = Error::create(URLErrorDomain, task->m_failureCode, task->m_failure);
        } else if (result == CURLE_OK) {
            long status = 0;
            curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status);
            auto headers = MutableDictionary::create();
            for (auto& [name, value] : task->m_responseHeaders)
                headers->setObject(String::create(value), name);
            // The body's block passes to the Data: one copy of it, ever. A
            // block made for a declared length that did not come is cut down first.
            if (task->m_bodyCapacity - task->m_bodyLength > 4096)
                task->resizeBody(task->m_bodyLength);
            char* bytes = std::exchange(task->m_bodyBytes, nullptr);
            size_t length = std::exchange(task->m_bodyLength, 0);
            task->m_bodyCapacity = 0;
            response = URLResponse::create(status, headers->copy(), bytes ? Data::adoptMallocedBytes(bytes, length) : Data::create("", 0));
        } else if (result == CURLE_FILESIZE_EXCEEDED) {
            error = Error::create(URLErrorDomain, static_cast<int64_t>(result),
                format("The answer is larger than the limit of %zu bytes.", task->m_maximumBodySize));
        } else {
            std::string description = curl_easy_strerror(result);
            if (task->m_errorBuffer[0])
                description += std::string(": ") + task->m_errorBuffer;
            error = Error::create(URLErrorDomain, static_cast<int64_t>(result), description);
        }
        pending.push_back([task, response, error] {
            if (task->m_finished)
                return;
            task->m_finished = true;
            if (auto didComplete = std::exchange(task->m_callbacks.didComplete, nullptr))
                didComplete(response.get(), error.get());
            task->m_callbacks = {};
        });
    }
    deliverPending();
}

void URLLoader::Impl::deliverPending()
{
    // One event at a time: when a callback throws, the exception leaves the
    // run loop's turn and the events after it are delivered at the next turn.
    while (!pending.empty()) {
        auto event = std::move(pending.front());
        pending.pop_front();
        try {
            event();
        } catch (...) {
            if (!pending.empty()) {
                loop->post([weakImpl = weak_from_this()] {
                    if (auto impl = weakImpl.lock())
                        impl->deliverPending();
                });
            }
            throw;
        }
    }
}

// libcurl's callbacks run inside libcurl: no exception may leave them. A
// callback that cannot go on records why and stops the transfer.
size_t URLLoader::Impl::failTransfer(URLTask* task, int64_t code, std::string message, size_t stopValue)
{
    if (task->m_failure.empty()) {
        task->m_failure = std::move(message);
        task->m_failureCode = code;
    }
    return stopValue;
}

size_t URLLoader::Impl::writeCallback(char* bytes, size_t size, size_t count, void* userData)
{
    auto* task = static_cast<URLTask*>(userData);
    size_t length = size * count;
    try {
        // Counted after decompression, so a small compressed body cannot expand without bound.
        if (length > task->m_maximumBodySize - std::min(task->m_bodyLength, task->m_maximumBodySize))
            return failTransfer(task, CURLE_FILESIZE_EXCEEDED, format("The answer is larger than the limit of %zu bytes.", task->m_maximumBodySize), 0);
        if (task->m_bodyLength + length > task->m_bodyCapacity) {
            size_t capacity = std::max<size_t>({ task->m_bodyCapacity * 2, task->m_bodyLength + length, 16384 });
            capacity = std::min(capacity, std::max(task->m_maximumBodySize, task->m_bodyLength + length));
            if (!task->resizeBody(capacity))
                return failTransfer(task, CURLE_OUT_OF_MEMORY, "Out of memory while receiving the answer.", 0);
        }
        memcpy(task->m_bodyBytes + task->m_bodyLength, bytes, length);
        task->m_bodyLength += length;
        if (task->m_callbacks.didReceiveData && task->m_loader) {
            Ref<URLTask> protectedTask { *task };
            auto chunk = Data::create(bytes, length);
            task->m_loader->m_impl->pending.push_back([protectedTask, chunk] { callBack(*protectedTask, &URLTaskCallbacks::didReceiveData, *chunk); });
        }
        return length;
    } catch (...) {
        return failTransfer(task, CURLE_OUT_OF_MEMORY, "Out of memory while receiving the answer.", 0);
    }
}

size_t URLLoader::Impl::headerCallback(char* bytes, size_t size, size_t count, void* userData)
{
    constexpr size_t maximumHeaderBytes = 256 * 1024;
    auto* task = static_cast<URLTask*>(userData);
    size_t length = size * count;
    try {
        task->m_headerBytes += length;
        if (task->m_headerBytes > maximumHeaderBytes)
            return failTransfer(task, CURLE_WEIRD_SERVER_REPLY, format("The answer's headers are larger than %zu bytes.", maximumHeaderBytes), 0);
        std::string_view line(bytes, length);
        while (!line.empty() && (line.back() == '\r' || line.back() == '\n'))
            line.remove_suffix(1);
        // Each status line (an interim 100, a redirect) starts a new set of headers.
        if (line.starts_with("HTTP/")) {
            task->m_responseHeaders.clear();
            return length;
        }
        size_t colon = line.find(':');
        if (colon == std::string_view::npos)
            return length;
        std::string name(line.substr(0, colon));
        std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        std::string_view value = line.substr(colon + 1);
        while (!value.empty() && (value.front() == ' ' || value.front() == '\t'))
            value.remove_prefix(1);
        while (!value.empty() && (value.back() == ' ' || value.back() == '\t'))
            value.remove_suffix(1);
        if (name == "content-length") {
            // A length that is not a number that fits, or two lengths that
            // disagree, make the answer's end unknowable: a protocol error.
            uint64_t declared = 0;
            auto [end, problem] = std::from_chars(value.data(), value.data() + value.size(), declared);
            if (value.empty() || problem != std::errc() || end != value.data() + value.size() || declared > static_cast<uint64_t>(INT64_MAX))
                return failTransfer(task, CURLE_WEIRD_SERVER_REPLY, "The answer's Content-Length is not a valid length.", 0);
            for (auto& [otherName, otherValue] : task->m_responseHeaders) {
                if (otherName == "content-length" && otherValue != value)
                    return failTransfer(task, CURLE_WEIRD_SERVER_REPLY, "The answer has conflicting Content-Length headers.", 0);
            }
            if (!task->reserveBody(declared))
                return failTransfer(task, CURLE_OUT_OF_MEMORY, "Out of memory while receiving the answer.", 0);
        }
        task->m_responseHeaders.emplace_back(std::move(name), std::string(value));
        return length;
    } catch (...) {
        return failTransfer(task, CURLE_OUT_OF_MEMORY, "Out of memory while receiving the answer.", 0);
    }
}

int URLLoader::Impl::progressCallback(void* userData, curl_off_t downloadTotal, curl_off_t downloaded, curl_off_t uploadTotal, curl_off_t uploaded)
{
    auto* task = static_cast<URLTask*>(userData);
    if (!task->m_loader)
        return 0;
    try {
        auto& pending = task->m_loader->m_impl->pending;
        Ref<URLTask> protectedTask { *task };
        // Only real progress is reported: never a count of zero, never the same count twice.
        if (task->m_callbacks.didSendBytes && uploaded > 0 && static_cast<uint64_t>(uploaded) != task->m_lastSent) {
            task->m_lastSent = static_cast<uint64_t>(uploaded);
            uint64_t sent = static_cast<uint64_t>(uploaded), total = static_cast<uint64_t>(std::max(uploadTotal, uploaded));
            pending.push_back([protectedTask, sent, total] { callBack(*protectedTask, &URLTaskCallbacks::didSendBytes, sent, total); });
        }
        if (task->m_callbacks.didReceiveBytes && downloaded > 0 && static_cast<uint64_t>(downloaded) != task->m_lastReceived) {
            task->m_lastReceived = static_cast<uint64_t>(downloaded);
            uint64_t received = static_cast<uint64_t>(downloaded), total = static_cast<uint64_t>(std::max<curl_off_t>(downloadTotal, 0));
            pending.push_back([protectedTask, received, total] { callBack(*protectedTask, &URLTaskCallbacks::didReceiveBytes, received, total); });
        }
        return 0;
    } catch (...) {
        return static_cast<int>(failTransfer(task, CURLE_OUT_OF_MEMORY, "Out of memory while reporting progress.", 1));
    }
}

} // namespace velvox
