#include "Exception.h"

#include "Collections.h"

namespace velvox {

Exception::Exception(std::string_view name, std::string reason, Dictionary* userInfo)
    : m_name(name)
    , m_reason(std::move(reason))
    , m_userInfo(userInfo)
{
}

// Out of line, where Dictionary is complete.
Exception::Exception(const Exception&) = default;
Exception& Exception::operator=(const Exception&) = default;
Exception::~Exception() = default;

} // namespace velvox
