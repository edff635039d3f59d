#include "PagedListView.h"

#include <QScrollBar>

namespace velvox::desktop {

PagedListView::PagedListView(QWidget* parent)
    : QListView(parent)
{
    setUniformItemSizes(true);
    setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    setItemDelegate(new CollectionDelegate(this));
    setVerticalScrollMode(ScrollPerPixel);
    setEditTriggers(NoEditTriggers);
    connect(verticalScrollBar(), &QScrollBar::valueChanged, this, &PagedListView::loadIfNearEnd);
    connect(verticalScrollBar(), &QScrollBar::rangeChanged, this, &PagedListView::loadIfNearEnd);
}

void PagedListView::setCollectionModel(CollectionModel* model)
{
    m_model = model;
    setModel(model);
    connect(model, &CollectionModel::pageLoaded, this, &PagedListView::loadIfNearEnd, Qt::QueuedConnection);
}

void PagedListView::loadIfNearEnd()
{
    if (!m_model || !m_model->hasLoadedAPage() || !isVisible())
        return;
    auto* bar = verticalScrollBar();
    if (bar->maximum() - bar->value() <= viewport()->height())
        m_model->loadMore();
}

} // namespace velvox::desktop
