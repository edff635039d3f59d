#pragma once

// JSONDecoder turns UTF-8 JSON text into a tree of the codec's arrays and
// dictionaries, strings, numbers, the null singleton and the two boolean
// singletons. The top level must be an array or an object.
//
// A decoder keeps a cache of recently made strings and numbers, so a feed in
// which the same keys and values recur makes each distinct one once: reuse one
// decoder for many parses. A decoder is not thread-safe; use one per thread.
//
// Every parse answers null on failure and, when asked, the first error of the
// parse: domain "JCErrorDomain", code -1, the message as its description, and
// the byte index and 1-based line of the fault under "JCAtIndexKey" and
// "JCLineNumberKey".

#include <Platform/Object.h>
#include <Platform/Values.h>

#include <cstdint>
#include <memory>
#include <string_view>

namespace velvox {

using JCParseOptionFlags = unsigned long;
inline constexpr JCParseOptionFlags JCParseOptionStrict = 0;
// "//" line comments and "/* */" block comments count as white space.
inline constexpr JCParseOptionFlags JCParseOptionComments = 1;
// U+0085, U+2028 and U+2029 count as newlines.
inline constexpr JCParseOptionFlags JCParseOptionUnicodeNewlines = 2;
// Ill-formed UTF-8 and illegal \u escapes become U+FFFD instead of failing.
inline constexpr JCParseOptionFlags JCParseOptionLooseUnicode = 4;
// Text after the top-level value is ignored.
inline constexpr JCParseOptionFlags JCParseOptionPermitTextAfterValidJSON = 8;
inline constexpr JCParseOptionFlags JCParseOptionValidFlags = 15;

inline constexpr std::string_view JCErrorDomain = "JCErrorDomain";
inline constexpr std::string_view JCAtIndexKey = "JCAtIndexKey";
inline constexpr std::string_view JCLineNumberKey = "JCLineNumberKey";

namespace detail {
struct JCParseState;
}

class JSONDecoder final : public Object {
    VX_OBJECT(JSONDecoder)
public:
    static Ref<JSONDecoder> decoder() { return decoderWithParseOptions(JCParseOptionStrict); }
    // Raises InvalidArgumentException "Invalid parse options." for options of 16 or more.
    static Ref<JSONDecoder> decoderWithParseOptions(JCParseOptionFlags);
    static Ref<JSONDecoder> create(JCParseOptionFlags options = JCParseOptionStrict) { return decoderWithParseOptions(options); }

    JCParseOptionFlags parseOptions() const;

    // Immutable results. Each raises InvalidArgumentException for a null input
    // ("The string argument is NULL." or "The jsonData argument is NULL.").
    RefPtr<Object> objectWithUTF8String(const char* string, size_t length, RefPtr<Error>* error = nullptr);
    RefPtr<Object> objectWithData(const Data* jsonData, RefPtr<Error>* error = nullptr);
    RefPtr<Object> parseUTF8String(const char* string, size_t length, RefPtr<Error>* error = nullptr)
    {
        return objectWithUTF8String(string, length, error);
    }
    RefPtr<Object> parseJSONData(const Data* jsonData, RefPtr<Error>* error = nullptr) { return objectWithData(jsonData, error); }
    // Results whose arrays and dictionaries are all mutable.
    RefPtr<Object> mutableObjectWithUTF8String(const char* string, size_t length, RefPtr<Error>* error = nullptr);
    RefPtr<Object> mutableObjectWithData(const Data* jsonData, RefPtr<Error>* error = nullptr);

    RefPtr<Object> objectWithUTF8String(std::string_view text, RefPtr<Error>* error = nullptr)
    {
        return objectWithUTF8String(text.data() ? text.data() : "", text.size(), error);
    }
    RefPtr<Object> mutableObjectWithUTF8String(std::string_view text, RefPtr<Error>* error = nullptr)
    {
        return mutableObjectWithUTF8String(text.data() ? text.data() : "", text.size(), error);
    }

    // Empties the cache of strings and numbers.
    void clearCache();
    // Frees the parse state and cache at once; later parses raise
    // InternalInconsistencyException "parseState is NULL.".
    void releaseParseState();
    // How many strings and numbers the cache holds (for tests and measurements).
    size_t cachedObjectCount() const;

private:
    explicit JSONDecoder(JCParseOptionFlags);
    ~JSONDecoder() override;
    RefPtr<Object> parse(const char* string, size_t length, bool mutableCollections, RefPtr<Error>* error);

    std::unique_ptr<detail::JCParseState> m_parseState;
};

} // namespace velvox
