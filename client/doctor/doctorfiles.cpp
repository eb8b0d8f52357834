// SPDX-License-Identifier: MIT
#include "client/doctor/doctorcheck.h"
#include "client/doctor/portprobe.h"
#include "client/server/certificatepair.h"
#include "client/server/serverconnector.h"
#include "client/server/serverprocess.h"
#include "client/terminal/eventwait.h"
#include "support/filereader.h"
#include "support/pathtrust.h"

#include <QDateTime>
#include <QDeadlineTimer>
#include <QFile>
#include <QFileInfo>
#include <QSslCertificate>

#include <algorithm>
#include <chrono>

#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

constexpr int kMaxPemBytes = 1024 * 1024;
/** Time enough to renew it on all hosts of the user. */
constexpr int kSoonDays = 30;

/** Between two readings of the files of a server that starts or ends. */
constexpr auto kReadInterval = 20ms;

/** Bounds the loop when servers keep starting and ending. */
constexpr int kMaxRounds = 5;

QString octal(mode_t mode)
{
    return QString::number(mode & 07777, 8).rightJustified(4, u'0');
}

QString renewal()
{
    return u"zarvoctl certificate renew"_s;
}

Finding dateFinding(const QByteArray &text, const DoctorInput &input)
{
    const QSslCertificate certificate(text, QSsl::Pem);
    const QDateTime now = QDateTime::currentDateTimeUtc();
    const QString end = certificate.expiryDate().toString(u"yyyy-MM-dd"_s);
    if (certificate.isNull()) {
        return failed(u"\"%1\" holds no certificate"_s.arg(input.files.certificatePath()), renewal());
    }
    if (certificate.effectiveDate() > now) {
        return warning(u"It is valid from %1 on"_s.arg(certificate.effectiveDate().toString(u"yyyy-MM-dd"_s)),
                       u"Set the clock of this host"_s);
    }
    if (certificate.expiryDate() < now) {
        return warning(
            u"It expired on %1; everything still works, because certificates are only compared for equality"_s.arg(end),
            renewal());
    }
    if (certificate.expiryDate() < now.addDays(kSoonDays)) {
        return warning(u"It expires on %1"_s.arg(end), renewal());
    }
    return fine(u"It is valid until %1"_s.arg(end));
}

void addPrivacy(const QString &path, QList<Finding> *findings)
{
    struct stat status = {};
    if (::stat(QFile::encodeName(path).constData(), &status) == 0 && (status.st_mode & 077) != 0) {
        findings->append(warning(u"\"%1\" is open to others (mode %2)"_s.arg(path, octal(status.st_mode)),
                                 u"chmod 600 \"%1\", and renew the certificate if others use this host"_s.arg(path)));
    }
}

/** Whether nobody else can have written the file. A file that is missing or cannot be read has another finding. */
bool isTrusted(const QString &path, QString *error)
{
    FoundPath found;
    return followTrustedPath(path, &found, error) != PathTrust::Untrusted;
}

/**
 * Reads the files. A server without files may be about to write them, or may have removed them and be about to end; so
 * this waits for either.
 * @param others  set to the servers that did neither in time: each of them prevents another one from starting
 */
ServerStatus settledStatus(const DoctorInput &input, QList<qint64> *others)
{
    ServerStatus server = input.files.readStatus();
    *others = server.mayRun() ? QList<qint64>() : serversOfSameUser();
    const QDeadlineTimer end(input.settlingTime);
    while (!others->isEmpty() && !end.hasExpired()) {
        serveEvents(kReadInterval);
        server = input.files.readStatus();
        if (server.mayRun()) {
            others->clear();
        }
        others->removeIf([](qint64 pid) { return !isServerProcess(pid); });
    }
    return server;
}

Finding otherServer(qint64 pid)
{
    const QString home = environmentOf(pid, u"HOME"_s).value_or(QString());
    return failed(u"A server of USER=%1 already runs with other files: process %2, whose HOME is \"%3\""_s.arg(
                      qEnvironmentVariable("USER"), QString::number(pid), home),
                  u"Use its HOME and settings, or end it: kill %1"_s.arg(pid));
}

/** The nearest parent that exists. */
QString nearestParent(const QString &path)
{
    QString parent = path;
    do {
        parent = QFileInfo(parent).path();
    } while (!QFileInfo::exists(parent) && parent != QFileInfo(parent).path());
    return parent;
}

/** Whether a server that starts now could listen on ListenPort. */
QList<Finding> listenPortFindings(const DoctorInput &input)
{
    const quint16 port = input.settings.listenPort;
    QString error;
    if (port == 0 || canListenOn(port, &error)) {
        return {};
    }
    return {
        failed(u"ListenPort %1 is not available (%2): the server does not start"_s.arg(QString::number(port), error),
               u"End the program that listens on it, or set another port; 0 means any"_s)};
}

