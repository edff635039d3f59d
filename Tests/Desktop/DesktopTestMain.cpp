// The main function of the desktop client's tests: HOME and the XDG folders
// in a temporary folder of their own, Qt drawing offscreen, one QApplication.

#include <TestSupport.h>

#include <QApplication>

#include <gtest/gtest.h>

#include <cstdlib>
#include <sys/stat.h>

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    velvox::test::TemporaryFolder home;
    setenv("HOME", home.path().c_str(), 1);
    for (auto [name, folder] : { std::pair { "XDG_CONFIG_HOME", "/.config" }, { "XDG_DATA_HOME", "/.local/share" },
             { "XDG_CACHE_HOME", "/.cache" }, { "XDG_STATE_HOME", "/.local/state" }, { "XDG_RUNTIME_DIR", "/runtime" } })
        setenv(name, (home.path() + folder).c_str(), 1);
    mkdir((home.path() + "/runtime").c_str(), 0700);
    setenv("QT_QPA_PLATFORM", "offscreen", 1);
    unsetenv("VELVOX_BASE_URL");
    unsetenv("VELVOX_TOKEN");
    QApplication application(argc, argv);
    return RUN_ALL_TESTS();
}
