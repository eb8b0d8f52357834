// SPDX-License-Identifier: MIT
// Plays N sessions and their agents. Usage: bench_agents ROOT N socket|log FIRST_DISPLAY
//
// Prints "ready" when all of them exist. Each line of its input is the number of clients that all agents report from
// then on, and is answered by an empty line. Ends with all sessions at the end of its input.
#include "bench/fakesessions.h"

#include <QCoreApplication>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <optional>
#include <string>

#include <unistd.h>

using namespace Qt::StringLiterals;

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    const QStringList arguments = application.arguments();
    if (arguments.size() != 5) {
        std::fprintf(stderr, "Usage: bench_agents ROOT N socket|log FIRST_DISPLAY\n");
        return 2;
    }
    const auto mode = arguments.at(3) == "socket"_L1 ? FakeSessions::Mode::Socket : FakeSessions::Mode::Log;
    std::optional<FakeSessions> sessions(std::in_place, arguments.at(1), arguments.at(2).toInt(), mode,
                                         arguments.at(4).toUShort());
    std::cout << "ready" << std::endl;
    for (std::string line; std::getline(std::cin, line);) {
        sessions->setClients(std::atoi(line.c_str()));
        std::cout << std::endl;
    }
    sessions.reset();
    ::_exit(0); // because the answering thread never ends
}
