// velvox-desktop's windows against the in-process sandbox, drawn offscreen,
// with the library's run loop served by Qt's loop as in the program.

#include <DesktopSession.h>
#include <Windows.h>

#include <TestSupport.h>

#include <QApplication>
#include <QEventLoop>
#include <QElapsedTimer>
#include <QFile>
#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLineEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QScrollBar>
#include <QHash>
#include <QStatusBar>
#include <QTest>

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <memory>

using namespace velvox;
using namespace velvox::desktop;

namespace {

bool serveUntil(const std::function<bool()>& condition, double seconds = 10)
{
    return runQtUntil(condition, seconds);
}

void serveFor(double seconds)
{
    serveUntil([] { return false; }, seconds);
}

class DesktopTest : public testing::Test {
protected:
    void SetUp() override
    {
        // A data folder of the test's own: no test sees what another played or cached.
        m_savedDataHome = getenv("XDG_DATA_HOME") ? getenv("XDG_DATA_HOME") : "";
        m_dataHome = m_data.path();
        open();
    }
    void TearDown() override
    {
        closeSession();
        setenv("XDG_DATA_HOME", m_savedDataHome.c_str(), 1);
    }
    // A session on an embedded sandbox, signed in; the data folder as a
    // person's (each open points the store at the sandbox's own folder).
    void open()
    {
        setenv("XDG_DATA_HOME", m_dataHome.c_str(), 1);
        DesktopSession::Options options;
        options.sandbox.processingSeconds = 1;
        session = std::make_unique<DesktopSession>(options);
        QString problem;
        ASSERT_TRUE(session->open(problem)) << problem.toStdString();
        bool done = false;
        QObject::connect(session.get(), &DesktopSession::signedIn, [&] { done = true; });
        QObject::connect(session.get(), &DesktopSession::signInFailed, [&] { done = true; });
        session->signIn();
        ASSERT_TRUE(serveUntil([&] { return done; }));
        ASSERT_NE(session->me(), nullptr);
    }
    void closeSession()
    {
        windows.clear();
        session.reset();
    }
    template<typename W, typename... Arguments>
    W* window(Arguments&&... arguments)
    {
        auto made = std::make_unique<W>(*session, std::forward<Arguments>(arguments)...);
        made->show();
        windows.emplace_back(made.get());
        return made.release();
    }
    MainWindow* dashboard()
    {
        auto* main = window<MainWindow>();
        main->showSignedIn(session->me());
        return main;
    }
    void close(QWidget* which)
    {
        std::erase_if(windows, [which](auto& window) { return window.get() == which; });
    }

    test::TemporaryFolder m_data;
    std::string m_savedDataHome;
    std::string m_dataHome;
    std::unique_ptr<DesktopSession> session;
    std::vector<std::unique_ptr<QWidget>> windows;
};

// What the dashboard should list: the catalogue's activities in order, a
// track's identifier for a track, "playlist" for a playlist.
std::vector<QString> catalogueFeed()
{
    QFile file(QStringLiteral(VELVOX_SOURCE_DIR "/Resources/sandbox/catalogue.json"));
    EXPECT_TRUE(file.open(QIODevice::ReadOnly));
    std::vector<QString> feed;
    for (auto value : QJsonDocument::fromJson(file.readAll()).object().value(QStringLiteral("activities")).toArray()) {
        auto activity = value.toObject();
        bool track = activity.value(QStringLiteral("type")).toString().startsWith(QLatin1String("track"));
        feed.push_back(track ? QString::number(activity.value(QStringLiteral("track_id")).toInteger()) : QStringLiteral("playlist"));
    }
    return feed;
}

std::vector<QString> rows(CollectionModel& model)
{
    std::vector<QString> shown;
    for (int row = 0; row < model.rowCount(); ++row) {
        auto index = model.index(row);
        bool track = index.data(CollectionModel::KindRole).toString() == QLatin1String("track");
        shown.push_back(track ? index.data(CollectionModel::IdentifierRole).toString() : QStringLiteral("playlist"));
    }
    return shown;
}

} // namespace

