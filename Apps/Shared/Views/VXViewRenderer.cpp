#include "VXViewRenderer.h"
#include "VXViewFilters.h"

#include <Platform/Platform.h>
#include <TemplateEngine/RegexTemplateMatcher.h>
#include <TemplateEngine/TemplateEngine.h>
#include <VelvoxKit/VXTemplateFilters.h>
#include <ZUKit/ZUImageDataURI.h>
#include <ZUKit/ZULoadingImageCache.h>

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <strings.h>

namespace velvox {

using views::webAddress;

namespace {

// An image that could not be had: a transparent pixel, so that the page's layout holds.
constexpr std::string_view emptyImage = "data:image/gif;base64,R0lGODlhAQABAIAAAAAAAP///yH5BAEAAAAALAAAAAABAAEAAAIBRAA7";

char lowered(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool startsWithIgnoringCase(std::string_view text, std::string_view prefix)
{
    return text.size() >= prefix.size() && !strncasecmp(text.data(), prefix.data(), prefix.size());
}

// The text of an attribute's value as the browser reads it (the engine
// writes & < > " ' as references).
std::string unescapedAttribute(std::string_view text)
{
    static constexpr std::pair<std::string_view, char> references[] = {
        { "&amp;", '&' },
        { "&lt;", '<' },
        { "&gt;", '>' },
        { "&quot;", '"' },
        { "&#39;", '\'' },
        { "&#x27;", '\'' },
    };
    std::string out;
    out.reserve(text.size());
    for (size_t at = 0; at < text.size();) {
        bool replaced = false;
        if (text[at] == '&') {
            for (auto& [reference, character] : references) {
                if (text.substr(at).starts_with(reference)) {
                    out += character;
                    at += reference.size();
                    replaced = true;
                    break;
                }
            }
        }
        if (!replaced)
            out += text[at++];
    }
    return out;
}

bool isNameCharacter(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_' || c == ':';
}

bool isSpace(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f';
}

// An attribute of the page that makes the browser load something when the
// page opens, with the place of its value (quotes included).
struct LoadingAttribute {
    size_t start;
    size_t end;
    std::string value;
    bool isImageSource;
};

// The attributes that load on open, in every tag of the page. Text from the
// records cannot make a tag (the engine escapes < and quotes), so what is
// found here is the templates' own markup.
std::vector<LoadingAttribute> loadingAttributes(std::string_view html)
{
    std::vector<LoadingAttribute> found;
    size_t at = 0;
    while ((at = html.find('<', at)) != std::string_view::npos) {
        ++at;
        if (at >= html.size() || !((html[at] >= 'a' && html[at] <= 'z') || (html[at] >= 'A' && html[at] <= 'Z')))
            continue;
        size_t nameStart = at;
        while (at < html.size() && isNameCharacter(html[at]))
            ++at;
        std::string tag;
        for (char c : html.substr(nameStart, at - nameStart))
            tag += lowered(c);
        // The attributes, up to the end of the tag.
        while (at < html.size() && html[at] != '>') {
            if (isSpace(html[at]) || html[at] == '/') {
                ++at;
                continue;
            }
            size_t attributeStart = at;
            while (at < html.size() && !isSpace(html[at]) && html[at] != '=' && html[at] != '>' && html[at] != '/')
                ++at;
            if (at == attributeStart) {
                ++at;
                continue;
            }
            std::string name;
            for (char c : html.substr(attributeStart, at - attributeStart))
                name += lowered(c);
            while (at < html.size() && isSpace(html[at]))
                ++at;
            if (at >= html.size() || html[at] != '=')
                continue;
            ++at;
            while (at < html.size() && isSpace(html[at]))
                ++at;
            size_t valueStart = at, contentStart = at, contentEnd;
            if (at < html.size() && (html[at] == '"' || html[at] == '\'')) {
                char quote = html[at];
                contentStart = at + 1;
                size_t close = html.find(quote, contentStart);
                contentEnd = close == std::string_view::npos ? html.size() : close;
                at = close == std::string_view::npos ? html.size() : close + 1;
            } else {
                while (at < html.size() && !isSpace(html[at]) && html[at] != '>')
                    ++at;
                contentEnd = at;
            }
            bool loads = name == "src" || name == "srcset" || name == "poster" || name == "background" || name == "data"
                || (name == "href" && tag == "link");
            if (loads)
                found.push_back({ valueStart, at, unescapedAttribute(html.substr(contentStart, contentEnd - contentStart)), name == "src" });
        }
    }
    return found;
}

// The page with every attribute that loads on open made to load nothing from
// elsewhere: an image source that `addressOf` turns into a web address
// becomes that image as a data URI (one request per distinct address; a
// transparent pixel when it does not come), a data URI stays, anything else
// becomes the transparent pixel.
Ref<String> inlining(std::string_view html, const std::function<std::string(const std::string&)>& addressOf, double timeout)
{
    auto attributes = loadingAttributes(html);
    std::vector<std::string> replacements;
    std::map<std::string, std::string> inlined;
    for (auto& attribute : attributes) {
        std::string address = attribute.isImageSource ? addressOf(attribute.value) : std::string();
        if (!address.empty())
            inlined.emplace(address, std::string(emptyImage));
        else if (startsWithIgnoringCase(attribute.value, "data:"))
            address = attribute.value;
        replacements.push_back(std::move(address));
    }

    auto& cache = ZULoadingImageCache::sharedLoadingImageCache();
    size_t pending = 0;
    // The loads' blocks point into this frame: they go with it, even when
    // the time-out came first.
    std::vector<Subscription> loads;
    for (auto& [address, dataURI] : inlined) {
        auto url = URL::create(address);
        if (!url)
            continue;
        std::string* slot = &dataURI;
        Subscription load;
        auto image = cache.cachedImageForURL(
            url.get(), false, [slot, &pending](Image* loaded, Error*) {
                if (loaded)
                    *slot = zu_dataURIRepresentation(*loaded)->str();
                --pending;
            },
            &load);
        loads.push_back(std::move(load));
        if (image)
            dataURI = zu_dataURIRepresentation(*image)->str();
        else
            ++pending;
    }
    if (pending)
        RunLoop::current().runUntil([&pending] { return pending == 0; }, timeout);

    std::string out;
    out.reserve(html.size());
    size_t position = 0;
    for (size_t i = 0; i < attributes.size(); ++i) {
        auto& replacement = replacements[i];
        std::string_view value = emptyImage;
        if (auto found = inlined.find(replacement); found != inlined.end())
            value = found->second;
        else if (!replacement.empty())
            value = replacement; // a data URI of the template's own
        out.append(html.substr(position, attributes[i].start - position));
        out += '"';
        // A data URI of the template's own is written back as it came, escaped.
        for (char c : value) {
            if (c == '"')
                out += "&quot;";
            else if (c == '&')
                out += "&amp;";
            else
                out += c;
        }
        out += '"';
        position = attributes[i].end;
    }
    out.append(html.substr(position));
    return String::create(out);
}

// The template filters as the views use them, noting which image addresses
// "zu_image" made from web addresses: only those are fetched. A value that is
// not a web address is not given to the filter at all (the image is dropped
// either way), so a short or odd address costs the image, not the page.
class ViewFilters final : public Object, public TemplateFilter {
    VX_OBJECT(ViewFilters)
public:
    using Images = std::map<std::string, std::string>; // the filter's text -> the web address

    using Pages = std::shared_ptr<const std::set<std::string>>;

    static Ref<ViewFilters> create(std::shared_ptr<Images> images, Pages pages) { return adoptRef(*new ViewFilters(std::move(images), std::move(pages))); }

    // The framework's filters, then the host's own.
    Ref<Array> filters() const override
    {
        auto names = m_filters->filters()->mutableCopy();
        for (auto name : views::hostFilterNames())
            names->addObject(String::create(name));
        return names->copy();
    }
    bool filterProducesMarkup(std::string_view name) const override { return m_filters->filterProducesMarkup(name); }
    bool filterTakesEscapedText(std::string_view name) const override { return m_filters->filterTakesEscapedText(name); }

    RefPtr<Object> filterInvoked(const String& filterName, Array* arguments, Object* value) override
    {
        auto name = filterName.view();
        if (name == "partial" && arguments && arguments->count() == 1) {
            // Partials note their images in the same table.
            auto filters = create(m_images, m_pages);
            return renderPartial(*arguments->objectAtIndex(0), value, *filters.ptr(), filters.ptr());
        }
        if (views::isHostFilter(name))
            return views::applyHostFilter(name, arguments, value, m_pages.get());
        if (name != "zu_image")
            return m_filters->filterInvoked(filterName, arguments, value);
        std::string text;
        if (auto* url = dynamicDowncast<URL>(value))
            text = url->absoluteString()->str();
        else if (auto* string = dynamicDowncast<String>(value))
            text = string->str();
        std::string address = webAddress(text);
        if (address.empty())
            return String::create("");
        auto result = m_filters->filterInvoked(filterName, arguments, value);
        if (result)
            m_images->emplace(result->description()->str(), address);
        return result;
    }

private:
    ViewFilters(std::shared_ptr<Images> images, Pages pages)
        : m_filters(VXTemplateFilters::filter())
        , m_images(std::move(images))
        , m_pages(std::move(pages))
    {
    }

    Ref<VXTemplateFilters> m_filters;
    std::shared_ptr<Images> m_images;
    Pages m_pages;
};

VX_DEFINE_CLASS(ViewFilters, Object)

} // namespace

Ref<String> VXViewRenderer::inliningImages(const String& html, double timeout)
{
    return inlining(
        html.view(), [](const std::string& source) {
            // "zu-image" in any case, as the filter leaves it, stands for "http".
            if (startsWithIgnoringCase(source, "zu-image"))
                return webAddress("http" + source.substr(8));
            return webAddress(source);
        },
        timeout);
}

RefPtr<String> VXViewRenderer::renderPage(std::string_view name, Dictionary* variables, RefPtr<Error>* error, double timeout)
{
    return renderPage(name, variables, nullptr, error, timeout);
}

namespace {

// The view through the engine with the framework's and the host's filters,
// its images noted in `images`.
RefPtr<String> processView(std::string_view name, Dictionary* variables, const std::set<std::string>* pages, const std::shared_ptr<ViewFilters::Images>& images, RefPtr<Error>* error)
{
    auto path = Bundle::mainBundle().pathForResource(format("views/%s", std::string(name).c_str()), "html");
    auto engine = TemplateEngine::templateEngine();
    engine->setMatcher(RegexTemplateMatcher::matcherWithTemplateEngine(*engine.ptr()));
    auto filters = ViewFilters::create(images, pages ? std::make_shared<const std::set<std::string>>(*pages) : nullptr);
    engine->loadFilter(*filters.ptr());
    auto all = variables ? variables->mutableCopy() : MutableDictionary::create();
    if (auto logoPath = Bundle::mainBundle().pathForResource("views/logo", "png")) {
        if (auto bytes = Data::createWithContentsOfFile(*logoPath)) {
            if (auto logo = Image::create(*bytes))
                all->setObject(logo, "logo");
        }
    }
    return engine->processTemplateInFileAtPath(path ? &*path : nullptr, all.ptr(), error);
}

} // namespace

RefPtr<String> VXViewRenderer::renderPageLeavingImages(std::string_view name, Dictionary* variables, RefPtr<Error>* error)
{
    return processView(name, variables, nullptr, std::make_shared<ViewFilters::Images>(), error);
}

RefPtr<String> VXViewRenderer::renderPage(std::string_view name, Dictionary* variables, const std::set<std::string>* pages, RefPtr<Error>* error, double timeout)
{
    auto images = std::make_shared<ViewFilters::Images>();
    auto page = processView(name, variables, pages, images, error);
    if (!page)
        return nullptr;
    return inlining(
        page->view(), [&images](const std::string& source) {
            auto found = images->find(source);
            return found == images->end() ? std::string() : found->second;
        },
        timeout);
}

} // namespace velvox
