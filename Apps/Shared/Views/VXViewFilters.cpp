#include "VXViewFilters.h"

#include <Platform/Platform.h>
#include <VelvoxKit/VXComment.h>
#include <VelvoxKit/VXTrack.h>
#include <VelvoxKit/VXUser.h>

#include <algorithm>
#include <cmath>
#include <strings.h>

namespace velvox::views {

namespace {

// As in the tables of velvox: nothing real lasts that long.
constexpr double longestSeconds = 10000 * 3600.0;

std::string twoDigits(long long value)
{
    return (value < 10 ? "0" : "") + std::to_string(value);
}

std::optional<double> numberOf(Object* value)
{
    auto* number = dynamicDowncast<Number>(value);
    if (!number || !std::isfinite(number->doubleValue()))
        return std::nullopt;
    return number->doubleValue();
}

std::string textOf(Object* value)
{
    if (auto* url = dynamicDowncast<URL>(value))
        return url->absoluteString()->str();
    if (auto* string = dynamicDowncast<String>(value))
        return string->str();
    return {};
}

Ref<Array> byPosition(Array& comments)
{
    std::vector<std::pair<double, size_t>> timed;
    std::vector<size_t> untimed;
    for (size_t i = 0; i < comments.count(); ++i) {
        auto* comment = dynamicDowncast<VXComment>(comments.objectAtIndex(i));
        // A place of 0 is what a timed comment without a time reads as: not a place.
        if (comment && comment->isTimedComment() && std::isfinite(comment->timestamp()) && comment->timestamp() > 0)
            timed.emplace_back(comment->timestamp(), i);
        else
            untimed.push_back(i);
    }
    std::stable_sort(timed.begin(), timed.end(), [](auto& a, auto& b) { return a.first < b.first; });
    auto sorted = MutableArray::create(comments.count());
    for (auto& [position, index] : timed)
        sorted->addObject(comments.objectAtIndex(index));
    for (auto index : untimed)
        sorted->addObject(comments.objectAtIndex(index));
    return sorted->copy();
}

} // namespace

const std::vector<std::string_view>& hostFilterNames()
{
    static const std::vector<std::string_view> names { "clock", "percent_of", "by_position", "view_file", "web_link" };
    return names;
}

bool isHostFilter(std::string_view name)
{
    auto& names = hostFilterNames();
    return std::find(names.begin(), names.end(), name) != names.end();
}

std::string clockText(double seconds)
{
    if (!std::isfinite(seconds) || seconds < 0 || seconds >= longestSeconds)
        return {};
    auto whole = static_cast<long long>(seconds);
    long long hours = whole / 3600, minutes = whole / 60 % 60;
    if (hours)
        return std::to_string(hours) + ":" + twoDigits(minutes) + ":" + twoDigits(whole % 60);
    return std::to_string(minutes) + ":" + twoDigits(whole % 60);
}

std::string webAddress(std::string_view text)
{
    size_t separator = text.find("://");
    if (separator != 4 && separator != 5)
        return {};
    std::string scheme;
    for (char c : text.substr(0, separator))
        scheme += static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
    if (scheme != "http" && scheme != "https")
        return {};
    std::string address = scheme + std::string(text.substr(separator));
    auto url = URL::create(address);
    if (!url || url->host().empty())
        return {};
    return address;
}

std::string viewFileName(Object* value, std::string_view kind)
{
    String* identifier = nullptr;
    std::string prefix;
    if (auto* track = dynamicDowncast<VXTrack>(value)) {
        identifier = track->resourceIdentifier();
        prefix = kind == "comments" ? "comments" : "track";
    } else if (auto* user = dynamicDowncast<VXUser>(value); user && kind.empty()) {
        identifier = user->resourceIdentifier();
        prefix = "user";
    }
    if (!identifier || identifier->view().empty() || identifier->view().size() > 64)
        return {};
    // The identifier goes into a file name: nothing that could leave the folder or need escaping.
    for (char c : identifier->view()) {
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || c == '-'))
            return {};
    }
    return prefix + "-" + identifier->str() + ".html";
}

RefPtr<Object> applyHostFilter(std::string_view name, Array* arguments, Object* value, const std::set<std::string>* pages)
{
    auto argument = [arguments](size_t index) -> Object* { return arguments && arguments->count() > index ? arguments->objectAtIndex(index) : nullptr; };
    if (name == "clock") {
        auto seconds = numberOf(value);
        return String::create(seconds ? clockText(*seconds) : std::string());
    }
    if (name == "percent_of") {
        auto part = numberOf(value), whole = numberOf(argument(0));
        if (!part || !whole || *whole <= 0 || *part < 0 || *part > *whole)
            return String::create("");
        // In hundredths, written without the locale's decimal separator.
        auto hundredths = static_cast<long long>(std::llround(*part / *whole * 10000));
        return String::create(std::to_string(hundredths / 100) + "." + twoDigits(hundredths % 100));
    }
    if (name == "by_position") {
        auto* comments = dynamicDowncast<Array>(value);
        return comments ? RefPtr<Object>(byPosition(*comments)) : nullptr;
    }
    if (name == "view_file") {
        std::string kind = textOf(argument(0));
        std::string file = viewFileName(value, kind);
        if (file.empty() || !pages || pages->count(file))
            return String::create(file);
        // Not written beside this page: the record's own page on the service.
        auto* resource = dynamicDowncast<ZUObject>(value);
        auto permalink = resource ? resource->valueForKey("permalinkURL") : nullptr;
        return String::create(webAddress(textOf(permalink.get())));
    }
    if (name == "web_link")
        return String::create(webAddress(textOf(value)));
    return nullptr;
}

} // namespace velvox::views
