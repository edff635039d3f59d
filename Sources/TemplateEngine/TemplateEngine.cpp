#include "TemplateEngine.h"

#include <Platform/CLocale.h>
#include <Platform/Platform.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <list>
#include <mutex>
#include <optional>
#include <sys/stat.h>

namespace velvox {

VX_DEFINE_CLASS(TemplateEngine, Object)
VX_DEFINE_CLASS(TemplateMatcher, Object)

namespace {

// MARK: The parsed form

struct Expression {
    enum class Kind { Path, Literal };
    Kind kind { Kind::Literal };
    std::string path;
    std::vector<std::string> segments; // the path split at its dots, once
    RefPtr<Object> literal;
    struct Filter {
        std::string name;
        std::vector<Expression> arguments;
    };
    std::vector<Filter> filters;
};

struct Condition {
    enum class Kind { Test, Compare, Not, And, Or };
    Kind kind { Kind::Test };
    Expression left, right;
    std::string op;
    std::unique_ptr<Condition> a, b;
};

struct Node {
    enum class Kind { Text, Output, For, If };
    Kind kind { Kind::Text };
    size_t line { 1 };
    std::string_view text;
    Expression expression;
    std::string variable;
    std::vector<Node> body;
    std::vector<Node> elseBody;
    std::vector<std::pair<std::unique_ptr<Condition>, std::vector<Node>>> branches;
};

struct ParseFailure {
    size_t line;
    std::string message;
};

// MARK: Expressions

// Words, quoted strings and pipes of a marker's content.
struct Word {
    std::string text;
    bool quoted { false };
};

std::vector<Word> splitWords(std::string_view content, size_t line)
{
    std::vector<Word> words;
    size_t i = 0;
    while (i < content.size()) {
        char c = content[i];
        if (c == ' ' || c == '\t' || c == '\n' || c == '\r') {
            ++i;
        } else if (c == '|') {
            words.push_back({ "|", false });
            ++i;
        } else if (c == '"' || c == '\'') {
            std::string text;
            size_t j = i + 1;
            for (; j < content.size() && content[j] != c; ++j) {
                if (content[j] == '\\' && j + 1 < content.size())
                    ++j;
                text.push_back(content[j]);
            }
            if (j >= content.size())
                throw ParseFailure { line, "unterminated string" };
            words.push_back({ std::move(text), true });
            i = j + 1;
        } else {
            size_t j = i;
            // (A string_view, not strchr, whose terminator would match a NUL byte.)
            static constexpr std::string_view separators = " \t\n\r|\"'";
            while (j < content.size() && separators.find(content[j]) == std::string_view::npos)
                ++j;
            words.push_back({ std::string(content.substr(i, j - i)), false });
            i = j;
        }
    }
    return words;
}

bool isNumber(const std::string& text)
{
    if (text.empty())
        return false;
    char* end = nullptr;
    std::string copy = text;
    strtod_l(copy.c_str(), &end, detail::cLocale());
    return end && !*end && (std::isdigit(static_cast<unsigned char>(text[0])) || text[0] == '-' || text[0] == '+' || text[0] == '.');
}

bool isKeyPath(const std::string& text)
{
    if (text.empty() || text.front() == '.' || text.back() == '.')
        return false;
    for (char c : text) {
        if (!std::isalnum(static_cast<unsigned char>(c)) && c != '_' && c != '.' && c != '-')
            return false;
    }
    return !std::isdigit(static_cast<unsigned char>(text[0]));
}

Expression primary(const Word& word, size_t line)
{
    Expression expression;
    if (word.quoted) {
        expression.literal = String::create(word.text);
    } else if (isNumber(word.text)) {
        double value = strtod_l(word.text.c_str(), nullptr, detail::cLocale());
        if (word.text.find_first_of(".eE") == std::string::npos && std::fabs(value) < 9e15)
            expression.literal = Number::create(static_cast<int64_t>(value));
        else
            expression.literal = Number::create(value);
    } else if (word.text == "true" || word.text == "false") {
        expression.literal = Number::withBool(word.text == "true");
    } else if (isKeyPath(word.text)) {
        expression.kind = Expression::Kind::Path;
        expression.path = word.text;
        for (size_t start = 0;;) {
            size_t dot = word.text.find('.', start);
            expression.segments.push_back(word.text.substr(start, dot == std::string::npos ? std::string::npos : dot - start));
            if (dot == std::string::npos)
                break;
            start = dot + 1;
        }
    } else {
        throw ParseFailure { line, "\"" + word.text + "\" is not a value" };
    }
    return expression;
}

bool isConditionWord(const Word& word)
{
    static const char* const words[] = { "==", "!=", "<", "<=", ">", ">=", "and", "or", "not" };
    if (word.quoted)
        return false;
    for (auto* w : words) {
        if (word.text == w)
            return true;
    }
    return false;
}

// An expression from words[i...]: a primary and its filters. Stops at the end
// or, inside a condition, at an operator word.
Expression parseExpression(const std::vector<Word>& words, size_t& i, size_t line, bool inCondition)
{
    if (i >= words.size() || (!words[i].quoted && words[i].text == "|"))
        throw ParseFailure { line, "an expression is missing" };
    if (inCondition && isConditionWord(words[i]))
        throw ParseFailure { line, "an expression is missing before \"" + words[i].text + "\"" };
    Expression expression = primary(words[i++], line);
    while (i < words.size() && !words[i].quoted && words[i].text == "|") {
        ++i;
        if (i >= words.size() || words[i].quoted || !isKeyPath(words[i].text))
            throw ParseFailure { line, "a filter name is missing after \"|\"" };
        Expression::Filter filter { words[i++].text, {} };
        while (i < words.size() && !(!words[i].quoted && words[i].text == "|") && !(inCondition && isConditionWord(words[i])))
            filter.arguments.push_back(primary(words[i++], line));
        expression.filters.push_back(std::move(filter));
    }
    return expression;
}

std::unique_ptr<Condition> parseOr(const std::vector<Word>& words, size_t& i, size_t line);

std::unique_ptr<Condition> parseComparison(const std::vector<Word>& words, size_t& i, size_t line)
{
    auto condition = std::make_unique<Condition>();
    if (i < words.size() && !words[i].quoted && words[i].text == "not") {
        ++i;
        condition->kind = Condition::Kind::Not;
        condition->a = parseComparison(words, i, line);
        return condition;
    }
    condition->left = parseExpression(words, i, line, true);
    if (i < words.size() && !words[i].quoted && words[i].text != "and" && words[i].text != "or" && isConditionWord(words[i])) {
        condition->kind = Condition::Kind::Compare;
        condition->op = words[i++].text;
        condition->right = parseExpression(words, i, line, true);
    }
    return condition;
}

std::unique_ptr<Condition> parseAnd(const std::vector<Word>& words, size_t& i, size_t line)
{
    auto left = parseComparison(words, i, line);
    while (i < words.size() && !words[i].quoted && words[i].text == "and") {
        ++i;
        auto joined = std::make_unique<Condition>();
        joined->kind = Condition::Kind::And;
        joined->a = std::move(left);
        joined->b = parseComparison(words, i, line);
        left = std::move(joined);
    }
    return left;
}

std::unique_ptr<Condition> parseOr(const std::vector<Word>& words, size_t& i, size_t line)
{
    auto left = parseAnd(words, i, line);
    while (i < words.size() && !words[i].quoted && words[i].text == "or") {
        ++i;
        auto joined = std::make_unique<Condition>();
        joined->kind = Condition::Kind::Or;
        joined->a = std::move(left);
        joined->b = parseAnd(words, i, line);
        left = std::move(joined);
    }
    return left;
}

std::unique_ptr<Condition> parseCondition(const std::vector<Word>& words, size_t start, size_t line)
{
    // Conditions are parsed, tested and freed recursively: a bounded length
    // keeps any text from exhausting the stack.
    if (words.size() - start > 200)
        throw ParseFailure { line, "a condition is longer than 200 words" };
    size_t i = start;
    auto condition = parseOr(words, i, line);
    if (i != words.size())
        throw ParseFailure { line, "unexpected \"" + words[i].text + "\" in a condition" };
    return condition;
}

// MARK: Blocks

struct Parser {
    std::string_view source;
    const std::vector<TemplateMarker>& markers;
    size_t index { 0 };
    size_t position { 0 };
    size_t depth { 0 };
    // Blocks nest no deeper than this, so that no text can exhaust the stack.
    static constexpr size_t maximumDepth = 200;

