// SPDX-License-Identifier: MIT
#pragma once

#include <json/value.h>

#include <QByteArray>
#include <QString>

/*
 * The project's only door to the JSON library: the library throws on deep nesting, on wrong types and on
 * numbers out of range, and nothing here does. All functions are callable from any thread.
 */

/**
 * Parses the first JSON value of @p text. Comments are allowed, and what follows the first value is ignored; a trailing
 * comma and a byte order mark are errors.
 *
 * @param value  set only on success
 * @return false for anything that is no JSON, nesting deeper than the library takes (1000) included
 */
[[nodiscard]] bool parseJson(const QByteArray &text, Json::Value *value);

/** The compact text of @p value: no white space, members in ascending key order, one line feed at the end. */
[[nodiscard]] QByteArray writeJson(const Json::Value &value);

/** @p text as a JSON string, in UTF-8 and whole, NUL characters included. */
[[nodiscard]] Json::Value jsonString(const QString &text);

/** The text of a JSON string, NUL characters included; an empty text for any value of another type. */
[[nodiscard]] QString stringFromJson(const Json::Value &value);

/** Whether @p value is an object with a member of this name. */
[[nodiscard]] bool hasMember(const Json::Value &value, const char *name);

/** The member of this name; null when there is none or @p value is no object. */
[[nodiscard]] const Json::Value &member(const Json::Value &value, const char *name);
