// SPDX-License-Identifier: MIT
#include "fuzz/mutation.h"

#include <QRegularExpression>

#include <algorithm>
#include <random>

using namespace Qt::StringLiterals;

namespace {

constexpr qsizetype kMaxBytes = 65536;

class Mutation final
{
public:
    Mutation(const QByteArrayList &inputs_, const QByteArrayList &words_, unsigned number)
        : inputs(inputs_)
        , words(words_)
        , engine(number)
        , bytes(inputs[roll(inputs.size())])
    {
    }

    QByteArray result()
    {
        for (qsizetype changes = 1 + roll(4); changes > 0; --changes) {
            change();
        }
        return bytes.first(std::min(bytes.size(), kMaxBytes));
    }

private:
    qsizetype roll(qsizetype count)
    {
        return count > 0 ? static_cast<qsizetype>(engine() % static_cast<unsigned>(count)) : 0;
    }
    qsizetype place() { return roll(bytes.size() + 1); }
    qsizetype lengthFrom(qsizetype start) { return roll(std::min<qsizetype>(bytes.size() - start, 16) + 1); }

    void change()
    {
        const qsizetype at = place();
        switch (roll(7)) {
        case 0:
            flip(at, static_cast<char>(1 << roll(8)));
            break;
        case 1:
            flip(at, static_cast<char>(roll(256)));
            break;
        case 2:
            bytes.insert(at, static_cast<char>(roll(256)));
            break;
        case 3:
            bytes.remove(at, lengthFrom(at));
            break;
        case 4:
            bytes.insert(place(), bytes.mid(at, lengthFrom(at)));
            break;
        case 5:
            bytes.insert(at, words.value(roll(words.size())));
            break;
        default:
            splice(at);
        }
    }

    void flip(qsizetype at, char mask)
    {
        if (at < bytes.size()) {
            bytes[at] = static_cast<char>(bytes[at] ^ mask);
        }
    }

    void splice(qsizetype at)
    {
        const QByteArray &other = inputs[roll(inputs.size())];
        bytes = bytes.first(at) + other.mid(roll(other.size() + 1));
    }

    const QByteArrayList &inputs;
    const QByteArrayList &words;
    std::mt19937 engine;
    QByteArray bytes;
};

QByteArray unescaped(const QString &word)
{
    QByteArray bytes;
    for (qsizetype at = 0; at < word.size(); ++at) {
        if (word[at] == u'\\' && word.mid(at + 1, 1) == u"x") {
            bytes += QByteArray::fromHex(word.mid(at + 2, 2).toLatin1());
            at += 3;
        } else {
            at += word[at] == u'\\' ? 1 : 0;
            bytes += word.mid(at, 1).toLatin1();
        }
    }
    return bytes;
}

} // namespace

QByteArrayList dictionaryWords(const QByteArray &dictionary)
{
    static const QRegularExpression entry(uR"re(^[^#"\n]*"((?:[^"\\\n]|\\.)*)"\s*$)re"_s,
                                          QRegularExpression::MultilineOption);
    QByteArrayList words;
    for (const QRegularExpressionMatch &match : entry.globalMatch(QString::fromLatin1(dictionary))) {
        words.append(unescaped(match.captured(1)));
    }
    return words;
}

QByteArray mutatedInput(const QByteArrayList &inputs, const QByteArrayList &words, unsigned number)
{
    return Mutation(inputs, words, number).result();
}
