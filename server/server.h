// SPDX-License-Identifier: MIT
#pragma once

#include "base/filelogging.h"
#include "base/infofile.h"
#include "base/settings.h"
#include "server/certificatefiles.h"
#include "server/handlerfactory.h"

#include <QSslCertificate>
#include <QSslKey>
#include <QString>

#include <memory>
#include <optional>

class QUdpSocket;
class SessionStore;
class SessionUpdater;
class SignalCatcher;
class SslResponder;
class SslServer;
class SuspendChecker;
class UdpTalker;

/**
 * The server's long-lived objects, in the order in which start-up makes them, and so destroyed in reverse:
 * also when a step of the start-up fails, and then as many as there are. Lives on the main thread, within the
 * application object's life.
 */
class Server final
{
public:
    Server();
    ~Server();
    Q_DISABLE_COPY_MOVE(Server)

    /**
     * Starts everything, serves until the application is told to quit, and returns the process's exit code.
     * What goes wrong before the event loop runs is told on standard error and in the log, in one line.
     */
    [[nodiscard]] int run();

private:
    /** Reads the settings and opens the log, without which nothing else is started. */
    [[nodiscard]] bool openLog(QString *error);
    /** All further steps up to the event loop. */
    [[nodiscard]] bool start(QString *error);

    [[nodiscard]] bool writePidFile(QString *error);
    [[nodiscard]] bool provideCertificates(QString *error);
    [[nodiscard]] bool createSessionDirectory(QString *error);
    void startWorkers();
    [[nodiscard]] bool readCredentials(QString *error);
    [[nodiscard]] bool listenForClients(QString *error);
    [[nodiscard]] bool writePortFile(QString *error);
    [[nodiscard]] bool startDiscovery(QString *error);
    [[nodiscard]] bool setUpSignals(QString *error);

    [[nodiscard]] QString userFile(QLatin1StringView name) const;
    [[nodiscard]] QString certificatePath() const;
    [[nodiscard]] QString keyPath() const;
    [[nodiscard]] QString sessionsPath() const;

    Settings settings{};
    FileLogging logger;
    InfoFile pidFile;
    std::unique_ptr<SessionStore> store;
    std::unique_ptr<SessionUpdater> updater;
    std::unique_ptr<SuspendChecker> checker;
    std::optional<CertificateFiles> certificateFiles;
    QSslKey privateKey;
    QSslCertificate certificate;
    std::unique_ptr<SslServer> listener;
    std::optional<HandlerFactory> factory;
    std::unique_ptr<SslResponder> responder;
    InfoFile portFile;
    std::unique_ptr<QUdpSocket> udpSocket;
    std::unique_ptr<UdpTalker> talker;
    std::unique_ptr<SignalCatcher> signalCatcher;
};