QList<Finding> serverFindings(const DoctorInput &input, const ServerStatus &server, const QList<qint64> &others)
{
    switch (server.state) {
    case ServerState::Missing:
    case ServerState::Stale: {
        const Finding none = server.state == ServerState::Missing
                                 ? fine(u"No server is running; zarvoctl starts one when needed"_s)
                                 : warning(server.detail, u"zarvoctl server start"_s);
        return QList<Finding>{others.isEmpty() ? none : otherServer(others.first())} + listenPortFindings(input);
    }
    case ServerState::Starting:
        return {warning(server.detail, u"Wait a moment; if this persists, see \"zarvoctl server log\""_s)};
    case ServerState::Unreadable:
        return {failed(server.detail, server.pid == 0
                                          ? u"Remove it and start the server"_s
                                          : u"Remove it, end process %1 and start the server"_s.arg(server.pid))};
    case ServerState::Running:
        break;
    }
    RpcClient client;
    Failure failure;
    ServerConnector connector(input.files);
    if (!connector.connect(&client, ServerConnector::Start::Forbidden, &failure)) {
        return {failed(u"%1, but: %2"_s.arg(server.detail, failure.text.chopped(failure.text.endsWith(u'.') ? 1 : 0)),
                       u"zarvoctl server stop; zarvoctl server start"_s)};
    }
    return {fine(connector.status().detail + u" and accepts our certificate"_s)};
}

bool areFine(const QList<Finding> &findings)
{
    return std::all_of(findings.begin(), findings.end(),
                       [](const Finding &finding) { return finding.level == Finding::Level::Ok; });
}

} // namespace

QList<Finding> checkUserPath(const DoctorInput &input)
{
    const QString path = input.files.userPath();
    if (!input.settings.userPath.startsWith(u'/')) {
        return {warning(u"\"%1\" is relative: it means \"%2\""_s.arg(input.settings.userPath, path),
                        u"Set UserPath to an absolute path, or begin it with @HOME@"_s)};
    }
    struct stat status = {};
    if (::stat(QFile::encodeName(path).constData(), &status) == -1) {
        const QString parent = nearestParent(path);
        if (!QFileInfo(parent).isDir() || ::access(QFile::encodeName(parent).constData(), W_OK | X_OK) == -1) {
            return {failed(u"\"%1\" cannot be created: \"%2\" is not a writable directory"_s.arg(path, parent),
                           u"Set another UserPath, or make that directory writable"_s)};
        }
        return {fine(u"\"%1\" is created at the first start"_s.arg(path))};
    }
    if (!S_ISDIR(status.st_mode)) {
        return {failed(u"\"%1\" is not a directory"_s.arg(path), u"Move it out of the way"_s)};
    }
    if (status.st_uid != ::geteuid()) {
        return {failed(u"\"%1\" belongs to another user"_s.arg(path), u"chown it, or set another UserPath"_s)};
    }
    if ((status.st_mode & 0700) != 0700) {
        return {failed(u"\"%1\" has mode %2, which denies its owner access"_s.arg(path, octal(status.st_mode)),
                       u"chmod 700 \"%1\""_s.arg(path))};
    }
    if ((status.st_mode & 077) != 0) {
        return {warning(u"\"%1\" is open to others (mode %2)"_s.arg(path, octal(status.st_mode)),
                        u"chmod 700 \"%1\""_s.arg(path))};
    }
    return {fine(u"\"%1\" is private"_s.arg(path))};
}

QList<Finding> checkCertificate(const DoctorInput &input)
{
    QString error;
    // Also without a pair: no server starts while others can write to the folder of its key.
    if (!isTrusted(input.files.keyPath(), &error) || !isTrusted(input.files.certificatePath(), &error)) {
        return {failed(error, u"Remove the rights of the others, and renew the certificate: they may know its key"_s)};
    }
    const auto exists = [&input] { return QFile::exists(input.files.certificatePath()); };
    if (!exists()) {
        // Checked again after the status was read: a server creates it before it writes its port.
        const bool isRunning = input.files.readStatus().state == ServerState::Running;
        if (!exists()) {
            return {isRunning ? failed(u"There is no \"%1\", so nobody can connect to the running server"_s.arg(
                                           input.files.certificatePath()),
                                       renewal())
                              : fine(u"It is created at the first start"_s)};
        }
    }
    QByteArray certificate;
    QByteArray key;
    if (!readFile(input.files.certificatePath(), kMaxPemBytes, &certificate, &error) ||
        !readFile(input.files.keyPath(), kMaxPemBytes, &key, &error)) {
        return {failed(error, renewal())};
    }
    QList<Finding> findings = {dateFinding(certificate, input)};
    if (findings.first().level == Finding::Level::Fail) {
        return findings;
    }
    if (belongTogether(certificate, key)) {
        findings.append(fine(u"Certificate and key belong together"_s));
    } else {
        findings.append(failed(u"Certificate and key do not belong together"_s, renewal()));
    }
    addPrivacy(input.files.keyPath(), &findings);
    return findings;
}

QList<Finding> checkServerProcess(const DoctorInput &input)
{
    // A problem counts only if the server did not start or end meanwhile; else check again.
    QList<Finding> findings;
    for (int round = 0; round < kMaxRounds; ++round) {
        QList<qint64> others;
        const ServerStatus server = settledStatus(input, &others);
        findings = serverFindings(input, server, others);
        if (areFine(findings) || input.files.readStatus().isSameAs(server)) {
            break;
        }
    }
    return findings;
}
