#pragma once

// The words inside a marker, and the expressions and conditions made of them.
// This is the one part of the parser that knows the expression language; the
// block parser only hands it a marker's words.

#include "TemplateSyntax.h"

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace velvox::templates {

// A word, quoted string or pipe of a marker's content.
struct Word {
    std::string text;
    bool quoted { false };
};

// Throws ParseFailure on an unterminated string.
std::vector<Word> splitWords(std::string_view content, size_t line);

// Letters, digits, '_', '-' and '.', neither starting nor ending with a dot
// nor starting with a digit.
bool isKeyPath(const std::string& text);

// An expression from words[i...]: a primary and its filters; `i` ends past it.
// Stops at the end or, inside a condition, at an operator word.
Expression parseExpression(const std::vector<Word>& words, size_t& i, size_t line, bool inCondition);

// The condition of words[start...], to the end of the words.
std::unique_ptr<Condition> parseCondition(const std::vector<Word>& words, size_t start, size_t line);

} // namespace velvox::templates
