// The dashboard, search results and uploads, and what every window shares.

#include "Windows.h"

#include <Service/VXServiceAccess.h>
#include <VelvoxKit/VXActivity.h>

#include <QComboBox>
#include <QFileDialog>
#include <QFileInfo>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLineEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QStatusBar>
#include <QToolBar>
#include <QVBoxLayout>

namespace velvox::desktop {

namespace {

Ref<String> text(const QString& value)
{
    return String::create(value.toStdString());
}

} // namespace

ClientWindow::ClientWindow(DesktopSession& session, QWidget* parent)
    : QMainWindow(parent)
    , m_session(session)
    , m_store(session.store())
{
    statusBar();
    connect(&session.driver(), &RunLoopDriver::failed, this, [this](const QString& message) { showError(QStringLiteral("Internal error: %1").arg(message)); });
}

void ClientWindow::closeDown()
{
    delete centralWidget();
    for (auto* model : findChildren<CollectionModel*>(Qt::FindDirectChildrenOnly))
        delete model;
    for (auto* pictures : findChildren<Pictures*>(Qt::FindDirectChildrenOnly))
        delete pictures;
}

void ClientWindow::showError(const QString& message)
{
    statusBar()->showMessage(message);
}

void ClientWindow::checkReady()
{
    if (m_announcedReady || !isReady())
        return;
    m_announcedReady = true;
    emit ready();
}

TrackWindow* openTrackWindow(DesktopSession& session, const QString& identifier)
{
    auto* window = new TrackWindow(session, identifier);
    window->setAttribute(Qt::WA_DeleteOnClose);
    window->show();
    return window;
}

UserWindow* openUserWindow(DesktopSession& session, const QString& identifier)
{
    auto* window = new UserWindow(session, identifier);
    window->setAttribute(Qt::WA_DeleteOnClose);
    window->show();
    return window;
}

// Opens what a row shows: a track, a user, or a comment's author.
static void openRow(DesktopSession& session, const QModelIndex& index)
{
    QString kind = index.data(CollectionModel::KindRole).toString();
    if (kind == QLatin1String("track"))
        openTrackWindow(session, index.data(CollectionModel::IdentifierRole).toString());
    else if (!index.data(CollectionModel::UserIdentifierRole).toString().isEmpty())
        openUserWindow(session, index.data(CollectionModel::UserIdentifierRole).toString());
}

MainWindow::MainWindow(DesktopSession& session)
    : ClientWindow(session)
    , m_userLabel(new QLabel(tr("Signing in…")))
    , m_query(new QLineEdit)
    , m_searchKind(new QComboBox)
    , m_feedView(new PagedListView)
    , m_pictures(new Pictures(m_calls, this))
{
    setWindowTitle(tr("Velvox"));
    // Changes kept while the service cannot be reached, and their fate.
    m_keptChanges = m_store.addObserver("queuedChangeCount", [this](ZUObject&, const String&) {
        size_t kept = m_store.queuedChangeCount();
        if (!kept)
            statusBar()->showMessage(tr("Kept changes sent."));
        else if (kept == 1)
            statusBar()->showMessage(tr("1 change kept until the service can be reached"));
        else
            statusBar()->showMessage(tr("%1 changes kept until the service can be reached").arg(kept));
    });
    m_refusedChange = m_store.addObserver("lastQueuedChangeError", [this](ZUObject&, const String&) {
        if (auto* error = m_store.lastQueuedChangeError())
            showError(QString::fromUtf8(error->localizedDescription()->utf8()));
    });
    // A name from the service is text, whatever markup it holds.
    m_userLabel->setTextFormat(Qt::PlainText);
    auto* bar = addToolBar(tr("Dashboard"));
    bar->setMovable(false);
    bar->addWidget(m_userLabel);
    bar->addSeparator();
    m_query->setPlaceholderText(tr("Search"));
    m_query->setMaximumWidth(260);
    bar->addWidget(m_query);
    m_searchKind->addItems({ tr("Tracks"), tr("Users") });
    bar->addWidget(m_searchKind);
    bar->addAction(tr("Search"), this, &MainWindow::search);
    bar->addSeparator();
    bar->addAction(tr("Upload…"), this, &MainWindow::upload);
    bar->addAction(tr("My page"), this, [this] {
        if (auto* me = m_session.me())
            openUserWindow(m_session, QString::fromUtf8(me->resourceIdentifier()->utf8()));
    });
    connect(m_query, &QLineEdit::returnPressed, this, &MainWindow::search);
    setCentralWidget(m_feedView);
    connect(m_feedView, &QListView::activated, this, &MainWindow::openItem);
    connect(m_pictures, &Pictures::settled, this, &ClientWindow::checkReady);
    connect(&session, &DesktopSession::signedIn, this, &MainWindow::showSignedIn);
    connect(&session, &DesktopSession::signInFailed, this, [this](const QString& message) {
        m_userLabel->setText(tr("Not signed in"));
        showError(message);
        heard();
    });
    resize(900, 600);
}

MainWindow::~MainWindow()
{
    closeDown();
}

void MainWindow::showSignedIn(VXUser* me)
{
    heard();
    m_userLabel->setText(tr("Signed in as %1").arg(QString::fromUtf8(me->username() ? me->username()->utf8() : "?")));
    if (m_feed)
        return;
    m_feed = new CollectionModel(m_store.incomingActivities(), m_calls, *m_pictures, this);
    m_feedView->setCollectionModel(m_feed);
    connect(m_feed, &CollectionModel::loadFailed, this, [this](const QString& message) {
        heard();
        showError(message);
    });
    connect(m_feed, &CollectionModel::pageLoaded, this, [this] {
        heard();
        statusBar()->clearMessage();
        // The rows' pictures are asked for when they are drawn; the first page's
        // now, so that the window knows when they are in.
        for (int row = 0; row < m_feed->rowCount(); ++row)
            m_feed->data(m_feed->index(row), Qt::DecorationRole);
        checkReady();
    });
    m_feed->loadMore();
}

bool MainWindow::isReady() const
{
    return m_feed && m_feed->hasLoadedAPage() && !m_pictures->pending();
}

void MainWindow::openItem(const QModelIndex& index)
{
    openRow(m_session, index);
}

void MainWindow::search()
{
    QString query = m_query->text().trimmed();
    if (query.isEmpty())
        return;
    auto* window = new SearchWindow(m_session, query, m_searchKind->currentIndex() == 1);
    window->setAttribute(Qt::WA_DeleteOnClose);
    window->show();
}

void MainWindow::upload()
{
    auto* window = new UploadWindow(m_session);
    window->setAttribute(Qt::WA_DeleteOnClose);
    window->show();
}

// MARK: Search

SearchWindow::SearchWindow(DesktopSession& session, const QString& query, bool users)
    : ClientWindow(session)
    , m_pictures(new Pictures(m_calls, this))
    , m_view(new PagedListView)
{
    setWindowTitle(tr("Search: %1").arg(query));
    auto collection = users ? Ref<VXRemoteCollectionController>(m_store.usersForSearchQuery(query.toStdString()))
                            : Ref<VXRemoteCollectionController>(m_store.tracksForSearchQuery(query.toStdString()));
    m_results = new CollectionModel(std::move(collection), m_calls, *m_pictures, this);
    m_view->setCollectionModel(m_results);
    setCentralWidget(m_view);
    connect(m_view, &QListView::activated, this, [this](const QModelIndex& index) { openRow(m_session, index); });
    connect(m_results, &CollectionModel::loadFailed, this, [this](const QString& message) {
        heard();
        showError(message);
    });
    connect(m_results, &CollectionModel::pageLoaded, this, [this] {
        heard();
        statusBar()->showMessage(m_results->rowCount() ? QString() : tr("Nothing found."));
        checkReady();
    });
    connect(m_pictures, &Pictures::settled, this, &ClientWindow::checkReady);
    m_results->loadMore();
    resize(600, 500);
}

SearchWindow::~SearchWindow()
{
    closeDown();
}

bool SearchWindow::isReady() const
{
    return m_results->hasLoadedAPage() && !m_pictures->pending();
}

// MARK: Upload

UploadWindow::UploadWindow(DesktopSession& session, const QString& path)
    : ClientWindow(session)
    , m_path(new QLineEdit(path))
    , m_title(new QLineEdit(path.isEmpty() ? QString() : QFileInfo(path).completeBaseName()))
    , m_send(new QPushButton(tr("Upload")))
    , m_progress(new QProgressBar)
    , m_state(new QLabel)
{
    setWindowTitle(tr("Upload"));
    auto* content = new QWidget;
    auto* form = new QFormLayout(content);
    auto* fileRow = new QHBoxLayout;
    auto* browse = new QPushButton(tr("Choose…"));
    fileRow->addWidget(m_path);
    fileRow->addWidget(browse);
    form->addRow(tr("File"), fileRow);
    form->addRow(tr("Title"), m_title);
    form->addRow(m_send);
    m_progress->setRange(0, 100);
    m_progress->setValue(0);
    form->addRow(tr("Sent"), m_progress);
    form->addRow(tr("State"), m_state);
    setCentralWidget(content);
    connect(browse, &QPushButton::clicked, this, [this] {
        QString chosen = QFileDialog::getOpenFileName(this, tr("A sound to upload"));
        if (chosen.isEmpty())
            return;
        m_path->setText(chosen);
        if (m_title->text().isEmpty())
            m_title->setText(QFileInfo(chosen).completeBaseName());
    });
    connect(m_send, &QPushButton::clicked, this, &UploadWindow::start);
    resize(520, 200);
}

UploadWindow::~UploadWindow()
{
    closeDown();
}

bool UploadWindow::isReady() const
{
    return m_track && m_track->state() == VXTrackStateFinished;
}

void UploadWindow::start()
{
    std::string path = QFileInfo(m_path->text()).absoluteFilePath().toStdString();
    if (m_path->text().isEmpty() || m_title->text().trimmed().isEmpty()) {
        showError(tr("Choose a file and give it a title."));
        return;
    }
    if (auto problem = app::unsendableFileProblem(path); !problem.empty()) {
        showError(tr("Cannot send %1").arg(QString::fromStdString(problem)));
        return;
    }
    auto fields = MutableDictionary::create();
    fields->setObject(text(m_title->text().trimmed()), "track[title]");
    fields->setObject(URL::create("file://" + app::percentEncodePath(path)).get(), "track[asset_data]");
    m_send->setEnabled(false);
    m_state->setText(tr("sending"));
    // The bytes the client sends, while this upload is under way (uploads
    // made at the same time from two windows would share these readings).
    m_sending = connect(&m_session, &DesktopSession::bodySent, this, [this](quint64 sent, quint64 total) {
        int percent = static_cast<int>(sent * 100 / total);
        m_highest = std::max(m_highest, percent);
        m_progress->setValue(m_highest);
    });
    // The bar follows the bytes sent; the store's own progress value is not
    // a fraction of the file (it is the total divided by what was sent).
    m_store.postTrackWithTrackDictionary(
        fields.ptr(), {},
        [this](Object* answer, Error* error) { uploaded(answer, error); }, m_calls.add());
}

void UploadWindow::uploaded(Object* answer, Error* error)
{
    heard();
    disconnect(m_sending);
    auto* record = dynamicDowncast<Dictionary>(answer);
    auto* identifier = record ? record->objectForKey("id") : nullptr;
    m_track = identifier ? m_store.cachedResource<VXTrack>(identifier->description().ptr()) : nullptr;
    if (!m_track) {
        m_send->setEnabled(true);
        m_state->setText(tr("failed"));
        showError(error ? describeError(error) : tr("The service's answer named no track."));
        return;
    }
    m_highest = 100;
    m_progress->setValue(100);
    // The store polls a track the service is still processing; its state
    // changes reach the label through observing.
    m_stateObserver = m_track->addObserver("state", [this](ZUObject&, const String&) { showState(); });
    m_store.trackForIdentifier(m_track->resourceIdentifier(), true, [this](VXTrack*, Error* error) {
        heard();
        if (error)
            showError(describeError(error));
    },
        m_calls.add());
    showState();
}

void UploadWindow::showState()
{
    static const char* const names[] = { "unknown", "storing", "stored", "finished", "failed" };
    int32_t state = m_track->state();
    m_state->setText(QString::fromUtf8(state >= 0 && state <= 4 ? names[state] : "unknown"));
    if (state == VXTrackStateFinished) {
        statusBar()->showMessage(tr("Track %1 is ready.").arg(QString::fromUtf8(m_track->resourceIdentifier()->utf8())));
        emit processed();
        checkReady();
    } else if (state == VXTrackStateFailed)
        showError(tr("The service could not process the track."));
}

} // namespace velvox::desktop
