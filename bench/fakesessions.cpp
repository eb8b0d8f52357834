// SPDX-License-Identifier: MIT
#include "bench/fakesessions.h"

#include "contract/geometry.h"
#include "contract/sessionid.h"
#include "engine/sessionfiles.h"

#include <QByteArray>
#include <QDir>
#include <QFile>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr const char *kState =
    R"({"Clients":%d,"LastConnect":"2026-01-31T12:00:00","LastDisconnect":"",)"
    R"("Passwords":[],"ScreenHeight":800,"ScreenWidth":1280,"Started":"2026-01-31T11:59:00"})";

/** Not qFatal(), because Qt may send its message to the system's journal. */
[[noreturn]] void fail(const char *what, const QByteArray &which)
{
    std::fprintf(stderr, "%s %s: %s\n", what, which.constData(), std::strerror(errno));
    std::exit(1);
}

pid_t startProcess(const QString &directory)
{
    QDir::setCurrent(directory); // before the fork, so that the child works there from the start
    const pid_t pid = ::fork();
    if (pid == -1) {
        fail("Failed to start a process in",
             QFile::encodeName(directory)); // kill(-1) would end all processes
    }
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
        fail("Failed to write", QFile::encodeName(error));
    }
}

} // namespace

FakeSessions::FakeSessions(const QString &root, int count, Mode mode_, quint16 firstDisplay_)
    : mode(mode_)
    , firstDisplay(firstDisplay_)
{
    for (int number = 0; number < count; ++number) {
        makeSession(root, number);
    }
    if (mode == Mode::Socket) {
        ::signal(SIGPIPE, SIG_IGN); // a caller may close before the answer
        std::thread([this] { answer(); }).detach();
    }
}

FakeSessions::~FakeSessions()
{
    for (const pid_t process : processes) {
        ::kill(process, SIGKILL);
        ::waitpid(process, nullptr, 0);
    }
    for (size_t number = 0; number < listeners.size(); ++number) {
        QFile::remove(agentSocketPath(static_cast<quint16>(firstDisplay + number)));
    }
}

void FakeSessions::makeSession(const QString &root, int number)
{
    const auto display = static_cast<quint16>(firstDisplay + number);
    const QString directory = sessionDirectory(root, u"%1"_s.arg(number, 32, 16, QChar(u'0')));
    QDir().mkpath(directory);
    const QDir files(directory);
    writeFile(files.filePath(SessionFile::kDisplay), QString::number(display));
    writeFile(files.filePath(SessionFile::kWindowMode), WindowMode::kDesktop);
    writeFile(files.filePath(SessionFile::kName), u"xterm"_s);
    processes.push_back(startProcess(directory));
    writeFile(files.filePath(SessionFile::kMonitorPid), QString::number(processes.back()));
    if (mode == Mode::Socket) {
        listenAsAgent(display);
    } else {
        writeFile(files.filePath(SessionFile::kServerLog), u"RDP initialized at '2026-01-31T11:59:00'\n"
                                                           "Screen resized to '1280x800'\n"_s);
    }
}

void FakeSessions::listenAsAgent(quint16 display)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const QByteArray path = QFile::encodeName(agentSocketPath(display));
    ::unlink(path.constData());
    std::copy(path.cbegin(), path.cend(), address.sun_path);
    const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (::bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 || ::listen(listener, 16) != 0) {
        fail("Failed to listen on", path);
    }
    listeners.push_back({listener, POLLIN, 0});
}

void FakeSessions::answer()
{
    for (;;) {
        ::poll(listeners.data(), listeners.size(), -1);
        for (const pollfd &listener : listeners) {
            if ((listener.revents & POLLIN) != 0) {
                const int client = ::accept4(listener.fd, nullptr, nullptr, SOCK_CLOEXEC);
                ::dprintf(client, kState, clients.load());
                ::close(client);
            }
        }
    }
}