TEST_F(DesktopTest, DashboardPagesToItsEndAsTheUserScrolls)
{
    auto expected = catalogueFeed();
    ASSERT_EQ(expected.size(), 120u);
    auto* main = dashboard();
    auto* feed = main->feedModel();
    ASSERT_TRUE(serveUntil([&] { return feed->hasLoadedAPage() && !feed->collection().isLoadingItems(); }));
    // Control: without scrolling, the list stops within a screen of its start.
    serveFor(0.3);
    int unscrolled = feed->rowCount();
    EXPECT_GT(unscrolled, 0);
    EXPECT_LT(unscrolled, 40);
    auto* bar = main->feedView()->verticalScrollBar();
    for (int turn = 0; turn < 40 && feed->collection().hasMoreItems(); ++turn) {
        int before = feed->rowCount();
        bar->setValue(bar->maximum());
        ASSERT_TRUE(serveUntil([&] { return feed->rowCount() > before && !feed->collection().isLoadingItems(); })) << "turn " << turn;
    }
    EXPECT_FALSE(feed->collection().hasMoreItems());
    // Every activity once, in the service's order.
    EXPECT_EQ(rows(*feed), expected);
    EXPECT_TRUE(main->statusBar()->currentMessage().isEmpty()) << main->statusBar()->currentMessage().toStdString();
}

TEST_F(DesktopTest, FollowChangesEveryWindowOfTheUserInTheSameTurn)
{
    // Two windows on one user whom the signed-in user does not follow.
    auto* first = window<UserWindow>(QStringLiteral("1003"));
    auto* second = window<UserWindow>(QStringLiteral("1003"));
    ASSERT_TRUE(serveUntil([&] { return first->followButton()->isEnabled() && second->followButton()->isEnabled(); }));
    ASSERT_EQ(first->followButton()->text(), QStringLiteral("Follow"));
    ASSERT_EQ(second->followButton()->text(), QStringLiteral("Follow"));
    EXPECT_EQ(first->user(), second->user());

    first->followButton()->click();
    // No turn of either loop in between.
    EXPECT_EQ(first->followButton()->text(), QStringLiteral("Unfollow"));
    EXPECT_EQ(second->followButton()->text(), QStringLiteral("Unfollow"));
    ASSERT_TRUE(serveUntil([&] { return session->store().pendingChangeCount() == 0; }));
    EXPECT_EQ(session->sandbox()->requestCount("PUT /me/followings/1003"), 1);
    EXPECT_EQ(second->followButton()->text(), QStringLiteral("Unfollow"));

    // A refused change comes back in both, and says why.
    session->sandbox()->addFault({ sandbox::Fault::Kind::Status, "/me/followings", 403, 0, -1 });
    second->followButton()->click();
    EXPECT_EQ(first->followButton()->text(), QStringLiteral("Follow"));
    ASSERT_TRUE(serveUntil([&] { return session->store().pendingChangeCount() == 0; }));
    EXPECT_EQ(first->followButton()->text(), QStringLiteral("Unfollow"));
    EXPECT_EQ(second->followButton()->text(), QStringLiteral("Unfollow"));
    EXPECT_TRUE(second->statusBar()->currentMessage().contains(QStringLiteral("403"))) << second->statusBar()->currentMessage().toStdString();
}

TEST_F(DesktopTest, AChangeTheServiceCannotTakeNowIsKeptSaidAndSentLater)
{
    auto* main = dashboard();
    // What the status bar said (the dashboard's own loads may clear it later).
    QStringList said;
    QObject::connect(main->statusBar(), &QStatusBar::messageChanged, [&](const QString& message) { said << message; });
    auto* user = window<UserWindow>(QStringLiteral("1004"));
    ASSERT_TRUE(serveUntil([&] { return user->followButton()->isEnabled(); }));
    ASSERT_EQ(user->followButton()->text(), QStringLiteral("Follow"));
    session->sandbox()->addFault({ sandbox::Fault::Kind::Status, "/me/followings", 503, 0, -1 });
    user->followButton()->click();
    ASSERT_TRUE(serveUntil([&] { return session->store().queuedChangeCount() == 1; }));
    EXPECT_TRUE(said.filter(QStringLiteral("1 change kept")).size() == 1) << said.join(QLatin1Char('|')).toStdString();
    EXPECT_EQ(user->followButton()->text(), QStringLiteral("Unfollow")) << "shown as made";

    session->sandbox()->clearFaults();
    session->store().sendQueuedChanges();
    ASSERT_TRUE(serveUntil([&] { return session->store().queuedChangeCount() == 0; }));
    EXPECT_TRUE(said.contains(QStringLiteral("Kept changes sent."))) << said.join(QLatin1Char('|')).toStdString();
    EXPECT_EQ(user->followButton()->text(), QStringLiteral("Unfollow"));
}

