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
    // The most input read; a larger input is refused without reading it all.
    size_t maxSize { 256u * 1024 * 1024 };
};

// velvox json: decode and write back. Answers the exit status.
int runJSON(const JSONOptions&);

struct APIOptions {
    std::string method;
    std::string path;
    std::vector<std::string> parameters; // KEY=VALUE or KEY=@FILE
    std::string baseURL;                 // empty: an in-process sandbox
    std::string token;                   // else $VELVOX_TOKEN, else tokenFile
    std::string tokenFile;
    bool verbose { false }; // each request on standard error
    bool quiet { false };   // no progress bar
    double timeout { 30 };
};

// At most `limit` bytes of a body that came from a server, safe to show on a
// terminal: printable ASCII, line breaks, tabs and well-formed UTF-8 text
// stay; every other byte (escape sequences, C1 controls, NUL, broken UTF-8)
// is written as \xNN; a cut is said, with the number of bytes left out.
std::string printableExcerpt(std::string_view bytes, size_t limit = 2048);

// The token of a service: the option, else $VELVOX_TOKEN, else the first line
// of the token file. False, after saying why, when the file cannot be read.
bool resolveToken(const std::string& option, const std::string& tokenFile, const char* command, std::string& token);

// velvox api: one request through the API controller; prints the answer as pretty JSON.
int runAPI(const APIOptions&);

} // namespace velvox::app
