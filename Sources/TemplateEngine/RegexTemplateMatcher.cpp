#include "RegexTemplateMatcher.h"

#include <unicode/regex.h>
#include <unicode/utext.h>

#include <mutex>

namespace velvox {

VX_DEFINE_CLASS(RegexTemplateMatcher, TemplateMatcher)

// One compiled pattern for the process: a pattern is immutable and ICU allows
// matchers on it from any thread.
struct RegexTemplateMatcher::Pattern {
    std::unique_ptr<icu::RegexPattern> regex;
};

namespace {

std::shared_ptr<const RegexTemplateMatcher::Pattern> sharedPattern()
{
    static std::shared_ptr<const RegexTemplateMatcher::Pattern> pattern = [] {
        auto made = std::make_shared<RegexTemplateMatcher::Pattern>();
        UErrorCode status = U_ZERO_ERROR;
        UParseError parseError {};
        // Shortest content first, across lines: {{ }}, {% %}, {# #}.
        made->regex.reset(icu::RegexPattern::compile(
            icu::UnicodeString::fromUTF8(R"(\{\{(.*?)\}\}|\{%(.*?)%\}|\{#(.*?)#\})"), UREGEX_DOTALL, parseError, status));
        if (U_FAILURE(status))
            made->regex.reset();
        return made;
    }();
    return pattern;
}

} // namespace

RegexTemplateMatcher::RegexTemplateMatcher()
    : m_pattern(sharedPattern())
{
}

RegexTemplateMatcher::~RegexTemplateMatcher() = default;

Ref<RegexTemplateMatcher> RegexTemplateMatcher::matcherWithTemplateEngine(TemplateEngine&)
{
    return adoptRef(*new RegexTemplateMatcher);
}

std::vector<TemplateMarker> RegexTemplateMatcher::markersInText(std::string_view text) const
{
    std::vector<TemplateMarker> markers;
    if (!m_pattern->regex || text.empty())
        return markers;
    UErrorCode status = U_ZERO_ERROR;
    // Matching on the UTF-8 text itself, so that offsets are byte offsets.
    UText* utext = utext_openUTF8(nullptr, text.data(), static_cast<int64_t>(text.size()), &status);
    std::unique_ptr<icu::RegexMatcher> matcher(m_pattern->regex->matcher(status));
    if (U_FAILURE(status) || !matcher) {
        utext_close(utext);
        return markers;
    }
    matcher->reset(utext);
    while (matcher->find(status) && U_SUCCESS(status)) {
        for (int group = 1; group <= 3; ++group) {
            int64_t start = matcher->start64(group, status);
            if (start < 0)
                continue;
            int64_t end = matcher->end64(group, status);
            TemplateMarker marker;
            marker.kind = group == 1 ? TemplateMarker::Kind::Expression : group == 2 ? TemplateMarker::Kind::Tag
                                                                                     : TemplateMarker::Kind::Comment;
            marker.start = static_cast<size_t>(matcher->start64(status));
            marker.end = static_cast<size_t>(matcher->end64(status));
            marker.content = text.substr(static_cast<size_t>(start), static_cast<size_t>(end - start));
            markers.push_back(marker);
            break;
        }
    }
    utext_close(utext);
    return markers;
}

} // namespace velvox
