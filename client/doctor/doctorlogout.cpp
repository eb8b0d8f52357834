// SPDX-License-Identifier: MIT
#include "client/doctor/doctorcheck.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMap>

#include <array>
#include <optional>

using namespace Qt::StringLiterals;

namespace {

/** The folders of logind's settings, in ascending priority. */
constexpr std::array kFolders = {"/usr/lib/systemd"_L1, "/usr/local/lib/systemd"_L1, "/run/systemd"_L1,
                                 "/etc/systemd"_L1};

/** The settings files in the order in which logind reads them: a later value replaces an earlier one. */
QStringList settingsFiles(const QString &systemPath)
{
    QString main;
    QMap<QString, QString> more; // by name: a file replaces one with the same name in a folder of lower priority
    for (const QLatin1StringView &place : kFolders) {
        const QString folder = systemPath + place;
        if (const QString path = folder + u"/logind.conf"_s; QFile::exists(path)) {
            main = path;
        }
        const QDir additions(folder + u"/logind.conf.d"_s);
        for (const QString &name : additions.entryList({u"*.conf"_s}, QDir::Files)) {
            more.insert(name, additions.filePath(name));
        }
    }
    return QStringList(main) + more.values();
}

/** logind's settings for the processes of users who log out. */
class LogoutSettings
{
public:
    explicit LogoutSettings(const QString &systemPath)
    {
        for (const QString &path : settingsFiles(systemPath)) {
            read(smallFileText(path));
        }
    }

    /** Whether the processes of a login session end with it. Lingering makes no difference to them. */
    [[nodiscard]] bool ends(const QString &user) const
    {
        if (excluded ? excluded->contains(user) : user == "root"_L1) {
            return false;
        }
        return only.isEmpty() ? all : only.contains(user);
    }

private:
    void read(const QString &text)
    {
        bool isOurs = false;
        for (const QString &raw : text.split(u'\n')) {
            const QString line = raw.trimmed();
            if (line.startsWith(u'[')) {
                isOurs = line == "[Login]"_L1;
            } else if (isOurs && !line.startsWith(u'#') && !line.startsWith(u';')) {
                take(line.section(u'=', 0, 0).trimmed(), line.section(u'=', 1).trimmed());
            }
        }
    }

    void take(const QString &key, const QString &value)
    {
        const QStringList users = value.split(u' ', Qt::SkipEmptyParts);
        if (key == "KillUserProcesses"_L1) {
            const QStringList yes = {u"yes"_s, u"y"_s, u"true"_s, u"t"_s, u"on"_s, u"1"_s};
            all = yes.contains(value.toLower());
        } else if (key == "KillOnlyUsers"_L1) {
            only = users.isEmpty() ? QStringList() : only + users; // an empty value clears the list
        } else if (key == "KillExcludeUsers"_L1) {
            excluded = users.isEmpty() ? QStringList() : excluded.value_or(QStringList()) + users;
        }
    }

    bool all = false;
    QStringList only;
    std::optional<QStringList> excluded;
};

/** Whether the running server belongs to the user's service manager, so to no login session. */
bool isOutsideOfLoginSessions(const DoctorInput &input)
{
    const ServerStatus server = input.files.readStatus();
    return server.state == ServerState::Running &&
           smallFileText(u"%1/%2/cgroup"_s.arg(input.processesPath, QString::number(server.pid))).contains("/user@"_L1);
}

} // namespace

QList<Finding> checkLogout(const DoctorInput &input)
{
    if (!QFileInfo(input.systemPath + u"/run/systemd/system"_s).isDir()) {
        return {fine(u"Nothing ends the processes of users who log out"_s)};
    }
    const QString user = input.userName;
    const QString linger = u"loginctl enable-linger "_s + user;
    const bool lingers = !user.isEmpty() && QFile::exists(input.systemPath + u"/var/lib/systemd/linger/"_s + user);
    if (isOutsideOfLoginSessions(input)) {
        return {lingers
                    ? fine(u"The server belongs to no login session, and stays after a logout"_s)
                    : failed(u"The server ends with the last login session of %1, because lingering is off"_s.arg(user),
                             linger)};
    }
    if (LogoutSettings(input.systemPath).ends(user)) {
        return {failed(u"Sessions end when %1 logs out (KillUserProcesses)"_s.arg(user),
                       linger + u" and, with no server running, systemd-run --user --scope zarvoctl server start; or, "
                                "as root, KillUserProcesses=no in /etc/systemd/logind.conf"_s)};
    }
    return {fine(u"Processes stay after a logout"_s)};
}
