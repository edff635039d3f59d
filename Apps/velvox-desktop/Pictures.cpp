#include "Pictures.h"

#include <Platform/Image.h>
#include <ZUKit/ZULoadingImageCache.h>

#include <QCache>
#include <QImage>

namespace velvox::desktop {

namespace {

// Decoded pictures by address, for every window; about 32 MB of pixels at most.
QCache<QString, QPixmap>& decoded()
{
    static QCache<QString, QPixmap> cache(32 * 1024);
    return cache;
}
// Addresses whose bytes were no picture Qt can read: not decoded again.
QSet<QString>& unreadable()
{
    static QSet<QString> addresses;
    return addresses;
}

QPixmap decode(const QString& address, Image* image)
{
    if (!image || unreadable().contains(address))
        return {};
    QImage picture;
    auto& bytes = image->data();
    // Bounded: a hostile picture of huge dimensions is not decoded.
    if (!picture.loadFromData(reinterpret_cast<const uchar*>(bytes.bytes()), static_cast<int>(std::min<size_t>(bytes.length(), 16u << 20)))
        || picture.width() > 4096 || picture.height() > 4096) {
        if (unreadable().size() < 4096)
            unreadable().insert(address);
        return {};
    }
    auto pixmap = QPixmap::fromImage(picture);
    int cost = std::max(1, static_cast<int>(pixmap.width() * pixmap.height() * 4 / 1024));
    decoded().insert(address, new QPixmap(pixmap), cost);
    return pixmap;
}

} // namespace

QPixmap Pictures::picture(const QString& address)
{
    auto url = URL::create(address.toStdString());
    return url ? picture(url.get()) : QPixmap();
}

QPixmap Pictures::picture(URL* address)
{
    if (!address)
        return {};
    QString key = QString::fromUtf8(address->absoluteString()->utf8());
    if (auto* known = decoded().object(key))
        return *known;
    if (unreadable().contains(key) || m_failed.contains(key))
        return {};
    ++m_pending;
    auto block = [this, key](Image* image, Error*) {
        if (!image && m_failed.size() < 4096)
            m_failed.insert(key);
        decode(key, image);
        --m_pending;
        emit arrived(key);
        if (!m_pending)
            emit settled();
    };
    auto image = ZULoadingImageCache::sharedLoadingImageCache().cachedImageForURL(address, false, block, m_calls.add());
    if (image) {
        // At hand: the block is not called.
        --m_pending;
        return decode(key, image.get());
    }
    return {};
}

} // namespace velvox::desktop
