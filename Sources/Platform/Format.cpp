#include "Format.h"

#include "CLocale.h"
#include "DoubleFormat.h"
#include "String.h"

#include <charconv>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <sys/syscall.h>
#include <unistd.h>

namespace velvox {

using detail::ScopedCLocale;

namespace {

struct Spec {
    std::string flags;
    int width { -1 };
    int precision { -1 };
    enum class Length { None,
        Char,
        Short,
        Long,
        LongLong,
        Size,
        Max,
        PtrDiff,
        LongDouble } length { Length::None };
    char conversion { 0 };
};

class ArgReader {
public:
    explicit ArgReader(std::span<const FormatArg> args)
        : m_args(args)
    {
    }
    const FormatArg* next() { return m_index < m_args.size() ? &m_args[m_index++] : nullptr; }

private:
    std::span<const FormatArg> m_args;
    size_t m_index { 0 };
};

int64_t signedValue(const FormatArg* arg)
{
    if (!arg)
        return 0;
    switch (arg->kind) {
    case FormatArg::Kind::Signed:
        return arg->i;
    case FormatArg::Kind::Unsigned:
        return static_cast<int64_t>(arg->u);
    case FormatArg::Kind::Double:
        return static_cast<int64_t>(arg->d);
    case FormatArg::Kind::Pointer:
        return static_cast<int64_t>(reinterpret_cast<uintptr_t>(arg->pointer));
    case FormatArg::Kind::Object:
        return static_cast<int64_t>(reinterpret_cast<uintptr_t>(arg->object));
    default:
        return 0;
    }
}

double doubleValue(const FormatArg* arg)
{
    if (!arg)
        return 0;
    switch (arg->kind) {
    case FormatArg::Kind::Signed:
        return static_cast<double>(arg->i);
    case FormatArg::Kind::Unsigned:
        return static_cast<double>(arg->u);
    case FormatArg::Kind::Double:
        return arg->d;
    default:
        return 0;
    }
}

// The text of an argument for %s and %@; nullopt prints "(null)".
bool textValue(const FormatArg* arg, std::string& storage, std::string_view& text, bool describeObjects)
{
    if (!arg)
        return false;
    switch (arg->kind) {
    case FormatArg::Kind::CString:
        if (!arg->cString)
            return false;
        text = arg->cString;
        return true;
    case FormatArg::Kind::Text:
        text = arg->text;
        return true;
    case FormatArg::Kind::Object:
        if (!arg->object)
            return false;
        if (auto* string = dynamicDowncast<String>(arg->object)) {
            text = string->view();
            return true;
        }
        if (!describeObjects)
            return false;
        storage = arg->object->description()->str();
        text = storage;
        return true;
    case FormatArg::Kind::Signed:
    case FormatArg::Kind::Unsigned:
    case FormatArg::Kind::Double:
        // A number given for %@ prints as a number would describe itself.
        if (arg->kind == FormatArg::Kind::Double) {
            char buffer[detail::double17BufferSize];
            storage.assign(buffer, detail::formatDouble17(arg->d, buffer));
        } else
            storage = arg->kind == FormatArg::Kind::Signed ? std::to_string(arg->i) : std::to_string(arg->u);
        text = storage;
        return true;
    case FormatArg::Kind::Pointer:
        return false;
    }
    return false;
}

void appendPadded(std::string& out, std::string_view text, const Spec& spec)
{
    if (spec.precision >= 0 && static_cast<size_t>(spec.precision) < text.size())
        text = text.substr(0, spec.precision);
    size_t padding = spec.width > 0 && static_cast<size_t>(spec.width) > text.size() ? spec.width - text.size() : 0;
    bool leftAlign = spec.flags.find('-') != std::string::npos;
    if (!leftAlign)
        out.append(padding, ' ');
    out.append(text);
    if (leftAlign)
        out.append(padding, ' ');
}

template<typename T>
void appendPrintf(std::string& out, const Spec& spec, const char* lengthModifier, T value)
{
    char pattern[32];
    int n = 0;
    pattern[n++] = '%';
    for (char flag : spec.flags) {
        if (n < 8)
            pattern[n++] = flag;
    }
    pattern[n++] = '*';
    pattern[n++] = '.';
    pattern[n++] = '*';
    for (const char* m = lengthModifier; *m; ++m)
        pattern[n++] = *m;
    pattern[n++] = spec.conversion;
    pattern[n] = 0;
    // A negative precision tells printf to use its default.
    int width = spec.width < 0 ? 0 : spec.width;
    ScopedCLocale cLocale; // "%.2f" writes "0.50" under any locale
    char buffer[128];
    int written = snprintf(buffer, sizeof(buffer), pattern, width, spec.precision, value);
    if (written < 0)
        return;
    if (static_cast<size_t>(written) < sizeof(buffer)) {
        out.append(buffer, written);
        return;
    }
    std::string large(written + 1, '\0');
    snprintf(large.data(), large.size(), pattern, width, spec.precision, value);
    large.resize(written);
    out += large;
}

} // namespace

std::string formatArgs(std::string_view format, std::span<const FormatArg> args)
{
    std::string out;
    out.reserve(format.size() + 16 * args.size());
    ArgReader reader(args);
    size_t i = 0;
    while (i < format.size()) {
        size_t percent = format.find('%', i);
        if (percent == std::string_view::npos) {
            out.append(format.substr(i));
            break;
        }
        out.append(format.substr(i, percent - i));
        i = percent + 1;
        if (i >= format.size()) {
            out.push_back('%');
            break;
        }
        Spec spec;
        while (i < format.size() && std::string_view("-+ #0'").find(format[i]) != std::string_view::npos)
            spec.flags.push_back(format[i++]);
        if (i < format.size() && format[i] == '*') {
            ++i;
            int width = static_cast<int>(signedValue(reader.next()));
            if (width < 0) {
                spec.flags.push_back('-');
                width = -width;
            }
            spec.width = width;
        } else {
            while (i < format.size() && format[i] >= '0' && format[i] <= '9')
                spec.width = (spec.width < 0 ? 0 : spec.width * 10) + (format[i++] - '0');
        }
        if (i < format.size() && format[i] == '.') {
            ++i;
            spec.precision = 0;
            if (i < format.size() && format[i] == '*') {
                ++i;
                int precision = static_cast<int>(signedValue(reader.next()));
                spec.precision = precision < 0 ? -1 : precision;
            } else {
                while (i < format.size() && format[i] >= '0' && format[i] <= '9')
                    spec.precision = spec.precision * 10 + (format[i++] - '0');
            }
        }
        while (i < format.size()) {
            char c = format[i];
            if (c == 'h')
                spec.length = spec.length == Spec::Length::Short ? Spec::Length::Char : Spec::Length::Short;
            else if (c == 'l')
                spec.length = spec.length == Spec::Length::Long ? Spec::Length::LongLong : Spec::Length::Long;
            else if (c == 'q')
                spec.length = Spec::Length::LongLong;
            else if (c == 'z')
                spec.length = Spec::Length::Size;
            else if (c == 'j')
                spec.length = Spec::Length::Max;
            else if (c == 't')
                spec.length = Spec::Length::PtrDiff;
            else if (c == 'L')
                spec.length = Spec::Length::LongDouble;
            else
                break;
            ++i;
        }
        if (i >= format.size())
            break;
        spec.conversion = format[i++];
        switch (spec.conversion) {
        case '%':
            out.push_back('%');
            break;
        case '@': {
            std::string storage;
            std::string_view text;
            if (!textValue(reader.next(), storage, text, true))
                text = "(null)";
            appendPadded(out, text, spec);
            break;
        }
        case 's': {
            std::string storage;
            std::string_view text;
            if (!textValue(reader.next(), storage, text, true))
                text = "(null)";
            appendPadded(out, text, spec);
            break;
        }
        case 'c': {
            char c = static_cast<char>(signedValue(reader.next()));
            appendPadded(out, std::string_view(&c, 1), spec);
            break;
        }
        case 'd':
        case 'i': {
            int64_t value = signedValue(reader.next());
            switch (spec.length) {
            case Spec::Length::None:
                appendPrintf(out, spec, "", static_cast<int>(value));
                break;
            case Spec::Length::Char:
                appendPrintf(out, spec, "", static_cast<int>(static_cast<signed char>(value)));
                break;
            case Spec::Length::Short:
                appendPrintf(out, spec, "", static_cast<int>(static_cast<short>(value)));
                break;
            default:
                appendPrintf(out, spec, "ll", static_cast<long long>(value));
                break;
            }
            break;
        }
        case 'u':
        case 'x':
        case 'X':
        case 'o': {
            uint64_t value = static_cast<uint64_t>(signedValue(reader.next()));
            switch (spec.length) {
            case Spec::Length::None:
                appendPrintf(out, spec, "", static_cast<unsigned>(value));
                break;
            case Spec::Length::Char:
                appendPrintf(out, spec, "", static_cast<unsigned>(static_cast<unsigned char>(value)));
                break;
            case Spec::Length::Short:
                appendPrintf(out, spec, "", static_cast<unsigned>(static_cast<unsigned short>(value)));
                break;
            default:
                appendPrintf(out, spec, "ll", static_cast<unsigned long long>(value));
                break;
            }
            break;
        }
        case 'f':
        case 'F':
        case 'e':
        case 'E':
        case 'g':
        case 'G':
        case 'a':
        case 'A':
            appendPrintf(out, spec, "", doubleValue(reader.next()));
            break;
        case 'p': {
            const FormatArg* arg = reader.next();
            const void* pointer = nullptr;
            if (arg && arg->kind == FormatArg::Kind::Pointer)
                pointer = arg->pointer;
            else if (arg && arg->kind == FormatArg::Kind::Object)
                pointer = arg->object;
            else if (arg && arg->kind == FormatArg::Kind::CString)
                pointer = arg->cString;
            else if (arg)
                pointer = reinterpret_cast<const void*>(static_cast<uintptr_t>(signedValue(arg)));
            char buffer[32];
            snprintf(buffer, sizeof(buffer), "0x%llx", static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(pointer)));
            appendPadded(out, buffer, spec);
            break;
        }
        default:
            // Not a conversion: keep the text as written.
            out.push_back('%');
            out.append(spec.flags);
            out.push_back(spec.conversion);
            break;
        }
    }
    return out;
}

