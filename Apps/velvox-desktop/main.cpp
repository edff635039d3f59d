// velvox-desktop: a desktop client of a Velvox service, on Qt Widgets.

#include "DesktopApp.h"

#include <QApplication>

#include <cstdlib>
#include <cstring>

int main(int argc, char** argv)
{
    // A screenshot is drawn offscreen: no display is needed (unless the
    // platform was chosen explicitly).
    for (int i = 1; i < argc; ++i) {
        if (!strcmp(argv[i], "--screenshot") || !strncmp(argv[i], "--screenshot=", 13))
            setenv("QT_QPA_PLATFORM", "offscreen", 0);
    }
    QApplication application(argc, argv);
    QApplication::setApplicationName(QStringLiteral("velvox-desktop"));
    return velvox::desktop::runDesktop(QApplication::arguments());
}
