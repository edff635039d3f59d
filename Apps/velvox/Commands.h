#pragma once

#include <string>
#include <vector>

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

struct APIOptions {
    std::string method;
    std::string path;
    std::vector<std::string> parameters; // KEY=VALUE or KEY=@FILE
    std::string baseURL;                 // empty: an in-process sandbox
    std::string token;
};

// velvox api: one request through the API controller; prints the answer as pretty JSON.
int runAPI(const APIOptions&);
std::string percentEncodePath(const std::string&);

} // namespace velvox::app
