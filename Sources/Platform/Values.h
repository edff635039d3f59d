#pragma once

// Value classes: bytes, instants, URLs, errors and images.

#include "Object.h"
#include "String.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace velvox {

class Dictionary;

// Immutable bytes.
class Data final : public Object {
    VX_OBJECT(Data)
public:
    static Ref<Data> create(const void* bytes, size_t length);
    static Ref<Data> create(std::string_view bytes) { return create(bytes.data(), bytes.size()); }
    // Takes over a buffer from malloc(); it is released with free().
    static Ref<Data> adoptMallocedBytes(void* bytes, size_t length);
    // Null when the file cannot be read.
    static RefPtr<Data> createWithContentsOfFile(const std::string& path);

    const uint8_t* bytes() const { return m_bytes; }
    size_t length() const { return m_length; }
    std::string_view view() const { return { reinterpret_cast<const char*>(m_bytes), m_length }; }

    // Writes to a temporary file beside the target and renames it over the
    // target, so readers see the old or the new contents, never a part.
    bool writeToFile(const std::string& path) const;

    Ref<String> description() const override;
    bool isEqual(const Object* other) const override;
    size_t hash() const override;

private:
    Data(uint8_t* bytes, size_t length)
        : m_bytes(bytes)
        , m_length(length)
    {
    }
    ~Data() override;

    uint8_t* m_bytes;
    size_t m_length;
};

// An instant, as seconds since 1970-01-01 00:00:00 UTC.
class Date final : public Object {
    VX_OBJECT(Date)
public:
    static Ref<Date> create(double timeIntervalSince1970);
    static Ref<Date> now();
    // 0001-01-01 00:00:00 UTC, earlier than any date a service sends.
    static Date& distantPast();
    static Date& distantFuture();

    double timeIntervalSince1970() const { return m_seconds; }
    double timeIntervalSinceNow() const;
    double timeIntervalSinceDate(const Date& other) const { return m_seconds - other.m_seconds; }
    int compare(const Date& other) const { return m_seconds < other.m_seconds ? -1 : m_seconds > other.m_seconds ? 1 : 0; }

    // "yyyy-MM-dd HH:mm:ss +0000", in UTC.
    Ref<String> description() const override;
    bool isEqual(const Object* other) const override;
    size_t hash() const override;

private:
    explicit Date(double seconds)
        : m_seconds(seconds)
    {
    }
    double m_seconds;
};

// A URL or relative reference, parsed strictly: text that is not a valid URI
// reference (a blank in it, say) makes no URL.
class URL final : public Object {
    VX_OBJECT(URL)
public:
    static RefPtr<URL> create(std::string_view text);
    // The same, keeping the string itself as the URL's text.
    static RefPtr<URL> create(String& text);
    // Resolves a reference against a base URL.
    static RefPtr<URL> create(std::string_view text, const URL* base);

    String* absoluteString() const { return m_string.ptr(); }
    std::string scheme() const;
    std::string host() const;
    std::optional<int> port() const;
    std::string path() const;
    // Null when the URL has no query.
    RefPtr<String> query() const;
    RefPtr<String> fragment() const;

    Ref<String> description() const override { return m_string; }
    bool isEqual(const Object* other) const override;
    size_t hash() const override { return m_string->hash(); }

private:
    explicit URL(Ref<String>&& string)
        : m_string(std::move(string))
    {
    }
    Ref<String> m_string;
};

inline constexpr std::string_view LocalizedDescriptionKey = "NSLocalizedDescription";
inline constexpr std::string_view UnderlyingErrorKey = "NSUnderlyingError";

// A failure of the outside world: a domain, a code and details.
class Error final : public Object {
    VX_OBJECT(Error)
public:
    static Ref<Error> create(std::string_view domain, int64_t code, Dictionary* userInfo = nullptr);
    // An error whose user info holds only a description.
    static Ref<Error> create(std::string_view domain, int64_t code, std::string_view localizedDescription);

    String* domain() const { return m_domain.ptr(); }
    int64_t code() const { return m_code; }
    Dictionary* userInfo() const { return m_userInfo.ptr(); }
    // The user info's description, else "The operation couldn’t be completed. (domain error code.)".
    Ref<String> localizedDescription() const;

    Ref<String> description() const override;
    bool isEqual(const Object* other) const override;
    size_t hash() const override;

private:
    Error(Ref<String>&& domain, int64_t code, Ref<Dictionary>&& userInfo);
    ~Error() override;

    Ref<String> m_domain;
    int64_t m_code;
    Ref<Dictionary> m_userInfo;
};

// Encoded image bytes with the media type read from their signature.
class Image final : public Object {
    VX_OBJECT(Image)
public:
    // Null when the bytes are not PNG, JPEG, GIF, WebP, BMP or TIFF.
    static RefPtr<Image> create(Data&);
    // The media type of encoded image bytes, or empty when unknown.
    static std::string_view mediaTypeForBytes(const uint8_t* bytes, size_t length);

    Data& data() const { return m_data; }
    std::string_view mediaType() const { return m_mediaType; }

    Ref<String> description() const override;
    bool isEqual(const Object* other) const override;
    size_t hash() const override { return m_data->hash(); }

private:
    Image(Data& data, std::string_view mediaType)
        : m_data(data)
        , m_mediaType(mediaType)
    {
    }
    Ref<Data> m_data;
    std::string_view m_mediaType;
};

} // namespace velvox