    struct Nesting {
        Parser& parser;
        Nesting(Parser& p, size_t line)
            : parser(p)
        {
            if (++parser.depth > maximumDepth)
                throw ParseFailure { line, "blocks nest deeper than 200 levels" };
        }
        ~Nesting() { --parser.depth; }
    };

    size_t lineAt(size_t offset) const
    {
        return 1 + static_cast<size_t>(std::count(source.begin(), source.begin() + static_cast<std::ptrdiff_t>(offset), '\n'));
    }

    // Nodes until a tag named in `ends` (answered through `endTag`), or the end.
    std::vector<Node> parseNodes(std::initializer_list<std::string_view> ends, std::vector<Word>* endTag, size_t* endLine)
    {
        std::vector<Node> nodes;
        while (true) {
            size_t next = index < markers.size() ? markers[index].start : source.size();
            if (next > position) {
                Node text;
                text.kind = Node::Kind::Text;
                text.text = source.substr(position, next - position);
                nodes.push_back(std::move(text));
            }
            if (index >= markers.size()) {
                position = source.size();
                if (ends.size())
                    return nodes; // the caller reports the unclosed block
                return nodes;
            }
            const auto& marker = markers[index++];
            position = marker.end;
            size_t line = lineAt(marker.start);
            if (marker.kind == TemplateMarker::Kind::Comment)
                continue;
            auto words = splitWords(marker.content, line);
            if (marker.kind == TemplateMarker::Kind::Expression) {
                Node output;
                output.kind = Node::Kind::Output;
                output.line = line;
                size_t i = 0;
                output.expression = parseExpression(words, i, line, false);
                if (i != words.size())
                    throw ParseFailure { line, "unexpected \"" + words[i].text + "\" in an expression" };
                nodes.push_back(std::move(output));
                continue;
            }
            if (words.empty() || words[0].quoted)
                throw ParseFailure { line, "a tag is empty" };
            const std::string& tag = words[0].text;
            for (auto end : ends) {
                if (tag == end) {
                    *endTag = std::move(words);
                    *endLine = line;
                    return nodes;
                }
            }
            if (tag == "for")
                nodes.push_back(parseFor(words, line));
            else if (tag == "if")
                nodes.push_back(parseIf(words, line));
            else if (tag == "literal")
                nodes.push_back(parseLiteral(line));
            else
                throw ParseFailure { line, "unknown tag \"" + tag + "\"" };
        }
    }

