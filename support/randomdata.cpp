// SPDX-License-Identifier: MIT
#include "support/randomdata.h"

#include "support/filereader.h"

#include <QByteArray>

using namespace Qt::StringLiterals;

namespace {

constexpr int kTokenBytes = 16;

} // namespace

bool randomHex(QString *result, QString *error, const QString &device)
{
    QByteArray bytes;
    if (!readFile(device, kTokenBytes, &bytes, error)) {
        return false;
    }
    // A shorter token could be guessed.
    if (bytes.size() < kTokenBytes) {
        *error = u"Failed to read from the file \"%1\": %2"_s.arg(device, u"Too little data"_s);
        return false;
    }
    *result = QString::fromLatin1(bytes.toHex());
    return true;
}
