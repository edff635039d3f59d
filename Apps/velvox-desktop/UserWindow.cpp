// A user's page: the profile, a follow button that follows the model
// (every window showing the user changes with it), and the user's tracks,
// followers and followings as paged lists.

#include "Windows.h"

#include <QGridLayout>
#include <QPushButton>
#include <QStatusBar>
#include <QTabWidget>
#include <QVBoxLayout>

namespace velvox::desktop {

UserWindow::UserWindow(DesktopSession& session, const QString& identifier)
    : ClientWindow(session)
    , m_identifier(identifier)
    , m_pictures(new Pictures(m_calls, this))
    , m_avatar(new QLabel)
    , m_name(new QLabel)
    , m_details(new QLabel)
    , m_follow(new QPushButton(tr("Follow")))
    , m_tabs(new QTabWidget)
{
    setWindowTitle(tr("User %1").arg(identifier));
    m_avatar->setFixedSize(100, 100);
    m_avatar->setScaledContents(true);
    m_name->setTextFormat(Qt::PlainText);
    m_details->setTextFormat(Qt::PlainText);
    m_details->setWordWrap(true);
    QFont big = m_name->font();
    big.setPointSizeF(big.pointSizeF() * 1.5);
    big.setBold(true);
    m_name->setFont(big);
    m_follow->setEnabled(false);

    auto id = identifier.toStdString();
    Ref<VXRemoteCollectionController> collections[3] = { m_store.tracksForUserIdentifier(id), m_store.usersFollowingUserForIdentifier(id),
        m_store.usersFollowedByUserForIdentifier(id) };
    const QString titles[3] = { tr("Tracks"), tr("Followers"), tr("Following") };
    for (int i = 0; i < 3; ++i) {
        auto* view = new PagedListView;
        m_lists[i] = new CollectionModel(collections[i], m_calls, *m_pictures, this);
        view->setCollectionModel(m_lists[i]);
        m_tabs->addTab(view, titles[i]);
        connect(view, &QListView::activated, this, [this](const QModelIndex& index) {
            if (index.data(CollectionModel::KindRole).toString() == QLatin1String("track"))
                openTrackWindow(m_session, index.data(CollectionModel::IdentifierRole).toString());
            else
                openUserWindow(m_session, index.data(CollectionModel::IdentifierRole).toString());
        });
        connect(m_lists[i], &CollectionModel::pageLoaded, this, [this] {
            heard();
            checkReady();
        });
        connect(m_lists[i], &CollectionModel::loadFailed, this, [this](const QString& message) {
            heard();
            showError(message);
        });
    }
    // A list is loaded when its tab is first shown.
    connect(m_tabs, &QTabWidget::currentChanged, this, [this](int tab) {
        if (tab >= 0 && tab < 3 && !m_lists[tab]->hasLoadedAPage())
            m_lists[tab]->loadMore();
    });

    auto* content = new QWidget;
    auto* layout = new QGridLayout(content);
    layout->addWidget(m_avatar, 0, 0, 3, 1);
    layout->addWidget(m_name, 0, 1);
    layout->addWidget(m_details, 1, 1);
    layout->addWidget(m_follow, 2, 1, Qt::AlignLeft);
    layout->addWidget(m_tabs, 3, 0, 1, 2);
    layout->setColumnStretch(1, 1);
    layout->setRowStretch(3, 1);
    setCentralWidget(content);
    connect(m_follow, &QPushButton::clicked, this, &UserWindow::toggleFollow);
    connect(m_pictures, &Pictures::arrived, this, [this] { updateProfile(); });
    connect(m_pictures, &Pictures::settled, this, &ClientWindow::checkReady);

    auto cached = m_store.userForIdentifier(id, true, [this](VXUser* user, Error* error) {
        heard();
        if (!user) {
            showError(describeError(error));
            return;
        }
        showUser(user);
    },
        m_calls.add());
    if (cached)
        showUser(cached.get());
    m_lists[0]->loadMore();
    resize(800, 600);
}

UserWindow::~UserWindow()
{
    closeDown();
}

void UserWindow::showUser(VXUser* user)
{
    if (m_user != user) {
        m_user = user;
        m_observers.clear();
        // The button follows the model: a change made in any window (or rolled
        // back after a failure) shows here in the same turn.
        m_observers.push_back(user->addObserver("followedByMe", [this](ZUObject&, const String&) { updateFollowButton(); }));
        for (const char* key : { "username", "fullName", "city", "country", "followersCount", "followingsCount", "trackCount", "avatarURL" })
            m_observers.push_back(user->addObserver(key, [this](ZUObject&, const String&) { updateProfile(); }));
        // Unknown yet: asks the store, whose answer arrives through the observer.
        user->isFollowedByMe();
    }
    updateProfile();
    updateFollowButton();
}

void UserWindow::updateProfile()
{
    if (!m_user)
        return;
    auto text = [](String* value) { return value ? QString::fromUtf8(value->utf8()) : QString(); };
    setWindowTitle(text(m_user->username()));
    m_name->setText(text(m_user->username()));
    QStringList lines;
    QString place = QStringList({ text(m_user->city()), text(m_user->country()) }).join(QStringLiteral(", "));
    if (place == QLatin1String(", "))
        place.clear();
    lines << QStringList({ text(m_user->fullName()), place }).join(place.isEmpty() || text(m_user->fullName()).isEmpty() ? QString() : QStringLiteral(" · "));
    lines << tr("%1 tracks · %2 followers · %3 following")
                 .arg(m_user->trackCount())
                 .arg(m_user->followersCount())
                 .arg(m_user->followingsCount());
    m_details->setText(lines.join(QLatin1Char('\n')));
    auto avatar = m_pictures->picture(m_user->avatarURL());
    if (avatar.isNull()) {
        // A quiet square where no picture can be shown (yet).
        avatar = QPixmap(m_avatar->size());
        avatar.fill(palette().color(QPalette::Midlight));
    }
    m_avatar->setPixmap(avatar);
    checkReady();
}

void UserWindow::updateFollowButton()
{
    if (!m_user)
        return;
    int32_t following = m_user->followedByMeValue();
    bool isMe = m_session.me() && m_user->resourceIdentifier() && m_session.me()->resourceIdentifier()
        && m_user->resourceIdentifier()->isEqualToString(m_session.me()->resourceIdentifier()->view());
    m_follow->setVisible(!isMe);
    m_follow->setEnabled(following == 0 || following == 1);
    m_follow->setText(following == 1 ? tr("Unfollow") : following == 0 ? tr("Follow") : tr("Follow…"));
}

void UserWindow::toggleFollow()
{
    if (!m_user || (m_user->followedByMeValue() != 0 && m_user->followedByMeValue() != 1))
        return;
    auto done = [this](Object*, Error* error) {
        heard();
        if (error)
            showError(describeError(error));
    };
    // Optimistic: the model (and every window observing it) changes now.
    if (m_user->followedByMeValue() == 1)
        m_store.stopFollowingByUserForIdentifier(m_user->resourceIdentifier(), done, m_calls.add());
    else
        m_store.startFollowingUserForIdentifier(m_user->resourceIdentifier(), done, m_calls.add());
}

bool UserWindow::isReady() const
{
    return m_user && m_lists[0]->hasLoadedAPage() && !m_pictures->pending();
}

} // namespace velvox::desktop