    Node parseFor(const std::vector<Word>& words, size_t line)
    {
        Nesting nesting(*this, line);
        if (words.size() < 4 || words[1].quoted || !isKeyPath(words[1].text) || words[1].text.find('.') != std::string::npos
            || words[2].quoted || words[2].text != "in")
            throw ParseFailure { line, "a for tag reads {% for name in expression %}" };
        Node loop;
        loop.kind = Node::Kind::For;
        loop.line = line;
        loop.variable = words[1].text;
        size_t i = 3;
        loop.expression = parseExpression(words, i, line, false);
        if (i != words.size())
            throw ParseFailure { line, "unexpected \"" + words[i].text + "\" in a for tag" };
        std::vector<Word> end;
        size_t endLine = line;
        loop.body = parseNodes({ "else", "/for" }, &end, &endLine);
        if (end.empty())
            throw ParseFailure { line, "{% for %} is not closed with {% /for %}" };
        if (end[0].text == "else") {
            loop.elseBody = parseNodes({ "/for" }, &end, &endLine);
            if (end.empty() || end[0].text != "/for")
                throw ParseFailure { line, "{% for %} is not closed with {% /for %}" };
        }
        return loop;
    }

    Node parseIf(const std::vector<Word>& words, size_t line)
    {
        Nesting nesting(*this, line);
        Node branch;
        branch.kind = Node::Kind::If;
        branch.line = line;
        auto condition = parseCondition(words, 1, line);
        while (true) {
            std::vector<Word> end;
            size_t endLine = line;
            auto body = parseNodes({ "elif", "else", "/if" }, &end, &endLine);
            if (end.empty())
                throw ParseFailure { line, "{% if %} is not closed with {% /if %}" };
            branch.branches.emplace_back(std::move(condition), std::move(body));
            if (end[0].text == "/if")
                return branch;
            if (end[0].text == "else") {
                branch.elseBody = parseNodes({ "/if" }, &end, &endLine);
                if (end.empty() || end[0].text != "/if")
                    throw ParseFailure { line, "{% if %} is not closed with {% /if %}" };
                return branch;
            }
            condition = parseCondition(end, 1, endLine);
        }
    }

