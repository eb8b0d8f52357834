// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

/**
 * What the completion scripts of the shells read: a line for each verb, alias and option, with three fields that tabs
 * separate.
 *
 *     wait             Wait until a session is …    [SESSION] --for STATE
 *     wait --for       What to wait for: …          connected|suspended|ended
 *     wait -h --help   Print this.
 *
 * The first field holds the verb and all names of the option, the second one the text of the help. The third one says
 * what follows: words to choose from stand between bars; it is empty when nothing follows.
 */
[[nodiscard]] QString completionTable();
