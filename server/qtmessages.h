// SPDX-License-Identifier: MIT
#pragma once

/**
 * Sends Qt's own messages to the installed logger, because standard error is reserved for the one line of a failed
 * start-up. Before a logger is installed and after its end messages are dropped, except for a fatal one, which then
 * goes to standard error. Called on the main thread.
 */
void logQtMessages();
