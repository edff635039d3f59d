// The expression language inside markers: words, literals, key paths,
// filters and conditions (see TemplateExpressions.h).

#include "TemplateExpressions.h"

#include <Platform/CLocale.h>
#include <Platform/Number.h>
#include <Platform/String.h>

#include <cctype>
#include <cmath>
#include <cstdlib>

namespace velvox::templates {

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

namespace {

bool isNumber(const std::string& text)
{
    if (text.empty())
        return false;
    char* end = nullptr;
    std::string copy = text;
    strtod_l(copy.c_str(), &end, detail::cLocale());
    return end && !*end && (std::isdigit(static_cast<unsigned char>(text[0])) || text[0] == '-' || text[0] == '+' || text[0] == '.');
}

} // namespace

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

namespace {

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

} // namespace

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

namespace {

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

} // namespace

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

} // namespace velvox::templates
