#pragma once

// Loads the owner's avatar without ever blocking the window: http and https only, at
// most 2 MiB, 10 s; anything else leaves the placeholder.

#include <QNetworkAccessManager>
#include <QObject>
#include <QPixmap>
#include <QPointer>
#include <QString>

#include <chrono>
#include <functional>

namespace orbweave::ui {

class avatar_loader : public QObject {
public:
    static constexpr qint64 size_limit = 2 * 1024 * 1024;
    static constexpr std::chrono::milliseconds time_limit{10000};

    explicit avatar_loader(QObject* parent = nullptr);

    /// Fetches url and calls done with the picture, made round at size x size; done gets
    /// nothing when the URL is not http(s), too large, too slow, or not a picture. A later
    /// load replaces an earlier one still running.
    void load(const QString& url, int size, std::function<void(const QPixmap& avatar)> done);

    /// The picture cut to a circle of size x size.
    static QPixmap round(const QImage& image, int size);

private:
    QNetworkAccessManager network_;
    QPointer<QNetworkReply> running_;
};

} // namespace orbweave::ui