TEST_F(DesktopTest, SearchListsTracksOrUsersThatMatch)
{
    struct Case {
        const char* query;
        bool users;
        bool found;
    };
    for (auto [query, users, found] : { Case { "night", false, true }, Case { "stone", true, true }, Case { "zzzqqq", false, false } }) {
        SCOPED_TRACE(query);
        auto* results = window<SearchWindow>(QString::fromLatin1(query), users);
        ASSERT_TRUE(serveUntil([&] { return results->results()->hasLoadedAPage(); }));
        auto* model = results->results();
        EXPECT_EQ(model->rowCount() > 0, found);
        for (int row = 0; row < model->rowCount(); ++row) {
            auto index = model->index(row);
            EXPECT_EQ(index.data(CollectionModel::KindRole).toString(), QLatin1String(users ? "user" : "track"));
            // A user matches by its names; a track by more than its title.
            QString shown = index.data(Qt::DisplayRole).toString() + QLatin1Char(' ') + index.data(CollectionModel::SubtitleRole).toString();
            if (users) {
                EXPECT_TRUE(shown.contains(QLatin1String(query), Qt::CaseInsensitive)) << shown.toStdString();
            }
        }
        EXPECT_EQ(results->statusBar()->currentMessage().isEmpty(), found);
        close(results);
    }
}

TEST_F(DesktopTest, TrackPageMarksTimedCommentsAndPostsAtThePosition)
{
    auto* page = window<TrackWindow>(QStringLiteral("20005"));
    page->resize(900, 700);
    ASSERT_TRUE(serveUntil([&] { return page->track() && page->comments()->hasLoadedAPage() && !page->page()->toPlainText().isEmpty(); }));
    auto* track = page->track();
    ASSERT_GT(track->duration(), 0);
    // The page is the track's view: its title and its comments' texts.
    EXPECT_TRUE(page->page()->toPlainText().contains(QString::fromUtf8(track->title()->utf8())));
    // Every timed comment of the list is a mark at its time.
    size_t timed = 0;
    for (auto& comment : page->comments()->collection().items<VXComment>())
        timed += comment->isTimedComment();
    ASSERT_GT(timed, 0u);
    EXPECT_EQ(page->waveform()->markers().size(), timed);
    auto* waveform = page->waveform();
    int width = waveform->width();
    EXPECT_EQ(waveform->xForSeconds(0), 0);
    EXPECT_EQ(waveform->xForSeconds(track->duration()), width - 1);
    EXPECT_EQ(waveform->xForSeconds(track->duration() / 2), (width - 1) / 2 + ((width - 1) % 2));

    // A click at three quarters, then a comment: posted at that time, and shown as a mark there.
    QTest::mouseClick(waveform, Qt::LeftButton, {}, QPoint((width - 1) * 3 / 4, waveform->height() / 2));
    double at = waveform->position();
    EXPECT_NEAR(at, track->duration() * 0.75, track->duration() / width * 2);
    if (!track->commentable())
        GTEST_SKIP() << "the catalogue's track 20005 takes no comments";
    page->commentBox()->setText(QStringLiteral("right here"));
    page->postComment();
    ASSERT_TRUE(serveUntil([&] { return page->commentBox()->text().isEmpty() && waveform->markers().size() == timed + 1; })) << page->statusBar()->currentMessage().toStdString();
    bool placed = false;
    for (auto& marker : waveform->markers())
        placed |= marker.text == QLatin1String("right here") && std::abs(marker.seconds - at) < 0.01;
    EXPECT_TRUE(placed);
}

TEST_F(DesktopTest, LibraryTimersSetFromAQtHandlerFireOnTime)
{
    // A click handler schedules a library timer and posts nothing: Qt's loop
    // must still wake for it (the driver re-arms before Qt sleeps).
    bool fired = false;
    Subscription timer;
    QTimer::singleShot(0, [&] { timer = RunLoop::current().performAfterDelay(0.2, [&] { fired = true; }); });
    QElapsedTimer clock;
    clock.start();
    ASSERT_TRUE(serveUntil([&] { return fired; }, 5));
    EXPECT_GE(clock.elapsed(), 190);
    EXPECT_LT(clock.elapsed(), 1500);
    // Control: a cancelled one never fires.
    fired = false;
    timer = RunLoop::current().performAfterDelay(0.05, [&] { fired = true; });
    timer = {};
    serveFor(0.2);
    EXPECT_FALSE(fired);
}

