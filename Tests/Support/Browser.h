#pragma once

// Headless Chromium for the tests of the HTML views: pages are loaded in a
// real browser and checked from the DOM it serialises.

#include "TestSupport.h"

#include <string>
#include <unistd.h>

namespace velvox::test {

// The browser's program, or null when none is installed.
inline const char* chromium()
{
    for (auto* candidate : { "/usr/bin/chromium", "/usr/bin/chromium-browser", "/usr/bin/google-chrome" }) {
        if (access(candidate, X_OK) == 0)
            return candidate;
    }
    return nullptr;
}

// Chromium run headless with a profile of its own, so that browsers of tests
// that run at the same time do not meet.
inline Outcome runChromium(const std::string& arguments)
{
    TemporaryFolder profile;
    return run(std::string(chromium()) + " --headless --no-sandbox --disable-gpu --disable-dev-shm-usage --no-first-run "
                                         "--user-data-dir='"
        + profile.path() + "' " + arguments);
}

// The DOM of a page file after it ran, as the browser serialises it.
inline std::string domOf(const std::string& file)
{
    return runChromium("--virtual-time-budget=2000 --dump-dom 'file://" + file + "'").output;
}

} // namespace velvox::test
