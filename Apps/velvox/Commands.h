#pragma once

#include <string>

namespace velvox::app {

struct JSONOptions {
    bool pretty { false };
    bool escapeUnicode { false };
    bool comments { false };
    bool unicodeNewlines { false };
    bool looseUnicode { false };
    bool permitTrailing { false };
    std::string file { "-" };
};

// velvox json: decode and write back. Answers the exit status.
int runJSON(const JSONOptions&);

} // namespace velvox::app
