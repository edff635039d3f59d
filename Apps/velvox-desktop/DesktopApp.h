#pragma once

// velvox-desktop as a program: its command line, the session, the first
// window, saving when the session or the program ends, and --screenshot.

#include <QStringList>

namespace velvox::desktop {

// Runs the program in an existing QApplication; answers the exit status.
int runDesktop(const QStringList& arguments);

} // namespace velvox::desktop
