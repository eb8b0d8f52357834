// SPDX-License-Identifier: MIT
#include "base/logging.h"
#include "contract/application.h"
#include "server/daemon.h"
#include "server/qtsinglecoreapplication.h"
#include "server/server.h"
#include "server/startupfailure.h"

#include <QThreadPool>

#include <algorithm>
#include <optional>

#include <sys/stat.h>

using namespace Qt::StringLiterals;

namespace {

/** Requests wait for agents on pool threads, so a machine with few processors still needs some. */
constexpr int kMinPoolThreads = 4;

/**
 * What Qt itself has to say goes to the log: standard error belongs to the one line of a failed start-up. Queued,
 * because Qt may speak up while the logger is writing; but Qt's last words would be lost in a queue.
 */
void logQtMessage(QtMsgType type, const QMessageLogContext &, const QString &text)
{
    if (type == QtFatalMsg) {
        if (Logging::instance()) {
            logMessage(LogCritical, text);
        } else {
            (void) reportStartupFailure(text);
        }
    } else if (qApp && Logging::instance()) {
        QMetaObject::invokeMethod(
            qApp, [text] { logMessage(LogDebug1, text); }, Qt::QueuedConnection);
    }
}

/**
 * As long as it lives, an application object that is made takes Qt's own event loop: GLib's makes a system call for
 * each event that is posted, of which a request has several. The programs that we start are to see nothing of it.
 */
class WithoutGlib final
{
public:
    WithoutGlib()
    {
        if (isOurs) {
            qputenv(kVariable, "1");
        }
    }
    ~WithoutGlib()
    {
        if (isOurs) {
            qunsetenv(kVariable);
        }
    }
    Q_DISABLE_COPY_MOVE(WithoutGlib)

private:
    static constexpr const char *kVariable = "QT_NO_GLIB";
    const bool isOurs = !qEnvironmentVariableIsSet(kVariable);
};

} // namespace

int main(int argc, char **argv)
{
    QString error;
    if (!becomeDaemon(&error)) {
        return reportStartupFailure(error);
    }
    ::umask(077);
    qInstallMessageHandler(logQtMessage);
    std::optional<WithoutGlib> ownLoop(std::in_place);
    QtSingleCoreApplication application(u"zarvo_server-%1"_s.arg(qEnvironmentVariable("USER")), argc, argv);
    ownLoop.reset();
    nameApplication();
    if (application.isRunning()) {
        return 0;
    }
    QThreadPool *pool = QThreadPool::globalInstance();
    pool->setMaxThreadCount(std::max(pool->maxThreadCount(), kMinPoolThreads));

    Server server;
    return server.run();
}
