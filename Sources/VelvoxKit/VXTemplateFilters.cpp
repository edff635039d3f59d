#include "VXTemplateFilters.h"

#include <Platform/Platform.h>
#include <TemplateEngine/RegexTemplateMatcher.h>
#include <TemplateEngine/TemplateEngine.h>
#include <ZUKit/ZUImageDataURI.h>
#include <ZUKit/ZUPastDateFormatter.h>

#include <strings.h>

namespace velvox {

VX_DEFINE_CLASS(VXTemplateFilters, Object)

Ref<VXTemplateFilters> VXTemplateFilters::filter()
{
    return adoptRef(*new VXTemplateFilters);
}

Ref<Array> VXTemplateFilters::filters() const
{
    static const char* const names[] = { "past_date", "to_html", "data_uri", "partial", "pluralize", "zu_image" };
    std::vector<Ref<Object>> list;
    for (auto* name : names)
        list.push_back(String::create(name));
    return Array::create(std::move(list));
}

bool VXTemplateFilters::filterProducesMarkup(std::string_view name) const
{
    return name == "to_html" || name == "partial";
}

bool VXTemplateFilters::filterTakesEscapedText(std::string_view name) const
{
    return name == "to_html";
}

namespace {

std::string replacingAll(std::string_view text, std::string_view what, std::string_view with)
{
    std::string out;
    size_t start = 0;
    for (size_t at; (at = text.find(what, start)) != std::string_view::npos; start = at + what.size()) {
        out.append(text.substr(start, at - start));
        out.append(with);
    }
    out.append(text.substr(start));
    return out;
}

} // namespace

RefPtr<String> renderPartial(Object& resourceName, Object* value, TemplateFilter& filters, Object* owner)
{
    auto resource = resourceName.description();
    auto path = Bundle::mainBundle().pathForResource(resource->view(), "");
    auto engine = TemplateEngine::templateEngine();
    engine->setMatcher(RegexTemplateMatcher::matcherWithTemplateEngine(*engine.ptr()));
    engine->loadFilter(filters, owner);
    auto variables = value ? Dictionary::create({ { "element", value } }) : Dictionary::create();
    return engine->processTemplateInFileAtPath(path ? &*path : nullptr, variables.ptr());
}

RefPtr<Object> VXTemplateFilters::filterInvoked(const String& filterName, Array* arguments, Object* value)
{
    auto name = filterName.view();
    size_t argumentCount = arguments ? arguments->count() : 0;

    if (name == "past_date" && is<Date>(value))
        return ZUPastDateFormatter::create()->stringForObjectValue(value);

    if (name == "to_html" && is<String>(value))
        return String::create(replacingAll(downcast<String>(value)->view(), "\n", "<br/>"));

    if (name == "data_uri" && is<Image>(value))
        return zu_dataURIRepresentation(*downcast<Image>(value));

    if (name == "partial" && argumentCount == 1) {
        auto filters = VXTemplateFilters::filter();
        return renderPartial(*arguments->objectAtIndex(0), value, *filters.ptr(), filters.ptr());
    }

    if (name == "pluralize" && is<Number>(value) && argumentCount >= 2) {
        int64_t n = downcast<Number>(value)->integerValue();
        size_t index = n == 0 ? (argumentCount == 3 ? 2 : 1) : n == 1 ? 0
                                                                      : 1;
        auto formatString = arguments->objectAtIndex(index)->description();
        return String::format(formatString->view(), value);
    }

    if (name == "zu_image") {
        bool isURL = is<URL>(value);
        VXAssert(isURL || is<String>(value), "Invalid parameter not satisfying: %s", "[value isKindOfClass:[NSString class]]");
        std::string text = isURL ? downcast<URL>(value)->absoluteString()->str() : downcast<String>(value)->str();
        // The search range is the first six characters, whatever the text's length.
        if (text.size() < 6)
            Exception::raise(RangeException, "*** -[NSString rangeOfString:options:range:]: Range {0, 6} out of bounds; string length %zu", text.size());
        if (!strncasecmp(text.c_str(), "http", 4))
            text.replace(0, 4, "zu-image");
        if (isURL)
            return URL::create(text);
        return String::create(text);
    }

    return nullptr;
}

} // namespace velvox
