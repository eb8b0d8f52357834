// SPDX-License-Identifier: MIT
#pragma once

#include "client/sessions/clientcontext.h"

#include <QString>

/**
 * Finds the directory of a session of this host, including failed sessions that are no longer listed. Asks the server
 * if one runs, because only the server knows the names; starts none.
 *
 * @param directory  set only on success
 * @param failure    set only on failure: NoSuchSession or Ambiguous
 */
[[nodiscard]] bool findSessionDirectory(ClientContext &context, const QString &target, QString *directory,
                                        Failure *failure);

/**
 * Reads the display number of a session from its directory.
 *
 * @param display  set only on success
 * @param failure  set only on failure: SessionFailed
 */
[[nodiscard]] bool readSessionDisplay(const QString &directory, quint16 *display, Failure *failure);

/** The failure to use the files of a session: NoSuchSession if it has ended, because its files are removed then. */
[[nodiscard]] Failure fileFailure(const QString &directory, const Failure &failure);
