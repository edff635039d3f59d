// A track's page: its HTML view (rendered by the template engine with the
// framework's filters, shown natively), play, favorite, the waveform with the
// timed comments at their places, the comments, and a comment box.

#include "Windows.h"

#include <Platform/FileManager.h>
#include <Views/VXViewFilters.h>
#include <Views/VXViewRenderer.h>

#include <QEvent>
#include <QHBoxLayout>
#include <QLineEdit>
#include <QMouseEvent>
#include <QPainter>
#include <QPushButton>
#include <QScrollBar>
#include <QSplitter>
#include <QStatusBar>
#include <QToolTip>
#include <QVBoxLayout>

#include <cmath>

namespace velvox::desktop {

namespace {

// A position as the views write it ("7:05", "1:02:03"); "0:00" for none.
QString clock(double seconds)
{
    auto text = views::clockText(std::isfinite(seconds) && seconds > 0 ? seconds : 0);
    return QString::fromStdString(text.empty() ? "0:00" : text);
}

} // namespace

// MARK: Waveform

WaveformWidget::WaveformWidget(Pictures& pictures, QWidget* parent)
    : QWidget(parent)
    , m_pictures(pictures)
{
    setMinimumHeight(70);
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
    setMouseTracking(true);
    connect(&pictures, &Pictures::arrived, this, [this] { update(); });
}

void WaveformWidget::setTrack(VXTrack* track)
{
    m_track = track;
    update();
}

void WaveformWidget::setMarkers(std::vector<Marker> markers)
{
    m_markers = std::move(markers);
    update();
}

double WaveformWidget::duration() const
{
    double length = m_track ? m_track->duration() : 0;
    return std::isfinite(length) && length > 0 ? length : 0;
}

void WaveformWidget::setPosition(double seconds)
{
    double length = duration();
    m_position = std::clamp(std::isfinite(seconds) ? seconds : 0, 0.0, length);
    update();
    emit positionChanged(m_position);
}

int WaveformWidget::xForSeconds(double seconds) const
{
    double length = duration();
    if (length <= 0)
        return 0;
    return static_cast<int>(std::lround(std::clamp(seconds / length, 0.0, 1.0) * (width() - 1)));
}

void WaveformWidget::paintEvent(QPaintEvent*)
{
    QPainter painter(this);
    QRect wave = rect().adjusted(0, 0, 0, -12);
    painter.fillRect(rect(), palette().base());
    auto picture = m_track ? m_pictures.picture(m_track->waveformURL()) : QPixmap();
    if (!picture.isNull())
        painter.drawPixmap(wave, picture);
    else {
        // No picture (yet): a quiet placeholder of bars.
        painter.setPen(Qt::NoPen);
        painter.setBrush(palette().mid());
        for (int x = 0; x < wave.width(); x += 4) {
            int height = static_cast<int>(wave.height() * (0.3 + 0.25 * std::sin(x * 0.07) * std::sin(x * 0.013)));
            painter.drawRect(x, wave.center().y() - height / 2, 2, height);
        }
    }
    // Played so far, in a tint.
    int at = xForSeconds(m_position);
    painter.fillRect(QRect(0, 0, at, wave.height()), QColor(255, 102, 0, 60));
    painter.setPen(QPen(QColor(255, 102, 0), 2));
    painter.drawLine(at, 0, at, wave.height());
    // The timed comments, as marks below the waveform at their times.
    painter.setPen(Qt::NoPen);
    painter.setBrush(palette().text());
    for (auto& marker : m_markers)
        painter.drawRect(xForSeconds(marker.seconds) - 1, rect().bottom() - 10, 3, 10);
}

void WaveformWidget::mousePressEvent(QMouseEvent* event)
{
    double length = duration();
    if (length > 0 && width() > 1)
        setPosition(event->position().x() / (width() - 1) * length);
}

bool WaveformWidget::event(QEvent* event)
{
    // A mark's comment as its tooltip.
    if (event->type() == QEvent::ToolTip) {
        auto* help = static_cast<QHelpEvent*>(event);
        for (auto& marker : m_markers) {
            if (std::abs(xForSeconds(marker.seconds) - help->pos().x()) <= 3) {
                // A comment is text, whatever markup it holds.
                QToolTip::showText(help->globalPos(), QStringLiteral("<qt>%1 %2</qt>").arg(clock(marker.seconds), marker.text.toHtmlEscaped()), this);
                return true;
            }
        }
        QToolTip::hideText();
        return true;
    }
    return QWidget::event(event);
}

// MARK: The page

PageBrowser::PageBrowser(Pictures& pictures, QWidget* parent)
    : QTextBrowser(parent)
    , m_pictures(pictures)
{
    setOpenLinks(false);
}

QVariant PageBrowser::loadResource(int type, const QUrl& address)
{
    if (type != QTextDocument::ImageResource)
        return {};
    QString source = address.toString();
    // "zu-image…" stands for "http…"; nothing else is loaded.
    if (!source.startsWith(QLatin1String("zu-image"), Qt::CaseInsensitive))
        return {};
    auto picture = m_pictures.picture(QStringLiteral("http") + source.mid(8));
    if (picture.isNull())
        return {};
    return picture.toImage();
}

// MARK: The window

TrackWindow::TrackWindow(DesktopSession& session, const QString& identifier)
    : ClientWindow(session)
    , m_identifier(identifier)
    , m_pictures(new Pictures(m_calls, this))
    , m_page(new PageBrowser(*m_pictures, nullptr))
    , m_waveform(new WaveformWidget(*m_pictures, nullptr))
    , m_play(new QPushButton(tr("Play")))
    , m_favorite(new QPushButton(tr("Favorite")))
    , m_position(new QLabel(clock(0)))
    , m_commentBox(new QLineEdit)
    , m_post(new QPushButton(tr("Comment")))
    , m_commentView(new PagedListView)
{
    setWindowTitle(tr("Track %1").arg(identifier));
    m_comments = new CollectionModel(m_store.commentsForTrackIdentifier(identifier.toStdString()), m_calls, *m_pictures, this);
    m_commentView->setCollectionModel(m_comments);
    m_favorite->setCheckable(true);
    m_commentBox->setPlaceholderText(tr("Say something at this point of the track"));
    m_play->setEnabled(false);
    m_favorite->setEnabled(false);

    auto* content = new QWidget;
    auto* layout = new QVBoxLayout(content);
    auto* split = new QSplitter(Qt::Vertical);
    split->addWidget(m_page);
    split->addWidget(m_commentView);
    split->setStretchFactor(0, 3);
    split->setStretchFactor(1, 2);
    layout->addWidget(split, 1);
    layout->addWidget(m_waveform);
    auto* controls = new QHBoxLayout;
    controls->addWidget(m_play);
    controls->addWidget(m_favorite);
    controls->addWidget(m_position);
    controls->addWidget(m_commentBox, 1);
    controls->addWidget(m_post);
    layout->addLayout(controls);
    setCentralWidget(content);

    connect(m_play, &QPushButton::clicked, this, &TrackWindow::play);
    connect(m_favorite, &QPushButton::clicked, this, [this] {
        if (!m_track)
            return;
        bool favorite = !m_track->userFavorite();
        auto done = [this](Object*, Error* error) {
            heard();
            if (error)
                showError(describeError(error));
        };
        // Shown at once (optimistic changes); a failure rolls it back.
        if (favorite)
            m_store.favoriteTrackForIdentifier(m_track->resourceIdentifier(), done, m_calls.add());
        else
            m_store.unfavoriteTrackForIdentifier(m_track->resourceIdentifier(), done, m_calls.add());
        updateControls();
    });
    connect(m_post, &QPushButton::clicked, this, &TrackWindow::postComment);
    connect(m_commentBox, &QLineEdit::returnPressed, this, &TrackWindow::postComment);
    connect(m_commentView, &QListView::activated, this, [this](const QModelIndex& index) {
        if (auto user = index.data(CollectionModel::UserIdentifierRole).toString(); !user.isEmpty())
            openUserWindow(m_session, user);
    });
    connect(m_page, &QTextBrowser::anchorClicked, this, [this](const QUrl&) {
        if (m_track && m_track->userIdentifier())
            openUserWindow(m_session, QString::fromUtf8(m_track->userIdentifier()->utf8()));
    });
    connect(m_waveform, &WaveformWidget::positionChanged, this, [this](double seconds) { m_position->setText(clock(seconds)); });
    connect(m_comments, &CollectionModel::pageLoaded, this, [this] {
        heard();
        std::vector<WaveformWidget::Marker> markers;
        for (auto& comment : m_comments->collection().items<VXComment>()) {
            if (comment->isTimedComment())
                markers.push_back({ comment->timestamp(), QString::fromUtf8(comment->body() ? comment->body()->utf8() : "") });
        }
        m_waveform->setMarkers(std::move(markers));
        m_renderSoon.start();
    });
    connect(m_comments, &CollectionModel::loadFailed, this, [this](const QString& message) {
        heard();
        showError(message);
    });
    // Pictures of the page, and changes of the track, draw the page again
    // once for everything that came in the same turn.
    m_renderSoon.setSingleShot(true);
    m_renderSoon.setInterval(0);
    connect(&m_renderSoon, &QTimer::timeout, this, &TrackWindow::render);
    connect(m_pictures, &Pictures::arrived, this, [this] { m_renderSoon.start(); });
    connect(m_pictures, &Pictures::settled, this, &ClientWindow::checkReady);
    m_playing.setInterval(250);
    connect(&m_playing, &QTimer::timeout, this, [this] {
        m_waveform->setPosition(m_waveform->position() + 0.25);
        if (m_track && m_waveform->position() >= m_track->duration()) {
            m_playing.stop();
            m_play->setText(tr("Play"));
        }
    });

    auto cached = m_store.trackForIdentifier(identifier.toStdString(), true, [this](VXTrack* track, Error* error) {
        heard();
        if (!track) {
            showError(describeError(error));
            return;
        }
        showTrack(track);
    },
        m_calls.add());
    if (cached)
        showTrack(cached.get());
    m_comments->loadMore();
    resize(900, 700);
}

TrackWindow::~TrackWindow()
{
    closeDown();
}

void TrackWindow::showTrack(VXTrack* track)
{
    if (m_track != track) {
        m_track = track;
        m_observers.clear();
        for (const char* key : { "userFavorite", "title", "playbackCount", "favoritingsCount", "commentCount", "unplayed", "waveformURL" })
            m_observers.push_back(track->addObserver(key, [this](ZUObject&, const String&) {
                updateControls();
                m_renderSoon.start();
            }));
        m_waveform->setTrack(track);
        setWindowTitle(QString::fromUtf8(track->title() ? track->title()->utf8() : "Track"));
        // The owner's name is on the page: fetched when not known yet.
        if (track->userIdentifier() && !m_store.cachedResource<VXUser>(track->userIdentifier())) {
            m_store.userForIdentifier(track->userIdentifier(), false, [this](VXUser*, Error*) {
                heard();
                m_renderSoon.start();
            },
                m_calls.add());
        }
    }
    updateControls();
    m_renderSoon.start();
}

void TrackWindow::updateControls()
{
    m_play->setEnabled(m_track != nullptr);
    m_favorite->setEnabled(m_track != nullptr);
    bool commentable = m_track && m_track->commentable();
    m_commentBox->setEnabled(commentable);
    m_post->setEnabled(commentable);
    if (!m_track)
        return;
    m_favorite->setChecked(m_track->userFavorite());
    m_favorite->setText(m_track->userFavorite() ? tr("Favorite ★") : tr("Favorite ☆"));
}

void TrackWindow::render()
{
    if (!m_track)
        return;
    auto variables = MutableDictionary::create();
    variables->setObject(m_track, "track");
    variables->setObject(&m_comments->collection().items(), "comments");
    if (auto* me = m_session.me())
        variables->setObject(me, "me");
    // The host's view with the host's filters; the pictures come through Pictures.
    RefPtr<Error> error;
    auto page = VXViewRenderer::renderPageLeavingImages("track", variables.ptr(), &error);
    if (!page) {
        showError(tr("The page could not be made: %1").arg(error ? QString::fromUtf8(error->localizedDescription()->utf8()) : QString()));
        return;
    }
    int scrolled = m_page->verticalScrollBar()->value();
    m_page->setHtml(QString::fromUtf8(page->utf8()));
    m_page->verticalScrollBar()->setValue(scrolled);
    checkReady();
}

bool TrackWindow::isReady() const
{
    return m_track && m_comments->hasLoadedAPage() && !m_page->toPlainText().isEmpty() && !m_pictures->pending() && !m_renderSoon.isActive();
}

void TrackWindow::play()
{
    if (!m_track)
        return;
    if (m_playing.isActive()) {
        m_playing.stop();
        m_play->setText(tr("Play"));
        return;
    }
    // A play is registered in the account's history (announced as "unplayed").
    m_track->setUnplayed(false);
    if (m_waveform->position() >= m_track->duration())
        m_waveform->setPosition(0);
    m_playing.start();
    m_play->setText(tr("Pause"));
}

void TrackWindow::postComment()
{
    QString body = m_commentBox->text().trimmed();
    if (!m_track || body.isEmpty())
        return;
    m_post->setEnabled(false);
    m_store.postCommentWithTrackIdentifier(m_track->resourceIdentifier(), String::create(body.toStdString()).ptr(), m_waveform->position(),
        [this](VXComment* comment, Error* error) {
            heard();
            m_post->setEnabled(true);
            if (!comment) {
                showError(describeError(error));
                return;
            }
            m_commentBox->clear();
            statusBar()->showMessage(tr("Comment posted at %1.").arg(clock(comment->timestamp())), 5000);
            // The list from its start again, with the new comment in it.
            m_comments->collection().loadMoreItemsForReloadOperationType(ZURemoteCollectionReloadOperationType::Reload, false, [this](Error* error) {
                if (error)
                    showError(describeError(error));
                else
                    emit m_comments->pageLoaded();
            },
                m_calls.add());
        },
        m_calls.add());
}

} // namespace velvox::desktop
