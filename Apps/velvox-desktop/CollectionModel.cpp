#include "CollectionModel.h"

#include "DesktopSession.h"

#include <VelvoxKit/VXActivity.h>
#include <VelvoxKit/VXResourceController.h>
#include <VelvoxKit/VXSharingNote.h>
#include <Views/VXViewFilters.h>

#include <QApplication>
#include <QPainter>

namespace velvox::desktop {

namespace {

QString text(String* string)
{
    return string ? QString::fromUtf8(string->utf8()) : QString();
}

} // namespace

CollectionModel::CollectionModel(Ref<VXRemoteCollectionController> collection, SubscriptionSet& calls, Pictures& pictures, QObject* parent)
    : QAbstractListModel(parent)
    , m_collection(std::move(collection))
    , m_calls(calls)
    , m_pictures(pictures)
    , m_dates(ZUPastDateFormatter::create())
{
    m_rows = static_cast<int>(m_collection->items().count());
    watch(0, m_rows);
    m_itemsObserver = m_collection->addObserver("items", [this](ZUObject&, const String&) { itemsChanged(); });
    connect(&m_pictures, &Pictures::arrived, this, [this](const QString& address) {
        // Only the rows that showed this picture's place are drawn again.
        for (int row : m_rowsByPicture.take(address)) {
            if (row < m_rows)
                emit dataChanged(index(row), index(row), { Qt::DecorationRole });
        }
    });
}

CollectionModel::~CollectionModel() = default;

void CollectionModel::itemsChanged()
{
    int count = static_cast<int>(m_collection->items().count());
    // A page appended: the rows shown so far are the collection's first ones still.
    if (count > m_rows && m_collection->reloadOperationType() == ZURemoteCollectionReloadOperationType::LoadMore) {
        beginInsertRows({}, m_rows, count - 1);
        int from = m_rows;
        m_rows = count;
        endInsertRows();
        watch(from, count);
        return;
    }
    beginResetModel();
    m_rows = count;
    m_rowObservers.clear();
    m_rowsByPicture.clear();
    endResetModel();
    watch(0, count);
}

void CollectionModel::watch(int from, int to)
{
    for (int row = from; row < to; ++row) {
        auto* track = trackOf(m_collection->items().objectAtIndex(static_cast<size_t>(row)));
        if (!track)
            continue;
        m_rowObservers.push_back(track->addObserver("unplayed", [this, row](ZUObject&, const String&) {
            if (row < m_rows)
                emit dataChanged(index(row), index(row), { UnplayedRole });
        }));
    }
}

int CollectionModel::rowCount(const QModelIndex& parent) const
{
    return parent.isValid() ? 0 : m_rows;
}

VXTrack* CollectionModel::trackOf(Object* item)
{
    if (auto* activity = dynamicDowncast<VXActivity>(item))
        return activity->track();
    return dynamicDowncast<VXTrack>(item);
}

URL* CollectionModel::pictureOf(Object* item) const
{
    if (auto* track = trackOf(item))
        return track->artworkURL();
    if (auto* user = dynamicDowncast<VXUser>(item))
        return user->avatarURL();
    if (auto* comment = dynamicDowncast<VXComment>(item)) {
        auto author = VXResourceController::sharedResourceController().cachedResource<VXUser>(comment->userIdentifier());
        return author ? author->avatarURL() : nullptr;
    }
    return nullptr;
}

QVariant CollectionModel::data(const QModelIndex& index, int role) const
{
    if (!index.isValid() || index.row() >= m_rows)
        return {};
    auto* item = m_collection->items().objectAtIndex(static_cast<size_t>(index.row()));
    auto& store = VXResourceController::sharedResourceController();
    auto when = [this](Date* date) { return date ? text(m_dates->stringForObjectValue(date).get()) : QString(); };
    auto joined = [](const QString& a, const QString& b) { return a.isEmpty() ? b : b.isEmpty() ? a : a + QStringLiteral(" · ") + b; };
    if (role == Qt::DecorationRole) {
        auto* address = pictureOf(item);
        auto picture = m_pictures.picture(address);
        if (picture.isNull() && address)
            m_rowsByPicture[QString::fromUtf8(address->absoluteString()->utf8())].insert(index.row());
        return picture;
    }
    if (auto* track = trackOf(item)) {
        switch (role) {
        case Qt::DisplayRole:
            return text(track->title());
        case SubtitleRole: {
            auto owner = store.cachedResource<VXUser>(track->userIdentifier());
            // In the feed, when it was shared or posted; elsewhere, when the track was.
            auto* activity = dynamicDowncast<VXActivity>(item);
            return joined(owner ? text(owner->username()) : QString(), when(activity ? activity->createdAt() : track->createdAt()));
        }
        case UnplayedRole:
            return track->resourceIdentifier() && track->isUnplayed();
        case IdentifierRole:
            return text(track->resourceIdentifier());
        case UserIdentifierRole:
            return text(track->userIdentifier());
        case KindRole:
            return QStringLiteral("track");
        }
        return {};
    }
    if (auto* activity = dynamicDowncast<VXActivity>(item)) {
        // An activity without a track: a playlist, with the note it was shared with.
        switch (role) {
        case Qt::DisplayRole:
            return activity->type() & (VXActivityTypePlaylist | VXActivityTypePlaylistSharing) ? tr("A playlist") : tr("An activity");
        case SubtitleRole:
            return joined(activity->sharingNote() ? text(activity->sharingNote()->text()) : QString(), when(activity->createdAt()));
        case KindRole:
            return QStringLiteral("activity");
        }
        return {};
    }
    if (auto* user = dynamicDowncast<VXUser>(item)) {
        switch (role) {
        case Qt::DisplayRole:
            return text(user->username());
        case SubtitleRole:
            return joined(text(user->fullName()), text(user->city()));
        case IdentifierRole:
        case UserIdentifierRole:
            return text(user->resourceIdentifier());
        case KindRole:
            return QStringLiteral("user");
        }
        return {};
    }
    if (auto* comment = dynamicDowncast<VXComment>(item)) {
        switch (role) {
        case Qt::DisplayRole:
            return text(comment->body()).simplified();
        case SubtitleRole: {
            auto author = store.cachedResource<VXUser>(comment->userIdentifier());
            QString at = comment->isTimedComment() ? QStringLiteral("at ") + QString::fromStdString(views::clockText(comment->timestamp())) : QString();
            return joined(joined(author ? text(author->username()) : QString(), at), when(comment->createdAt()));
        }
        case IdentifierRole:
            return text(comment->resourceIdentifier());
        case UserIdentifierRole:
            return text(comment->userIdentifier());
        case KindRole:
            return QStringLiteral("comment");
        }
    }
    return {};
}

bool CollectionModel::canFetchMore(const QModelIndex& parent) const
{
    return !parent.isValid() && m_collection->hasMoreItems() && !m_collection->isLoadingItems() && !m_collection->lastError();
}

void CollectionModel::fetchMore(const QModelIndex& parent)
{
    if (!parent.isValid())
        loadMore();
}

void CollectionModel::loadMore()
{
    if (m_collection->isLoadingItems() || (m_pagesLoaded && !m_collection->hasMoreItems()))
        return;
    bool first = m_pagesLoaded == 0 && m_collection->items().isEmpty();
    m_collection->loadMoreItemsForReloadOperationType(first ? ZURemoteCollectionReloadOperationType::Reload : ZURemoteCollectionReloadOperationType::LoadMore, !first,
        [this](Error* error) {
            if (error) {
                emit loadFailed(describeError(error));
                return;
            }
            ++m_pagesLoaded;
            emit pageLoaded();
        },
        m_calls.add());
}

QSize CollectionDelegate::sizeHint(const QStyleOptionViewItem&, const QModelIndex&) const
{
    return { 200, rowHeight };
}

void CollectionDelegate::paint(QPainter* painter, const QStyleOptionViewItem& option, const QModelIndex& index) const
{
    painter->save();
    auto* style = option.widget ? option.widget->style() : QApplication::style();
    QStyleOptionViewItem background = option;
    background.text.clear();
    background.icon = {};
    style->drawPrimitive(QStyle::PE_PanelItemViewItem, &background, painter, option.widget);
    QRect area = option.rect.adjusted(6, 4, -6, -4);
    QRect pictureArea(area.left(), area.top(), area.height(), area.height());
    auto picture = index.data(Qt::DecorationRole).value<QPixmap>();
    if (!picture.isNull())
        painter->drawPixmap(pictureArea, picture);
    else
        painter->fillRect(pictureArea, option.palette.midlight());
    QRect textArea = area.adjusted(area.height() + 10, 0, -20, 0);
    bool selected = option.state & QStyle::State_Selected;
    painter->setPen(option.palette.color(selected ? QPalette::HighlightedText : QPalette::Text));
    QFont titleFont = option.font;
    titleFont.setBold(true);
    painter->setFont(titleFont);
    QFontMetrics titleMetrics(titleFont);
    painter->drawText(textArea.adjusted(0, 2, 0, 0), Qt::AlignLeft | Qt::AlignTop,
        titleMetrics.elidedText(index.data(Qt::DisplayRole).toString(), Qt::ElideRight, textArea.width()));
    painter->setFont(option.font);
    painter->setPen(option.palette.color(selected ? QPalette::HighlightedText : QPalette::PlaceholderText));
    painter->drawText(textArea.adjusted(0, 0, 0, -2), Qt::AlignLeft | Qt::AlignBottom,
        option.fontMetrics.elidedText(index.data(CollectionModel::SubtitleRole).toString(), Qt::ElideRight, textArea.width()));
    if (index.data(CollectionModel::UnplayedRole).toBool()) {
        // The unplayed mark: a dot at the row's end.
        painter->setRenderHint(QPainter::Antialiasing);
        painter->setPen(Qt::NoPen);
        painter->setBrush(QColor(255, 102, 0));
        painter->drawEllipse(QPoint(area.right() - 6, area.center().y()), 5, 5);
    }
    painter->restore();
}

} // namespace velvox::desktop
