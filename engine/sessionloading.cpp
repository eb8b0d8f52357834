// SPDX-License-Identifier: MIT
#include "engine/sessionloading.h"

#include "base/logging.h"
#include "contract/sessionerror.h"
#include "engine/session.h"
#include "engine/sessionfiles.h"

#include <QDir>

using namespace Qt::StringLiterals;

int loadSession(Session *session, const QString &directory, bool *isTransientError)
{
    const QDir files(directory);
    if (!files.exists()) {
        logMessage(LogWarning, u"The directory \"%1\" does not exist"_s.arg(directory));
        return NotASession;
    }

    Session loaded;
    QString error;
    if (!readDisplayFile(files.filePath(SessionFile::kDisplay), &loaded.display, &error, isTransientError) ||
        !readWordFile(files.filePath(SessionFile::kWindowMode), &loaded.windowMode, &error, isTransientError) ||
        !readWordFile(files.filePath(SessionFile::kName), &loaded.name, &error, isTransientError) ||
        !readNumberFile(files.filePath(SessionFile::kMonitorPid), &loaded.monitorPid, &error, isTransientError)) {
        logMessage(LogWarning, error);
        return ReadFailed;
    }
    loaded.directory = directory;
    loaded.logStamp = epoch();
    *session = loaded;
    return SessionOk;
}
