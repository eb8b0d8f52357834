// SPDX-License-Identifier: MIT
#pragma once

/**
 * Sends what Qt itself reports to the installed logger, because standard error belongs to the one line of a failed
 * start-up. Without a logger, before it is installed and after its end, messages are dropped; only the text of a fatal
 * one then goes to standard error. Called on the main thread.
 */
void logQtMessages();
