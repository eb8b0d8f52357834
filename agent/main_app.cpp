// SPDX-License-Identifier: MIT
#include "agent/applications/applicationrequest.h"
#include "agent/session/agentfiles.h"
#include "agent/session/agentoptions.h"
#include "support/processhardening.h"
#include "support/standardstreams.h"

#include <QCoreApplication>

#include <cstdio>

/** Usage: start-app COMMAND, in a session directory. The shell gets the command byte for byte. */
int main(int argc, char **argv)
{
    disableCoreFiles();
    disableInspection();
    ensureStandardStreams();
    const QCoreApplication application(argc, argv);
    if (argc != 2) {
        std::fprintf(stderr, "Usage: start-app COMMAND\n");
        return 2;
    }
    ApplicationRequest request;
    QObject::connect(&request, &ApplicationRequest::finished, &request, [](const QString &error) {
        if (!error.isEmpty()) {
            std::fprintf(stderr, "start-app: %s\n", qPrintable(error));
        }
        QCoreApplication::exit(error.isEmpty() ? 0 : 1);
    });
    quint16 display = 0;
    QString error;
    if (!readDisplayNumber(SessionFile::kDisplay, &display, &error)) {
        std::fprintf(stderr, "start-app: %s\n", qPrintable(error));
        return 1;
    }
    request.send(AgentFile::applicationSocket(display), argv[1]);
    return QCoreApplication::exec();
}
