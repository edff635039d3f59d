#pragma once

// A text template engine for the host's HTML views.
//
// The language (docs/templates.md):
//   {{ expression }}                 writes a value, HTML-escaped unless the engine is told otherwise
//   {% for x in expression %} … {% else %} … {% /for %}     loop.index, loop.first, loop.last inside
//   {% if condition %} … {% elif condition %} … {% else %} … {% /if %}
//   {% literal %} … {% /literal %}   copied without parsing
//   {# comment #}
// An expression is a key path resolved by key-value coding ("track.user.username"),
// a quoted string or a number, followed by filters: "| name arg arg", left to right.
// A condition compares two expressions (== != < <= > >=), joins with and / or,
// negates with not, or tests truth (null, false, 0, "" and empty collections are false).
//
// Bad templates never crash: an unclosed block, an unknown tag or a broken
// expression gives an error that names the line; a missing variable writes
// nothing. Parsed templates of files are kept, keyed by path and modification time.

#include "TemplateFilter.h"
#include "TemplateMatcher.h"

#include <Platform/Collections.h>
#include <Platform/Values.h>

#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <unordered_map>
#include <vector>

namespace velvox {

inline constexpr std::string_view TemplateEngineErrorDomain = "TemplateEngineErrorDomain";

class TemplateEngine final : public Object {
    VX_OBJECT(TemplateEngine)
public:
    // A new engine, HTML-escaping, with no matcher and no filters yet.
    static Ref<TemplateEngine> templateEngine();

    void setMatcher(Ref<TemplateMatcher>);
    TemplateMatcher* matcher() const { return m_matcher.get(); }
    // Asks the filter set for its names once; a later set wins a name. The
    // engine keeps a filter set that is an object alive.
    template<typename T>
    void loadFilter(T& filters)
    {
        if constexpr (std::is_base_of_v<Object, T>)
            loadFilter(static_cast<TemplateFilter&>(filters), &filters);
        else
            loadFilter(static_cast<TemplateFilter&>(filters), nullptr);
    }
    void loadFilter(TemplateFilter&, Object* owner);
    // Whether {{ }} escapes & < > " ' (true by default; false for plain text).
    void setEscapesHTML(bool escapes) { m_escapesHTML = escapes; }
    bool escapesHTML() const { return m_escapesHTML; }

    // The rendered text, or null with the error (its description names the line).
    RefPtr<String> processTemplate(std::string_view text, Dictionary* variables, RefPtr<Error>* error = nullptr);
    // The same for the file at a path; a missing file (or no path) gives null
    // and one log line.
    RefPtr<String> processTemplateInFileAtPath(const std::string* path, Dictionary* variables, RefPtr<Error>* error = nullptr);
    RefPtr<String> processTemplateInFileAtPath(const std::string& path, Dictionary* variables, RefPtr<Error>* error = nullptr)
    {
        return processTemplateInFileAtPath(&path, variables, error);
    }

    struct Parsed;

private:
    TemplateEngine() = default;
    ~TemplateEngine() override;
    RefPtr<String> render(const Parsed&, Dictionary* variables, RefPtr<Error>* error);
    std::shared_ptr<const Parsed> parse(std::string source, RefPtr<Error>* error) const;

    RefPtr<TemplateMatcher> m_matcher;
    std::vector<RefPtr<Object>> m_filterOwners;
    std::unordered_map<std::string, TemplateFilter*> m_filters;
    bool m_escapesHTML { true };

    friend struct TemplateRenderer;
};

} // namespace velvox
