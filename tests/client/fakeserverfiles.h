// SPDX-License-Identifier: MIT
#pragma once

#include "base/settings.h"
#include "tests/helpers/testidentity.h"

#include <QTemporaryDir>

/**
 * The files of a server, in a folder of their own, that name the process under test: it passes itself off as a server,
 * so that its own FakeServer is found.
 */
class FakeServerFiles
{
public:
    /** Makes certificate and key and takes the server's process name. False when there is no certificate. */
    [[nodiscard]] bool make();

    /** Says that this process is the server and listens on that port. */
    void name(quint16 port) const;

    /** Takes that back, as a server that ends. */
    void remove() const;

    /** Those of a client that is to find the files. */
    [[nodiscard]] Settings settings() const;

    QTemporaryDir dir; ///< the user path lies in it
    TestIdentity identity;
};
