// SPDX-License-Identifier: MIT
#pragma once

struct SessionInfo;

/**
 * Checks a description that a peer has sent and that was accepted: written for our own clients it must be an object of
 * eight strings, and reading that must give the same description.
 */
void checkSessionInfo(const SessionInfo &info);
