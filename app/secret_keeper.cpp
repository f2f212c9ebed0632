#include "app/secret_keeper.hpp"

#include "core/log.hpp"

#include <qt6keychain/keychain.h>

#include <QMetaObject>

namespace orbweave::app {

namespace {
const QString keyring_service = QStringLiteral("orbweave");
} // namespace

secret_keeper::secret_keeper(preferences& preferences) : preferences_(preferences) {}

void secret_keeper::load(std::function<void()> ready)
{
    auto* job = new QKeychain::ReadPasswordJob(keyring_service, this);
    job->setKey(keys::secret);
    connect(job, &QKeychain::Job::finished, this, [this, job, ready = std::move(ready)] {
        if (job->error() == QKeychain::NoError) {
            std::lock_guard<std::mutex> lock(mutex_);
            secret_ = job->textData().toStdString();
        } else if (job->error() != QKeychain::EntryNotFound) {
            fall_back(job->errorString());
            std::lock_guard<std::mutex> lock(mutex_);
            secret_ = preferences_.secret().toStdString();
        }
        ready();
    });
    job->start();
}

void secret_keeper::fall_back(const QString& why)
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!keyring_)
            return;
        keyring_ = false;
    }
    log::line("No keyring answers (" + why.toStdString() +
              "); the secret is kept in the preferences file, readable by this user only");
}

bool secret_keeper::in_keyring() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return keyring_;
}

std::string secret_keeper::secret() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return secret_;
}

void secret_keeper::store(const std::string& secret)
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        secret_ = secret;
    }
    // The client's thread calls this; the keyring is reached from ours.
    QMetaObject::invokeMethod(this, [this, secret] { write(secret); }, Qt::AutoConnection);
}

void secret_keeper::write(const std::string& secret)
{
    if (!in_keyring()) {
        preferences_.set_secret(QString::fromStdString(secret));
        return;
    }
    auto* job = new QKeychain::WritePasswordJob(keyring_service, this);
    job->setKey(keys::secret);
    job->setTextData(QString::fromStdString(secret));
    connect(job, &QKeychain::Job::finished, this, [this, job, secret] {
        if (job->error() == QKeychain::NoError)
            return;
        fall_back(job->errorString());
        preferences_.set_secret(QString::fromStdString(secret));
    });
    job->start();
}

void secret_keeper::erase()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        secret_.clear();
    }
    preferences_.set_secret(QString());
    auto* job = new QKeychain::DeletePasswordJob(keyring_service, this);
    job->setKey(keys::secret);
    job->start();
}

} // namespace orbweave::app
