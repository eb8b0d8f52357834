// SPDX-License-Identifier: MIT
#pragma once

#include "client/reach/certificatehost.h"
#include "client/server/certificatestore.h"
#include "client/sessions/clientcontext.h"
#include "client/terminal/exitcode.h"
#include "client/terminal/interruption.h"

#include <QStringList>

#include <vector>

/**
 * Gives this host and others a new certificate. All hosts store the new pair first, and only then does each put it into
 * use: if one cannot, nothing has changed anywhere. A signal in the first step undoes it. After that, this host
 * finishes its own part, and the user learns which hosts are missing. Used on the main thread.
 */
class CertificateRenewal final
{
public:
    CertificateRenewal(ClientContext *context, const QStringList &hosts);

    /** Tells the user what happened, and where it did not. */
    [[nodiscard]] ExitCode run();

private:
    [[nodiscard]] bool prepare(Failure *failure);
    [[nodiscard]] bool storeOnHosts(Failure *failure);
    /** Removes the new pair where it is stored. */
    void discard();
    [[nodiscard]] ExitCode use();
    [[nodiscard]] QStringList useOnHosts();
    /** The hosts that share this home, seem to run a server and were not named: that server has read the old pair. */
    [[nodiscard]] QStringList forgottenNeighbours() const;

    ClientContext *context;    ///< not owned
    Interruption interruption; ///< a signal ends the program only after everything is told
    CertificateStore store;
    std::vector<CertificateHost> hosts;
    std::vector<const CertificateHost *> prepared; ///< the hosts that have stored the new pair
    QString id;                                    ///< of the new pair
};

/** The certificates of this host's user. */
[[nodiscard]] CertificateStore certificateStore(const ClientContext &context);

/**
 * Lets the server take the pair that is in use now. Does nothing if none runs. Sessions go on. No signal may end it
 * half way, so an Interruption must be held back.
 */
[[nodiscard]] bool restartServer(ClientContext *context, Failure *failure);
