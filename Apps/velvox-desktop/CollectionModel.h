#pragma once

// A list model over one of the library's collections (the dashboard's
// activities, a user's tracks, followers, comments, search results): rows
// read the collection's own items, nothing is copied. Pages are appended as
// they arrive (observed through the collection's "items"), and the next page
// is asked for when the view comes near the end (fetchMore, or loadMore()).

#include "Pictures.h"

#include <VelvoxKit/VXRemoteCollectionController.h>
#include <ZUKit/ZUPastDateFormatter.h>

#include <QAbstractListModel>
#include <QHash>
#include <QSet>
#include <QStyledItemDelegate>

#include <vector>

namespace velvox {
class VXTrack;
class VXUser;
}

namespace velvox::desktop {

class CollectionModel final : public QAbstractListModel {
    Q_OBJECT
public:
    enum Role {
        SubtitleRole = Qt::UserRole + 1, // "uploader · 3 days ago"
        UnplayedRole,                    // a track not in the play history
        IdentifierRole,                  // the item's track, user or comment identifier
        KindRole,                        // "track", "user" or "comment"
        UserIdentifierRole,              // the track's or comment's author
    };

    CollectionModel(Ref<VXRemoteCollectionController>, SubscriptionSet& calls, Pictures&, QObject* parent);
    ~CollectionModel() override;

    int rowCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex&, int role) const override;
    bool canFetchMore(const QModelIndex& parent) const override;
    void fetchMore(const QModelIndex& parent) override;

    // Asks for the first page, or the next one; nothing while a load is under
    // way or when the list is complete.
    void loadMore();
    VXRemoteCollectionController& collection() const { return m_collection; }
    bool hasLoadedAPage() const { return m_pagesLoaded > 0; }
    int pagesLoaded() const { return m_pagesLoaded; }
    // The track an item shows (an activity's, a track), or null.
    static VXTrack* trackOf(Object*);

signals:
    void pageLoaded();
    void loadFailed(const QString& message);

private:
    void itemsChanged();
    void watch(int from, int to);
    URL* pictureOf(Object*) const;

    Ref<VXRemoteCollectionController> m_collection;
    SubscriptionSet& m_calls;
    Pictures& m_pictures;
    Ref<ZUPastDateFormatter> m_dates;
    int m_rows { 0 };
    int m_pagesLoaded { 0 };
    Subscription m_itemsObserver;
    // Tracks' "unplayed", so that a play shows in every list at once.
    std::vector<Subscription> m_rowObservers;
    // The rows that asked for each picture, so that its arrival draws only them.
    mutable QHash<QString, QSet<int>> m_rowsByPicture;
};

// Rows as a person reads them: the picture, the title, the subtitle and the
// unplayed mark. Every row has the same height, so long lists scroll cheaply.
class CollectionDelegate final : public QStyledItemDelegate {
public:
    using QStyledItemDelegate::QStyledItemDelegate;
    static constexpr int rowHeight = 56;
    void paint(QPainter*, const QStyleOptionViewItem&, const QModelIndex&) const override;
    QSize sizeHint(const QStyleOptionViewItem&, const QModelIndex&) const override;
};

} // namespace velvox::desktop
