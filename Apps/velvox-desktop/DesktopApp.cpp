#include "DesktopApp.h"

#include "Windows.h"

#include <Platform/NotificationCenter.h>

#include <QApplication>
#include <QCommandLineParser>
#include <QImage>
#include <QPixmap>
#include <QPointer>
#include <QSessionManager>
#include <QSocketNotifier>
#include <QTimer>

#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace velvox::desktop {

namespace {

int quitPipe[2] { -1, -1 };

void quitOnSignal(int)
{
    char byte = 1;
    [[maybe_unused]] auto written = write(quitPipe[1], &byte, 1);
}

// Ctrl-C and SIGTERM end the program as closing its windows does: the
// archives are saved on the way out.
void quitGracefullyOnSignals(QApplication& application)
{
    if (quitPipe[0] >= 0 || pipe2(quitPipe, O_CLOEXEC | O_NONBLOCK) != 0)
        return;
    auto* notifier = new QSocketNotifier(quitPipe[0], QSocketNotifier::Read, &application);
    QObject::connect(notifier, &QSocketNotifier::activated, &application, [] {
        char drained[16];
        while (read(quitPipe[0], drained, sizeof drained) > 0) { }
        QApplication::quit();
    });
    struct sigaction action {};
    action.sa_handler = quitOnSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

// The window as a PNG; a palette of 256 colours keeps pictures of windows small.
bool writePicture(QWidget& window, const QString& file)
{
    QImage picture = window.grab().toImage().convertToFormat(QImage::Format_Indexed8, Qt::ThresholdDither | Qt::AvoidDither);
    return picture.save(file, "PNG");
}

void saveReporting(DesktopSession& session, const char* when)
{
    QString problem = session.save();
    if (!problem.isEmpty())
        fprintf(stderr, "velvox-desktop: cannot save the store's archives (%s): %s\n", when, problem.toUtf8().constData());
}

} // namespace

int runDesktop(const QStringList& arguments)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("A desktop client of a Velvox service (without --base-url: an embedded sandbox)."));
    parser.addHelpOption();
    QCommandLineOption baseURL(QStringLiteral("base-url"), QStringLiteral("The service's base URL (else $VELVOX_BASE_URL)."), QStringLiteral("URL"));
    QCommandLineOption token(QStringLiteral("token"), QStringLiteral("The access token (else $VELVOX_TOKEN)."), QStringLiteral("TOKEN"));
    QCommandLineOption tokenFile(QStringLiteral("token-file"), QStringLiteral("A file whose first line is the access token."), QStringLiteral("FILE"));
    QCommandLineOption timeout(QStringLiteral("timeout"), QStringLiteral("Seconds a request may take (30)."), QStringLiteral("SECONDS"), QStringLiteral("30"));
    QCommandLineOption screenshot(QStringLiteral("screenshot"), QStringLiteral("Draw the window offscreen into a PNG once its data and pictures are in, and exit."), QStringLiteral("FILE"));
    QCommandLineOption track(QStringLiteral("track"), QStringLiteral("Open this track's page."), QStringLiteral("ID"));
    QCommandLineOption user(QStringLiteral("user"), QStringLiteral("Open this user's page."), QStringLiteral("ID"));
    parser.addOptions({ baseURL, token, tokenFile, timeout, screenshot, track, user });
    if (!parser.parse(arguments)) {
        fprintf(stderr, "velvox-desktop: %s\n", parser.errorText().toUtf8().constData());
        return 2;
    }
    if (parser.isSet(QStringLiteral("help"))) {
        printf("%s", parser.helpText().toUtf8().constData());
        return 0;
    }
    bool timeoutIsNumber = false;
    double seconds = parser.value(timeout).toDouble(&timeoutIsNumber);
    if (!timeoutIsNumber || !(seconds > 0) || seconds > 86400) {
        fprintf(stderr, "velvox-desktop: --timeout wants a number of seconds above 0\n");
        return 2;
    }
    if (parser.isSet(track) && parser.isSet(user)) {
        fprintf(stderr, "velvox-desktop: --track and --user cannot go together\n");
        return 2;
    }
    DesktopSession::Options options;
    options.service.baseURL = parser.value(baseURL).toStdString();
    options.service.token = parser.value(token).toStdString();
    options.service.tokenFile = parser.value(tokenFile).toStdString();
    options.timeout = seconds;
    // The embedded sandbox has its own token.
    if (app::resolvedBaseURL(options.service.baseURL).empty() && !options.service.token.empty()) {
        fprintf(stderr, "velvox-desktop: --token needs --base-url (the embedded sandbox has its own)\n");
        return 2;
    }

    DesktopSession session(options);
    QString problem;
    if (!session.open(problem)) {
        fprintf(stderr, "velvox-desktop: %s\n", problem.toUtf8().constData());
        return 1;
    }
    // Saved when the desktop session ends (a failure is said), and when the
    // program quits: the application's termination is announced, on which
    // the store saves itself.
    QObject::connect(qApp, &QGuiApplication::commitDataRequest, &session, [&session](QSessionManager&) { saveReporting(session, "session end"); });
    QObject::connect(qApp, &QCoreApplication::aboutToQuit, &session, [] {
        NotificationCenter::defaultCenter().postNotification(ApplicationWillTerminateNotification);
    });
    quitGracefullyOnSignals(*qobject_cast<QApplication*>(QCoreApplication::instance()));

    auto* main = new MainWindow(session);
    main->setAttribute(Qt::WA_DeleteOnClose);
    ClientWindow* shown = main;
    if (parser.isSet(track) || parser.isSet(user)) {
        QObject::connect(&session, &DesktopSession::signedIn, main, [&, main] {
            ClientWindow* page = parser.isSet(track) ? static_cast<ClientWindow*>(openTrackWindow(session, parser.value(track)))
                                                     : static_cast<ClientWindow*>(openUserWindow(session, parser.value(user)));
            if (parser.isSet(screenshot)) {
                main->hide();
                page->resize(900, 640);
                QObject::connect(page, &ClientWindow::ready, page, [page, file = parser.value(screenshot)] {
                    QApplication::exit(writePicture(*page, file) ? 0 : 1);
                });
            }
        });
    } else if (parser.isSet(screenshot)) {
        QObject::connect(main, &ClientWindow::ready, main, [main, file = parser.value(screenshot)] {
            QApplication::exit(writePicture(*main, file) ? 0 : 1);
        });
    }
    if (parser.isSet(screenshot)) {
        // A service that never answers does not keep the program waiting.
        QTimer::singleShot(static_cast<int>((seconds + 30) * 1000), qApp, [] {
            fprintf(stderr, "velvox-desktop: the page's data or pictures did not arrive in time\n");
            QApplication::exit(1);
        });
    }
    shown->resize(900, 600);
    shown->show();
    session.signIn();
    int status = QApplication::exec();
    if (parser.isSet(screenshot) && status == 0)
        fprintf(stderr, "Wrote %s\n", parser.value(screenshot).toUtf8().constData());
    // Windows go before the session they stand on.
    QList<QPointer<QWidget>> windows;
    for (auto* window : QApplication::topLevelWidgets())
        windows.append(window);
    for (auto& window : windows)
        delete window.data();
    return status;
}

} // namespace velvox::desktop