    Node parseLiteral(size_t line)
    {
        // Everything up to {% /literal %} as it stands, markers included.
        for (size_t i = index; i < markers.size(); ++i) {
            const auto& marker = markers[i];
            if (marker.kind != TemplateMarker::Kind::Tag)
                continue;
            std::string_view content = marker.content;
            while (!content.empty() && std::isspace(static_cast<unsigned char>(content.front())))
                content.remove_prefix(1);
            while (!content.empty() && std::isspace(static_cast<unsigned char>(content.back())))
                content.remove_suffix(1);
            if (content == "/literal") {
                Node text;
                text.kind = Node::Kind::Text;
                text.text = source.substr(position, marker.start - position);
                position = marker.end;
                index = i + 1;
                return text;
            }
        }
        throw ParseFailure { line, "{% literal %} is not closed with {% /literal %}" };
    }
};

} // namespace

struct TemplateEngine::Parsed {
    std::string source;
    std::vector<Node> nodes;
};

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

std::shared_ptr<const TemplateEngine::Parsed> TemplateEngine::parse(std::string source, RefPtr<Error>* error) const
{
    auto parsed = std::make_shared<Parsed>();
    parsed->source = std::move(source);
    if (!m_matcher) {
        if (error)
            *error = Error::create(TemplateEngineErrorDomain, 1, "The template engine has no matcher.");
        return nullptr;
    }
    auto markers = m_matcher->markersInText(parsed->source);
    Parser parser { parsed->source, markers };
    try {
        std::vector<Word> end;
        size_t endLine = 1;
        parsed->nodes = parser.parseNodes({ "/for", "/if", "else", "elif", "/literal" }, &end, &endLine);
        if (!end.empty())
            throw ParseFailure { endLine, "{% " + end[0].text + " %} closes no block" };
    } catch (const ParseFailure& failure) {
        if (error)
            *error = Error::create(TemplateEngineErrorDomain, 2, format("line %zu: %s", failure.line, failure.message.c_str()));
        return nullptr;
    }
    return parsed;
}

// MARK: Rendering

struct TemplateRenderer {
    TemplateEngine& engine;
    std::string out;
    std::vector<std::pair<std::string, RefPtr<Object>>> scopes;
    // The innermost loop's position, answered as "loop.index", "loop.first"
    // and "loop.last" without a dictionary per iteration.
    struct LoopState {
        size_t index;
        size_t count;
        size_t scopeDepth; // scopes below the loop's own variable
    };
    std::vector<LoopState> loops;

    struct Failure {
        size_t line;
        std::string message;
    };

    RefPtr<Object> lookUp(const Expression& expression) const
    {
        const auto& segments = expression.segments;
        const std::string& first = segments.front();
        if (first == "loop" && !loops.empty() && !shadowsLoop()) {
            auto& loop = loops.back();
            std::string_view rest = segments.size() == 2 ? std::string_view(segments[1]) : std::string_view();
            if (rest == "index")
                return Number::create(static_cast<int64_t>(loop.index));
            if (rest == "first")
                return Number::withBool(loop.index == 0);
            if (rest == "last")
                return Number::withBool(loop.index + 1 == loop.count);
            return nullptr;
        }
        Object* found = nullptr;
        for (auto it = scopes.rbegin(); it != scopes.rend(); ++it) {
            if (it->first == first) {
                found = it->second.get();
                break;
            }
        }
        if (!found)
            return nullptr;
        RefPtr<Object> value = found;
        try {
            // One key at a time, as valueForKeyPath would, without splitting the path again.
            for (size_t i = 1; i < segments.size() && value; ++i)
                value = value->valueForKey(segments[i]);
        } catch (const Exception&) {
            return nullptr; // a key the object does not know writes nothing
        }
        return value;
    }

