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

/** How often a start-up looks at what the system cannot read at the moment. */
constexpr int kMaxScans = 3;
constexpr int kScanPauseMs = 200; ///< before each further scan

/**
 * The paths of all directories in this one; nothing when the system cannot tell at the moment, which is logged. QDir
 * would list none then.
 */
std::optional<QStringList> directoriesIn(const QString &path)
{
    const int descriptor = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor != -1) {
        ::close(descriptor);
    } else if (const QString reason = qt_error_string(errno); isPassing(reason)) {
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

/** @return those of the directories that may be readable a moment later */
QStringList load(const QStringList &paths, SessionRegistry *registry)
{
    QStringList left;
    for (const QString &path : paths) {
        const QString id = sessionIdFromPath(path);
        auto session = std::make_unique<Session>();
        bool mayPass = false;
        if (id.isNull() || loadSession(session.get(), path, &mayPass) != SessionOk ||
            refreshSession(session.get()) != SessionOk) {
            if (mayPass) {
                left.append(path);
            }
            continue;
        }
        // Two directories may carry one id, because a suffix of the name does not count.
        registry->addFreeSession(id, std::move(session));
    }
    return left;
}

} // namespace

// What the system could not read for a moment is read again, because until the next server nobody would list it.
void scanSessions(const QString &root, SessionRegistry *registry)
{
    std::optional<QStringList> left;
    for (int scan = 0; scan < kMaxScans; ++scan) {
        if (scan > 0) {
            QThread::msleep(kScanPauseMs);
        }
        if (!left) {
            left = directoriesIn(root);
        }
        if (left) {
            left = load(*left, registry);
            if (left->isEmpty()) {
                return;
            }
        }
    }
}