namespace {

std::mutex& logMutex()
{
    static std::mutex mutex;
    return mutex;
}

LogSink& currentSink()
{
    static LogSink sink;
    return sink;
}

std::string programName()
{
    char buffer[256];
    ssize_t length = readlink("/proc/self/exe", buffer, sizeof(buffer) - 1);
    if (length <= 0)
        return "velvox";
    std::string_view path(buffer, length);
    size_t slash = path.rfind('/');
    return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

} // namespace

std::string logLinePrefix()
{
    using namespace std::chrono;
    auto now = system_clock::now();
    time_t seconds = system_clock::to_time_t(now);
    auto milliseconds = duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
    struct tm local;
    localtime_r(&seconds, &local);
    char date[64];
    strftime(date, sizeof(date), "%Y-%m-%d %H:%M:%S", &local);
    static const std::string program = programName();
    return format("%s.%03d %s[%d:%ld]", date, static_cast<int>(milliseconds), program, static_cast<int>(getpid()),
        static_cast<long>(syscall(SYS_gettid)));
}

LogSink setLogSink(LogSink sink)
{
    std::lock_guard lock(logMutex());
    return std::exchange(currentSink(), std::move(sink));
}

void logMessage(std::string_view message)
{
    std::unique_lock lock(logMutex());
    if (auto sink = currentSink()) {
        lock.unlock();
        sink(message);
        return;
    }
    std::string line = logLinePrefix();
    line.push_back(' ');
    line.append(message);
    line.push_back('\n');
    fwrite(line.data(), 1, line.size(), stderr);
}

} // namespace velvox
