// SPDX-License-Identifier: MIT
#include "support/processstat.h"

#include "support/filereader.h"

#include <QList>

using namespace Qt::StringLiterals;

namespace {

constexpr int kMaxStatBytes = 4096;

} // namespace

std::optional<ProcessStat> parseProcessStat(const QByteArray &line)
{
    // "pid (name) state parent ...". The name may hold parentheses, but no field after it does.
    const qsizetype nameBegin = line.indexOf('(') + 1;
    const qsizetype nameEnd = line.lastIndexOf(')');
    const QList<QByteArray> fields = line.mid(nameEnd + 2).split(' ');
    if (nameBegin == 0 || nameEnd < nameBegin || fields.size() < 2) {
        return std::nullopt;
    }
    const bool hasEnded = fields[0] == "Z" || fields[0] == "X";
    return ProcessStat{line.sliced(nameBegin, nameEnd - nameBegin), fields[1].toInt(), hasEnded};
}

std::optional<ProcessStat> readProcessStat(qint64 pid)
{
    QByteArray line;
    QString ignored; // in most cases the process has just ended
    return readFile(u"/proc/%1/stat"_s.arg(pid), kMaxStatBytes, &line, &ignored) ? parseProcessStat(line)
                                                                                 : std::nullopt;
}
