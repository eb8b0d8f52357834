// SPDX-License-Identifier: MIT
#include "client/verbs/certificaterenewal.h"

#include "client/server/serverstop.h"

#include <chrono>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

/** A server that stops waits for running requests, and a request may wait for its agent twice. */
constexpr auto kStopTimeout = 60s;

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
    QString error;
    if (!store.use(id, &error)) {
        discard();
        return context->console.report({ExitCode::Negative, u"The certificate was not renewed: %1."_s.arg(error)});
    }
    QStringList problems;
    if (!restartServer(context, &failure)) {
        problems.append(u"The server of this host did not start again: %1"_s.arg(failure.text));
    }
    problems += useOnHosts();
    if (!problems.isEmpty()) {
        return context->console.report({ExitCode::Negative, problems.join(u'\n')});
    }
    context->console.note(
        hosts.empty()
            ? u"The certificate is renewed; the sessions go on."_s
            : u"The certificate is renewed here and on %1 other hosts; the sessions go on."_s.arg(hosts.size()));
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
    for (const CertificateHost &host : hosts) {
        if (host.store(key + certificate, id, &error)) {
            prepared.push_back(&host);
        } else {
            problems.append(u"%1: %2"_s.arg(host.name(), error));
        }
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

QStringList CertificateRenewal::useOnHosts() const
{
    QStringList problems;
    for (const CertificateHost &host : hosts) {
        QString error;
        if (!host.use(id, &error)) {
            problems.append(
                u"%1 may still use the old certificate: %2. Run there: zarvoctl certificate switch %3"_s.arg(
                    host.name(), error, id));
        }
    }
    return problems;
}
