// SPDX-License-Identifier: MIT
#include "client/verbs/certificaterenewal.h"

#include "client/server/serverstop.h"

#include <QDir>
#include <QFileInfo>

#include <chrono>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

/** A server that stops waits for running requests, and a request may wait for its agent twice. */
constexpr auto kStopTimeout = 60s;

const QString kInterrupted = u"the renewal was interrupted"_s;

} // namespace

CertificateStore certificateStore(const ClientContext &context)
{
    return {context.files.certificatePath(), context.files.keyPath()};
}

bool restartServer(ClientContext *context, Failure *failure)
{
    // A server that is just starting may have read the old pair, so it counts.
    const ServerStatus server = context->files.readStatus();
    if (!server.mayRun() || server.pid == 0) {
        return true;
    }
    if (!stopServer(server.pid, kStopTimeout, failure) && failure->code != ExitCode::NoServer) {
        return false;
    }
    RpcClient client;
    return ServerConnector(context->files).connect(&client, ServerConnector::Start::Allowed, failure);
}

CertificateRenewal::CertificateRenewal(ClientContext *context_, const QStringList &hosts_)
    : context(context_)
    , store(certificateStore(*context_))
    , hosts(hosts_.begin(), hosts_.end())
{
}

ExitCode CertificateRenewal::run()
{
    Failure failure;
    if (!prepare(&failure)) {
        return context->console.report(failure);
    }
    return use();
}

ExitCode CertificateRenewal::use()
{
    interruption.setHeldBack(true);
    QString error;
    if (!store.use(id, &error)) {
        discard();
        return context->console.report({ExitCode::Negative, u"The certificate was not renewed: %1."_s.arg(error)});
    }
    QStringList problems;
    Failure failure;
    if (!restartServer(context, &failure)) {
        problems.append(u"The server of this host did not start again: %1"_s.arg(failure.text));
    }
    interruption.setHeldBack(false);
    problems += useOnHosts();
    problems += forgottenNeighbours();
    if (!problems.isEmpty()) {
        return context->console.report({ExitCode::Negative, problems.join(u'\n')});
    }
    context->console.note(hosts.empty()
                              ? u"The certificate is renewed; the sessions go on."_s
                              : u"The certificate is renewed here and on %1; the sessions go on."_s.arg(
                                    hosts.size() == 1 ? u"1 other host"_s : u"%1 other hosts"_s.arg(hosts.size())));
    return ExitCode::Done;
}

bool CertificateRenewal::prepare(Failure *failure)
{
    for (const CertificateHost &host : hosts) {
        if (!CertificateHost::isValidName(host.name())) {
            return fail(failure, ExitCode::Usage, u"\"%1\" is not the name of a host."_s.arg(host.name()));
        }
    }
    QString error;
    if (!store.create(&id, &error)) {
        return fail(failure, ExitCode::Negative, u"The certificate was not renewed: %1."_s.arg(error));
    }
    return storeOnHosts(failure);
}

bool CertificateRenewal::storeOnHosts(Failure *failure)
{
    QByteArray certificate;
    QByteArray key;
    QString error;
    if (!store.read(id, &certificate, &key, &error)) {
        return fail(failure, ExitCode::Negative, u"The certificate was not renewed: %1."_s.arg(error));
    }
    QStringList problems;
    for (CertificateHost &host : hosts) {
        prepared.push_back(&host); // even if it fails: an interrupted one may have stored the pair
        const bool isStored = host.store(key + certificate, id, &error);
        if (interruption.poll()) {
            break;
        }
        if (!isStored) {
            prepared.pop_back();
            problems.append(u"%1: %2"_s.arg(host.name(), error));
        }
    }
    if (interruption.poll()) { // also while openssl ran
        discard();
        return fail(failure, ExitCode::Negative,
                    u"The certificate was not renewed on any host: %1."_s.arg(kInterrupted));
    }
    if (problems.isEmpty()) {
        return true;
    }
    discard();
    return fail(failure, ExitCode::Negative,
                u"The certificate was not renewed on any host, because some cannot store it:\n"_s +
                    problems.join(u'\n'));
}

void CertificateRenewal::discard()
{
    for (const CertificateHost *host : prepared) {
        host->discard(id);
    }
    store.discard(id);
}

QStringList CertificateRenewal::useOnHosts()
{
    QStringList problems;
    for (const CertificateHost &host : hosts) {
        QString error;
        // After a signal no further host is tried, and the one that it broke off may have done it or not.
        const bool isTried = !interruption.poll();
        if (!isTried || !host.use(id, &error)) {
            problems.append(
                u"%1 may still use the old certificate: %2. Run there: zarvoctl certificate switch %3"_s.arg(
                    host.name(), interruption.poll() ? kInterrupted : error, id));
        }
    }
    return problems;
}

QStringList CertificateRenewal::forgottenNeighbours() const
{
    QStringList known = {QDir(QDir::cleanPath(context->files.userPath())).dirName()};
    for (const CertificateHost &host : hosts) {
        // A zarvoctl that is older does not tell its folder, which has the name of the host.
        known << host.folderName() << host.name().section(u'@', -1);
    }
    const QDir parent(QFileInfo(context->files.certificatePath()).path());
    QStringList problems;
    for (const QString &name : parent.entryList(QDir::Dirs | QDir::NoDotAndDotDot | QDir::Hidden)) {
        if (!known.contains(name) && QFile::exists(parent.filePath(name + u'/' + UserFile::kServerPort))) {
            problems.append(
                u"%1 shares this home directory, and its server may still use the old certificate. Run there: "
                "zarvoctl server stop"_s.arg(name));
        }
    }
    return problems;
}
