// SPDX-License-Identifier: MIT
// An agent that is ready at once, so that the time of a start is the time of the server. Installed as "start-agent" and
// run in a session directory. Reports its state on the socket, adds a password on SIGUSR1, exits with 0 on SIGTERM.
#include "contract/sessiondirectory.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <poll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

std::string passwords;

void writeNumber(QLatin1StringView name, int number)
{
    std::FILE *file = std::fopen(name.data(), "w");
    std::fprintf(file, "%d", number);
    std::fclose(file);
}

int displayNumber()
{
    int number = 0;
    std::FILE *file = std::fopen(SessionFile::kDisplay.data(), "r");
    const int read = std::fscanf(file, "%d", &number);
    std::fclose(file);
    if (read != 1) {
        std::exit(1);
    }
    return number;
}

int listenForServer(sockaddr_un *address)
{
    std::string path(kAgentSocketForm.data());
    path.replace(path.find("%1"), 2, std::to_string(displayNumber()));
    address->sun_family = AF_UNIX;
    path.copy(address->sun_path, sizeof address->sun_path - 1);
    ::unlink(address->sun_path);
    const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (::bind(listener, reinterpret_cast<sockaddr *>(address), sizeof *address) != 0 || ::listen(listener, 16) != 0) {
        std::exit(1);
    }
    return listener;
}

void tellState(int listener)
{
    const int client = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    ::dprintf(client,
              R"({"Clients":0,"Passwords":[%s],"ScreenHeight":800,"ScreenWidth":1280,)"
              R"("Started":"2026-01-31T11:59:00"})",
              passwords.c_str());
    ::close(client);
}

/** Handles one event. False if the agent has to end. */
bool takeSignal(int descriptor)
{
    signalfd_siginfo info = {};
    if (::read(descriptor, &info, sizeof info) != sizeof info || info.ssi_signo == SIGTERM) {
        return false;
    }
    passwords = R"("12345678")";
    return true;
}

} // namespace

int main()
{
    sigset_t handled;
    ::sigemptyset(&handled);
    ::sigaddset(&handled, SIGUSR1);
    ::sigaddset(&handled, SIGTERM);
    ::sigprocmask(SIG_BLOCK, &handled, nullptr);
    const int taken = ::signalfd(-1, &handled, SFD_CLOEXEC);
    sockaddr_un address = {};
    const int listener = listenForServer(&address);
    writeNumber(SessionFile::kServerPid, ::getpid());
    for (;;) {
        pollfd waiting[] = {{taken, POLLIN, 0}, {listener, POLLIN, 0}};
        ::poll(waiting, 2, -1);
        if ((waiting[0].revents & POLLIN) != 0 && !takeSignal(taken)) {
            break;
        }
        if ((waiting[1].revents & POLLIN) != 0) {
            tellState(listener);
        }
    }
    ::unlink(address.sun_path);
    writeNumber(SessionFile::kServerExit, 0);
}
