// SPDX-License-Identifier: MIT
#include "client/doctor/doctorcheck.h"
#include "client/doctor/portprobe.h"
#include "client/reach/viewer.h"
#include "client/server/serverlauncher.h"
#include "client/server/serverprocess.h"
#include "contract/sessiondirectory.h"

#include <QFile>
#include <QRegularExpression>
#include <QStandardPaths>

#include <algorithm>

#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr int kFirstXPort = 6000;
/** Bounds the time of the check: each display costs two sockets and two files. */
constexpr int kMaxDisplaysTried = 1000;

QString find(const QString &program, const DoctorInput &input)
{
    return QStandardPaths::findExecutable(program, input.searchPath.split(u':', Qt::SkipEmptyParts));
}

bool isPortBindable(int port)
{
    QString ignored;
    return port <= 65535 && canListenOn(static_cast<quint16>(port), &ignored);
}

/** Whether anything is there. A dangling symlink is: no program could put its file in its place. */
bool isTaken(const QString &path)
{
    struct stat status = {};
    return ::lstat(QFile::encodeName(path).constData(), &status) == 0;
}

bool isDisplayFree(int number, const DoctorInput &input)
{
    return !isTaken(u"%1/.X%2-lock"_s.arg(input.temporaryPath, QString::number(number))) &&
           !isTaken(u"%1/.X11-unix/X%2"_s.arg(input.temporaryPath, QString::number(number))) &&
           isPortBindable(kFirstXPort + number) && isPortBindable(kFirstAgentPort + number);
}

struct PortRange
{
    int first;
    int last;

    [[nodiscard]] bool overlaps(const PortRange &other) const { return first <= other.last && other.first <= last; }
    [[nodiscard]] bool contains(const PortRange &other) const { return first <= other.first && other.last <= last; }
};

/** The kernel's list with one more range. The old ones stay in it, because a new list replaces the old list. */
QString withRange(const QList<PortRange> &ranges, const PortRange &more)
{
    QStringList texts;
    for (const PortRange &range : ranges + QList<PortRange>{more}) {
        const QString first = QString::number(range.first);
        texts.append(range.first == range.last ? first : first + u'-' + QString::number(range.last));
    }
    return texts.join(u',');
}

QList<PortRange> readRanges(const QString &text)
{
    static const QRegularExpression form(u"(\\d+)(?:[-\\s](\\d+))?"_s);
    QList<PortRange> ranges;
    for (const QRegularExpressionMatch &match : form.globalMatch(text)) {
        const int first = match.captured(1).toInt();
        ranges.append({first, match.captured(2).isEmpty() ? first : match.captured(2).toInt()});
    }
    return ranges;
}

Finding programFinding(const QString &program, const QString &need, const QString &remedy, const DoctorInput &input)
{
    const QString path = find(program, input);
    return path.isEmpty() ? failed(u"%1, which %2, is not on the search path"_s.arg(program, need), remedy)
                          : fine(u"%1 is \"%2\""_s.arg(program, path));
}

/** Programs that the running server does not find. It may have been started with another search path than ours. */
QList<Finding> missingForServer(const DoctorInput &input)
{
    const ServerStatus server = input.files.readStatus();
    if (server.state != ServerState::Running) {
        return {};
    }
    DoctorInput servers = input;
    servers.searchPath = environmentOf(server.pid, u"PATH"_s).value_or(input.searchPath);
    QList<Finding> findings;
    for (const QString &program : {u"start-agent"_s, u"start-app"_s, u"xauth"_s}) {
        if (find(program, servers).isEmpty() && !find(program, input).isEmpty()) {
            findings.append(failed(
                u"The running server does not find %1: its search path is \"%2\""_s.arg(program, servers.searchPath),
                u"zarvoctl server stop; zarvoctl server start"_s));
        }
    }
    return findings;
}

/** What remains when others control the folder of X's sockets, so that the agent cannot use a private one there. */
QString withWhatRemains(const QString &fault)
{
    return fault + u". Sessions work all the same, at X's abstract sockets. Every user of the host can connect there. "
                   "Without the cookie they see nothing, but they can take up the 2,048 connections of a display"_s;
}

} // namespace

