// SPDX-License-Identifier: MIT
#pragma once

#include <QHostAddress>
#include <QLatin1StringView>
#include <QString>
#include <QStringList>

#include <chrono>
#include <optional>
#include <span>

/**
 * What the user can configure for the bundled agent, in a settings file of its own. A plain value. Unlike the server's
 * settings these decide who gets in, so a value that makes no sense is reported, and never read as a looser one.
 */
struct AgentSettings
{
    bool allowPlainFromNetwork = false; ///< whether viewers on other hosts may connect without TLS
    /** Where the TCP port is bound: "Any" (all addresses), "None" (no TCP port at all), or an address of this host. */
    QString listenAddress = QStringLiteral("Any");
    bool allowLocalUsers = false;             ///< whether other users of this host may reach the TCP port
    std::chrono::minutes passwordMinutes{10}; ///< how long a password is open that nobody uses

    /** The address to bind; nothing for no TCP port. */
    [[nodiscard]] std::optional<QHostAddress> address() const;

    /**
     * Reads everything once. Called on the main thread.
     *
     * @param problems  gets one sentence for each value that makes no sense; the default takes its place, and for an
     *                  address loopback
     */
    [[nodiscard]] static AgentSettings read(QStringList *problems);
};

/** One setting of the agent, for documents and checks. */
struct AgentSettingRow
{
    QLatin1StringView key;
    QLatin1StringView defaultText;
};

[[nodiscard]] std::span<const AgentSettingRow> agentSettingTable();

/** The path of the agent's settings file. */
[[nodiscard]] QString agentSettingsPath();