    // Whether a variable named "loop" was bound inside the innermost loop.
    bool shadowsLoop() const
    {
        for (size_t i = loops.back().scopeDepth; i < scopes.size(); ++i) {
            if (scopes[i].first == "loop")
                return true;
        }
        return false;
    }

    // The value and whether it is markup already.
    std::pair<RefPtr<Object>, bool> evaluate(const Expression& expression, size_t line)
    {
        RefPtr<Object> value = expression.kind == Expression::Kind::Path ? lookUp(expression) : expression.literal;
        bool markup = false;
        for (auto& filter : expression.filters) {
            if (filter.name == "raw") {
                markup = true;
                continue;
            }
            auto found = engine.m_filters.find(filter.name);
            if (found == engine.m_filters.end())
                throw Failure { line, "unknown filter \"" + filter.name + "\"" };
            std::vector<Ref<Object>> arguments;
            for (auto& argument : filter.arguments) {
                auto value = evaluate(argument, line).first;
                arguments.push_back(value ? value.releaseNonNull() : Ref<Object>(Null::null()));
            }
            auto* filters = found->second;
            if (engine.escapesHTML() && !markup && filters->filterTakesEscapedText(filter.name) && is<String>(value.get()))
                value = String::create(escaped(downcast<String>(value.get())->view()));
            auto name = String::create(filter.name);
            try {
                value = filters->filterInvoked(name, Array::create(std::move(arguments)).ptr(), value.get());
            } catch (const Exception& exception) {
                throw Failure { line, "the filter \"" + filter.name + "\" raised " + exception.name() + ": " + exception.reason() };
            }
            markup = filters->filterProducesMarkup(filter.name) || (markup && filters->filterTakesEscapedText(filter.name));
        }
        return { value, markup };
    }

    static std::string escaped(std::string_view text)
    {
        std::string out;
        appendEscaped(out, text);
        return out;
    }

    static void appendEscaped(std::string& out, std::string_view text)
    {
        // Runs without a special character are appended whole; a table
        // finds them (find_first_of would search the set for every byte).
        static constexpr auto special = [] {
            std::array<bool, 256> table {};
            for (unsigned char c : std::string_view("&<>\"'"))
                table[c] = true;
            return table;
        }();
        out.reserve(out.size() + text.size() + 16);
        size_t run = 0;
        for (size_t i = 0; i < text.size(); ++i) {
            unsigned char c = static_cast<unsigned char>(text[i]);
            if (!special[c])
                continue;
            out.append(text.substr(run, i - run));
            switch (c) {
            case '&': out += "&amp;"; break;
            case '<': out += "&lt;"; break;
            case '>': out += "&gt;"; break;
            case '"': out += "&quot;"; break;
            default: out += "&#39;"; break;
            }
            run = i + 1;
        }
        out.append(text.substr(run));
    }

    static std::string textOf(Object* value)
    {
        if (!value || is<Null>(value))
            return {};
        if (auto* string = dynamicDowncast<String>(value))
            return string->str();
        if (auto* url = dynamicDowncast<URL>(value))
            return url->absoluteString()->str();
        return value->description()->str();
    }

    static bool truth(Object* value)
    {
        if (!value || is<Null>(value))
            return false;
        if (auto* number = dynamicDowncast<Number>(value))
            return number->doubleValue() != 0;
        if (auto* string = dynamicDowncast<String>(value))
            return !string->view().empty();
        if (auto* array = dynamicDowncast<Array>(value))
            return array->count() != 0;
        if (auto* dictionary = dynamicDowncast<Dictionary>(value))
            return dictionary->count() != 0;
        if (auto* set = dynamicDowncast<Set>(value))
            return set->count() != 0;
        return true;
    }

