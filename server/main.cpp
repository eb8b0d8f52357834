// SPDX-License-Identifier: MIT
#include "contract/application.h"
#include "server/daemon.h"
#include "server/qtmessages.h"
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
    logQtMessages();
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
