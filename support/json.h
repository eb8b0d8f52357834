// SPDX-License-Identifier: MIT
#pragma once

#include <json/value.h>

#include <QByteArray>
#include <QString>

/*
 * All parsing and writing of JSON goes through these functions. The JSON library throws on deep nesting, on wrong types
 * and on numbers out of range; these functions never throw. All are callable from any thread.
 */

/**
 * Parses the first JSON value of @p text. Comments are allowed, and what follows the first value is ignored; a trailing
 * comma and a byte order mark are errors.
 *
 * @param value  set only on success
 * @return false if @p text is not JSON, or nested deeper than 1000, the limit of the library
 */
[[nodiscard]] bool parseJson(const QByteArray &text, Json::Value *value);

/** Writes @p value without white space, members in ascending order of their names, and one line feed at the end. */
[[nodiscard]] QByteArray writeJson(const Json::Value &value);

/** @p text as a JSON string in UTF-8. NUL characters are kept. */
[[nodiscard]] Json::Value jsonString(const QString &text);

/** The text of a JSON string, with its NUL characters; an empty text if @p value has another type. */
[[nodiscard]] QString stringFromJson(const Json::Value &value);

/** Whether @p value is an object with a member of this name. */
[[nodiscard]] bool hasMember(const Json::Value &value, const char *name);

/** The member of this name; null if there is none or @p value is not an object. */
[[nodiscard]] const Json::Value &member(const Json::Value &value, const char *name);