    static int compare(Object* a, Object* b)
    {
        auto* x = dynamicDowncast<Number>(a);
        auto* y = dynamicDowncast<Number>(b);
        if (x && y) {
            double dx = x->doubleValue(), dy = y->doubleValue();
            return dx < dy ? -1 : dx > dy ? 1 : 0;
        }
        auto tx = textOf(a), ty = textOf(b);
        return tx < ty ? -1 : tx > ty ? 1 : 0;
    }

    bool test(const Condition& condition, size_t line)
    {
        switch (condition.kind) {
        case Condition::Kind::Test:
            return truth(evaluate(condition.left, line).first.get());
        case Condition::Kind::Not:
            return !test(*condition.a, line);
        case Condition::Kind::And:
            return test(*condition.a, line) && test(*condition.b, line);
        case Condition::Kind::Or:
            return test(*condition.a, line) || test(*condition.b, line);
        case Condition::Kind::Compare: {
            auto left = evaluate(condition.left, line).first;
            auto right = evaluate(condition.right, line).first;
            if (condition.op == "==")
                return objectsEqual(left.get(), right.get()) || (left && right && compare(left.get(), right.get()) == 0);
            if (condition.op == "!=")
                return !(objectsEqual(left.get(), right.get()) || (left && right && compare(left.get(), right.get()) == 0));
            int order = compare(left.get(), right.get());
            if (condition.op == "<")
                return order < 0;
            if (condition.op == "<=")
                return order <= 0;
            if (condition.op == ">")
                return order > 0;
            return order >= 0;
        }
        }
        return false;
    }

    void renderNodes(const std::vector<Node>& nodes)
    {
        for (auto& node : nodes)
            renderNode(node);
    }

    void renderNode(const Node& node)
    {
        switch (node.kind) {
        case Node::Kind::Text:
            out.append(node.text);
            break;
        case Node::Kind::Output: {
            auto [value, markup] = evaluate(node.expression, node.line);
            if (auto* string = dynamicDowncast<String>(value.get())) {
                // Strings, nearly all values, are written without a copy.
                if (engine.escapesHTML() && !markup)
                    appendEscaped(out, string->view());
                else
                    out.append(string->view());
                break;
            }
            auto text = textOf(value.get());
            if (engine.escapesHTML() && !markup)
                appendEscaped(out, text);
            else
                out.append(text);
            break;
        }
        case Node::Kind::For: {
            auto collection = evaluate(node.expression, node.line).first;
            std::vector<Object*> items;
            if (auto* array = dynamicDowncast<Array>(collection.get())) {
                for (auto* item : *array)
                    items.push_back(item);
            } else if (auto* set = dynamicDowncast<Set>(collection.get())) {
                for (auto* item : *set)
                    items.push_back(item);
            }
            if (items.empty()) {
                renderNodes(node.elseBody);
                break;
            }
            // Keep the collection alive while its items are used.
            RefPtr<Object> protectedCollection = collection;
            loops.push_back({ 0, items.size(), scopes.size() + 1 });
            scopes.emplace_back(node.variable, nullptr);
            for (size_t i = 0; i < items.size(); ++i) {
                loops.back().index = i;
                scopes.back().second = items[i];
                renderNodes(node.body);
            }
            scopes.pop_back();
            loops.pop_back();
            break;
        }
        case Node::Kind::If:
            for (auto& [condition, body] : node.branches) {
                if (test(*condition, node.line)) {
                    renderNodes(body);
                    return;
                }
            }
            renderNodes(node.elseBody);
            break;
        }
    }
};

RefPtr<String> TemplateEngine::render(const Parsed& parsed, Dictionary* variables, RefPtr<Error>* error)
{
    // Templates that render templates (partials) stop at a bounded depth, so
    // that a partial that includes itself ends with an error, not a crash.
    static thread_local int renderDepth = 0;
    if (renderDepth >= 32) {
        if (error)
            *error = Error::create(TemplateEngineErrorDomain, 5, "Templates nest deeper than 32 levels.");
        return nullptr;
    }
    struct DepthGuard {
        int& depth;
        ~DepthGuard() { --depth; }
    } depthGuard { ++renderDepth };
    Ref protectedThis { *this };
    TemplateRenderer renderer { *this, {}, {}, {} };
    renderer.out.reserve(parsed.source.size() * 2);
    if (variables) {
        for (auto& entry : *variables) {
            if (auto* name = dynamicDowncast<String>(entry.key))
                renderer.scopes.emplace_back(name->str(), entry.object);
        }
    }
    try {
        renderer.renderNodes(parsed.nodes);
    } catch (const TemplateRenderer::Failure& failure) {
        if (error)
            *error = Error::create(TemplateEngineErrorDomain, 3, format("line %zu: %s", failure.line, failure.message.c_str()));
        return nullptr;
    }
    return String::create(renderer.out);
}

namespace {

// Parsed texts, for callers that render the same text again and again; small
// texts only, a bounded number.
struct ParsedTexts {
    std::mutex mutex;
    std::list<std::pair<std::string, std::shared_ptr<const TemplateEngine::Parsed>>> entries;
    static constexpr size_t limit = 32;
    static constexpr size_t largestText = 64 * 1024;
};

ParsedTexts& parsedTexts()
{
    static ParsedTexts* texts = new ParsedTexts;
    return *texts;
}

} // namespace

RefPtr<String> TemplateEngine::processTemplate(std::string_view text, Dictionary* variables, RefPtr<Error>* error)
{
    auto& texts = parsedTexts();
    std::shared_ptr<const Parsed> parsed;
    if (text.size() <= ParsedTexts::largestText) {
        std::lock_guard lock(texts.mutex);
        for (auto it = texts.entries.begin(); it != texts.entries.end(); ++it) {
            if (it->first == text) {
                texts.entries.splice(texts.entries.begin(), texts.entries, it);
                parsed = it->second;
                break;
            }
        }
    }
    if (!parsed) {
        parsed = parse(std::string(text), error);
        if (!parsed)
            return nullptr;
        if (text.size() <= ParsedTexts::largestText) {
            std::lock_guard lock(texts.mutex);
            texts.entries.emplace_front(std::string(text), parsed);
            if (texts.entries.size() > ParsedTexts::limit)
                texts.entries.pop_back();
        }
    }
    return render(*parsed, variables, error);
}

namespace {

// Parsed template files, by path, kept while the file's modification time and
// size stay the same; a bounded number, the least recently used dropped first.
struct ParsedFiles {
    struct Entry {
        std::string path;
        int64_t modified;
        int64_t size;
        std::shared_ptr<const TemplateEngine::Parsed> parsed;
    };
    std::mutex mutex;
    std::list<Entry> entries;
    static constexpr size_t limit = 64;

