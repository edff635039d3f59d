// The template filters, called as the engine calls them and through templates.

#include <Platform/Platform.h>
#include <TemplateEngine/RegexTemplateMatcher.h>
#include <TemplateEngine/TemplateEngine.h>
#include <VelvoxKit/VXTemplateFilters.h>

#include <TestSupport.h>

#include <gtest/gtest.h>

#include <filesystem>

using namespace velvox;

namespace {

RefPtr<Object> invoke(std::string_view name, std::initializer_list<Object*> arguments, Object* value)
{
    auto filters = VXTemplateFilters::filter();
    auto filterName = String::create(name);
    return filters->filterInvoked(filterName, Array::create(arguments).ptr(), value);
}

std::string text(const RefPtr<Object>& value)
{
    return value ? value->description()->str() : "(nothing)";
}

} // namespace

TEST(TemplateFilters, NamesAndTheSimpleFilters)
{
    auto names = VXTemplateFilters::filter()->filters();
    EXPECT_EQ(names->componentsJoinedByString(",")->str(), "past_date,to_html,data_uri,partial,pluralize,zu_image");

    auto lines = String::create("a\nb\n& <c>\r\n");
    EXPECT_EQ(text(invoke("to_html", {}, lines.ptr())), "a<br/>b<br/>& <c>\r<br/>");
    EXPECT_EQ(text(invoke("to_html", {}, Number::create(3).ptr())), "(nothing)");
    EXPECT_EQ(text(invoke("past_date", {}, String::create("2026-11-01").ptr())), "(nothing)");
    {
        test::ManualTime time(0, 1800000000);
        EXPECT_FALSE(text(invoke("past_date", {}, Date::create(1800000000 - 300).ptr())).empty());
    }
    auto bytes = Data::create(std::string_view("GIF89a\x01\x00", 8));
    auto image = Image::create(bytes);
    EXPECT_EQ(text(invoke("data_uri", {}, image.get())), "data:image/gif;base64,R0lGODlhAQA=");
    EXPECT_EQ(text(invoke("data_uri", {}, bytes.ptr())), "(nothing)");
    EXPECT_EQ(text(invoke("no_such_filter", {}, lines.ptr())), "(nothing)");
}

TEST(TemplateFilters, PluralizeChoosesItsFormatByTheIntegerValue)
{
    auto one = String::create("%@ play"), many = String::create("%@ plays"), none = String::create("never played");
    static const struct {
        double value;
        bool withZero;
        const char* result;
    } cases[] = {
        { 1, false, "1 play" },
        { 0, false, "0 plays" },
        { 0, true, "never played" },
        { -1, false, "-1 plays" },
        { 2, true, "2 plays" },
        { 1.5, true, "1.5 play" },
        { 0.5, true, "never played" },
    };
    for (auto& c : cases) {
        auto number = c.value == static_cast<int>(c.value) ? Number::create(static_cast<int64_t>(c.value)) : Number::create(c.value);
        auto result = c.withZero ? invoke("pluralize", { one.ptr(), many.ptr(), none.ptr() }, number.ptr()) : invoke("pluralize", { one.ptr(), many.ptr() }, number.ptr());
        EXPECT_EQ(text(result), c.result) << c.value;
    }
    EXPECT_EQ(text(invoke("pluralize", { one.ptr() }, Number::create(1).ptr())), "(nothing)");
    EXPECT_EQ(text(invoke("pluralize", { one.ptr(), many.ptr() }, String::create("1").ptr())), "(nothing)");
    auto fourth = String::create("fourth");
    EXPECT_EQ(text(invoke("pluralize", { one.ptr(), many.ptr(), none.ptr(), fourth.ptr() }, Number::create(0).ptr())), "0 plays");
}

