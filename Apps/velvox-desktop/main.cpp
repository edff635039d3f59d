// velvox-desktop: a desktop client of a Velvox service, on Qt Widgets.

#include "DesktopApp.h"

#include <QApplication>

int main(int argc, char** argv)
{
    QApplication application(argc, argv);
    QApplication::setApplicationName(QStringLiteral("velvox-desktop"));
    return velvox::desktop::runDesktop(QApplication::arguments());
}
