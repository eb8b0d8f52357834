// SPDX-License-Identifier: MIT
#pragma once

#include <QLatin1StringView>
#include <QString>

/*
 * The small files that the server shares with agents and other programs: one value each, in UTF-8, without a
 * line end. All functions are callable from any thread; the caller logs the error.
 */

/** Their names within a session directory. */
namespace SessionFile {
inline constexpr QLatin1StringView kDisplay("display");
inline constexpr QLatin1StringView kWindowMode("window_mode");
inline constexpr QLatin1StringView kName("name");
inline constexpr QLatin1StringView kInfo("info");
inline constexpr QLatin1StringView kAuthority("authority");
inline constexpr QLatin1StringView kMonitorPid("monitor_pid");
inline constexpr QLatin1StringView kServerPid("server_pid");
inline constexpr QLatin1StringView kServerLog("server_log");
inline constexpr QLatin1StringView kServerExit("server_exit");
inline constexpr QLatin1StringView kAppLog("app_log");
} // namespace SessionFile

/**
 * Writes one value into a file, which is private to the user before the value is in it.
 * @param error  set only on failure: the file's name and the reason
 */
[[nodiscard]] bool writeNumberFile(const QString &path, qint64 number, QString *error);
[[nodiscard]] bool writeTextFile(const QString &path, const QString &text, QString *error);

/**
 * Reads one value from a file. Numbers are cut to the type's size. A text is the first word of the file.
 * @param value  set only on success
 * @param error  set only on failure: the file's name and the reason
 */
[[nodiscard]] bool readDisplayFile(const QString &path, quint16 *value, QString *error);
[[nodiscard]] bool readNumberFile(const QString &path, qint32 *value, QString *error);
[[nodiscard]] bool readWordFile(const QString &path, QString *value, QString *error);