TEST(TemplateFilters, ZuImageRewritesTheSchemeWithinSixCharacters)
{
    auto url = URL::create("http://a/p.jpg");
    auto rewritten = invoke("zu_image", {}, url.get());
    ASSERT_TRUE(is<URL>(rewritten.get()));
    EXPECT_EQ(text(rewritten), "zu-image://a/p.jpg");
    EXPECT_EQ(text(invoke("zu_image", {}, String::create("HTTP://a/b.png").ptr())), "zu-image://a/b.png");
    EXPECT_EQ(text(invoke("zu_image", {}, String::create("https://a/b.png").ptr())), "zu-images://a/b.png");
    EXPECT_EQ(text(invoke("zu_image", {}, String::create("ftp://x/y").ptr())), "ftp://x/y");
    EXPECT_FALSE(test::raisedReason([] { invoke("zu_image", {}, String::create("http").ptr()); }, RangeException).empty());
    EXPECT_EQ(test::raisedReason([] { invoke("zu_image", {}, Number::create(1).ptr()); }, InternalInconsistencyException),
        "Invalid parameter not satisfying: [value isKindOfClass:[NSString class]]");
    EXPECT_EQ(test::raisedReason([] { invoke("zu_image", {}, nullptr); }, InternalInconsistencyException),
        "Invalid parameter not satisfying: [value isKindOfClass:[NSString class]]");
}

TEST(TemplateFilters, PartialsRenderWithElementAndEscapeWhatTheyShow)
{
    // Partials of the test's own, in a resource folder of its own: the host's
    // views use filters of the host's.
    test::TemporaryFolder resources;
    std::filesystem::create_directories(resources.path() + "/views");
    FileManager::writeFileAtomically(resources.path() + "/views/comment.html",
        "<div class=\"comment\"><span class=\"author\">{{ element.user.username }}</span><div class=\"body\">{{ element.body | to_html }}</div></div>");
    FileManager::writeFileAtomically(resources.path() + "/views/self.html", "<i>{{ element | partial 'views/self.html' }}</i>");
    std::string savedResources = Bundle::mainBundle().resourcePath();
    Bundle::mainBundle().setResourcePath(resources.path());
    struct Restore {
        std::string path;
        ~Restore() { Bundle::mainBundle().setResourcePath(path); }
    } restore { savedResources };

    auto one = String::create("views/comment.html"), two = String::create("x");
    EXPECT_EQ(text(invoke("partial", { one.ptr(), two.ptr() }, String::create("v").ptr())), "(nothing)");
    auto comment = Dictionary::create({ { "body", String::create("nice\n<script>alert(1)</script>").ptr() },
        { "user", Dictionary::create({ { "username", String::create("ines").ptr() } }).ptr() } });
    auto rendered = text(invoke("partial", { one.ptr() }, comment.ptr()));
    EXPECT_NE(rendered.find("<span class=\"author\">ines</span>"), std::string::npos) << rendered;
    EXPECT_NE(rendered.find("nice<br/>&lt;script&gt;alert(1)&lt;/script&gt;"), std::string::npos) << rendered;
    // A resource the bundle does not hold gives nothing (and a log line).
    auto missing = String::create("views/none.html");
    std::vector<std::string> lines;
    auto previous = setLogSink([&lines](std::string_view line) { lines.emplace_back(line); });
    EXPECT_EQ(text(invoke("partial", { missing.ptr() }, comment.ptr())), "(nothing)");
    setLogSink(previous);
    EXPECT_EQ(lines.size(), 1u);

    // A partial that includes itself ends with nothing at a bounded depth.
    auto self = String::create("views/self.html");
    auto nested = text(invoke("partial", { self.ptr() }, String::create("x").ptr()));
    EXPECT_EQ(std::count(nested.begin(), nested.end(), 'i') / 2, 32) << nested.substr(0, 100);

    // Through an engine, "to_html" gets escaped text and writes markup.
    auto engine = TemplateEngine::templateEngine();
    engine->setMatcher(RegexTemplateMatcher::matcherWithTemplateEngine(*engine.ptr()));
    auto filters = VXTemplateFilters::filter();
    engine->loadFilter(*filters.ptr());
    auto variables = Dictionary::create({ { "c", comment.ptr() }, { "n", Number::create(2).ptr() } });
    auto page = engine->processTemplate("{{ c.body | to_html }}|{{ n | pluralize '%@ <b>' '%@ <i>' }}|{{ c | partial 'views/comment.html' }}", variables.ptr());
    ASSERT_TRUE(page);
    EXPECT_EQ(page->view().substr(0, page->view().find("|<div")), "nice<br/>&lt;script&gt;alert(1)&lt;/script&gt;|2 &lt;i&gt;");
}
