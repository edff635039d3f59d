// The template engine: the language, escaping, errors with their lines, and
// robustness against any text.

#include <Platform/Platform.h>
#include <TemplateEngine/RegexTemplateMatcher.h>
#include <TemplateEngine/TemplateEngine.h>

#include <TestSupport.h>

#include <gtest/gtest.h>

#include <random>

using namespace velvox;

namespace {

// Filters for the tests: "upper", "join" (arguments appended) and "bold", which
// turns text into markup as the framework's "to_html" does.
class TestFilters final : public Object, public TemplateFilter {
public:
    static Ref<TestFilters> create() { return adoptRef(*new TestFilters); }
    Ref<Array> filters() const override
    {
        return Array::create({ String::create("upper").ptr(), String::create("join").ptr(), String::create("bold").ptr(), String::create("fail").ptr() });
    }
    RefPtr<Object> filterInvoked(const String& name, Array* arguments, Object* value) override
    {
        std::string text = value ? value->description()->str() : "";
        if (name.view() == "upper") {
            for (auto& c : text)
                c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
            return String::create(text);
        }
        if (name.view() == "join") {
            for (auto* argument : *arguments)
                text += "+" + argument->description()->str();
            return String::create(text);
        }
        if (name.view() == "bold")
            return String::create("<b>" + text + "</b>");
        Exception::raise(InvalidArgumentException, "failing on purpose");
    }
    bool filterProducesMarkup(std::string_view name) const override { return name == "bold"; }
    bool filterTakesEscapedText(std::string_view name) const override { return name == "bold"; }

private:
    TestFilters() = default;
};

Ref<TemplateEngine> makeEngine()
{
    auto engine = TemplateEngine::templateEngine();
    engine->setMatcher(RegexTemplateMatcher::matcherWithTemplateEngine(*engine.ptr()));
    auto filters = TestFilters::create();
    engine->loadFilter(*filters.ptr());
    return engine;
}

Ref<Dictionary> variables()
{
    auto user = Dictionary::create({ { "username", String::create("ines").ptr() }, { "city", String::create("Montréal").ptr() } });
    auto track = Dictionary::create({ { "title", String::create("Hour <Home> & \"more\"").ptr() }, { "user", user.ptr() },
        { "plays", Number::create(3).ptr() } });
    auto tracks = Array::create({ String::create("a").ptr(), String::create("b").ptr(), String::create("c").ptr() });
    return Dictionary::create({ { "track", track.ptr() }, { "tracks", tracks.ptr() }, { "empty", Array::create().ptr() },
        { "zero", Number::create(0).ptr() }, { "yes", &Number::trueValue() }, { "no", &Number::falseValue() },
        { "blank", String::create("").ptr() }, { "note", String::create("line one\n<script>x</script>").ptr() } });
}

std::string render(std::string_view text, bool escapes = true)
{
    auto engine = makeEngine();
    engine->setEscapesHTML(escapes);
    RefPtr<Error> error;
    auto vars = variables();
    auto result = engine->processTemplate(text, vars.ptr(), &error);
    return result ? result->str() : "error: " + error->localizedDescription()->str();
}

} // namespace

