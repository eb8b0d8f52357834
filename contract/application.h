// SPDX-License-Identifier: MIT
#pragma once

#include <QLatin1StringView>

// Server and client find the same settings file by these two names.
inline constexpr QLatin1StringView kOrganizationName("Halvorn Media");
inline constexpr QLatin1StringView kApplicationName("Zarvo Server");
/** Names the settings file of the bundled agent, which lies beside the server's. */
inline constexpr QLatin1StringView kAgentName("Zarvo Agent");

/** Gives the application object these names and the project's version. Called before anything reads a setting. */
void nameApplication();
