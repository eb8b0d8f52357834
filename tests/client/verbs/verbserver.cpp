// SPDX-License-Identifier: MIT
#include "tests/client/verbs/verbserver.h"

#include "tests/client/verbs/runverb.h"
#include "tests/helpers/files.h"
#include "tests/helpers/redirection.h"

using namespace Qt::StringLiterals;

ExitCode VerbServer::run(const Verb &verb, const QStringList &arguments)
{
    const QString outputPath = folder.filePath(u"output"_s);
    const QString errorsPath = folder.filePath(u"errors"_s);
    ExitCode code{};
    {
        const Redirection toOutput(STDOUT_FILENO, outputPath);
        const Redirection toErrors(STDERR_FILENO, errorsPath);
        code = runVerb(verb, *context, arguments);
    }
    output = QString::fromUtf8(contentOf(outputPath));
    errors = QString::fromUtf8(contentOf(errorsPath));
    return code;
}

QStringList VerbServer::methods() const
{
    QStringList names;
    for (const Json::Value &request : requests) {
        names.append(stringFromJson(request["method"]).remove(u"Live."_s));
    }
    return names;
}

QStringList VerbServer::lastParameters() const
{
    QStringList texts;
    for (const Json::Value &parameter : requests.last()["params"]) {
        texts.append(stringFromJson(parameter));
    }
    return texts;
}

void VerbServer::answer(QSslSocket *peer, const Json::Value &request)
{
    requests.append(request);
    const QString method = stringFromJson(request["method"]);
    if (const int number = refusals.value(method); number != 0) {
        FakeServer::refuse(peer, request, number, "Not now.");
    } else if (method == "Live.ListLocalSessions"_L1) {
        FakeServer::answer(peer, request, serverList(local));
    } else if (method == "Live.ListSessions"_L1) {
        FakeServer::answer(peer, request, serverList(local + others));
    } else {
        Json::Value offer(Json::objectValue);
        offer["port"] = 41234;
        offer["password"] = "secret12";
        FakeServer::answer(peer, request, offer);
    }
}
