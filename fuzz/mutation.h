// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QByteArrayList>

/** Reads the words of a dictionary in the fuzzer's form: name="word", with escapes like \x00. */
[[nodiscard]] QByteArrayList dictionaryWords(const QByteArray &dictionary);

/**
 * Takes one of the @p inputs, of which there must be at least one, and changes it in a few places: changes, inserts,
 * removes and copies bytes, inserts words, or appends the end of another input. The same @p number gives the same
 * result.
 */
[[nodiscard]] QByteArray mutatedInput(const QByteArrayList &inputs, const QByteArrayList &words, unsigned number);