TEST(TemplateEngine, RendersTheLanguage)
{
    static const struct {
        const char* input;
        const char* output;
    } cases[] = {
        { "plain text, { braces } and } alone", "plain text, { braces } and } alone" },
        { "{{ track.user.username }} in {{track.user.city}}", "ines in Montréal" },
        { "{{ missing }}|{{ track.missing.deeper }}|{{ track.plays.nothing }}", "||" },
        { "{{ 'quoted' }} {{ \"double\" }} {{ 42 }} {{ 1.5 }}", "quoted double 42 1.5" },
        { "{{ track.user.username | upper }}", "INES" },
        { "{{ 'a' | join 'b c' 7 track.plays | upper }}", "A+B C+7+3" },
        { "{% for t in tracks %}{{ loop.index }}{{ t }}{% if loop.first %}<{% /if %}{% if loop.last %}>{% /if %} {% /for %}", "0a< 1b 2c> " },
        { "{% for t in empty %}x{% else %}none{% /for %}|{% for t in missing %}x{% else %}none{% /for %}", "none|none" },
        { "{% for a in tracks %}{% for b in tracks %}{% if a == b %}{{ a }}{% /if %}{% /for %}{% /for %}", "abc" },
        { "{% if zero %}1{% elif no %}2{% elif blank %}3{% elif empty %}4{% else %}5{% /if %}", "5" },
        { "{% if track.plays > 2 and not no %}big{% /if %}{% if track.plays <= 2 or yes %}!{% /if %}", "big!" },
        { "{% if track.plays == 3 %}eq{% /if %}{% if track.plays != '3' %}ne{% else %}same{% /if %}", "eqsame" },
        { "{% if track.user.username == 'ines' %}me{% /if %}{% if 'b' > 'a' %}>{% /if %}", "me>" },
        { "{% literal %}{{ not parsed }} {% if %}{% /literal %}", "{{ not parsed }} {% if %}" },
        { "a{# a comment {{ with }} markers #}b", "ab" },
        { "{{ track.title }}", "Hour &lt;Home&gt; &amp; &quot;more&quot;" },
        { "{{ track.title | raw }}", "Hour <Home> & \"more\"" },
        { "{{ note | bold }}", "<b>line one\n&lt;script&gt;x&lt;/script&gt;</b>" },
        { "{{ '<i>' | upper | bold }}", "<b>&lt;I&gt;</b>" },
        { "{{ \"it's\" }}", "it&#39;s" },
        { "line\n{% if yes %}\nyes\n{% /if %}\n", "line\n\nyes\n\n" },
    };
    for (auto& c : cases)
        EXPECT_EQ(render(c.input), c.output) << c.input;
    EXPECT_EQ(render("{{ track.title }}", false), "Hour <Home> & \"more\"");
}

TEST(TemplateEngine, BadTemplatesGiveAnErrorThatNamesTheLine)
{
    static const struct {
        const char* input;
        const char* error;
    } cases[] = {
        { "a\n{% for t in tracks %}\nno end", "error: line 2: {% for %} is not closed with {% /for %}" },
        { "{% if yes %}x", "error: line 1: {% if %} is not closed with {% /if %}" },
        { "x\n\n{% /if %}", "error: line 3: {% /if %} closes no block" },
        { "{% repeat 3 %}", "error: line 1: unknown tag \"repeat\"" },
        { "\n{{ }}", "error: line 2: an expression is missing" },
        { "{{ 'open }}", "error: line 1: unterminated string" },
        { "{{ a | }}", "error: line 1: a filter name is missing after \"|\"" },
        { "{{ a b }}", "error: line 1: unexpected \"b\" in an expression" },
        { "{% for in tracks %}{% /for %}", "error: line 1: a for tag reads {% for name in expression %}" },
        { "{% if a == %}{% /if %}", "error: line 1: an expression is missing" },
        { "{% literal %}never closed", "error: line 1: {% literal %} is not closed with {% /literal %}" },
        { "{{ x | nosuch }}", "error: line 1: unknown filter \"nosuch\"" },
        { "\n{{ x | fail }}", "error: line 2: the filter \"fail\" raised NSInvalidArgumentException: failing on purpose" },
        { "{{ $$$ }}", "error: line 1: \"$$$\" is not a value" },
        { "{% %}", "error: line 1: a tag is empty" },
        { "{{ a\x01"
          "b }}",
            "error: line 1: \"a\x01"
            "b\" is not a value" },
    };
    for (auto& c : cases)
        EXPECT_EQ(render(c.input), c.error) << c.input;
    // Depths that would exhaust the stack are refused.
    std::string deep;
    for (int i = 0; i < 300; ++i)
        deep += "{% if yes %}";
    EXPECT_EQ(render(deep), "error: line 1: blocks nest deeper than 200 levels");
    std::string negations = "{% if";
    for (int i = 0; i < 5000; ++i)
        negations += " not";
    EXPECT_EQ(render(negations + " yes %}x{% /if %}"), "error: line 1: a condition is longer than 200 words");
    // A NUL byte inside a marker (found by the fuzzer: it once stopped the word scanner).
    EXPECT_EQ(render(std::string_view("{{ it\0ems }}", 12)).rfind("error: line 1: ", 0), 0u);
}

