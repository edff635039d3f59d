#pragma once

// The velvox program run as a person runs it, with its data and cache folders
// in the test's own temporary folder.

#include <TestSupport.h>

#include <gtest/gtest.h>

#include <string>
#include <string_view>

namespace velvox::test {

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

    TemporaryFolder folder;
};

} // namespace velvox::test
