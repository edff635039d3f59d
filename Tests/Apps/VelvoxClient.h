#pragma once

// The velvox program run as a person runs it, with its data and cache folders
// in the test's own temporary folder.

#include <TestSupport.h>

#include <gtest/gtest.h>

#include <string>
#include <string_view>

namespace velvox::test {

// velvox's data folder for a service with its data in `data`: "<host>_<port>-<hash>", as velvox info says.
inline std::string velvoxServiceFolder(const std::string& data, const std::string& baseURL)
{
    auto info = run("XDG_DATA_HOME='" + data + "' VELVOX_BASE_URL='" + baseURL + "' " VELVOX_PROGRAM " info --paths");
    size_t start = info.output.find("/services/"), end = info.output.find("/Velvox\n");
    return start == std::string::npos || end == std::string::npos ? "" : info.output.substr(start + 10, end - start - 10);
}

class VelvoxClient : public testing::Test {
protected:
    // Runs velvox with its data and cache folders in the test's own folder;
    // a run that hangs is ended after two minutes (exit status 124).
    Outcome velvox(const std::string& arguments, bool withErrors = true, const std::string& environment = {})
    {
        return run("cd '" + folder.path() + "' && XDG_DATA_HOME='" + folder.path() + "/data' XDG_CACHE_HOME='" + folder.path()
                + "/cache' VELVOX_BASE_URL= VELVOX_TOKEN= " + environment + " timeout -k 5 120 " VELVOX_PROGRAM " " + arguments,
            withErrors);
    }
    static bool contains(const Outcome& outcome, std::string_view text) { return outcome.output.find(text) != std::string::npos; }
    std::string serviceFolder(const std::string& baseURL) { return velvoxServiceFolder(folder.path() + "/data", baseURL); }

    TemporaryFolder folder;
};

} // namespace velvox::test
