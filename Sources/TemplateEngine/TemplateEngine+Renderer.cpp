// Rendering a parsed template: variable scopes, loops, conditions, filters
// and HTML escaping. Only the engine's render() reaches it, so it stands apart
// from the parser and the caches.

#include "TemplateEngine.h"

#include "TemplateSyntax.h"

#include <Platform/Platform.h>

#include <array>

namespace velvox {

using namespace templates;

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
            return dx < dy ? -1 : dx > dy ? 1
                                          : 0;
        }
        auto tx = textOf(a), ty = textOf(b);
        return tx < ty ? -1 : tx > ty ? 1
                                      : 0;
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

} // namespace velvox
