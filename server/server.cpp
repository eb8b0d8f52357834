// SPDX-License-Identifier: MIT
#include "server/server.h"

#include "base/idletimer.h"
#include "base/signalcatcher.h"
#include "contract/userdirectory.h"
#include "discovery/udptalker.h"
#include "engine/sessionfiles.h"
#include "live/sessionstore.h"
#include "rpc/sslserver.h"
#include "server/daemon.h"
#include "server/sslresponder.h"
#include "server/startupfailure.h"
#include "server/threadpool.h"
#include "support/credentials.h"
#include "workers/sessionupdater.h"
#include "workers/suspendchecker.h"

#include <QCoreApplication>
#include <QDir>
#include <QHostAddress>
#include <QSslSocket>
#include <QUdpSocket>

#include <cerrno>
#include <chrono>
#include <csignal>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

/** Two files of this size hold weeks of Info, or days of what strangers cause at most. */
constexpr qint64 kMaxLogBytes = 16 * 1024 * 1024;

} // namespace

Server::Server() = default;
Server::~Server() = default;

int Server::run()
{
    QString error;
    if (!openLog(&error)) {
        return reportStartupFailure(error);
    }
    if (!start(&error)) {
        const int code = reportStartupFailure(error);
        logMessage(LogCritical, error);
        return code;
    }
    armIdleTimer();
    logMessage(LogInfo, u"Starting the server version %1"_s.arg(QCoreApplication::applicationVersion()));
    const int code = QCoreApplication::exec();
    logger.tellStrangerLines();
    logMessage(LogInfo, u"Exiting the server"_s);
    return code;
}

bool Server::openLog(QString *error)
{
    settings = Settings::read();
    logger.setMaxBytes(kMaxLogBytes);
    if (!logger.open(userFile(UserFile::kServerLog), error)) {
        return false;
    }
    Logging::setInstance(&logger);
    logger.setLevel(Logging::levelFromName(settings.logLevel));
    QObject::connect(&minute, &QTimer::timeout, &logger, [this] { logger.tellStrangerLines(); });
    minute.start(1min);
    return true;
}

bool Server::start(QString *error)
{
    if (!writePidFile(error) || !provideCertificates(error) || !createSessionDirectory(error)) {
        return false;
    }
    if (!startPoolThreads(error)) {
        return false;
    }
    startWorkers();
    return readCredentials(error) && listenForClients(error) && writePortFile(error) && startDiscovery(error) &&
           setUpSignals(error) && closeStartupChannel(error);
}

bool Server::writePidFile(QString *error)
{
    logMessage(LogDebug1, u"Writing the pid file"_s);
    pidFile.setPath(userFile(UserFile::kServerPid));
    return writeNumberFile(pidFile.path(), QCoreApplication::applicationPid(), error);
}

bool Server::provideCertificates(QString *error)
{
    logMessage(LogDebug1, u"Creating certificate files"_s);
    certificateFiles.emplace(certificatePath(), keyPath());
    return certificateFiles->createIfMissing(error);
}

bool Server::createSessionDirectory(QString *error)
{
    logMessage(LogDebug1, u"Creating the session directory"_s);
    const QString path = sessionsPath();
    if (!QDir(path).exists() && !QDir().mkpath(path)) {
        *error = u"Failed to create the session directory \"%1\""_s.arg(path);
        return false;
    }
    return true;
}

void Server::startWorkers()
{
    logMessage(LogDebug1, u"Initializing data stores"_s);
    // Without discovery no other host sees the sessions, so their URL is useless.
    const QString location = settings.broadcastPort != 0 ? settings.sciUrl : QString();
    store = std::make_unique<SessionStore>(sessionsPath(), settings.displayBase, settings.displayEnd(), location);
    peersFile.setPath(userFile(UserFile::kServerPeers));
    store->keepPeerFile(peersFile.path());
    QList<SessionInfo> ignored;
    store->refreshAll(ignored);
    updater = std::make_unique<SessionUpdater>(store.get(), nullptr);
    updater->start(QThread::LowPriority);
    checker = std::make_unique<SuspendChecker>(store.get(), settings.suspendTimeout, nullptr);
    checker->start(QThread::LowPriority);
}

