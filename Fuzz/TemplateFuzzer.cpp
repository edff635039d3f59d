// Feeds arbitrary text to the template engine as a template, with variables of
// every kind and the framework's filters loaded: each run renders or fails
// with an error, and never crashes.

#include <Platform/Platform.h>
#include <TemplateEngine/RegexTemplateMatcher.h>
#include <TemplateEngine/TemplateEngine.h>
#include <VelvoxKit/VXTemplateFilters.h>

#include <cstdint>
#include <cstdlib>

using namespace velvox;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static Dictionary* variables = [] {
        auto user = Dictionary::create({ { "username", String::create("ines").ptr() } });
        auto items = Array::create({ String::create("a").ptr(), Number::create(2).ptr(), user.ptr() });
        return Dictionary::create({ { "user", user.ptr() }, { "items", items.ptr() }, { "n", Number::create(3).ptr() },
                                      { "text", String::create("a\n<b>").ptr() }, { "url", URL::create("http://x.test/a-large.png").get() },
                                      { "when", Date::create(1700000000).ptr() }, { "nothing", &Null::null() } })
            .leakRef();
    }();
    auto engine = TemplateEngine::templateEngine();
    engine->setMatcher(RegexTemplateMatcher::matcherWithTemplateEngine(*engine.ptr()));
    auto filters = VXTemplateFilters::filter();
    engine->loadFilter(*filters.ptr());
    engine->setEscapesHTML(size % 2);
    RefPtr<Error> error;
    auto result = engine->processTemplate(std::string_view(reinterpret_cast<const char*>(data), size), variables, &error);
    if (!result && !error)
        abort();
    return 0;
}
