// SPDX-License-Identifier: MIT
#pragma once

/**
 * Opens /dev/null for each standard stream that is closed. Otherwise our first files and sockets would get these
 * numbers, and we would read from them and print into them. Called in main(), before anything opens a file.
 */
void ensureStandardStreams();
