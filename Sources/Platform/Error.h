#pragma once

#include "Forward.h"
#include "Object.h"
#include "String.h"

#include <cstdint>
#include <string_view>

namespace velvox {

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

} // namespace velvox
