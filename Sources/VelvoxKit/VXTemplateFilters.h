#pragma once

// The six filters the host's HTML templates apply to values: relative dates,
// line breaks to HTML, images as data URIs, partial templates, plural forms,
// and image addresses rewritten to the "zu-image" scheme.

#include <TemplateEngine/TemplateFilter.h>

#include <Platform/Object.h>

namespace velvox {

class VXTemplateFilters final : public Object, public TemplateFilter {
    VX_OBJECT(VXTemplateFilters)
public:
    // +filter: a new instance.
    static Ref<VXTemplateFilters> filter();

    // "past_date", "to_html", "data_uri", "partial", "pluralize", "zu_image".
    Ref<Array> filters() const override;
    RefPtr<Object> filterInvoked(const String& filterName, Array* arguments, Object* value) override;

    // In HTML output "to_html" turns escaped text into markup and "partial"
    // writes a rendered template: both are written as they stand.
    bool filterProducesMarkup(std::string_view name) const override;
    bool filterTakesEscapedText(std::string_view name) const override;

private:
    VXTemplateFilters() = default;
};

// The "partial" filter's work: the bundle's resource of that name rendered by
// a new engine that has `filters` loaded (kept alive by `owner` when given),
// with `value` as "element". A host that wraps the filters renders its
// partials with its own wrapper through this.
RefPtr<String> renderPartial(Object& resourceName, Object* value, TemplateFilter& filters, Object* owner);

} // namespace velvox
