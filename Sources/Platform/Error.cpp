#include "Error.h"

#include "Collections.h"

namespace velvox {

VX_DEFINE_CLASS(Error, Object)

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

} // namespace velvox
