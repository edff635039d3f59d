#include "Values.h"

#include "RunLoop.h"

#include "Collections.h"
#include "FileManager.h"

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <unistd.h>
#include <uriparser/Uri.h>

namespace velvox {

VX_DEFINE_CLASS(Data, Object)
VX_DEFINE_CLASS(Date, Object)
VX_DEFINE_CLASS(URL, Object)
VX_DEFINE_CLASS(Error, Object)
VX_DEFINE_CLASS(Image, Object)

// MARK: Data

Ref<Data> Data::create(const void* bytes, size_t length)
{
    auto* copy = static_cast<uint8_t*>(malloc(length ? length : 1));
    if (!copy)
        throw std::bad_alloc();
    if (length)
        memcpy(copy, bytes, length);
    return adoptRef(*new Data(copy, length));
}

Ref<Data> Data::adoptMallocedBytes(void* bytes, size_t length)
{
    return adoptRef(*new Data(static_cast<uint8_t*>(bytes), length));
}

Data::~Data()
{
    free(m_bytes);
}

RefPtr<Data> Data::createWithContentsOfFile(const std::string& path)
{
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return nullptr;
    std::string contents;
    char buffer[65536];
    while (true) {
        ssize_t n = read(fd, buffer, sizeof(buffer));
        if (n < 0) {
            if (errno == EINTR)
                continue;
            close(fd);
            return nullptr;
        }
        if (!n)
            break;
        contents.append(buffer, n);
    }
    close(fd);
    return create(contents.data(), contents.size());
}

bool Data::writeToFile(const std::string& path) const
{
    return FileManager::writeFileAtomically(path, view());
}

Ref<String> Data::description() const
{
    std::string text = format("{length = %zu, bytes = 0x", m_length);
    static const char digits[] = "0123456789abcdef";
    size_t shown = m_length > 32 ? 32 : m_length;
    for (size_t i = 0; i < shown; ++i) {
        text.push_back(digits[m_bytes[i] >> 4]);
        text.push_back(digits[m_bytes[i] & 15]);
    }
    if (shown < m_length)
        text += "...";
    text += "}";
    return String::create(text);
}

bool Data::isEqual(const Object* other) const
{
    auto* data = dynamicDowncast<Data>(other);
    return data && data->view() == view();
}

size_t Data::hash() const
{
    return String::hashBytes(reinterpret_cast<const char*>(m_bytes), m_length > 80 ? 80 : m_length) ^ m_length;
}

// MARK: Date

Ref<Date> Date::create(double seconds)
{
    return adoptRef(*new Date(seconds));
}

Ref<Date> Date::now()
{
    // The thread's run loop clock, so that a manual clock fixes "now" in tests.
    if (auto* loop = RunLoop::currentIfExists())
        return create(loop->clock().wallTime());
    return create(SystemClock::shared().wallTime());
}

Date& Date::distantPast()
{
    static Date* s_date = new Date(-62135596800.0);
    return *s_date;
}

Date& Date::distantFuture()
{
    static Date* s_date = new Date(64092211200.0);
    return *s_date;
}

double Date::timeIntervalSinceNow() const
{
    return m_seconds - now()->m_seconds;
}

Ref<String> Date::description() const
{
    // Years beyond what a calendar can show (and NaN) have no text; converting
    // such a double to an integer would be undefined.
    if (!(std::fabs(m_seconds) < 1e15))
        return String::create("(invalid date)");
    time_t seconds = static_cast<time_t>(std::floor(m_seconds));
    struct tm utc;
    if (!gmtime_r(&seconds, &utc))
        return String::create("(invalid date)");
    char text[64];
    strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S +0000", &utc);
    return String::create(text);
}

bool Date::isEqual(const Object* other) const
{
    auto* date = dynamicDowncast<Date>(other);
    return date && date->m_seconds == m_seconds;
}

size_t Date::hash() const
{
    // Whole seconds where they fit an integer; any other double hashes by its bits.
    if (std::fabs(m_seconds) < 9.2e18)
        return static_cast<size_t>(static_cast<int64_t>(m_seconds));
    return std::hash<double>()(m_seconds);
}

// MARK: URL

namespace {

class ParsedURI {
public:
    explicit ParsedURI(std::string_view text)
    {
        const char* errorPosition = nullptr;
        m_ok = uriParseSingleUriExA(&m_uri, text.data(), text.data() + text.size(), &errorPosition) == URI_SUCCESS;
    }
    ~ParsedURI() { uriFreeUriMembersA(&m_uri); }
    bool ok() const { return m_ok; }
    UriUriA& uri() { return m_uri; }

