#pragma once

// The parsed form of a template: the tree the parser builds and the renderer
// walks. It stands alone so that both sides, and the caches that keep parsed
// templates, share one definition without seeing each other's code.

#include "TemplateEngine.h"

#include <Platform/Object.h>

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace velvox::templates {

struct Expression {
    enum class Kind { Path,
        Literal };
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
    enum class Kind { Test,
        Compare,
        Not,
        And,
        Or };
    Kind kind { Kind::Test };
    Expression left, right;
    std::string op;
    std::unique_ptr<Condition> a, b;
};

struct Node {
    enum class Kind { Text,
        Output,
        For,
        If };
    Kind kind { Kind::Text };
    size_t line { 1 };
    std::string_view text; // into the parsed template's source
    Expression expression;
    std::string variable;
    std::vector<Node> body;
    std::vector<Node> elseBody;
    std::vector<std::pair<std::unique_ptr<Condition>, std::vector<Node>>> branches;
};

// Thrown inside the parser, caught at its edge and turned into an Error.
struct ParseFailure {
    size_t line;
    std::string message;
};

using ParsedTemplate = std::shared_ptr<const TemplateEngine::Parsed>;

} // namespace velvox::templates

namespace velvox {

// The nodes refer into `source`, which the parsed template owns.
struct TemplateEngine::Parsed {
    std::string source;
    std::vector<templates::Node> nodes;
};

} // namespace velvox
