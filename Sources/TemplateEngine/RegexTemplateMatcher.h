#pragma once

// The matcher that finds markers with ICU's regular expressions.

#include "TemplateMatcher.h"

#include <memory>

namespace velvox {

class TemplateEngine;

class RegexTemplateMatcher final : public TemplateMatcher {
    VX_OBJECT(RegexTemplateMatcher)
public:
    // A matcher for an engine; the engine is not retained.
    static Ref<RegexTemplateMatcher> matcherWithTemplateEngine(TemplateEngine&);

    std::vector<TemplateMarker> markersInText(std::string_view text) const override;

    struct Pattern;

private:
    RegexTemplateMatcher();
    ~RegexTemplateMatcher() override;
    std::shared_ptr<const Pattern> m_pattern;
};

} // namespace velvox
