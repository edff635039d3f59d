#include "Exception.h"

#include "Collections.h"

namespace velvox {

Exception::Exception(std::string_view name, std::string reason, Dictionary* userInfo)
    : m_name(name)
    , m_reason(std::move(reason))
    , m_userInfo(userInfo)
{
    if (m_userInfo)
        m_userInfo->ref();
}

Exception::Exception(const Exception& other)
    : std::exception(other)
    , m_name(other.m_name)
    , m_reason(other.m_reason)
    , m_userInfo(other.m_userInfo)
{
    if (m_userInfo)
        m_userInfo->ref();
}

Exception& Exception::operator=(const Exception& other)
{
    if (this == &other)
        return *this;
    if (other.m_userInfo)
        other.m_userInfo->ref();
    if (m_userInfo)
        m_userInfo->deref();
    m_name = other.m_name;
    m_reason = other.m_reason;
    m_userInfo = other.m_userInfo;
    return *this;
}

Exception::~Exception()
{
    if (m_userInfo)
        m_userInfo->deref();
}

} // namespace velvox