TEST_F(DesktopTest, UploadShowsProgressAndFollowsTheTrackUntilFinished)
{
    // Control: a folder is refused before anything is sent.
    auto* refused = window<UploadWindow>(QString::fromStdString(m_dataHome));
    refused->titleBox()->setText(QStringLiteral("Not a sound"));
    int sent = session->sandbox()->totalRequestCount();
    refused->start();
    EXPECT_FALSE(refused->statusBar()->currentMessage().isEmpty());
    serveFor(0.1);
    EXPECT_EQ(session->sandbox()->totalRequestCount(), sent);

    // Large enough that loopback takes it in several pieces.
    test::TemporaryFolder folder;
    std::string sound = folder.path() + "/long.wav";
    {
        QFile sample(QStringLiteral(VELVOX_SOURCE_DIR "/Resources/samples/demo.wav"));
        ASSERT_TRUE(sample.open(QIODevice::ReadOnly));
        QByteArray bytes = sample.readAll();
        QFile file(QString::fromStdString(sound));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(bytes);
        file.write(QByteArray::fromStdString(test::incompressibleBytes(24u << 20)));
    }
    auto* upload = window<UploadWindow>(QString::fromStdString(sound));
    std::vector<int> shown;
    QObject::connect(upload->progressBar(), &QProgressBar::valueChanged, [&](int value) { shown.push_back(value); });
    upload->start();
    ASSERT_TRUE(serveUntil([&] { return upload->track() != nullptr; }, 30)) << upload->statusBar()->currentMessage().toStdString();
    ASSERT_FALSE(shown.empty());
    EXPECT_EQ(shown.back(), 100);
    EXPECT_TRUE(std::is_sorted(shown.begin(), shown.end()));
    // Partway: the bar moved while the file was being sent.
    EXPECT_TRUE(std::any_of(shown.begin(), shown.end(), [](int value) { return value > 0 && value < 100; })) << testing::PrintToString(shown);
    EXPECT_NE(upload->stateLabel()->text(), QStringLiteral("finished")); // the sandbox takes a second
    ASSERT_TRUE(serveUntil([&] { return upload->isReady(); }, 30)) << upload->stateLabel()->text().toStdString();
    EXPECT_EQ(upload->stateLabel()->text(), QStringLiteral("finished"));
}

TEST_F(DesktopTest, WindowClosedWhileItsAnswersAreSlowNeverReceivesThem)
{
    session->sandbox()->addFault({ sandbox::Fault::Kind::Latency, "/users/", 0, 0.5 });
    auto* closing = window<UserWindow>(QStringLiteral("1004"));
    auto* staying = window<UserWindow>(QStringLiteral("1005"));
    serveFor(0.1);
    auto heardByClosed = closing->answerCounter();
    ASSERT_EQ(*heardByClosed, 0);
    close(closing);
    // The window that stays gets its answers: the answers did come.
    ASSERT_TRUE(serveUntil([&] { return staying->user() && staying->tracks()->hasLoadedAPage(); }, 10));
    serveFor(0.6);
    EXPECT_GT(*staying->answerCounter(), 1);
    EXPECT_EQ(*heardByClosed, 0);
}

TEST_F(DesktopTest, TrackPageClosedWhileItsPicturesLoadIsNeverCalledAgain)
{
    session->sandbox()->addFault({ sandbox::Fault::Kind::Latency, "/images/", 0, 0.5 });
    auto* closing = window<TrackWindow>(QStringLiteral("20010"));
    auto* staying = window<TrackWindow>(QStringLiteral("20011"));
    auto rendered = [](TrackWindow* page) { return page->comments()->hasLoadedAPage() && !page->page()->toPlainText().isEmpty(); };
    ASSERT_TRUE(serveUntil([&] { return rendered(closing) && rendered(staying); }));
    auto heard = closing->answerCounter();
    int before = *heard;
    // Its pictures are on their way; the window goes (a last layout of its
    // page must not ask for more), then the service, so that every load ends
    // in an error, delivered to whoever still waits.
    close(closing);
    session->sandbox()->stop();
    // Control: the window that stays hears the ends of its loads.
    ASSERT_TRUE(serveUntil([&] { return staying->isReady(); }, 20));
    serveFor(0.3);
    EXPECT_EQ(*heard, before);
}

