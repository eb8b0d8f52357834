// SPDX-License-Identifier: MIT
#include "live/sessionscan.h"

#include "base/logging.h"
#include "contract/sessionerror.h"
#include "contract/sessionid.h"
#include "engine/session.h"
#include "engine/sessionfiles.h"
#include "engine/sessionloading.h"
#include "engine/supervision.h"
#include "live/sessionregistry.h"

#include <QDir>
#include <QFile>
#include <QStringList>
#include <QThread>

#include <cerrno>
#include <memory>
#include <optional>

#include <fcntl.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr int kMaxTries = 3; ///< of reading a directory or file, while the error is transient
constexpr int kRetryPauseMs = 200;

/**
 * The paths of all directories in this one; nothing after a transient error, which is logged. QDir alone would list an
 * empty directory then.
 */
std::optional<QStringList> directoriesIn(const QString &path)
{
    const int descriptor = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor != -1) {
        ::close(descriptor);
    } else if (const QString reason = qt_error_string(errno); isTransient(reason)) {
        logMessage(LogWarning, u"Failed to open the directory \"%1\": %2"_s.arg(path, reason));
        return std::nullopt;
    }
    const QDir directory(path, QString(), QDir::Unsorted, QDir::Dirs | QDir::Hidden | QDir::NoDotAndDotDot);
    QStringList paths;
    for (const QString &name : directory.entryList()) {
        paths.append(directory.filePath(name));
    }
    return paths;
}

/** @return the directories with a transient error */
QStringList load(const QStringList &paths, SessionRegistry *registry)
{
    QStringList toRetry;
    for (const QString &path : paths) {
        const QString id = sessionIdFromPath(path);
        auto session = std::make_unique<Session>();
        bool isTransientError = false;
        if (id.isNull() || loadSession(session.get(), path, &isTransientError) != SessionOk ||
            refreshSession(session.get()) != SessionOk) {
            if (isTransientError) {
                toRetry.append(path);
            }
            continue;
        }
        // Two directories may have one id, because a suffix of the name is ignored.
        registry->addFreeSession(id, std::move(session));
    }
    return toRetry;
}

} // namespace

/** Without the retry a session would stay unlisted until the next server starts. */
void scanSessions(const QString &root, SessionRegistry *registry)
{
    std::optional<QStringList> paths;
    for (int tries = 0; tries < kMaxTries; ++tries) {
        if (tries > 0) {
            QThread::msleep(kRetryPauseMs);
        }
        if (!paths) {
            paths = directoriesIn(root);
        }
        if (paths) {
            paths = load(*paths, registry);
            if (paths->isEmpty()) {
                return;
            }
        }
    }
}