    static std::string text(const UriTextRangeA& range)
    {
        if (!range.first || !range.afterLast)
            return {};
        return std::string(range.first, range.afterLast - range.first);
    }
    static bool present(const UriTextRangeA& range) { return range.first; }

    static std::string toString(const UriUriA& uri)
    {
        int length = 0;
        if (uriToStringCharsRequiredA(&uri, &length) != URI_SUCCESS)
            return {};
        std::string out(length + 1, '\0');
        if (uriToStringA(out.data(), &uri, length + 1, nullptr) != URI_SUCCESS)
            return {};
        out.resize(length);
        return out;
    }

private:
    UriUriA m_uri {};
    bool m_ok { false };
};

// A quick, allocation-free acceptance of the shape nearly every URL a service
// sends has: "http" or "https", "://", a registered host name, an optional
// port, then path, query and fragment characters. Everything it accepts is a
// valid URI; anything else (and so every doubtful case) goes to the full parser.
bool isPlainWebURL(std::string_view text)
{
    auto isAlnum = [](unsigned char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9'); };
    auto isHex = [](unsigned char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); };
    // unreserved / sub-delims, shared by host names and paths
    auto isPlain = [&](unsigned char c) {
        return isAlnum(c) || c == '-' || c == '.' || c == '_' || c == '~' || c == '!' || c == '$' || c == '&' || c == '\''
            || c == '(' || c == ')' || c == '*' || c == '+' || c == ',' || c == ';' || c == '=';
    };
    size_t i;
    if (text.starts_with("https://"))
        i = 8;
    else if (text.starts_with("http://"))
        i = 7;
    else
        return false;
    size_t hostStart = i;
    while (i < text.size() && isPlain(static_cast<unsigned char>(text[i])))
        ++i;
    if (i == hostStart)
        return false;
    if (i < text.size() && text[i] == ':') {
        ++i;
        while (i < text.size() && text[i] >= '0' && text[i] <= '9')
            ++i;
    }
    if (i < text.size() && text[i] != '/' && text[i] != '?' && text[i] != '#')
        return false;
    bool inFragment = false;
    for (; i < text.size(); ++i) {
        unsigned char c = static_cast<unsigned char>(text[i]);
        if (isPlain(c) || c == ':' || c == '@' || c == '/' || c == '?')
            continue;
        if (c == '#' && !inFragment) {
            inFragment = true;
            continue;
        }
        if (c == '%' && i + 2 < text.size() && isHex(static_cast<unsigned char>(text[i + 1])) && isHex(static_cast<unsigned char>(text[i + 2]))) {
            i += 2;
            continue;
        }
        return false;
    }
    return true;
}

bool isValidURIReference(std::string_view text)
{
    return isPlainWebURL(text) || ParsedURI(text).ok();
}

} // namespace

RefPtr<URL> URL::create(std::string_view text)
{
    if (text.empty() || !isValidURIReference(text))
        return nullptr;
    return adoptRef(new URL(String::create(text)));
}

RefPtr<URL> URL::create(String& text)
{
    // Shares the text: a URL from a decoded answer costs one object.
    if (text.isEmpty() || !isValidURIReference(text.view()))
        return nullptr;
    return adoptRef(new URL(Ref<String>(text)));
}

RefPtr<URL> URL::create(std::string_view text, const URL* base)
{
    if (!base)
        return create(text);
    ParsedURI reference(text);
    ParsedURI baseURI(base->absoluteString()->view());
    if (!reference.ok() || !baseURI.ok())
        return nullptr;
    UriUriA resolved {};
    if (uriAddBaseUriA(&resolved, &reference.uri(), &baseURI.uri()) != URI_SUCCESS) {
        uriFreeUriMembersA(&resolved);
        return nullptr;
    }
    std::string result = ParsedURI::toString(resolved);
    uriFreeUriMembersA(&resolved);
    if (result.empty())
        return nullptr;
    return create(result);
}

std::string URL::scheme() const
{
    ParsedURI parsed(m_string->view());
    return ParsedURI::text(parsed.uri().scheme);
}

std::string URL::host() const
{
    ParsedURI parsed(m_string->view());
    return ParsedURI::text(parsed.uri().hostText);
}

std::optional<int> URL::port() const
{
    ParsedURI parsed(m_string->view());
    std::string port = ParsedURI::text(parsed.uri().portText);
    if (port.empty())
        return std::nullopt;
    return atoi(port.c_str());
}

std::string URL::path() const
{
    ParsedURI parsed(m_string->view());
    UriUriA& uri = parsed.uri();
    std::string path;
    bool leadingSlash = uri.absolutePath || ParsedURI::present(uri.hostText);
    bool first = true;
    for (auto* segment = uri.pathHead; segment; segment = segment->next) {
        if (!first || leadingSlash)
            path.push_back('/');
        path += ParsedURI::text(segment->text);
        first = false;
    }
    return path;
}

RefPtr<String> URL::query() const
{
    ParsedURI parsed(m_string->view());
    if (!ParsedURI::present(parsed.uri().query))
        return nullptr;
    return String::create(ParsedURI::text(parsed.uri().query));
}

RefPtr<String> URL::fragment() const
{
    ParsedURI parsed(m_string->view());
    if (!ParsedURI::present(parsed.uri().fragment))
        return nullptr;
    return String::create(ParsedURI::text(parsed.uri().fragment));
}

bool URL::isEqual(const Object* other) const
{
    auto* url = dynamicDowncast<URL>(other);
    return url && url->m_string->isEqual(m_string.ptr());
}

// MARK: Error

Error::Error(Ref<String>&& domain, int64_t code, Ref<Dictionary>&& userInfo)
    : m_domain(std::move(domain))
    , m_code(code)
    , m_userInfo(std::move(userInfo))
{
}

Error::~Error() = default;

Ref<Error> Error::create(std::string_view domain, int64_t code, Dictionary* userInfo)
{
    Ref<Dictionary> info = userInfo ? userInfo->copy() : Dictionary::create();
    return adoptRef(*new Error(String::create(domain), code, std::move(info)));
}

Ref<Error> Error::create(std::string_view domain, int64_t code, std::string_view localizedDescription)
{
    auto text = String::create(localizedDescription);
    return create(domain, code, Dictionary::create({ { LocalizedDescriptionKey, text.ptr() } }).ptr());
}

Ref<String> Error::localizedDescription() const
{
    if (auto* text = m_userInfo->objectForKey<String>(LocalizedDescriptionKey))
        return *text;
    return String::format("The operation couldn\u2019t be completed. (%@ error %lld.)", m_domain, static_cast<long long>(m_code));
}

Ref<String> Error::description() const
{
    return String::format("Error Domain=%@ Code=%lld \"%@\" UserInfo=%@", m_domain, static_cast<long long>(m_code),
        localizedDescription(), m_userInfo);
}

bool Error::isEqual(const Object* other) const
{
    if (this == other)
        return true;
    auto* error = dynamicDowncast<Error>(other);
    return error && error->m_code == m_code && error->m_domain->isEqual(m_domain.ptr()) && error->m_userInfo->isEqual(m_userInfo.ptr());
}

size_t Error::hash() const
{
    return m_domain->hash() ^ static_cast<size_t>(m_code);
}

// MARK: Image

std::string_view Image::mediaTypeForBytes(const uint8_t* b, size_t n)
{
    auto starts = [&](std::string_view signature, size_t offset = 0) {
        return n >= offset + signature.size() && !memcmp(b + offset, signature.data(), signature.size());
    };
    if (starts("\x89PNG\r\n\x1a\n"))
        return "image/png";
    if (starts("\xff\xd8\xff"))
        return "image/jpeg";
    if (starts("GIF87a") || starts("GIF89a"))
        return "image/gif";
    if (starts("RIFF") && starts("WEBP", 8))
        return "image/webp";
    if (starts("BM") && n >= 26)
        return "image/bmp";
    if (starts(std::string_view("II*\0", 4)) || starts(std::string_view("MM\0*", 4)))
        return "image/tiff";
    return {};
}

RefPtr<Image> Image::create(Data& data)
{
    std::string_view type = mediaTypeForBytes(data.bytes(), data.length());
    if (type.empty())
        return nullptr;
    return adoptRef(new Image(data, type));
}

Ref<String> Image::description() const
{
    return String::format("<Image 0x%08X %s, %zu bytes>", static_cast<unsigned>(reinterpret_cast<uintptr_t>(this)),
        m_mediaType, m_data->length());
}

bool Image::isEqual(const Object* other) const
{
    auto* image = dynamicDowncast<Image>(other);
    return image && image->m_data->isEqual(m_data.ptr());
}

} // namespace velvox
