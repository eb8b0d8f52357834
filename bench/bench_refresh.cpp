// SPDX-License-Identifier: MIT
// What one refresh pass over N sessions costs. Usage: bench_refresh N socket|log [PASSES]
//
// The sessions are real directories with a live process each; in socket mode a thread answers for all agents.
#include "engine/session.h"
#include "engine/sessionfiles.h"
#include "engine/sessionid.h"
#include "live/sessionstore.h"
#include "server/logging.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QTemporaryDir>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr quint16 kFirstDisplay = 18000;
constexpr const char *kState =
    R"({"Clients":1,"LastConnect":"2026-01-31T12:00:00","LastDisconnect":"",)"
    R"("Passwords":[],"ScreenHeight":800,"ScreenWidth":1280,"Started":"2026-01-31T11:59:00"})";

class StandardError final : public Logging
{
public:
    void write(int level, const QString &text) override
    {
        std::fprintf(stderr, "%s\n", qPrintable(formatLine(level, text)));
    }
};

pid_t startProcess(const QString &directory)
{
    QDir::setCurrent(directory); // before the fork, so that the process is there from its first moment
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        for (;;) {
            ::pause();
        }
    }
    return pid;
}

void writeFile(const QString &path, const QString &text)
{
    QString error;
    if (!writeTextFile(path, text, &error)) {
        qFatal("%s", qPrintable(error));
    }
}

void makeSession(const QString &root, int number, bool withLog)
{
    const QString directory = sessionDirectory(root, u"%1"_s.arg(number, 32, 16, QChar(u'0')));
    QDir().mkpath(directory);
    const QDir files(directory);
    writeFile(files.filePath(SessionFile::kDisplay), QString::number(kFirstDisplay + number));
    writeFile(files.filePath(SessionFile::kWindowMode), u"desktop"_s);
    writeFile(files.filePath(SessionFile::kName), u"xterm"_s);
    writeFile(files.filePath(SessionFile::kMonitorPid), QString::number(startProcess(directory)));
    if (withLog) {
        writeFile(files.filePath(SessionFile::kServerLog), u"RDP initialized at '2026-01-31T11:59:00'\n"
                                                           "Screen resized to '1280x800'\n"_s);
    }
}

int listenAsAgent(quint16 display)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const QByteArray path = QFile::encodeName(agentSocketPath(display));
    ::unlink(path.constData());
    std::copy(path.cbegin(), path.cend(), address.sun_path);
    const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (::bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 || ::listen(listener, 16) != 0) {
        qFatal("Failed to listen on %s", path.constData());
    }
    return listener;
}

[[noreturn]] void answerForAgents(std::vector<pollfd> listeners)
{
    for (;;) {
        ::poll(listeners.data(), listeners.size(), -1);
        for (const pollfd &listener : listeners) {
            if ((listener.revents & POLLIN) != 0) {
                const int client = ::accept4(listener.fd, nullptr, nullptr, SOCK_CLOEXEC);
                [[maybe_unused]] const ssize_t written =
                    ::write(client, kState, std::char_traits<char>::length(kState));
                ::close(client);
            }
        }
    }
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    if (argc < 3) {
        std::fprintf(stderr, "Usage: bench_refresh N socket|log [PASSES]\n");
        return 2;
    }
    const int sessions = std::atoi(argv[1]);
    const bool socketMode = application.arguments().at(2) == "socket"_L1;
    const int passes = argc > 3 ? std::atoi(argv[3]) : 50;

    StandardError logger;
    Logging::setInstance(&logger);
    const QTemporaryDir root;
    std::vector<pollfd> listeners;
    for (int number = 0; number < sessions; ++number) {
        makeSession(root.path(), number, !socketMode);
        if (socketMode) {
            listeners.push_back({listenAsAgent(static_cast<quint16>(kFirstDisplay + number)), POLLIN, 0});
        }
    }
    if (socketMode) {
        std::thread(answerForAgents, listeners).detach();
    }

    SessionStore store(root.path(), 0, 0, QString());
    std::vector<qint64> microseconds;
    QList<SessionInfo> list;
    for (int pass = 0; pass < passes; ++pass) {
        QElapsedTimer timer;
        timer.start();
        store.refreshAll(list);
        microseconds.push_back(timer.nsecsElapsed() / 1000);
    }
    for (int number = 0; socketMode && number < sessions; ++number) {
        QFile::remove(agentSocketPath(static_cast<quint16>(kFirstDisplay + number)));
    }
    std::sort(microseconds.begin(), microseconds.end());
    std::printf("%lld sessions listed, %s mode: median %lld us, worst %lld us a pass\n",
                static_cast<long long>(list.size()), socketMode ? "socket" : "log",
                static_cast<long long>(microseconds[microseconds.size() / 2]),
                static_cast<long long>(microseconds.back()));
    std::fflush(stdout);
    ::_exit(0); // the answering thread has no end of its own
}
