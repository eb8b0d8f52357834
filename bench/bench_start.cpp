// SPDX-License-Identifier: MIT
// Measures how long the server itself takes to start a session. Usage: bench_start REPEATS FIRST_DISPLAY
//
// The "start-agent" and "start-app" on the search path should be ready at once. The fixed waits of the server are
// subtracted; it sleeps nowhere else. Prints one line of JSON.
#include "base/logging.h"
#include "live/sessionstore.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTemporaryDir>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <vector>

#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

qint64 sleptNs = 0; ///< on the main thread, the only one that sleeps

class StandardError final : public Logging
{
public:
    void write(int level, const QString &text) override
    {
        std::fprintf(stderr, "%s\n", qPrintable(formatLine(level, text)));
    }
};

double medianMs(std::vector<qint64> nanoseconds)
{
    std::sort(nanoseconds.begin(), nanoseconds.end());
    return static_cast<double>(nanoseconds[nanoseconds.size() / 2]) / 1e6;
}

double worstMs(const std::vector<qint64> &nanoseconds)
{
    return static_cast<double>(*std::max_element(nanoseconds.begin(), nanoseconds.end())) / 1e6;
}

} // namespace

/** Replaces the function of the C library and adds up how long the caller really slept. */
extern "C" int nanosleep(const timespec *time, timespec *left)
{
    QElapsedTimer timer;
    timer.start();
    errno = ::clock_nanosleep(CLOCK_MONOTONIC, 0, time, left);
    sleptNs += timer.nsecsElapsed();
    return errno == 0 ? 0 : -1;
}

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    const QStringList arguments = application.arguments();
    if (arguments.size() != 3) {
        std::fprintf(stderr, "Usage: bench_start REPEATS FIRST_DISPLAY\n");
        return 2;
    }
    StandardError logger;
    Logging::setInstance(&logger);
    const QTemporaryDir root;
    const quint16 firstDisplay = arguments.at(2).toUShort();
    SessionStore store(root.path(), firstDisplay, static_cast<quint16>(firstDisplay + 20), QString());
    std::vector<qint64> all;
    std::vector<qint64> own;
    for (int repeat = 0; repeat < arguments.at(1).toInt(); ++repeat) {
        const QString id = u"%1"_s.arg(repeat, 32, 16, QChar(u'0'));
        QString password;
        quint16 port = 0;
        sleptNs = 0;
        QElapsedTimer timer;
        timer.start();
        const int code = store.start(id, u"true"_s, u"1280x800"_s, password, port);
        all.push_back(timer.nsecsElapsed());
        own.push_back(all.back() - sleptNs);
        if (code != 0 || store.terminate(id) != 0) {
            std::fprintf(stderr, "A session did not start or end: %d\n", code);
            return 1;
        }
    }
    std::printf(R"({"median_ms":%.1f,"own_median_ms":%.1f,"own_worst_ms":%.1f})"
                "\n",
                medianMs(all), medianMs(own), worstMs(own));
    return 0;
}