bool Server::readCredentials(QString *error)
{
    logMessage(LogDebug1, u"Reading the certificate files"_s);
    if (!QSslSocket::supportsSsl()) {
        // Stop here: without the plugin no file can be read, and a good new pair would be removed.
        *error = u"Failed to load Qt's plugin for TLS: it is missing, or descriptors or memory are short"_s;
        return false;
    }
    if (::readCredentials(keyPath(), certificatePath(), &privateKey, &certificate, error)) {
        if (const QString exposure = keyExposure(keyPath()); !exposure.isEmpty()) {
            logMessage(LogWarning, exposure);
        }
        return true;
    }
    // On a full disk openssl leaves empty files and reports success. They would make every later start fail.
    certificateFiles->removeCreated();
    return false;
}

bool Server::listenForClients(QString *error)
{
    logMessage(LogDebug1, u"Creating the SSL socket"_s);
    listener = std::make_unique<SslServer>();
    listener->setPrivateKey(privateKey);
    listener->setLocalCertificate(certificate);
    if (!listener->listen(QHostAddress(QHostAddress::AnyIPv4), settings.listenPort)) {
        *error = u"Failed to listen for SSL connections on port \"%1\": %2"_s.arg(QString::number(settings.listenPort),
                                                                                  listener->errorString());
        return false;
    }
    factory.emplace(store.get(), updater.get());
    responder = std::make_unique<SslResponder>(&*factory, nullptr);
    QObject::connect(listener.get(), &SslServer::newConnection, responder.get(), &SslResponder::newConnection);
    return true;
}

bool Server::writePortFile(QString *error)
{
    logMessage(LogDebug1, u"Writing the port file"_s);
    portFile.setPath(userFile(UserFile::kServerPort));
    return writeNumberFile(portFile.path(), listener->serverPort(), error);
}

bool Server::startDiscovery(QString *error)
{
    logMessage(LogDebug1, u"Creating the UDP socket"_s);
    udpSocket = std::make_unique<QUdpSocket>();
    if (settings.broadcastPort != 0 &&
        !udpSocket->bind(settings.broadcastPort, QUdpSocket::ShareAddress | QUdpSocket::ReuseAddressHint)) {
        *error = u"Failed to listen for UDP connections on port \"%1\": %2"_s.arg(
            QString::number(settings.broadcastPort), udpSocket->errorString());
        return false;
    }
    QHostAddress broadcastAddress;
    if (!broadcastAddress.setAddress(settings.broadcastAddress)) {
        *error = u"Invalid broadcast address \"%1\""_s.arg(settings.broadcastAddress);
        return false;
    }
    talker = std::make_unique<UdpTalker>(udpSocket.get(), broadcastAddress, settings.broadcastPort,
                                         listener->serverPort(), store.get(), keyPath(), certificatePath(), nullptr);
    if (settings.broadcastPort != 0) {
        QObject::connect(updater.get(), &SessionUpdater::sendUpdates, talker.get(), &UdpTalker::sendUpdate);
        talker->sendHello();
    }
    return true;
}

bool Server::setUpSignals(QString *error)
{
    logMessage(LogDebug1, u"Setting up signal handlers"_s);
    int ends[2] = {-1, -1};
    if (!createSignalPair(ends)) {
        *error = u"Failed to setup signal handling: %1"_s.arg(qt_error_string(errno));
        return false;
    }
    setSignalWriteEnd(ends[0]);
    signalCatcher = std::make_unique<SignalCatcher>(ends[1]);
    QObject::connect(signalCatcher.get(), &SignalCatcher::gotTERM, qApp, &QCoreApplication::quit);
    QObject::connect(signalCatcher.get(), &SignalCatcher::gotINT, qApp, &QCoreApplication::quit);
    QObject::connect(signalCatcher.get(), &SignalCatcher::gotHUP, &logger, &FileLogging::reopen);
    catchSignal(SIGTERM);
    catchSignal(SIGHUP);
    catchSignal(SIGINT);
    return true;
}

QString Server::userFile(QLatin1StringView name) const
{
    return QDir(settings.userPath).filePath(name);
}

QString Server::certificatePath() const
{
    return userFile(UserFile::kCertificate);
}

QString Server::keyPath() const
{
    return userFile(UserFile::kPrivateKey);
}

QString Server::sessionsPath() const
{
    return userFile(UserFile::kSessions);
}
