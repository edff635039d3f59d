// The main function of every test program: the tests run with HOME and the
// XDG folders in a temporary folder of their own, so that nothing a test does
// reaches the person's own files, and that folder goes when the tests end.

#include <TestSupport.h>

#include <gtest/gtest.h>

#include <cstdlib>

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    velvox::test::TemporaryFolder home;
    setenv("HOME", home.path().c_str(), 1);
    for (auto [name, folder] : { std::pair { "XDG_CONFIG_HOME", "/.config" }, { "XDG_DATA_HOME", "/.local/share" },
             { "XDG_CACHE_HOME", "/.cache" }, { "XDG_STATE_HOME", "/.local/state" } })
        setenv(name, (home.path() + folder).c_str(), 1);
    return RUN_ALL_TESTS();
}
