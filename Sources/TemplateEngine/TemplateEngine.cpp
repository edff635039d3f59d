// The engine's face: its set-up (matcher, filters) and the two ways in, a
// text or a file, each through its cache of parsed templates. Parsing and
// rendering live in TemplateEngine+Parser.cpp and TemplateEngine+Renderer.cpp.

#include "TemplateEngine.h"

#include "TemplateCaches.h"

#include <Platform/Platform.h>

#include <sys/stat.h>

namespace velvox {

VX_DEFINE_CLASS(TemplateEngine, Object)
VX_DEFINE_CLASS(TemplateMatcher, Object)

TemplateEngine::~TemplateEngine() = default;

Ref<TemplateEngine> TemplateEngine::templateEngine()
{
    return adoptRef(*new TemplateEngine);
}

void TemplateEngine::setMatcher(Ref<TemplateMatcher> matcher)
{
    m_matcher = std::move(matcher);
}

void TemplateEngine::loadFilter(TemplateFilter& filters, Object* owner)
{
    if (owner)
        m_filterOwners.emplace_back(owner);
    auto names = filters.filters();
    for (auto* name : *names) {
        if (auto* text = dynamicDowncast<String>(name))
            m_filters[text->str()] = &filters;
    }
}

RefPtr<String> TemplateEngine::processTemplate(std::string_view text, Dictionary* variables, RefPtr<Error>* error)
{
    auto& texts = templates::ParsedTexts::shared();
    auto parsed = texts.find(text);
    if (!parsed) {
        parsed = parse(std::string(text), error);
        if (!parsed)
            return nullptr;
        texts.store(text, parsed);
    }
    return render(*parsed, variables, error);
}

RefPtr<String> TemplateEngine::processTemplateInFileAtPath(const std::string* path, Dictionary* variables, RefPtr<Error>* error)
{
    struct stat info { };
    if (!path || stat(path->c_str(), &info) != 0 || !S_ISREG(info.st_mode)) {
        VXLog("TemplateEngine - no template file at %s", path ? path->c_str() : "(null)");
        if (error)
            *error = Error::create(TemplateEngineErrorDomain, 4, format("No template file at %s.", path ? path->c_str() : "(null)"));
        return nullptr;
    }
    int64_t modified = static_cast<int64_t>(info.st_mtim.tv_sec) * 1000000000 + info.st_mtim.tv_nsec;
    auto parsed = templates::ParsedFiles::shared().find(*path, modified, info.st_size);
    if (!parsed) {
        auto contents = Data::createWithContentsOfFile(*path);
        if (!contents) {
            VXLog("TemplateEngine - cannot read the template file at %s", path->c_str());
            if (error)
                *error = Error::create(TemplateEngineErrorDomain, 4, format("Cannot read the template file at %s.", path->c_str()));
            return nullptr;
        }
        parsed = parse(std::string(contents->view()), error);
        if (!parsed)
            return nullptr;
        templates::ParsedFiles::shared().store({ *path, modified, static_cast<int64_t>(info.st_size), parsed });
    }
    return render(*parsed, variables, error);
}

} // namespace velvox
