// SPDX-License-Identifier: MIT
#include "base/instancefiles.h"
#include "contract/application.h"
#include "server/daemon.h"
#include "server/qtmessages.h"
#include "server/qtsinglecoreapplication.h"
#include "server/server.h"
#include "server/startupfailure.h"
#include "support/processhardening.h"

#include <QThreadPool>

#include <algorithm>
#include <optional>

#include <sys/stat.h>

namespace {

/** Requests wait for agents on pool threads, so even a machine with one processor needs several. */
constexpr int kMinPoolThreads = 4;

/**
 * While it exists, a new application object uses Qt's own event loop. GLib's makes a system call for each posted event,
 * and a request posts several. The variable is removed again, so that the programs that we start do not inherit it.
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
    disableCoreFiles();
    disableInspection();
    QString error;
    if (!becomeDaemon(&error)) {
        return reportStartupFailure(error);
    }
    ::umask(077);
    logQtMessages();
    std::optional<WithoutGlib> ownLoop(std::in_place);
    QtSingleCoreApplication application(serverInstanceId(), argc, argv);
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
