// SPDX-License-Identifier: MIT
#pragma once

struct SessionInfo;

/**
 * Checks what must hold for every description that a peer sent and that was taken: our own clients get it as an object
 * of eight texts, which is read as the same description again.
 */
void checkSessionInfo(const SessionInfo &info);
