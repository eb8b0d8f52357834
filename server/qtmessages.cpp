// SPDX-License-Identifier: MIT
#include "server/qtmessages.h"

#include "base/logging.h"
#include "server/startupfailure.h"

#include <QCoreApplication>

namespace {

/** Called on any thread. Reads the logger once, because the main thread may uninstall it at the same time. */
void logFatalMessage(const QString &text)
{
    if (Logging *logger = Logging::instance()) {
        logger->log(LogCritical, text);
    } else {
        (void) reportStartupFailure(text);
    }
}

void logQtMessage(QtMsgType type, const QMessageLogContext &, const QString &text)
{
    if (type == QtFatalMsg) {
        logFatalMessage(text); // at once, because the process ends before an event is handled
        return;
    }
    if (!qApp) {
        return;
    }
    // Queued, because Qt may report something while the logger writes. The logger may be gone when the event is
    // handled.
    QMetaObject::invokeMethod(
        qApp,
        [text] {
            if (Logging::instance()) {
                logMessage(LogDebug1, text);
            }
        },
        Qt::QueuedConnection);
}

} // namespace

void logQtMessages()
{
    qInstallMessageHandler(logQtMessage);
}
