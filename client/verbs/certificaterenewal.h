// SPDX-License-Identifier: MIT
#pragma once

#include "client/reach/certificatehost.h"
#include "client/server/certificatestore.h"
#include "client/sessions/clientcontext.h"
#include "client/terminal/exitcode.h"

#include <QStringList>

#include <vector>

/**
 * Gives this host and others a new certificate. All hosts store the new pair first, and only then does each put it into
 * use: if one cannot, nothing has changed anywhere. Used on the main thread.
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
    [[nodiscard]] QStringList useOnHosts() const;

    ClientContext *context; ///< not owned
    CertificateStore store;
    const std::vector<CertificateHost> hosts;
    std::vector<const CertificateHost *> prepared; ///< the hosts that have stored the new pair
    QString id;                                    ///< of the new pair
};

/** The certificates of this host's user. */
[[nodiscard]] CertificateStore certificateStore(const ClientContext &context);

/** Lets the server take the pair that is in use now. Does nothing if none runs. Sessions go on. */
[[nodiscard]] bool restartServer(ClientContext *context, Failure *failure);
