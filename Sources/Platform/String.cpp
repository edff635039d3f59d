#include "String.h"

#include "CLocale.h"

#include "Collections.h"
#include "UTF8.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <new>

namespace velvox {

VX_DEFINE_CLASS(String, Object)

Ref<String> String::create(std::string_view text)
{
    if (text.empty())
        return empty();
    void* memory = detail::allocateSmall(sizeof(String) + text.size() + 1);
    char* chars = static_cast<char*>(memory) + sizeof(String);
    memcpy(chars, text.data(), text.size());
    chars[text.size()] = 0;
    return adoptRef(*::new (memory) String(chars, text.size()));
}

void String::operator delete(String* string, std::destroying_delete_t)
{
    deallocate(string);
}

void String::deallocate(const String* constString)
{
    // A string on the stack is never deleted, so every string here owns trailing bytes.
    auto* string = const_cast<String*>(constString);
    size_t size = sizeof(String) + string->m_length + 1;
    string->String::~String();
    detail::deallocateSmall(string, size);
}

String& String::empty()
{
    // Never freed: every empty string in the process is this one.
    static String* s_empty = [] {
        void* memory = detail::allocateSmall(sizeof(String) + 1);
        char* chars = static_cast<char*>(memory) + sizeof(String);
        chars[0] = 0;
        auto* string = ::new (memory) String(chars, 0);
        string->makeImmortal();
        return string;
    }();
    return *s_empty;
}

int String::compare(const String& other) const
{
    int result = view().compare(other.view());
    return result < 0 ? -1 : result > 0 ? 1
                                        : 0;
}

bool String::isEqual(const Object* other) const
{
    if (this == other)
        return true;
    auto* string = dynamicDowncast<String>(other);
    if (!string || string->m_length != m_length)
        return false;
    if (m_hash && string->m_hash && m_hash != string->m_hash)
        return false;
    return equalBytes(m_chars, string->m_chars, m_length);
}

namespace {

inline uint64_t mix(uint64_t a, uint64_t b)
{
    __uint128_t product = static_cast<__uint128_t>(a) * b;
    return static_cast<uint64_t>(product) ^ static_cast<uint64_t>(product >> 64);
}

inline uint64_t read64(const char* p)
{
    uint64_t value;
    memcpy(&value, p, 8);
    return value;
}

inline uint64_t read32(const char* p)
{
    uint32_t value;
    memcpy(&value, p, 4);
    return value;
}

} // namespace

size_t String::hashBytes(const char* p, size_t length)
{
    // A multiply-fold hash that reads eight bytes at a time.
    constexpr uint64_t k0 = 0xa0761d6478bd642full, k1 = 0xe7037ed1a0b428dbull, k2 = 0x8ebc6af09c88c6e3ull;
    uint64_t seed = k2 ^ (length * k0);
    size_t n = length;
    uint64_t a = 0, b = 0;
    if (n <= 16) {
        if (n >= 8) {
            a = read64(p);
            b = read64(p + n - 8);
        } else if (n >= 4) {
            a = read32(p);
            b = read32(p + n - 4);
        } else if (n) {
            a = (static_cast<uint64_t>(static_cast<uint8_t>(p[0])) << 16) | (static_cast<uint64_t>(static_cast<uint8_t>(p[n >> 1])) << 8)
                | static_cast<uint8_t>(p[n - 1]);
        }
    } else {
        while (n > 16) {
            seed = mix(read64(p) ^ k0, read64(p + 8) ^ seed);
            p += 16;
            n -= 16;
        }
        a = read64(p + n - 16);
        b = read64(p + n - 8);
    }
    uint64_t result = mix(a ^ k1, b ^ seed);
    result = mix(result ^ k0, length ^ k1);
    return result ? result : 1;
}

bool String::isValidUTF8(const char* text, size_t length)
{
    auto* at = reinterpret_cast<const uint8_t*>(text);
    auto* end = at + length;
    while (at < end) {
        // ASCII eight bytes at a time, other runs without decoding them.
        uint64_t word;
        if (end - at >= 8 && (memcpy(&word, at, 8), !(word & 0x8080808080808080ull))) {
            at += 8;
            continue;
        }
        if (*at < 0x80) {
            ++at;
            continue;
        }
        const uint8_t* runEnd = skipMultibyteUTF8(at, end);
        if (runEnd == at)
            return false;
        at = runEnd;
    }
    return true;
}

size_t String::hash() const
{
    if (!m_hash)
        m_hash = hashBytes(m_chars, m_length);
    return m_hash;
}

namespace {

// The numeric prefix of a text, after leading white space, as strtod sees it.
std::string numericPrefix(std::string_view text)
{
    size_t i = 0;
    while (i < text.size() && (text[i] == ' ' || text[i] == '\t' || text[i] == '\n' || text[i] == '\r'))
        ++i;
    return std::string(text.substr(i, 64));
}

} // namespace

int64_t String::integerValue() const
{
    std::string prefix = numericPrefix(view());
    errno = 0;
    long long value = strtoll(prefix.c_str(), nullptr, 10);
    return value;
}

int32_t String::intValue() const
{
    int64_t value = integerValue();
    if (value > INT32_MAX)
        return INT32_MAX;
    if (value < INT32_MIN)
        return INT32_MIN;
    return static_cast<int32_t>(value);
}

double String::doubleValue() const
{
    std::string prefix = numericPrefix(view());
    double value = detail::strtodC(prefix.c_str(), nullptr);
    return std::isfinite(value) || std::isinf(value) ? value : 0.0;
}

bool String::boolValue() const
{
    std::string prefix = numericPrefix(view());
    size_t i = 0;
    if (i < prefix.size() && (prefix[i] == '+' || prefix[i] == '-'))
        ++i;
    while (i < prefix.size() && prefix[i] == '0')
        ++i;
    if (i >= prefix.size())
        return false;
    char c = prefix[i];
    return c == 'Y' || c == 'y' || c == 'T' || c == 't' || (c >= '1' && c <= '9');
}

Ref<Array> String::componentsSeparatedByString(std::string_view separator) const
{
    std::vector<Ref<Object>> parts;
    std::string_view rest = view();
    if (separator.empty()) {
        parts.push_back(const_cast<String&>(*this));
        return Array::create(std::move(parts));
    }
    while (true) {
        size_t at = rest.find(separator);
        if (at == std::string_view::npos) {
            parts.push_back(create(rest));
            break;
        }
        parts.push_back(create(rest.substr(0, at)));
        rest.remove_prefix(at + separator.size());
    }
    return Array::create(std::move(parts));
}

} // namespace velvox
