// SPDX-License-Identifier: MIT
#pragma once

#include <mutex>

/*
 * Keeps passwords, cookies and keys in the memory of our programs. Called first in main(), while there is one thread.
 */

/**
 * Lowers the soft limit, so that the process leaves no core file. The hard limit stays, because a lowered one can never
 * be raised again, and the limits of the user's programs are his own.
 */
void disableCoreFiles();

/**
 * Gives the process back the limit that it had before disableCoreFiles(). For a child between fork() and exec(),
 * because the limit is inherited: safe in a signal handler, and after vfork().
 */
void restoreCoreFiles();

/**
 * Undoes disableCoreFiles() for this process and the children that start meanwhile, while it lives. For a function that
 * starts a program and offers no hook between fork() and exec(). Callable from any thread; one at a time lives.
 */
class CoreFilesForChildren final
{
public:
    CoreFilesForChildren();
    ~CoreFilesForChildren();
    CoreFilesForChildren(const CoreFilesForChildren &) = delete;
    CoreFilesForChildren &operator=(const CoreFilesForChildren &) = delete;

private:
    std::lock_guard<std::mutex> lock;
};

/**
 * Lets no other process of this user read our memory, or our directory in /proc. That also hides our working directory,
 * environment and open files. Children are hidden as well until they run a program.
 */
void disableInspection();
