#include "VXKit.h"

#include <Platform/UTF8.h>

#include <vector>

namespace velvox {

Ref<String> stringWithMilliseconds(int64_t ms)
{
    int64_t secondsTotal = ms / 1000;
    int64_t hours = ms / 3600000;
    int64_t rest = secondsTotal - hours * 3600;
    int64_t minutes = rest / 60;
    int64_t seconds = rest - minutes * 60;
    std::string text;
    if (ms >= 3600000)
        text += format("%u.", static_cast<uint32_t>(hours));
    if (rest > 599 || !hours)
        text += format("%u.", static_cast<uint32_t>(minutes));
    else
        text += format("0%u.", static_cast<uint32_t>(minutes));
    text += format(seconds < 10 ? "0%u" : "%u", static_cast<uint32_t>(seconds));
    return String::create(text);
}

Ref<String> stringWithInteger(long value, long upperRange)
{
    if (value > upperRange)
        return String::format("%d+", static_cast<int>(upperRange));
    return String::format("%d", static_cast<int>(value));
}

namespace {

// A scanner over UTF-8 text that, like the platform's, skips white space and
// newlines before each scan.
class Scanner {
public:
    explicit Scanner(std::string_view text)
        : m_text(text)
    {
    }

    // True when only white space and newlines remain.
    bool isAtEnd() const { return skipWhitespace(m_location) >= m_text.size(); }
    size_t location() const { return m_location; }
    char characterAtLocation() const { return m_location < m_text.size() ? m_text[m_location] : 0; }
    // One character (not byte) on. Answers false beyond the end, where the
    // platform scanner refuses to go.
    bool advance()
    {
        if (m_location >= m_text.size())
            return false;
        m_location += characterLength(m_location);
        return true;
    }
    // Skips white space, then takes everything up to `stop` (or the end).
    // Answers false, taking nothing, when nothing precedes it.
    bool scanUpTo(char stop, std::string_view& token)
    {
        size_t start = skipWhitespace(m_location);
        size_t found = m_text.find(stop, start);
        size_t end = found == std::string_view::npos ? m_text.size() : found;
        if (end == start) {
            m_location = start;
            return false;
        }
        token = m_text.substr(start, end - start);
        m_location = end;
        return true;
    }

private:
    size_t characterLength(size_t at) const
    {
        auto* p = reinterpret_cast<const uint8_t*>(m_text.data()) + at;
        const uint8_t* next;
        uint32_t codePoint;
        decodeUTF8(p, reinterpret_cast<const uint8_t*>(m_text.data()) + m_text.size(), &next, &codePoint);
        return next - p;
    }
    size_t whitespaceLength(size_t at) const
    {
        auto* p = reinterpret_cast<const uint8_t*>(m_text.data()) + at;
        const uint8_t* next;
        uint32_t c;
        if (decodeUTF8(p, reinterpret_cast<const uint8_t*>(m_text.data()) + m_text.size(), &next, &c) != UTF8Result::ok)
            return 0;
        bool space = (c >= 0x09 && c <= 0x0D) || c == 0x20 || c == 0x85 || c == 0xA0 || c == 0x1680 || (c >= 0x2000 && c <= 0x200A)
            || c == 0x2028 || c == 0x2029 || c == 0x202F || c == 0x205F || c == 0x3000;
        return space ? next - p : 0;
    }
    size_t skipWhitespace(size_t at) const
    {
        while (at < m_text.size()) {
            size_t n = whitespaceLength(at);
            if (!n)
                break;
            at += n;
        }
        return at;
    }

    std::string_view m_text;
    size_t m_location { 0 };
};

} // namespace

Ref<Array> componentsSeparatedByWhitespacePreservingQuotations(const String& string)
{
    // The words go straight into the immutable array, without a mutable one to copy.
    std::vector<Ref<Object>> result;
    Scanner scanner(string.view());
    while (!scanner.isAtEnd()) {
        std::string_view token;
        bool scanned;
        if (scanner.characterAtLocation() == '"') {
            scanner.advance();
            scanned = scanner.scanUpTo('"', token);
            // An unterminated quotation ends the scan: the words before it are the result.
            if (!scanner.advance())
                break;
        } else
            scanned = scanner.scanUpTo(' ', token);
        if (!scanner.isAtEnd())
            scanner.advance();
        if (scanned)
            result.push_back(String::create(token));
    }
    return Array::create(std::move(result));
}

RefPtr<Object> JSONObject(const String& string)
{
    return objectFromJSONString(string);
}

RefPtr<Object> JSONObject(const Data& data)
{
    // Bytes that are not UTF-8 make no string, so no value; the others are
    // decoded where they lie, as the string's bytes would be, without a copy.
    // No separate pass checks the UTF-8 first: with the default options the
    // decoder refuses every byte from 0x80 on outside strings and checks each
    // sequence inside them by the same rules as the string conversion, so a
    // text it accepts is UTF-8, and one it refuses gives no value either way.
    return objectFromJSONData(data);
}

} // namespace velvox
