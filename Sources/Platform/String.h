#pragma once

// An immutable string of UTF-8 bytes, stored with its object in one
// allocation and always followed by a NUL byte. Its hash is computed once, on
// first use, and kept: dictionaries hash a key only once in its life.

#include "Format.h"
#include "Object.h"

#include <cstdint>
#include <cstring>
#include <new>
#include <string>
#include <string_view>

namespace velvox {

class Array;

class String : public Object {
    VX_OBJECT(String)
    VX_OBJECT_TAG(String, ObjectTag::String)
public:
    static Ref<String> create(std::string_view);
    static Ref<String> create(const char* bytes, size_t length) { return create(std::string_view(bytes, length)); }
    // The shared empty string.
    static String& empty();

    template<typename... Args>
    static Ref<String> format(std::string_view formatString, const Args&... args)
    {
        return create(velvox::format(formatString, args...));
    }

    std::string_view view() const { return { m_chars, m_length }; }
    // NUL-terminated.
    const char* utf8() const { return m_chars; }
    // In bytes.
    size_t length() const { return m_length; }
    bool isEmpty() const { return !m_length; }
    std::string str() const { return std::string(view()); }

    bool isEqualToString(std::string_view other) const { return view() == other; }
    // Literal, case-sensitive order of the bytes: negative, zero or positive.
    int compare(const String& other) const;
    bool hasPrefix(std::string_view prefix) const { return view().starts_with(prefix); }
    bool hasSuffix(std::string_view suffix) const { return view().ends_with(suffix); }
    bool contains(std::string_view part) const { return view().find(part) != std::string_view::npos; }

    // Numeric readings as the platform gives them: leading white space is
    // skipped, the longest numeric prefix is read, and anything unreadable
    // gives 0. Values beyond the range saturate.
    int32_t intValue() const;
    int64_t integerValue() const;
    double doubleValue() const;
    // True for a leading "Y", "y", "T", "t" or a non-zero digit.
    bool boolValue() const;

    Ref<Array> componentsSeparatedByString(std::string_view separator) const;

    Ref<String> description() const override { return const_cast<String&>(*this); }
    bool isEqual(const Object* other) const override;
    size_t hash() const override;

    // Whether bytes are well-formed UTF-8 (no over-long forms, surrogates or values above U+10FFFF).
    static bool isValidUTF8(const char* bytes, size_t length);

    // Hash of a byte string, the same as the hash of a String of those bytes.
    static size_t hashBytes(const char* bytes, size_t length);
    // Equality of two byte runs of one length; the short runs of keys without a call.
    static bool equalBytes(const void* first, const void* second, size_t length)
    {
        auto* a = static_cast<const unsigned char*>(first);
        auto* b = static_cast<const unsigned char*>(second);
        if (length > 16)
            return !memcmp(a, b, length);
        auto load64 = [](const unsigned char* p) {
            uint64_t value;
            memcpy(&value, p, 8);
            return value;
        };
        auto load32 = [](const unsigned char* p) {
            uint32_t value;
            memcpy(&value, p, 4);
            return value;
        };
        if (length >= 8)
            return load64(a) == load64(b) && load64(a + length - 8) == load64(b + length - 8);
        if (length >= 4)
            return load32(a) == load32(b) && load32(a + length - 4) == load32(b + length - 4);
        for (size_t i = 0; i < length; ++i) {
            if (a[i] != b[i])
                return false;
        }
        return true;
    }

    // A string and its bytes are one block, whose size only the string knows.
    static void operator delete(String* string, std::destroying_delete_t);

protected:
    // A string over bytes it does not own, for lookups on the stack; see StackString.
    String(const char* chars, size_t length)
        : m_chars(chars)
        , m_length(length)
    {
        setTag(s_tag);
    }

private:
    // The same for a string whose last reference went (Object::destroy).
    friend class Object;
    static void deallocate(const String*);

    const char* m_chars;
    size_t m_length;
    mutable size_t m_hash { 0 };
};

// A String on the stack that borrows its bytes, so that a dictionary can be
// asked for a key given as text without making an object. It must not be
// retained beyond its scope; lookups never retain their key. Its bytes are not
// NUL-terminated: utf8() must not be used on it.
class StackString final : public String {
public:
    explicit StackString(std::string_view text)
        : String(text.data(), text.size())
    {
    }
    static void* operator new(size_t) = delete;
};

inline Ref<String> operator""_s(const char* chars, size_t length)
{
    return String::create(std::string_view(chars, length));
}

} // namespace velvox
