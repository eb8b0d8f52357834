// SPDX-License-Identifier: MIT
#include "client/reach/certificatehost.h"

#include "client/reach/childrun.h"
#include "client/reach/sshcommand.h"
#include "support/json.h"

#include <QRegularExpression>

#include <chrono>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

/** Time for a user to type a pass phrase, and for a server to end and start again. */
constexpr auto kTimeout = 240s;

/** The reason as a clause: zarvoctl writes its name before it and a full stop after it. */
QString clauseOf(const QString &errors)
{
    QString reason = lastLine(errors);
    if (reason.startsWith("zarvoctl: "_L1)) {
        reason.remove(0, QLatin1StringView("zarvoctl: ").size());
    }
    while (reason.endsWith(u'.')) {
        reason.chop(1);
    }
    return reason;
}

} // namespace

CertificateHost::CertificateHost(const QString &name)
    : host(name)
{
}

bool CertificateHost::isValidName(const QString &name)
{
    static const QRegularExpression form(u"\\A[A-Za-z0-9_][A-Za-z0-9_.@:%-]*\\z"_s);
    return form.match(name).hasMatch();
}

bool CertificateHost::store(const QByteArray &pair, const QString &id, QString *error)
{
    QByteArray output;
    if (!run({u"receive"_s}, pair, &output, error)) {
        return false;
    }
    Json::Value answer;
    // A login script of the host may print text before the answer.
    if (!parseJson(output.mid(output.indexOf('{')), &answer) || !member(answer, "id").isString() ||
        stringFromJson(member(answer, "id")) != id) {
        *error = u"its answer is invalid"_s;
        return false;
    }
    folder = stringFromJson(member(answer, "folder"));
    return true;
}

bool CertificateHost::use(const QString &id, QString *error) const
{
    QByteArray ignored;
    return run({u"switch"_s, id}, QByteArray(), &ignored, error);
}

void CertificateHost::discard(const QString &id) const
{
    QByteArray ignored;
    QString error;
    [[maybe_unused]] const bool isDiscarded = run({u"discard"_s, id}, QByteArray(), &ignored, &error);
}

bool CertificateHost::run(const QStringList &arguments, const QByteArray &input, QByteArray *output,
                          QString *error) const
{
    ChildRun ssh;
    ssh.setInput(input);
    if (!ssh.run(guardedSsh({}, host, QStringList{u"zarvoctl"_s, u"certificate"_s} + arguments), kTimeout)) {
        *error = ssh.problem();
        return false;
    }
    if (ssh.exitCode() == kCommandNotFound) {
        *error = u"there is no zarvoctl on its search path"_s;
        return false;
    }
    if (ssh.exitCode() != 0) {
        const QString reason = clauseOf(ssh.errorOutput());
        *error = ssh.exitCode() == kSshFailed ? u"ssh failed: %1"_s.arg(reason) : reason;
        return false;
    }
    *output = ssh.output();
    return true;
}
