#include "ui/avatar_loader.hpp"

#include <QImage>
#include <QNetworkReply>
#include <QPainter>
#include <QPainterPath>
#include <QUrl>

namespace orbweave::ui {

avatar_loader::avatar_loader(QObject* parent) : QObject(parent)
{
    network_.setTransferTimeout(static_cast<int>(time_limit.count()));
}

QPixmap avatar_loader::round(const QImage& image, int size)
{
    QPixmap result(size, size);
    result.fill(Qt::transparent);
    QPainter painter(&result);
    painter.setRenderHint(QPainter::Antialiasing);
    QPainterPath circle;
    circle.addEllipse(0, 0, size, size);
    painter.setClipPath(circle);
    painter.drawImage(QRect(0, 0, size, size),
                      image.scaled(size, size, Qt::KeepAspectRatioByExpanding, Qt::SmoothTransformation));
    return result;
}

void avatar_loader::load(const QString& url, int size, std::function<void(const QPixmap&)> done)
{
    if (running_)
        running_->abort();
    QUrl address(url);
    if (!address.isValid() || (address.scheme() != "http" && address.scheme() != "https")) {
        done({});
        return;
    }
    QNetworkRequest request(address);
    request.setMaximumRedirectsAllowed(3);
    QNetworkReply* reply = network_.get(request);
    running_ = reply;
    connect(reply, &QNetworkReply::downloadProgress, reply, [reply](qint64 received, qint64 total) {
        if (received > size_limit || total > size_limit)
            reply->abort();
    });
    connect(reply, &QNetworkReply::finished, this, [reply, size, done = std::move(done)] {
        reply->deleteLater();
        QImage image;
        if (reply->error() == QNetworkReply::NoError)
            image.loadFromData(reply->readAll());
        done(image.isNull() ? QPixmap() : round(image, size));
    });
}

} // namespace orbweave::ui
