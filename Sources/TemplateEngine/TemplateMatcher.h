#pragma once

// Finds the markers of a template's text: {{ expression }}, {% tag %} and
// {# comment #}. The engine parses what lies inside them.

#include <Platform/Object.h>

#include <cstddef>
#include <string_view>
#include <vector>

namespace velvox {

struct TemplateMarker {
    enum class Kind { Expression,
        Tag,
        Comment };
    Kind kind;
    size_t start;             // byte offset of the marker's opening brace
    size_t end;               // byte offset just past its closing brace
    std::string_view content; // what lies between the braces, untrimmed
};

class TemplateMatcher : public Object {
    VX_OBJECT(TemplateMatcher)
public:
    // The markers in order of position; text between them is literal. Marker
    // texts refer into `text`, which must outlive them.
    virtual std::vector<TemplateMarker> markersInText(std::string_view text) const = 0;

protected:
    TemplateMatcher() = default;
};

} // namespace velvox
