// SPDX-License-Identifier: MIT
#pragma once

/** Where programs look for the sockets of displays, whatever the temporary directory is. */
inline constexpr char kDisplaySocketFolder[] = "/tmp/.X11-unix";

/**
 * Connects to the local display @p number as programs do: by the abstract name, and by the file if nobody listens
 * there. The listener must be a process of this user or of root, because it is sent the cookie. Never waits: it fails
 * if the listener's queue is full. Free of Qt, because take-screenshot has none.
 *
 * @return a close-on-exec, non-blocking descriptor that the caller owns; -1 with errno set on failure: EPERM if the
 *         listener is another user's
 */
[[nodiscard]] int connectToDisplay(unsigned number);
