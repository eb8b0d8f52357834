// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QByteArrayList>

/** The words of a dictionary in the fuzzer's form: name="word", with escapes like \x00. */
[[nodiscard]] QByteArrayList dictionaryWords(const QByteArray &dictionary);

/**
 * One of the @p inputs, of which there is at least one, changed in a few places. The same for the same @p number:
 * bytes are changed, put in, taken out and doubled, words are put in, and the end of another input is put behind it.
 */
[[nodiscard]] QByteArray mutatedInput(const QByteArrayList &inputs, const QByteArrayList &words, unsigned number);
