// SPDX-License-Identifier: MIT
#include "client/doctor/doctorcheck.h"
#include "client/doctor/portprobe.h"
#include "client/server/certificatepair.h"
#include "client/server/serverconnector.h"
#include "client/server/serverprocess.h"
#include "client/terminal/eventwait.h"
#include "support/filereader.h"

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
constexpr int kSoonDays = 14;

/** How often the files of a server that starts or ends are looked at. */
constexpr auto kLookInterval = 20ms;

/** Servers that start or end all the time are no reason to go on for ever. */
constexpr int kMaxLooks = 5;

QString octal(mode_t mode)
{
    return QString::number(mode & 07777, 8).rightJustified(4, u'0');
}

QString renewal(const DoctorInput &input)
{
    return u"End the server, remove \"%1\" and \"%2\", and start it again"_s.arg(input.files.certificatePath(),
                                                                                 input.files.keyPath());
}

Finding dateFinding(const QByteArray &text, const DoctorInput &input)
{
    const QSslCertificate certificate(text, QSsl::Pem);
    const QDateTime now = QDateTime::currentDateTimeUtc();
    const QString end = certificate.expiryDate().toString(u"yyyy-MM-dd"_s);
    if (certificate.isNull()) {
        return failed(u"\"%1\" holds no certificate"_s.arg(input.files.certificatePath()), renewal(input));
    }
    if (certificate.effectiveDate() > now) {
        return warning(u"It is valid from %1 on"_s.arg(certificate.effectiveDate().toString(u"yyyy-MM-dd"_s)),
                       u"Set the clock of this host"_s);
    }
    if (certificate.expiryDate() < now) {
        return warning(u"It has expired on %1; the server uses it none the less"_s.arg(end), renewal(input));
    }
    if (certificate.expiryDate() < now.addDays(kSoonDays)) {
        return warning(u"It expires on %1"_s.arg(end), renewal(input));
    }
    return fine(u"It is valid until %1"_s.arg(end));
}

void addPrivacy(const QString &path, QList<Finding> *findings)
{
    struct stat status = {};
    if (::stat(QFile::encodeName(path).constData(), &status) == 0 && (status.st_mode & 077) != 0) {
        findings->append(failed(u"\"%1\" is open to others (mode %2)"_s.arg(path, octal(status.st_mode)),
                                u"chmod 600 \"%1\", and renew the certificate if others use this host"_s.arg(path)));
    }
}

/**
 * A look at the files. A server that they do not tell of may be about to write them, or have removed them and be about
 * to end, which is waited for.
 * @param others  set to those that do neither: each of them lets no other server start
 */
ServerStatus settledLook(const DoctorInput &input, QList<qint64> *others)
{
    ServerStatus server = input.files.readStatus();
    *others = server.mayRun() ? QList<qint64>() : serversOfSameUser();
    const QDeadlineTimer end(input.settlingTime);
    while (!others->isEmpty() && !end.hasExpired()) {
        EventWait pause([] { return false; });
        [[maybe_unused]] const bool never = pause.run(kLookInterval);
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

/** What is there of a path that is not. */
QString nearestParent(const QString &path)
{
    QString parent = path;
    do {
        parent = QFileInfo(parent).path();
    } while (!QFileInfo::exists(parent) && parent != QFileInfo(parent).path());
    return parent;
}

/** What a server that is not there yet would fail to listen on. */
QList<Finding> listenPort(const DoctorInput &input)
{
    const quint16 port = input.settings.listenPort;
    QString error;
    if (port == 0 || canListenOn(port, &error)) {
        return {};
    }
    return {
        failed(u"ListenPort %1 is not to be had (%2): the server does not start"_s.arg(QString::number(port), error),
               u"End what listens on it, or set another one; 0 is any"_s)};
}

QList<Finding> serverFindings(const DoctorInput &input, const ServerStatus &server, const QList<qint64> &others)
{
    switch (server.state) {
    case ServerState::Missing:
    case ServerState::Stale: {
        const Finding none = server.state == ServerState::Missing
                                 ? fine(u"None is running; it is started when it is needed"_s)
                                 : warning(server.detail, u"zarvoctl server start"_s);
        return QList<Finding>{others.isEmpty() ? none : otherServer(others.first())} + listenPort(input);
    }
    case ServerState::Starting:
        return {warning(server.detail, u"Wait a moment; if this stays, see \"zarvoctl server log\""_s)};
    case ServerState::Unreadable:
        return {failed(server.detail, server.pid == 0
                                          ? u"Remove it and start the server"_s
                                          : u"Remove it, end the process %1 and start the server"_s.arg(server.pid))};
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
    return {fine(connector.status().detail + u" and lets us in"_s)};
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
        return {warning(u"\"%1\" is relative: it is taken for \"%2\""_s.arg(input.settings.userPath, path),
                        u"Give UserPath from the root, or begin it with @HOME@"_s)};
    }
    struct stat status = {};
    if (::stat(QFile::encodeName(path).constData(), &status) == -1) {
        const QString parent = nearestParent(path);
        if (!QFileInfo(parent).isDir() || ::access(QFile::encodeName(parent).constData(), W_OK | X_OK) == -1) {
            return {failed(u"\"%1\" cannot be made: \"%2\" takes no directory"_s.arg(path, parent),
                           u"Set another UserPath, or see to that one"_s)};
        }
        return {fine(u"\"%1\" is made at the first start"_s.arg(path))};
    }
    if (!S_ISDIR(status.st_mode)) {
        return {failed(u"\"%1\" is no directory"_s.arg(path), u"Move it out of the way"_s)};
    }
    if (status.st_uid != ::geteuid()) {
        return {failed(u"\"%1\" belongs to somebody else"_s.arg(path), u"chown it, or set another UserPath"_s)};
    }
    if ((status.st_mode & 0700) != 0700) {
        return {failed(u"\"%1\" has mode %2, which keeps its owner out"_s.arg(path, octal(status.st_mode)),
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
    const auto exists = [&input] { return QFile::exists(input.files.certificatePath()); };
    if (!exists()) {
        // Asked again behind the look: a server makes it before it tells its port.
        const bool isServed = input.files.readStatus().state == ServerState::Running;
        if (!exists()) {
            return {isServed ? failed(u"There is no \"%1\", and so no way into the running server"_s.arg(
                                          input.files.certificatePath()),
                                      renewal(input))
                             : fine(u"It is made at the first start"_s)};
        }
    }
    QByteArray certificate;
    QByteArray key;
    QString error;
    if (!readFile(input.files.certificatePath(), kMaxPemBytes, &certificate, &error) ||
        !readFile(input.files.keyPath(), kMaxPemBytes, &key, &error)) {
        return {failed(error, renewal(input))};
    }
    QList<Finding> findings = {dateFinding(certificate, input)};
    if (findings.first().level == Finding::Level::Fail) {
        return findings;
    }
    if (belongTogether(certificate, key)) {
        findings.append(fine(u"Certificate and key belong together"_s));
    } else {
        findings.append(failed(u"Certificate and key do not belong together"_s, renewal(input)));
    }
    addPrivacy(input.files.keyPath(), &findings);
    return findings;
}

QList<Finding> checkServerProcess(const DoctorInput &input)
{
    // What is wrong with a server that has started or ended meanwhile is nothing that is wrong now.
    QList<Finding> findings;
    for (int look = 0; look < kMaxLooks; ++look) {
        QList<qint64> others;
        const ServerStatus server = settledLook(input, &others);
        findings = serverFindings(input, server, others);
        if (areFine(findings) || input.files.readStatus().isSameAs(server)) {
            break;
        }
    }
    return findings;
}