QList<Finding> checkPrograms(const DoctorInput &input)
{
    QList<Finding> findings;
    if (const QString server = serverProgramPath(); server.isEmpty()) {
        findings.append(failed(u"There is no zarvo_server"_s, u"Install it in the folder of zarvoctl"_s));
    } else {
        findings.append(fine(u"zarvo_server is \"%1\""_s.arg(server)));
    }
    const QString install = u"Install the package %1"_s;
    const QString agentRemedy = u"Install the bundled agent in \"%1\""_s.arg(bundledProgramsPath());
    findings.append(programFinding(u"start-agent"_s, u"runs each session"_s, agentRemedy, input));
    findings.append(programFinding(u"start-app"_s, u"starts the command of a session"_s, agentRemedy, input));
    if (find(u"start-agent"_s, input).startsWith(bundledProgramsPath())) {
        findings.append(programFinding(u"Xtigervnc"_s, u"the bundled agent needs"_s,
                                       install.arg(u"tigervnc-standalone-server"_s), input));
    }
    findings.append(programFinding(u"xauth"_s, u"each start of a session needs"_s, install.arg(u"xauth"_s), input));
    Finding openssl = programFinding(u"openssl"_s, u"makes the certificate"_s, install.arg(u"openssl"_s), input);
    if (openssl.level == Finding::Level::Fail && QFile::exists(input.files.certificatePath())) {
        openssl.level = Finding::Level::Warn; // needed again only for a new certificate
    }
    findings.append(openssl);
    return findings + missingForServer(input);
}

QList<Finding> checkViewer(const DoctorInput &)
{
    Viewer viewer;
    Failure failure;
    if (!viewer.find(&failure)) {
        return {warning(failure.text.chopped(1), u"\"zarvoctl connect --print\" works without a viewer"_s)};
    }
    return {fine(viewer.name())};
}

QList<Finding> checkDisplays(const DoctorInput &input)
{
    const int base = input.settings.displayBase;
    const int tried = std::min<int>(input.settings.displayLimit, kMaxDisplaysTried);
    int free = 0;
    for (int number = base; number < base + tried; ++number) {
        free += isDisplayFree(number, input) ? 1 : 0;
    }
    const QString text = u"%1 of %2 displays from :%3 on are free"_s.arg(free).arg(tried).arg(base);
    if (free == 0) {
        return {failed(text, u"End sessions, or set DisplayBase and DisplayLimit"_s)};
    }
    return {fine(text)};
}

QList<Finding> checkSocketDirectory(const DoctorInput &input)
{
    const QString path = input.temporaryPath + u"/.X11-unix"_s;
    const QString remedy = u"As root: mkdir -p \"%1\" && chown root: \"%1\" && chmod 1777 \"%1\""_s.arg(path);
    struct stat status = {};
    if (::lstat(QFile::encodeName(path).constData(), &status) == -1) {
        return {warning(u"There is no directory \"%1\"; the first X server creates it"_s.arg(path), remedy)};
    }
    if (!S_ISDIR(status.st_mode)) {
        return {failed(u"\"%1\" is not a directory"_s.arg(path), remedy)};
    }
    if (status.st_uid != 0 && status.st_uid != ::geteuid()) {
        return {
            warning(withWhatRemains(u"\"%1\" belongs to another user (%2)"_s.arg(path).arg(status.st_uid)), remedy)};
    }
    if ((status.st_mode & 0777) != 0777) {
        return {failed(u"\"%1\" is not open to all users"_s.arg(path), remedy)};
    }
    if ((status.st_mode & S_ISVTX) == 0) {
        return {warning(withWhatRemains(u"In \"%1\" others can replace sockets"_s.arg(path)), remedy)};
    }
    if (status.st_uid != 0) {
        return {warning(u"\"%1\" is yours, so other users of the host have no private X sockets"_s.arg(path), remedy)};
    }
    return {fine(u"\"%1\" has the right owner and mode"_s.arg(path))};
}

QList<Finding> checkPortRange(const DoctorInput &input)
{
    const PortRange agent = {kFirstAgentPort + input.settings.displayBase,
                             kFirstAgentPort + input.settings.displayBase + input.settings.displayLimit - 1};
    const QList<PortRange> ephemeral = readRanges(smallFileText(input.networkPath + u"/ip_local_port_range"_s));
    const QList<PortRange> reserved = readRanges(smallFileText(input.networkPath + u"/ip_local_reserved_ports"_s));
    const QString range = u"%1-%2"_s.arg(agent.first).arg(agent.last);
    const bool isTaken =
        std::any_of(ephemeral.begin(), ephemeral.end(), [&agent](const PortRange &r) { return r.overlaps(agent); });
    const bool isReserved =
        std::any_of(reserved.begin(), reserved.end(), [&agent](const PortRange &r) { return r.contains(agent); });
    if (isTaken && !isReserved) {
        return {warning(u"The kernel may give the sessions' ports %1 to outgoing connections"_s.arg(range),
                        u"As root: echo net.ipv4.ip_local_reserved_ports=%1 > /etc/sysctl.d/60-zarvo.conf && "
                        "sysctl --system"_s.arg(withRange(reserved, agent)))};
    }
    return {fine(u"The kernel gives the sessions' ports %1 to no outgoing connection"_s.arg(range))};
}
