// SPDX-License-Identifier: MIT
#include "client/terminal/interruption.h"
#include "client/terminal/textwidth.h"
#include "client/verbs/certificaterenewal.h"
#include "client/verbs/verbs.h"
#include "support/credentials.h"
#include "support/json.h"

#include <QCryptographicHash>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QSslCertificate>
#include <QSslKey>

#include <cstdio>

using namespace Qt::StringLiterals;

namespace {

constexpr qint64 kMaxPairBytes = 1024 * 1024;

/** Whether the running server uses the certificate that is in the files. */
enum class Agreement { Yes, No, NoServer };

QString subjectOf(const QSslCertificate &certificate)
{
    QStringList parts;
    for (const QByteArray &attribute : certificate.subjectInfoAttributes()) {
        for (const QString &value : certificate.subjectInfo(attribute)) {
            parts.append(QString::fromUtf8(attribute) + u'=' + value);
        }
    }
    return parts.join(u", "_s);
}

QString fingerprintOf(const QSslCertificate &certificate)
{
    return QString::fromLatin1(certificate.digest(QCryptographicHash::Sha256).toHex(':').toUpper());
}

QString dateText(const QDateTime &time)
{
    return time.toUTC().toString(Qt::ISODate);
}

Agreement agreementOf(ClientContext &context)
{
    Failure failure;
    if (context.connectToServer(ServerConnector::Start::Forbidden, &failure)) {
        return Agreement::Yes;
    }
    return failure.code == ExitCode::CertificateRefused ? Agreement::No : Agreement::NoServer;
}

QString agreementText(Agreement agreement)
{
    switch (agreement) {
    case Agreement::Yes:
        return u"uses this certificate"_s;
    case Agreement::No:
        return u"uses another certificate; restart it"_s;
    case Agreement::NoServer:
        break;
    }
    return u"does not answer"_s;
}

Json::Value toJson(const QSslCertificate &certificate, const ClientContext &context, Agreement agreement)
{
    Json::Value value(Json::objectValue);
    value["subject"] = jsonString(subjectOf(certificate));
    value["fingerprint"] = jsonString(fingerprintOf(certificate));
    value["notBefore"] = jsonString(dateText(certificate.effectiveDate()));
    value["notAfter"] = jsonString(dateText(certificate.expiryDate()));
    value["daysLeft"] = Json::Value::Int64(QDateTime::currentDateTimeUtc().daysTo(certificate.expiryDate()));
    value["certificate"] = jsonString(context.files.certificatePath());
    value["key"] = jsonString(context.files.keyPath());
    value["serverAgrees"] = agreement == Agreement::NoServer ? Json::Value() : Json::Value(agreement == Agreement::Yes);
    return value;
}

ExitCode show(const QCommandLineParser &line, ClientContext &context)
{
    QSslKey key;
    QSslCertificate certificate;
    QString error;
    if (!readCredentials(context.files.keyPath(), context.files.certificatePath(), &key, &certificate, &error)) {
        return context.console.report({ExitCode::CertificateRefused, error + u'.'});
    }
    const Agreement agreement = agreementOf(context);
    const ExitCode code = agreement == Agreement::No ? ExitCode::Negative : ExitCode::Done;
    if (line.isSet(u"json"_s)) {
        context.console.printJson(toJson(certificate, context, agreement));
        return code;
    }
    const qint64 days = QDateTime::currentDateTimeUtc().daysTo(certificate.expiryDate());
    // By the time: on the last day the number of days is 0, before the end and after it.
    const bool isExpired = certificate.expiryDate() < QDateTime::currentDateTimeUtc();
    Console &console = context.console;
    console.printLine(u"subject      "_s + printable(subjectOf(certificate)));
    console.printLine(u"fingerprint  SHA-256 "_s + fingerprintOf(certificate));
    console.printLine(u"valid from   "_s + dateText(certificate.effectiveDate()));
    console.printLine(u"valid until  %1 (%2)"_s.arg(
        dateText(certificate.expiryDate()), isExpired ? u"expired; it still works"_s : u"%1 days left"_s.arg(days)));
    console.printLine(u"certificate  "_s + context.files.certificatePath());
    console.printLine(u"key          "_s + context.files.keyPath());
    console.printLine(u"server       "_s + agreementText(agreement));
    return code;
}

ExitCode renew(const QCommandLineParser &line, ClientContext &context)
{
    return CertificateRenewal(&context, line.positionalArguments().sliced(1)).run();
}

/** Stores the pair that another host sends. */
ExitCode receive(const QCommandLineParser &, ClientContext &context)
{
    QFile input;
    if (!input.open(stdin, QIODevice::ReadOnly)) {
        return context.console.report({ExitCode::Usage, u"Failed to read standard input."_s});
    }
    const QByteArray pair = input.read(kMaxPairBytes);
    QString id;
    QString error;
    const qsizetype certificateBegin = pair.indexOf("-----BEGIN CERTIFICATE-----");
    if (certificateBegin < 0) {
        return context.console.report({ExitCode::Usage, u"There is no certificate on standard input."_s});
    }
    if (!certificateStore(context).add(pair.sliced(certificateBegin), pair.first(certificateBegin), &id, &error)) {
        return context.console.report({ExitCode::Negative, error + u'.'});
    }
    Json::Value answer(Json::objectValue);
    answer["id"] = jsonString(id);
    answer["folder"] = jsonString(QDir(QDir::cleanPath(context.files.userPath())).dirName());
    context.console.printJson(answer);
    return ExitCode::Done;
}

bool readId(const QCommandLineParser &line, QString *id, Failure *failure)
{
    *id = line.positionalArguments().value(1);
    return CertificateStore::isValidId(*id) ||
           fail(failure, ExitCode::Usage, u"\"%1\" is not the id of a certificate."_s.arg(*id));
}

ExitCode switchTo(const QCommandLineParser &line, ClientContext &context)
{
    QString id;
    QString error;
    Failure failure;
    if (!readId(line, &id, &failure)) {
        return context.console.report(failure);
    }
    Interruption interruption; // a pair that is in use needs a server that has read it
    interruption.setHeldBack(true);
    if (!certificateStore(context).use(id, &error)) {
        return context.console.report({ExitCode::Negative, error + u'.'});
    }
    // Even if the pair was in use already: a host that shares the files has put it there, and this server has not read
    // it.
    return restartServer(&context, &failure) ? ExitCode::Done : context.console.report(failure);
}

ExitCode discard(const QCommandLineParser &line, ClientContext &context)
{
    QString id;
    Failure failure;
    if (!readId(line, &id, &failure)) {
        return context.console.report(failure);
    }
    certificateStore(context).discard(id);
    return ExitCode::Done;
}

ExitCode run(const QCommandLineParser &line, ClientContext &context)
{
    using Action = decltype(Verb::run);
    const QHash<QString, Action> actions = {{u"show"_s, show},
                                            {u"renew"_s, renew},
                                            {u"receive"_s, receive},
                                            {u"switch"_s, switchTo},
                                            {u"discard"_s, discard}};
    const Action action = actions.value(firstArgument(line), nullptr);
    if (!action) {
        return context.console.report({ExitCode::Usage, u"certificate needs one of show and renew."_s});
    }
    if (action == show && line.positionalArguments().size() > 1) {
        return context.console.report({ExitCode::Usage, u"certificate show takes no arguments."_s});
    }
    if (action != show && line.isSet(u"json"_s)) {
        return context.console.report({ExitCode::Usage, u"--json is for certificate show."_s});
    }
    return action(line, context);
}

} // namespace

Verb certificateVerb()
{
    return {
        .name = u"certificate"_s,
        .arguments = u"show|renew [HOST]…"_s,
        .summary = u"Show or renew the certificate of the server."_s,
        .description =
            u"show prints subject, fingerprint and dates, and whether the running server uses the certificate; exit\n"
            "code 1 if it uses another one. renew makes a new certificate and key for the next 365 days and\n"
            "restarts the server; sessions and viewers go on. It does the same on each HOST, over ssh, because all\n"
            "hosts of a user need the same pair. Hosts that share the home directory are named as well, so that\n"
            "their servers restart. If a HOST cannot be reached, nothing changes anywhere. If a HOST fails later,\n"
            "renew names it and the command to run there; exit code 1."_s,
        .examples = {u"zarvoctl certificate show"_s, u"zarvoctl certificate renew host2 me@host3"_s},
        .minArguments = 1,
        .maxArguments = -1,
        .options = {jsonOption()},
        .run = run};
}
