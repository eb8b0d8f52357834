// SPDX-License-Identifier: MIT
#include "agent/confined/doorservant.h"

#include "agent/confined/confinement.h"
#include "agent/confined/doorpackets.h"
#include "agent/confined/packet.h"
#include "agent/confined/tlsidentity.h"
#include "agent/confined/visitor.h"

#include <openssl/ssl.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <map>
#include <string>
#include <vector>

#include <poll.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

/** A descriptor that can be read when a child has ended. */
int childEvents()
{
    sigset_t set;
    ::sigemptyset(&set);
    ::sigaddset(&set, SIGCHLD);
    ::sigprocmask(SIG_BLOCK, &set, nullptr);
    return ::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
}

class DoorServant final
{
public:
    explicit DoorServant(int agent_)
        : agent(agent_)
        , ended(childEvents())
    {
    }

    int run()
    {
        ::signal(SIGPIPE, SIG_IGN);
        OPENSSL_init_ssl(OPENSSL_INIT_LOAD_SSL_STRINGS | OPENSSL_INIT_NO_LOAD_CONFIG, nullptr);
        const char flags = static_cast<char>(confinement.confineServant());
        if (!sendPacket(agent, std::string{DoorPacket::kConfined, flags})) {
            return 1;
        }
        while (takePacket()) {
        }
        return 0;
    }

private:
    /** @return false when the agent is gone */
    bool takePacket()
    {
        std::array<pollfd, 2> entries = {{{agent, POLLIN, 0}, {ended, POLLIN, 0}}};
        if (::poll(entries.data(), entries.size(), -1) == -1) {
            return errno == EINTR;
        }
        if (entries[1].revents != 0) {
            reap();
        }
        if (entries[0].revents == 0) {
            return true;
        }
        std::vector<int> descriptors;
        const std::optional<std::string> packet = receivePacket(agent, &descriptors);
        if (packet) {
            handle(*packet, descriptors);
        }
        for (const int descriptor : descriptors) {
            ::close(descriptor);
        }
        return packet.has_value();
    }

    void handle(const std::string &packet, const std::vector<int> &descriptors)
    {
        if (packet.front() == DoorPacket::kCertificate) {
            identity = TlsIdentity::fromPem(std::string_view(packet).substr(1));
        } else if (const std::optional<std::uint32_t> id = idToEnd(packet)) {
            if (const auto found = visitors.find(*id); found != visitors.end()) {
                ::kill(found->second, SIGKILL); // not reaped yet, so the pid is still this visitor's
            }
        } else if (const std::optional<VisitorOrder> order = VisitorOrder::fromPacket(packet);
                   order && descriptors.size() == 2) {
            receive(*order, descriptors[0], descriptors[1]);
        }
    }

    void receive(const VisitorOrder &order, int client, int control)
    {
        const pid_t child = ::fork();
        if (child > 0) {
            visitors[order.id] = child;
        }
        if (child != 0) {
            return; // without a process the control socket closes, and the agent drops the visitor
        }
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        ::close(agent);
        ::close(ended);
        if (confinement.confineVisitor()) {
            serveVisitor(client, control, order, identity.get());
        }
        ::_exit(0);
    }

    void reap()
    {
        signalfd_siginfo event = {};
        while (::read(ended, &event, sizeof event) > 0) {
        }
        for (pid_t child = ::waitpid(-1, nullptr, WNOHANG); child > 0; child = ::waitpid(-1, nullptr, WNOHANG)) {
            std::erase_if(visitors, [child](const auto &visitor) { return visitor.second == child; });
        }
    }

    const int agent;
    const int ended;
    const Confinement confinement;
    std::unique_ptr<TlsIdentity> identity;
    std::map<std::uint32_t, pid_t> visitors; ///< the processes that are not reaped yet, by the visitor's id
};

} // namespace

int runDoorServant(int agent)
{
    DoorServant servant(agent);
    return servant.run();
}
