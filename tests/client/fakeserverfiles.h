// SPDX-License-Identifier: MIT
#pragma once

#include "base/settings.h"
#include "tests/helpers/testidentity.h"

#include <QTemporaryDir>

/**
 * The files of a server, in a temporary folder. They name the process under test, which takes the server's process
 * name, so that a client finds its FakeServer.
 */
class FakeServerFiles
{
public:
    /** Creates certificate and key and takes the server's process name. Returns false if openssl fails. */
    [[nodiscard]] bool make();

    /** Writes the files of a server that is this process and listens on @p port. */
    void name(quint16 port) const;

    /** Removes these files, as a server does when it ends. */
    void remove() const;

    /** The settings of a client that uses these files. */
    [[nodiscard]] Settings settings() const;

    QTemporaryDir dir; ///< contains the user path
    TestIdentity identity;
};
