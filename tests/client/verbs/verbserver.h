// SPDX-License-Identifier: MIT
#pragma once

#include "client/verbs/verb.h"
#include "contract/rpcerror.h"
#include "contract/sessionerror.h"
#include "tests/client/servedcontext.h"

#include <QHash>
#include <QList>
#include <QStringList>
#include <QTemporaryDir>

/**
 * For tests of verbs: runs one against a server that lists the given sessions, offers the same password for each of
 * them and refuses what it is told to refuse. Keeps what it was asked and what the verb has printed.
 */
class VerbServer
{
public:
    static constexpr int kNoSuchSession = rpcErrorCode(NoSuchSession);
    static constexpr int kInvalidState = rpcErrorCode(InvalidState);

    SessionList local;            ///< the sessions of its own host
    SessionList others;           ///< those that other servers have reported
    QHash<QString, int> refusals; ///< error number by method
    QList<Json::Value> requests;  ///< in the order of arrival
    QString output;               ///< what the last run has written to standard output
    QString errors;               ///< the same for standard error

    /** Runs a verb as main() does. */
    ExitCode run(const Verb &verb, const QStringList &arguments);

    /** Methods of the requests, without "Live." */
    [[nodiscard]] QStringList methods() const;

    /** The text parameters of the last request. */
    [[nodiscard]] QStringList lastParameters() const;

    /** Where the files of its sessions belong. */
    [[nodiscard]] const ServerFiles &files() const { return context->files; }

private:
    void answer(QSslSocket *peer, const Json::Value &request);

    QTemporaryDir folder; ///< for what is printed
    ServedContext context{[this](QSslSocket *peer, const Json::Value &request) { answer(peer, request); }};
};
