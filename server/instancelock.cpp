// SPDX-License-Identifier: MIT
#include "server/instancelock.h"

#include "base/instancerecord.h"

#include <QRandomGenerator>

#include <optional>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

using Locking = InstanceFiles::Locking;

namespace {

/** Bounds the races with other processes that start at the same time. */
constexpr int kMaxRounds = 1000;
/** A pause of random length, so that two processes that met do not meet again. */
constexpr quint32 kMaxPauseMs = 20;

} // namespace

/** A file that this process has locked. Removed while it is still locked, so that no file is left when it ends. */
class InstanceLock::File final
{
public:
    File(int descriptor_, const QByteArray &folder_, const QByteArray &name_)
        : descriptor(descriptor_)
        , folder(folder_)
        , name(name_)
    {
    }
    ~File()
    {
        // A cleaner may have removed it meanwhile, and another process may have made one of this name.
        if (isThere()) {
            ::unlink(path().constData());
        }
        ::close(descriptor);
    }
    Q_DISABLE_COPY_MOVE(File)

    [[nodiscard]] bool isThere() const { return InstanceFiles::isAt(descriptor, path()); }
    [[nodiscard]] const QByteArray &place() const { return folder; }

    void refresh() const { ::futimens(descriptor, nullptr); }

    /** On a full disk the file stays without the text, and is a lock all the same. */
    void write(const QByteArray &text) const
    {
        // One call, so that a reader hardly ever sees a part; it can tell by the end of the text.
        [[maybe_unused]] const ssize_t written =
            ::pwrite(descriptor, text.constData(), static_cast<size_t>(text.size()), 0);
    }

    [[nodiscard]] bool is(const QByteArray &folder_, const char *name_) const
    {
        return folder == folder_ && name == name_;
    }

private:
    [[nodiscard]] QByteArray path() const { return folder + '/' + name; }

    const int descriptor;
    const QByteArray folder;
    const QByteArray name;
};

InstanceLock::InstanceLock(const QString &id, const QList<QByteArray> &folders)
    : files(id, folders)
{
}

InstanceLock::~InstanceLock()
{
    release();
}

bool InstanceLock::take()
{
    if (!held.empty()) {
        return true;
    }
    for (int round = 0; round < kMaxRounds; ++round) {
        const Result result = tryTake();
        if (result == Result::Taken) {
            return true;
        }
        release();
        if (result == Result::Elsewhere) {
            return false;
        }
        ::usleep(1000 * QRandomGenerator::global()->bounded(1U, kMaxPauseMs));
    }
    return false;
}

void InstanceLock::refresh() const
{
    for (const std::unique_ptr<File> &file : held) {
        file->refresh();
    }
}

void InstanceLock::restore()
{
    for (std::unique_ptr<File> &file : held) {
        std::unique_ptr<File> next;
        if (!file->isThere() && lockIn(file->place(), &next) && next) {
            next->write(record);
            file = std::move(next);
        }
    }
}

InstanceLock::Result InstanceLock::tryTake()
{
    if (isHeldElsewhere()) {
        return Result::Elsewhere;
    }
    // From here on, another process counts as running only in the next round, without locks of our own. Two processes
    // could otherwise see each other's locks and both end.
    for (const QByteArray &folder : files.folders()) {
        std::unique_ptr<File> file;
        if (!lockIn(folder, &file)) {
            return Result::Lost;
        }
        if (file) {
            held.push_back(std::move(file));
        }
    }
    // Two processes may have locked files of different names, because a stranger put something under the usual name
    // in between. The one that looks later sees the other's file here.
    if (isHeldElsewhere()) {
        return Result::Lost;
    }
    removeStaleFiles();
    record = textOf(InstanceRecord::ofThisProcess());
    for (const std::unique_ptr<File> &file : held) {
        file->write(record);
    }
    return Result::Taken;
}

bool InstanceLock::isHeldElsewhere() const
{
    bool found = false;
    for (const QByteArray &folder : files.folders()) {
        if (found) {
            break;
        }
        files.forEach(folder, [this, &found, &folder](const char *name) {
            std::optional<InstanceRecord> holder;
            found = !holds(folder, name) && isLockHeld(folder + '/' + name, &holder);
            return !found;
        });
    }
    return found;
}

void InstanceLock::removeStaleFiles() const
{
    for (const QByteArray &folder : files.folders()) {
        files.forEach(folder, [this, &folder](const char *name) {
            const QByteArray path = folder + '/' + name;
            const int descriptor = holds(folder, name) ? -1 : InstanceFiles::open(path, 0);
            if (descriptor != -1) {
                if (InstanceFiles::lock(descriptor, path, LOCK_EX) == Locking::Locked) {
                    ::unlink(path.constData());
                }
                ::close(descriptor);
            }
            return true;
        });
    }
}

bool InstanceLock::lockIn(const QByteArray &folder, std::unique_ptr<File> *file) const
{
    // The usual name first: processes that start at the same time then meet at one file, and the kernel decides.
    QByteArray name = files.prefix() + "0.lock";
    int descriptor = InstanceFiles::open(folder + '/' + name, O_CREAT);
    if (descriptor != -1 && InstanceFiles::isAt(descriptor, folder + '/' + name) &&
        !InstanceFiles::hasOneName(descriptor)) {
        ::close(descriptor); // a stranger's hard link, perhaps to a document of the user
        descriptor = -1;
    }
    if (descriptor == -1) {
        // Nobody can guess this name, so nobody can have taken it.
        name = files.prefix() + QByteArray::number(QRandomGenerator::system()->generate64(), 16) + ".lock";
        descriptor = InstanceFiles::open(folder + '/' + name, O_CREAT | O_EXCL);
    }
    if (descriptor == -1) {
        return true; // the folder is full or cannot be written to; the others have to do
    }
    if (InstanceFiles::lock(descriptor, folder + '/' + name, LOCK_EX) != Locking::Locked ||
        !InstanceFiles::hasOneName(descriptor)) {
        ::close(descriptor);
        return false;
    }
    // What a killed process has left there would name the wrong process now.
    [[maybe_unused]] const int emptied = ::ftruncate(descriptor, 0);
    *file = std::make_unique<File>(descriptor, folder, name);
    return true;
}

void InstanceLock::release()
{
    held.clear();
}

bool InstanceLock::holds(const QByteArray &folder, const char *name) const
{
    for (const std::unique_ptr<File> &file : held) {
        if (file->is(folder, name)) {
            return true;
        }
    }
    return false;
}
