#pragma once

// printf-style formatting with %@ for objects, and the process log.
//
// format() understands the printf conversions d i u o x X c s p f F e E g G a A
// and %%, with flags, width and precision (also given as *), and the length
// modifiers hh h l ll z j t q L, which decide the width of an integer exactly as
// a C vararg call would: "%d" prints the low 32 bits of a 64-bit value. "%@"
// prints an object's description. A missing argument, or a null object or
// C string, prints "(null)" (a missing number prints 0).

#include "Object.h"

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>

namespace velvox {

struct FormatArg {
    enum class Kind : uint8_t { Signed,
        Unsigned,
        Double,
        CString,
        Text,
        Object,
        Pointer };
    Kind kind;
    union {
        int64_t i;
        uint64_t u;
        double d;
        const char* cString;
        const velvox::Object* object;
        const void* pointer;
    };
    std::string_view text;

    template<typename T>
    static FormatArg make(const T& value)
    {
        FormatArg arg;
        using V = std::remove_cvref_t<T>;
        if constexpr (std::is_same_v<V, bool> || (std::is_integral_v<V> && std::is_signed_v<V>) || std::is_enum_v<V>) {
            arg.kind = Kind::Signed;
            arg.i = static_cast<int64_t>(value);
        } else if constexpr (std::is_integral_v<V>) {
            arg.kind = Kind::Unsigned;
            arg.u = static_cast<uint64_t>(value);
        } else if constexpr (std::is_floating_point_v<V>) {
            arg.kind = Kind::Double;
            arg.d = static_cast<double>(value);
        } else if constexpr (std::is_same_v<V, std::nullptr_t>) {
            arg.kind = Kind::Object;
            arg.object = nullptr;
        } else if constexpr (std::is_convertible_v<V, const char*>) {
            arg.kind = Kind::CString;
            arg.cString = value;
        } else if constexpr (std::is_convertible_v<const V&, std::string_view>) {
            arg.kind = Kind::Text;
            arg.text = std::string_view(value);
        } else if constexpr (std::is_pointer_v<V> && std::is_base_of_v<velvox::Object, std::remove_cv_t<std::remove_pointer_t<V>>>) {
            arg.kind = Kind::Object;
            arg.object = value;
        } else if constexpr (std::is_base_of_v<velvox::Object, V>) {
            arg.kind = Kind::Object;
            arg.object = &value;
        } else if constexpr (requires { value.get(); } && std::is_pointer_v<decltype(value.get())>) {
            arg.kind = Kind::Object;
            arg.object = value.get();
        } else if constexpr (std::is_pointer_v<V>) {
            arg.kind = Kind::Pointer;
            arg.pointer = value;
        } else {
            static_assert(!sizeof(V), "format() cannot print this type");
        }
        return arg;
    }
};

std::string formatArgs(std::string_view format, std::span<const FormatArg> args);

template<typename... Args>
inline std::string format(std::string_view formatString, const Args&... args)
{
    if constexpr (sizeof...(Args) == 0)
        return formatArgs(formatString, {});
    else {
        const FormatArg list[] = { FormatArg::make(args)... };
        return formatArgs(formatString, list);
    }
}

// The log: every line goes to the current sink. The default sink writes
// "yyyy-MM-dd HH:mm:ss.SSS program[pid:tid] message" to standard error.
using LogSink = std::function<void(std::string_view message)>;
// Installs a sink (an empty one restores the default) and returns the old one.
LogSink setLogSink(LogSink);
void logMessage(std::string_view message);
// The line the default sink writes for a message, without the newline.
std::string logLinePrefix();

template<typename... Args>
inline void VXLog(std::string_view formatString, const Args&... args)
{
    logMessage(format(formatString, args...));
}

} // namespace velvox
