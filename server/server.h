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
#include <QTimer>

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
 * The server's long-lived objects. A member uses only members above it, because they are destroyed in reverse order,
 * also if a step of the start-up fails. Lives on the main thread, and is destroyed before the application object.
 */
class Server final
{
public:
    Server();
    ~Server();
    Q_DISABLE_COPY_MOVE(Server)

    /**
     * Starts everything, serves until the application quits, and returns the exit code of the process. If a step of the
     * start-up fails, the reason is written to standard error and to the log, in one line.
     */
    [[nodiscard]] int run();

private:
    /** Reads the settings and opens the log. */
    [[nodiscard]] bool openLog(QString *error);
    /** Does all further steps up to the event loop. */
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
    QTimer minute; ///< tells how many lines of strangers were not written
    InfoFile pidFile;
    InfoFile peersFile; ///< above the store, which writes it
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
