// SPDX-License-Identifier: MIT
#pragma once

/**
 * Sends Qt's own messages to the installed logger, because standard error is reserved for the one line of a failed
 * start-up. While no logger is installed, messages are dropped; only a fatal one goes to standard error. Called on the
 * main thread.
 */
void logQtMessages();
