// SPDX-License-Identifier: MIT
#include "fuzz/target.h"

#include <QFileInfo>
#include <QMap>

using namespace Qt::StringLiterals;

namespace {

QMap<QString, FuzzFunction> &targets()
{
    static QMap<QString, FuzzFunction> all;
    return all;
}

} // namespace

bool addFuzzTarget(const char *sourceFile, FuzzFunction function)
{
    QString name = QFileInfo(QString::fromLocal8Bit(sourceFile)).baseName();
    targets().insert(name.remove(u"fuzz_"_s), function);
    return true;
}

FuzzFunction fuzzTarget(const QString &name)
{
    if (name.isEmpty() && targets().size() == 1) {
        return targets().first();
    }
    return targets().value(name);
}
