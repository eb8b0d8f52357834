// SPDX-License-Identifier: MIT
#pragma once

/*
 * What the running kernel offers to programs that confine themselves. Each function only asks, and changes nothing in
 * the process. False as well if something around the program, such as a container, forbids to ask. Callable from any
 * thread.
 */

/** Whether a program can filter its own system calls (seccomp). */
[[nodiscard]] bool canFilterSystemCalls();

/** Whether a program can keep itself from the file system (Landlock). */
[[nodiscard]] bool canHideFiles();
