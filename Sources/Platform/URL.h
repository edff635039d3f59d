#pragma once

#include "Object.h"
#include "String.h"

#include <optional>
#include <string>
#include <string_view>

namespace velvox {

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

} // namespace velvox
