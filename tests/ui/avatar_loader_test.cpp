// The avatar loader against loopback HTTP servers: a picture, one too large, one that
// never answers, a refused port and a URL that is not http.

#include "tests/app/qt_support.hpp"
#include "tests/support/rtmp_ingest.hpp"
#include "ui/avatar_loader.hpp"

#include <QBuffer>
#include <QImage>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>

#include <gtest/gtest.h>

#include <optional>

namespace orbweave::ui {
namespace {

using namespace std::chrono_literals;
using test::pump_until;

/// Answers every request with body, or never answers when body is empty.
class http_server : public QTcpServer {
public:
    explicit http_server(QByteArray body) : body_(std::move(body))
    {
        listen(QHostAddress::LocalHost);
        connect(this, &QTcpServer::newConnection, this, [this] {
            while (QTcpSocket* socket = nextPendingConnection()) {
                if (body_.isEmpty())
                    continue; // holds the connection and says nothing
                connect(socket, &QTcpSocket::readyRead, socket, [this, socket] {
                    if (!socket->readAll().contains("\r\n\r\n"))
                        return;
                    socket->write("HTTP/1.1 200 OK\r\nContent-Type: image/png\r\nContent-Length: " +
                                  QByteArray::number(body_.size()) + "\r\nConnection: close\r\n\r\n" + body_);
                    socket->disconnectFromHost();
                });
            }
        });
    }
    QString url() const { return QString("http://127.0.0.1:%1/avatar.png").arg(serverPort()); }

private:
    QByteArray body_;
};

QByteArray png(int width, int height)
{
    QImage image(width, height, QImage::Format_RGB32);
    image.fill(Qt::red);
    QByteArray data;
    QBuffer buffer(&data);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, "PNG");
    return data;
}

/// Loads url; the picture, or none once done says so.
std::optional<QPixmap> load(avatar_loader& loader, const QString& url)
{
    std::optional<QPixmap> result;
    loader.load(url, 64, [&](const QPixmap& picture) { result = picture; });
    EXPECT_TRUE(pump_until([&] { return result.has_value(); }, 15s));
    return result;
}

TEST(AvatarLoader, APictureArrivesRoundAndAnythingElseLeavesThePlaceholder)
{
    avatar_loader loader;
    http_server picture(png(200, 100));
    auto loaded = load(loader, picture.url());
    ASSERT_TRUE(loaded && !loaded->isNull());
    EXPECT_EQ(loaded->size(), QSize(64, 64));
    EXPECT_EQ(loaded->toImage().pixelColor(0, 0).alpha(), 0) << "the corners are cut away";
    EXPECT_EQ(loaded->toImage().pixelColor(32, 32), QColor(Qt::red));

    EXPECT_TRUE(load(loader, "file:///etc/hostname")->isNull());
    EXPECT_TRUE(load(loader, "")->isNull());
    EXPECT_TRUE(load(loader, QString("http://127.0.0.1:%1/x.png").arg(test::free_loopback_port()))->isNull());
    http_server huge(QByteArray(avatar_loader::size_limit + 4096, 'x'));
    EXPECT_TRUE(load(loader, huge.url())->isNull());
}

TEST(AvatarLoader, ASilentHostNeverFreezesTheLoop)
{
    avatar_loader loader;
    http_server silent{QByteArray()};
    bool answered = false;
    loader.load(silent.url(), 64, [&](const QPixmap&) { answered = true; });
    // While the host says nothing, the event loop keeps serving everything else.
    int ticks = 0;
    QTimer ticking;
    QObject::connect(&ticking, &QTimer::timeout, [&] { ++ticks; });
    ticking.start(10);
    EXPECT_TRUE(pump_until([&] { return ticks >= 20; }, 5s));
    EXPECT_FALSE(answered);
    // A newer load replaces it.
    http_server picture(png(10, 10));
    auto loaded = load(loader, picture.url());
    ASSERT_TRUE(loaded);
    EXPECT_FALSE(loaded->isNull());
}

} // namespace
} // namespace orbweave::ui
