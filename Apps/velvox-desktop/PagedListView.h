#pragma once

// A list of a CollectionModel that asks for the next page when the user
// scrolls within a screen of its end, or when the rows do not fill it yet.

#include "CollectionModel.h"

#include <QListView>

namespace velvox::desktop {

class PagedListView final : public QListView {
    Q_OBJECT
public:
    explicit PagedListView(QWidget* parent = nullptr);
    void setCollectionModel(CollectionModel*);
    CollectionModel* collectionModel() const { return m_model; }
    // Loads the next page when the end is within a screen.
    void loadIfNearEnd();

private:
    CollectionModel* m_model { nullptr };
};

} // namespace velvox::desktop
