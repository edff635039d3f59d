#pragma once

// Programming errors raise velvox::Exception; failures of the network or the
// service are Error objects handed to callbacks instead.

#include "Format.h"
#include "Object.h"

#include <exception>
#include <string>
#include <string_view>

namespace velvox {

class Dictionary;

inline constexpr std::string_view InternalInconsistencyException = "NSInternalInconsistencyException";
inline constexpr std::string_view InvalidArgumentException = "NSInvalidArgumentException";
inline constexpr std::string_view RangeException = "NSRangeException";
inline constexpr std::string_view MallocException = "NSMallocException";
inline constexpr std::string_view GenericException = "NSGenericException";
inline constexpr std::string_view UndefinedKeyException = "NSUndefinedKeyException";

class Exception : public std::exception {
public:
    Exception(std::string_view name, std::string reason, Dictionary* userInfo = nullptr);
    Exception(const Exception&);
    Exception& operator=(const Exception&);
    ~Exception() override;

    const std::string& name() const { return m_name; }
    const std::string& reason() const { return m_reason; }
    Dictionary* userInfo() const { return m_userInfo.get(); }
    const char* what() const noexcept override { return m_reason.c_str(); }

    template<typename... Args>
    [[noreturn]] static void raise(std::string_view name, std::string_view formatString, const Args&... args)
    {
        throw Exception(name, format(formatString, args...));
    }

private:
    std::string m_name;
    std::string m_reason;
    RefPtr<Dictionary> m_userInfo;
};

} // namespace velvox

// Raises the internal-inconsistency exception with a formatted message when the
// condition does not hold.
#define VXAssert(condition, ...)                                                               \
    do {                                                                                       \
        if (!(condition)) [[unlikely]]                                                         \
            ::velvox::Exception::raise(::velvox::InternalInconsistencyException, __VA_ARGS__); \
    } while (0)

#define VXParameterAssert(condition)                                             \
    do {                                                                         \
        if (!(condition)) [[unlikely]]                                           \
            ::velvox::Exception::raise(::velvox::InternalInconsistencyException, \
                "Invalid parameter not satisfying: %s", #condition);             \
    } while (0)
