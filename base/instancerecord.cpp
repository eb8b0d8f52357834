// SPDX-License-Identifier: MIT
#include "base/instancerecord.h"

#include <algorithm>
#include <cstddef>

#include <sys/file.h>
#include <unistd.h>

namespace {

/** A search path has a few kilobytes; a longer record is not ours. */
constexpr qsizetype kMaxBytes = 1024 * 1024;

/** Ends each variable, because no variable can contain it. An empty one ends the record. */
constexpr char kEnd = '\0';

QByteArray contents(int descriptor)
{
    QByteArray text;
    QByteArray block(4096, '\0');
    ssize_t length = 0;
    while (text.size() < kMaxBytes &&
           (length = ::pread(descriptor, block.data(), static_cast<std::size_t>(block.size()), text.size())) > 0) {
        text.append(block.constData(), length);
    }
    return text;
}

} // namespace

InstanceRecord InstanceRecord::ofThisProcess()
{
    InstanceRecord record = {::getpid(), {}};
    for (const char *name : {"HOME", "PATH"}) {
        if (qEnvironmentVariableIsSet(name)) {
            record.environment.append(QByteArray(name) + '=' + qgetenv(name));
        }
    }
    return record;
}

std::optional<QByteArray> InstanceRecord::variable(QByteArrayView name) const
{
    const QByteArray begin = name.toByteArray() + '=';
    for (const QByteArray &entry : environment) {
        if (entry.startsWith(begin)) {
            return entry.sliced(begin.size());
        }
    }
    return std::nullopt;
}

QByteArray textOf(const InstanceRecord &record)
{
    QByteArray text = QByteArray::number(record.pid) + '\n';
    for (const QByteArray &entry : record.environment) {
        text += entry + kEnd;
    }
    return text + kEnd;
}

std::optional<InstanceRecord> parseInstanceRecord(const QByteArray &text)
{
    const qsizetype numberEnd = text.indexOf('\n');
    bool isNumber = false;
    InstanceRecord record = {text.first(std::max<qsizetype>(numberEnd, 0)).toLongLong(&isNumber), {}};
    if (!isNumber || record.pid <= 0) {
        return std::nullopt;
    }
    for (qsizetype begin = numberEnd + 1;;) {
        const qsizetype end = text.indexOf(kEnd, begin);
        if (end == -1) {
            return std::nullopt;
        }
        if (end == begin) {
            return record;
        }
        record.environment.append(text.sliced(begin, end - begin));
        begin = end + 1;
    }
}

bool isLockHeld(const QByteArray &path, std::optional<InstanceRecord> *holder)
{
    holder->reset();
    const int descriptor = InstanceFiles::open(path, 0);
    if (descriptor == -1) {
        return false;
    }
    const bool isHeld = InstanceFiles::lock(descriptor, path, LOCK_SH) == InstanceFiles::Locking::Held;
    // Read after the lock was seen: before, the text may be that of a process which has ended.
    if (isHeld) {
        *holder = parseInstanceRecord(contents(descriptor));
    }
    // A stranger's hard link could be to a file that an unrelated program of the user has locked.
    const bool isLockFile = holder->has_value() || InstanceFiles::hasOneName(descriptor);
    ::close(descriptor);
    return isHeld && isLockFile;
}

QList<InstanceRecord> lockHolders(const InstanceFiles &files)
{
    QList<InstanceRecord> holders;
    for (const QByteArray &folder : files.folders()) {
        files.forEach(folder, [&holders, &folder](const char *name) {
            std::optional<InstanceRecord> record;
            if (isLockHeld(folder + '/' + name, &record) && record && !holders.contains(*record)) {
                holders.append(*record);
            }
            return true;
        });
    }
    return holders;
}
