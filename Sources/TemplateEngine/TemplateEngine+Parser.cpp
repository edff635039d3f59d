// The block parser: turns a template's markers into the tree of
// TemplateSyntax.h, for loops, conditionals and literal runs nested within
// bounds. The expressions inside markers are TemplateExpressions' work.

#include "TemplateEngine.h"

#include "TemplateExpressions.h"
#include "TemplateSyntax.h"

#include <Platform/Platform.h>

#include <algorithm>
#include <cctype>
#include <initializer_list>

namespace velvox {

using namespace templates;

namespace {

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

} // namespace velvox
