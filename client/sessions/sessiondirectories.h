// SPDX-License-Identifier: MIT
#pragma once

#include "client/sessions/clientcontext.h"

#include <QString>

/**
 * Finds the directory of a session of this host, also of one that has failed and is no longer listed. Asks the
 * server when one runs, for it knows the names, and starts none.
 *
 * @param directory  set only on success
 * @param failure    set only on failure: NoSuchSession or Ambiguous
 */
[[nodiscard]] bool findSessionDirectory(ClientContext &context, const QString &target, QString *directory,
                                        Failure *failure);

/** The failure to do something with the files of a session: NoSuchSession when it has ended, and they with it. */
[[nodiscard]] Failure fileFailure(const QString &directory, const Failure &failure);
