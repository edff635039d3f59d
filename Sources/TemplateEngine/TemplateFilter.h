#pragma once

// What a template engine asks of a set of filters: their names, once, when
// the set is loaded; then the value of a filter applied to a value.

#include <Platform/Collections.h>
#include <Platform/String.h>

#include <string_view>

namespace velvox {

class TemplateFilter {
public:
    virtual ~TemplateFilter() = default;

    // The names of the filters this object answers, asked once by loadFilter().
    virtual Ref<Array> filters() const = 0;
    // The filtered value, or null when the name is not one of this object's
    // or the value or the arguments do not suit the filter.
    virtual RefPtr<Object> filterInvoked(const String& filterName, Array* arguments, Object* value) = 0;

    // For HTML output: a filter that produces markup has its result written
    // as it stands (not escaped)...
    virtual bool filterProducesMarkup(std::string_view) const { return false; }
    // ...and one that turns text into markup is handed the text already
    // escaped, so that markup in the text stays text.
    virtual bool filterTakesEscapedText(std::string_view) const { return false; }
};

} // namespace velvox
