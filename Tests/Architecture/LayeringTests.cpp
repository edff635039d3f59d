// The layers of the tree, checked: a library includes and names only what the
// libraries beneath it declare, so that arrows point down and any layer can be
// built, tested and understood without those above it. The table below is the
// architecture; docs/architecture.md draws it.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

// Each library under Sources/ and the libraries it may use (directly or not).
const std::map<std::string, std::set<std::string>>& layers()
{
    static const std::map<std::string, std::set<std::string>> table {
        { "Platform", {} },
        { "JSONCodec", { "Platform" } },
        { "ZUKit", { "Platform" } },
        { "VelvoxAPI", { "Platform" } },
        { "TemplateEngine", { "Platform" } },
        { "VelvoxKit", { "Platform", "JSONCodec", "ZUKit", "VelvoxAPI", "TemplateEngine" } },
        { "Sandbox", { "Platform", "JSONCodec" } },
    };
    return table;
}

std::string read(const fs::path& path)
{
    std::ifstream file(path, std::ios::binary);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

// The text without its comments and string literals, which may speak of anything.
std::string code(const std::string& text)
{
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        if (text.compare(i, 2, "//") == 0) {
            i = text.find('\n', i);
            if (i == std::string::npos)
                break;
            out += '\n';
        } else if (text.compare(i, 2, "/*") == 0) {
            i = text.find("*/", i + 2);
            if (i == std::string::npos)
                break;
            ++i;
        } else if (text[i] == '"') {
            // Include paths stay: they are checked separately and name no types.
            size_t end = i + 1;
            while (end < text.size() && text[end] != '"' && text[end] != '\n')
                end += text[end] == '\\' ? 2 : 1;
            i = end;
            out += "\"\"";
        } else {
            out += text[i];
        }
    }
    return out;
}

struct Library {
    std::vector<fs::path> files;
    std::set<std::string> declaredTypes; // top-level classes and structs of its headers
};

std::map<std::string, Library> scan()
{
    std::map<std::string, Library> libraries;
    static const std::regex declaration(R"(^(?:class|struct) (\w+)(?: final)?\s*(?::|\{|$))", std::regex::multiline);
    for (auto& [name, _] : layers()) {
        auto& library = libraries[name];
        for (auto& entry : fs::recursive_directory_iterator(fs::path(VELVOX_SOURCE_DIR) / "Sources" / name)) {
            auto extension = entry.path().extension();
            if (extension != ".h" && extension != ".cpp")
                continue;
            library.files.push_back(entry.path());
            if (extension != ".h")
                continue;
            auto text = code(read(entry.path()));
            for (std::sregex_iterator match(text.begin(), text.end(), declaration), end; match != end; ++match)
                library.declaredTypes.insert((*match)[1]);
        }
    }
    return libraries;
}

} // namespace

TEST(Layering, LibrariesIncludeOnlyTheLayersBeneathThem)
{
    auto libraries = scan();
    ASSERT_GT(libraries["VelvoxKit"].files.size(), 10u) << "the sources were not found";
    static const std::regex include(R"(#include <(\w+)/)");
    size_t checked = 0;
    for (auto& [name, library] : libraries) {
        auto& allowed = layers().at(name);
        for (auto& file : library.files) {
            auto text = read(file);
            for (std::sregex_iterator match(text.begin(), text.end(), include), end; match != end; ++match) {
                std::string target = (*match)[1];
                if (!layers().contains(target) || target == name)
                    continue;
                ++checked;
                EXPECT_TRUE(allowed.contains(target)) << fs::relative(file, VELVOX_SOURCE_DIR) << " includes " << target << ", a layer it may not use";
            }
        }
    }
    EXPECT_GT(checked, 50u);
}

TEST(Layering, LibrariesNameNoTypeOfTheLayersAboveThem)
{
    auto libraries = scan();
    ASSERT_TRUE(libraries["JSONCodec"].declaredTypes.contains("JCArray")) << "the declarations were not found";
    static const std::regex word(R"(\b[A-Z]\w+\b)");
    for (auto& [name, library] : libraries) {
        auto& allowed = layers().at(name);
        // Types of libraries it may not use, unless one it may use declares the same name.
        std::map<std::string, std::string> foreign;
        for (auto& [other, otherLibrary] : libraries) {
            if (other != name && !allowed.contains(other)) {
                for (auto& type : otherLibrary.declaredTypes)
                    foreign.emplace(type, other);
            }
        }
        for (auto& usable : allowed)
            for (auto& type : libraries[usable].declaredTypes)
                foreign.erase(type);
        for (auto& type : library.declaredTypes)
            foreign.erase(type);
        for (auto& file : library.files) {
            auto text = code(read(file));
            std::set<std::string> reported;
            for (std::sregex_iterator match(text.begin(), text.end(), word), end; match != end; ++match) {
                auto found = foreign.find(match->str());
                if (found != foreign.end() && reported.insert(found->first).second)
                    ADD_FAILURE() << fs::relative(file, VELVOX_SOURCE_DIR) << " names " << found->first << " of " << found->second << ", a layer it may not use";
            }
        }
    }
}