    std::shared_ptr<const TemplateEngine::Parsed> find(const std::string& path, int64_t modified, int64_t size)
    {
        std::lock_guard lock(mutex);
        for (auto it = entries.begin(); it != entries.end(); ++it) {
            if (it->path == path) {
                if (it->modified != modified || it->size != size) {
                    entries.erase(it);
                    return nullptr;
                }
                entries.splice(entries.begin(), entries, it);
                return entries.front().parsed;
            }
        }
        return nullptr;
    }
    void store(Entry entry)
    {
        std::lock_guard lock(mutex);
        entries.push_front(std::move(entry));
        if (entries.size() > limit)
            entries.pop_back();
    }
};

ParsedFiles& parsedFiles()
{
    static ParsedFiles* files = new ParsedFiles;
    return *files;
}

} // namespace

RefPtr<String> TemplateEngine::processTemplateInFileAtPath(const std::string* path, Dictionary* variables, RefPtr<Error>* error)
{
    struct stat info {};
    if (!path || stat(path->c_str(), &info) != 0 || !S_ISREG(info.st_mode)) {
        VXLog("TemplateEngine - no template file at %s", path ? path->c_str() : "(null)");
        if (error)
            *error = Error::create(TemplateEngineErrorDomain, 4, format("No template file at %s.", path ? path->c_str() : "(null)"));
        return nullptr;
    }
    int64_t modified = static_cast<int64_t>(info.st_mtim.tv_sec) * 1000000000 + info.st_mtim.tv_nsec;
    auto parsed = parsedFiles().find(*path, modified, info.st_size);
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
        parsedFiles().store({ *path, modified, static_cast<int64_t>(info.st_size), parsed });
    }
    return render(*parsed, variables, error);
}

} // namespace velvox