TEST_F(DesktopTest, ServiceFailuresShowInTheStatusBar)
{
    struct Case {
        const char* name;
        std::function<void(sandbox::SandboxService&)> breakIt;
        const char* shown;
    };
    sandbox::Fault unavailable { sandbox::Fault::Kind::Status, "/me/activities", 503, 0, -1, "0" };
    const Case cases[] = {
        { "working", [](sandbox::SandboxService&) {}, "" },
        { "503", [&](sandbox::SandboxService& service) { service.addFault(unavailable); }, "503" },
        { "offline", [](sandbox::SandboxService& service) { service.stop(); }, "Offline" },
    };
    for (auto& scenario : cases) {
        SCOPED_TRACE(scenario.name);
        scenario.breakIt(*session->sandbox());
        auto* main = dashboard();
        ASSERT_TRUE(serveUntil([&] { return main->feedModel()->hasLoadedAPage() || !main->statusBar()->currentMessage().isEmpty(); }, 20));
        QString message = main->statusBar()->currentMessage();
        if (!*scenario.shown) {
            EXPECT_TRUE(message.isEmpty()) << message.toStdString();
            EXPECT_GT(main->feedModel()->rowCount(), 0);
        } else {
            EXPECT_TRUE(message.contains(QLatin1String(scenario.shown))) << message.toStdString();
            EXPECT_EQ(main->feedModel()->rowCount(), 0);
            EXPECT_TRUE(main->isVisible());
        }
        close(main);
    }
}

TEST_F(DesktopTest, NextRunHasTheIdentityMapAndPlayHistoryOfThisOne)
{
    auto* page = window<TrackWindow>(QStringLiteral("20005"));
    ASSERT_TRUE(serveUntil([&] { return page->track() && page->playButton()->isEnabled(); }));
    EXPECT_TRUE(page->track()->isUnplayed());
    page->playButton()->click();
    EXPECT_FALSE(page->track()->isUnplayed());
    EXPECT_TRUE(session->save().isEmpty());
    closeSession();
    VXResourceController::setSharedResourceController(nullptr);

    open();
    auto& store = session->store();
    // The map came from the archive: no fetch made the track.
    auto track = store.cachedResource<VXTrack>("20005");
    ASSERT_TRUE(track);
    EXPECT_TRUE(track->title());
    EXPECT_TRUE(store.hasTrackBeenPlayedForTrackIdentifier("20005"));
    // Control: a track this account never played.
    EXPECT_FALSE(store.hasTrackBeenPlayedForTrackIdentifier("20006"));
    auto* again = window<TrackWindow>(QStringLiteral("20005"));
    EXPECT_FALSE(again->track()->isUnplayed());
}

TEST(DesktopProgram, ScreenshotsAreDrawnOffscreenAndTheArchivesSavedOnQuit)
{
    test::TemporaryFolder folder;
    auto outcome = test::run("'" VELVOX_SOURCE_DIR "/scripts/screenshots.sh' '" VELVOX_DESKTOP_PROGRAM "' '" + folder.path() + "'", true);
    ASSERT_EQ(outcome.status, 0) << outcome.output;
    for (const char* name : { "desktop-dashboard.png", "desktop-track.png", "desktop-user.png" }) {
        SCOPED_TRACE(name);
        QImage picture(QString::fromStdString(folder.path() + "/" + name));
        ASSERT_FALSE(picture.isNull());
        EXPECT_GE(picture.width(), 800);
        EXPECT_GE(picture.height(), 500);
        // Not blank: several colours, and no one colour nearly everywhere.
        QHash<QRgb, int> colours;
        int samples = 0;
        for (int y = 0; y < picture.height(); y += 3)
            for (int x = 0; x < picture.width(); x += 3, ++samples)
                ++colours[picture.pixel(x, y)];
        EXPECT_GE(colours.size(), 4);
        int commonest = 0;
        for (int count : colours)
            commonest = std::max(commonest, count);
        EXPECT_LT(commonest, samples * 95 / 100);
    }
    // The program itself: the store's archives are written when it quits.
    std::string data = folder.path() + "/data";
    auto run = test::run("XDG_DATA_HOME='" + data + "' XDG_CACHE_HOME='" + folder.path() + "/cache' QT_QPA_PLATFORM=offscreen timeout -k 5 120 '" VELVOX_DESKTOP_PROGRAM "' --screenshot '" + folder.path() + "/again.png'", true);
    EXPECT_EQ(run.status, 0) << run.output;
    EXPECT_TRUE(std::filesystem::exists(data + "/Velvox/services/sandbox/Velvox/ressources.archive"));
    // Hostile use: a token for the embedded sandbox, a bad timeout.
    for (const char* arguments : { "--token x --screenshot a.png", "--timeout -1", "--track 1 --user 2" }) {
        auto refused = test::run("QT_QPA_PLATFORM=offscreen '" VELVOX_DESKTOP_PROGRAM "' " + std::string(arguments), true);
        EXPECT_EQ(refused.status, 2) << arguments << ": " << refused.output;
    }
}