TEST(TemplateEngine, FilesAreParsedOnceUntilTheyChangeAndAMissingOneLogs)
{
    test::TemporaryFolder folder;
    std::string path = folder.path() + "/page.html";
    FileManager::writeFileAtomically(path, "Hello {{ track.user.username }}");
    auto engine = makeEngine();
    auto vars = variables();
    EXPECT_EQ(engine->processTemplateInFileAtPath(path, vars.ptr())->str(), "Hello ines");
    EXPECT_EQ(engine->processTemplateInFileAtPath(path, vars.ptr())->str(), "Hello ines");
    FileManager::writeFileAtomically(path, "Bye {{ track.user.username }}!");
    EXPECT_EQ(engine->processTemplateInFileAtPath(path, vars.ptr())->str(), "Bye ines!");

    std::vector<std::string> lines;
    auto previous = setLogSink([&lines](std::string_view line) { lines.emplace_back(line); });
    EXPECT_FALSE(engine->processTemplateInFileAtPath(folder.path() + "/missing.html", vars.ptr()));
    EXPECT_FALSE(engine->processTemplateInFileAtPath(nullptr, vars.ptr()));
    setLogSink(previous);
    EXPECT_EQ(lines.size(), 2u);
}

TEST(TemplateEngine, AnyTextRendersOrFailsWithoutCrashing)
{
    // Pieces of the language shuffled at random: each result is a text or an error.
    static const char* const pieces[] = { "{{", "}}", "{%", "%}", "{#", "#}", " for ", " in ", " if ", " elif ", " else ",
        " /for ", " /if ", " literal ", " /literal ", "tracks", "t", "|", " upper ", " join ", "'", "\"", "==", " and ", " not ",
        "\n", "x", "loop.index", "track.user", " raw ", "7", "{", "}" };
    std::mt19937 random(1122);
    auto engine = makeEngine();
    auto vars = variables();
    for (int round = 0; round < 3000; ++round) {
        std::string text;
        int count = 1 + static_cast<int>(random() % 24);
        for (int i = 0; i < count; ++i)
            text += pieces[random() % std::size(pieces)];
        RefPtr<Error> error;
        auto result = engine->processTemplate(text, vars.ptr(), &error);
        EXPECT_TRUE(result || error) << text;
    }
}

TEST(TemplateEngine, ParsedTextsAreKeptByTheirWholeTextAndEvictedOnesParseAgain)
{
    auto engine = makeEngine();
    auto vars = variables();
    auto renderText = [&](std::string_view text, Dictionary* variables) {
        RefPtr<Error> error;
        auto result = engine->processTemplate(text, variables, &error);
        return result ? result->str() : "error: " + error->localizedDescription()->str();
    };

    // A kept text renders with the variables of each call.
    auto other = Dictionary::create({ { "track", Dictionary::create({ { "plays", Number::create(9).ptr() } }).ptr() } });
    EXPECT_EQ(renderText("plays {{ track.plays }}", vars.ptr()), "plays 3");
    EXPECT_EQ(renderText("plays {{ track.plays }}", other.ptr()), "plays 9");

    // More texts than are kept, alike but for their ends, in two rounds: the
    // first ones are evicted and parsed again, none answers for another.
    for (int round = 0; round < 2; ++round) {
        for (int i = 0; i < 48; ++i) {
            std::string text = std::string(100, 'x') + "{{ track.plays }}#" + std::to_string(i);
            EXPECT_EQ(renderText(text, vars.ptr()), std::string(100, 'x') + "3#" + std::to_string(i)) << round << " " << i;
        }
    }

    // Texts on either side of the largest one kept, each twice; a NUL byte
    // makes a text of its own.
    for (size_t size : { size_t(64 * 1024), size_t(64 * 1024 + 1), size_t(200 * 1024) }) {
        std::string text = "{{ track.user.username }}" + std::string(size - 25, '.');
        ASSERT_EQ(text.size(), size);
        for (int time = 0; time < 2; ++time)
            EXPECT_EQ(renderText(text, vars.ptr()), "ines" + std::string(size - 25, '.')) << size;
    }
    EXPECT_EQ(renderText(std::string_view("a\0{{ zero }}", 12), vars.ptr()), std::string("a\0"
                                                                                         "0",
                                                                                 3));
    EXPECT_EQ(renderText("a", vars.ptr()), "a");

    // A text that fails to parse fails again with the same message.
    for (int time = 0; time < 2; ++time)
        EXPECT_EQ(renderText("{% if yes %}open", vars.ptr()), "error: line 1: {% if %} is not closed with {% /if %}");
}
