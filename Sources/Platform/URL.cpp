#include "URL.h"

#include <array>
#include <cstring>
#include <uriparser/Uri.h>

namespace velvox {

VX_DEFINE_CLASS(URL, Object)

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

// Byte classes of a plain web address: unreserved and sub-delimiters (host
// names and paths), and what a path or query adds (":", "@", "/", "?").
enum : uint8_t { hostByte = 1,
    pathByte = 2 };
constexpr auto webURLBytes = [] {
    std::array<uint8_t, 256> table {};
    for (unsigned c = 0; c < 256; ++c) {
        bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '.' || c == '_'
            || c == '~' || c == '!' || c == '$' || c == '&' || c == '\'' || c == '(' || c == ')' || c == '*' || c == '+' || c == ','
            || c == ';' || c == '=';
        table[c] = (plain ? hostByte | pathByte : 0) | (c == ':' || c == '@' || c == '/' || c == '?' ? pathByte : 0);
    }
    return table;
}();

// A quick, allocation-free acceptance of the shape nearly every URL a service
// sends has: "http" or "https", "://", a registered host name, an optional
// port, then path, query and fragment characters. Everything it accepts is a
// valid URI; anything else (and so every doubtful case) goes to the full parser.
bool isPlainWebURL(std::string_view text)
{
    auto isHex = [](unsigned char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); };
    auto byteClass = [&](size_t at) { return webURLBytes[static_cast<unsigned char>(text[at])]; };
    size_t i;
    if (text.starts_with("https://"))
        i = 8;
    else if (text.starts_with("http://"))
        i = 7;
    else
        return false;
    size_t hostStart = i;
    while (i < text.size() && (byteClass(i) & hostByte))
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
        if (byteClass(i) & pathByte)
            continue;
        unsigned char c = static_cast<unsigned char>(text[i]);
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

} // namespace velvox
