// SPDX-License-Identifier: MIT
// Measures a refresh pass over N sessions. Usage: bench_refresh N socket|log FIRST_DISPLAY [PASSES]
// Prints one line of JSON.
#include "base/logging.h"
#include "bench/fakesessions.h"
#include "live/sessionstore.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTemporaryDir>

#include <algorithm>
#include <cstdio>
#include <optional>
#include <vector>

#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

class StandardError final : public Logging
{
public:
    void write(int level, const QString &text) override
    {
        std::fprintf(stderr, "%s\n", qPrintable(formatLine(level, text)));
    }
};

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    const QStringList arguments = application.arguments();
    if (arguments.size() < 4) {
        std::fprintf(stderr, "Usage: bench_refresh N socket|log FIRST_DISPLAY [PASSES]\n");
        return 2;
    }
    const auto mode = arguments.at(2) == "socket"_L1 ? FakeSessions::Mode::Socket : FakeSessions::Mode::Log;
    const int passes = arguments.size() > 4 ? arguments.at(4).toInt() : 50;

    StandardError logger;
    Logging::setInstance(&logger);
    const QTemporaryDir root;
    std::optional<FakeSessions> sessions(std::in_place, root.path(), arguments.at(1).toInt(), mode,
                                         arguments.at(3).toUShort());
    SessionStore store(root.path(), 0, 0, QString());
    std::vector<qint64> microseconds;
    QList<SessionInfo> list;
    for (int pass = 0; pass < passes; ++pass) {
        QElapsedTimer timer;
        timer.start();
        store.refreshAll(list);
        microseconds.push_back(timer.nsecsElapsed() / 1000);
    }
    sessions.reset();
    std::sort(microseconds.begin(), microseconds.end());
    std::printf(R"({"sessions":%lld,"median_ms":%.3f,"worst_ms":%.3f})"
                "\n",
                static_cast<long long>(list.size()),
                static_cast<double>(microseconds[microseconds.size() / 2]) / 1000.0,
                static_cast<double>(microseconds.back()) / 1000.0);
    std::fflush(stdout);
    ::_exit(0); // because the answering thread never ends
}
