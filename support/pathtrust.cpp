// SPDX-License-Identifier: MIT
#include "support/pathtrust.h"

#include <QDir>
#include <QFile>
#include <QList>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/xattr.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

/** As many as the kernel follows. */
constexpr int kMaxSymlinks = 40;
constexpr size_t kMaxLinkBytes = 4096;
/** Bounds the names of a group's members. A group with more is not private to one user. */
constexpr size_t kMaxAccountBytes = 65536;

class Descriptor final
{
public:
    Descriptor() = default;
    explicit Descriptor(int descriptor_)
        : descriptor(descriptor_)
    {
    }
    ~Descriptor() { reset(-1); }
    Q_DISABLE_COPY_MOVE(Descriptor)

    [[nodiscard]] int get() const { return descriptor; }
    [[nodiscard]] bool isOpen() const { return descriptor != -1; }
    void reset(int next)
    {
        if (descriptor != -1) {
            ::close(descriptor);
        }
        descriptor = next;
    }
    [[nodiscard]] int release()
    {
        const int released = descriptor;
        descriptor = -1;
        return released;
    }

private:
    int descriptor = -1;
};

bool hasOnlyMember(const group &entry, const char *name)
{
    for (char **member = entry.gr_mem; *member; ++member) {
        if (std::strcmp(*member, name) != 0) {
            return false;
        }
    }
    return true;
}

std::optional<gid_t> privateGroupOf(uid_t user)
{
    std::vector<char> userText(kMaxAccountBytes);
    passwd userEntry = {};
    passwd *foundUser = nullptr;
    if (::getpwuid_r(user, &userEntry, userText.data(), userText.size(), &foundUser) != 0 || !foundUser) {
        return std::nullopt;
    }
    std::vector<char> groupText(kMaxAccountBytes);
    group groupEntry = {};
    group *foundGroup = nullptr;
    if (::getgrgid_r(userEntry.pw_gid, &groupEntry, groupText.data(), groupText.size(), &foundGroup) != 0 ||
        !foundGroup || std::strcmp(groupEntry.gr_name, userEntry.pw_name) != 0 ||
        !hasOnlyMember(groupEntry, userEntry.pw_name)) {
        return std::nullopt;
    }
    return userEntry.pw_gid;
}

/** Asks only about files that a group may write to, because only these can let further users write. */
bool hasAccessList(int descriptor, const struct stat &status)
{
    if ((status.st_mode & S_IWGRP) == 0) {
        return false;
    }
    const QByteArray self = "/proc/self/fd/" + QByteArray::number(descriptor); // a path alone can be asked with O_PATH
    return ::getxattr(self.constData(), "system.posix_acl_access", nullptr, 0) >= 0 ||
           (errno != ENODATA && errno != EOPNOTSUPP);
}

/** The walk along one path. */
class Walk final
{
public:
    explicit Walk(const QString &path_)
        : path(path_)
    {
    }

    PathTrust run(FoundPath *found, QString *error);

private:
    /** Opens @p name in the current folder without following it. */
    [[nodiscard]] int open(const QByteArray &name) const;
    [[nodiscard]] bool enterRoot();
    /** Judges what is open. */
    PathTrust judge(int descriptor, const struct stat &status, QString *error);
    /** Puts the target of a symlink in front of the rest of the path. */
    [[nodiscard]] bool prependTarget(int link);
    PathTrust failed(QString *error) const;
    [[nodiscard]] QString here() const;

    const QString path;
    PathUser user = {::geteuid(), std::nullopt};
    bool isGroupKnown = false;
    Descriptor folder;
    QByteArray folderPath; ///< of the open folder; empty for the root
    QByteArray part;       ///< what is judged now
    bool isShared = false; ///< the open folder
    QByteArrayList rest;   ///< of the path
    int links = 0;
};

int Walk::open(const QByteArray &name) const
{
    constexpr int kFlags = O_PATH | O_NOFOLLOW | O_CLOEXEC;
    // As a folder first, because only then a file system that is mounted when it is used gets mounted.
    const int asFolder = ::openat(folder.get(), name.constData(), kFlags | O_DIRECTORY);
    return asFolder != -1 || errno != ENOTDIR ? asFolder : ::openat(folder.get(), name.constData(), kFlags);
}

bool Walk::enterRoot()
{
    folder.reset(::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
    folderPath.clear();
    isShared = false;
    return folder.isOpen();
}

QString Walk::here() const
{
    return QFile::decodeName(part.isEmpty() ? "/"_ba : part);
}

PathTrust Walk::judge(int descriptor, const struct stat &status, QString *error)
{
    // Not before it matters, because the lookup may ask a server on the network.
    if ((status.st_mode & S_IWGRP) != 0 && !isGroupKnown) {
        user.privateGroup = privateGroupOf(user.id);
        isGroupKnown = true;
    }
    switch (judgePathPart(status, hasAccessList(descriptor, status), user)) {
    case PathPart::Trusted:
        isShared = false;
        return PathTrust::Trusted;
    case PathPart::Shared:
        isShared = true;
        return PathTrust::Trusted;
    case PathPart::ForeignOwner:
        *error = u"The file \"%1\" is not used: \"%2\" belongs to another user (%3)"_s.arg(
            path, here(), QString::number(status.st_uid));
        break;
    case PathPart::Writable:
        *error = u"The file \"%1\" is not used: others can write to \"%2\" (mode %3)"_s.arg(
            path, here(), QString::number(status.st_mode & 07777, 8).rightJustified(4, u'0'));
        break;
    }
    return PathTrust::Untrusted;
}

bool Walk::prependTarget(int link)
{
    QByteArray target(kMaxLinkBytes, '\0');
    const ssize_t length = ::readlinkat(link, "", target.data(), kMaxLinkBytes);
    if (length <= 0 || ++links > kMaxSymlinks) {
        errno = length < 0 ? errno : ELOOP;
        return false;
    }
    target.truncate(length);
    rest = target.split('/') + rest;
    return !target.startsWith('/') || enterRoot();
}

PathTrust Walk::failed(QString *error) const
{
    const int reason = errno;
    *error = u"Failed to open the file \"%1\": %2"_s.arg(path, qt_error_string(reason));
    return reason == ENOENT &&
                   std::all_of(rest.begin(), rest.end(), [](const QByteArray &name) { return name.isEmpty(); })
               ? PathTrust::Missing
               : PathTrust::Failed;
}

PathTrust Walk::run(FoundPath *found, QString *error)
{
    struct stat status = {};
    rest = QFile::encodeName(QDir::current().absoluteFilePath(path)).split('/');
    if (!enterRoot() || ::fstat(folder.get(), &status) != 0) {
        return failed(error);
    }
    if (const PathTrust root = judge(folder.get(), status, error); root != PathTrust::Trusted) {
        return root;
    }
    bool isInShared = false;
    while (!rest.isEmpty()) {
        const QByteArray name = rest.takeFirst();
        if (name.isEmpty() || name == ".") {
            continue;
        }
        part = name == ".." ? folderPath.first(std::max<qsizetype>(folderPath.lastIndexOf('/'), 0))
                            : folderPath + '/' + name;
        isInShared = isShared;
        Descriptor opened(open(name));
        if (!opened.isOpen() || ::fstat(opened.get(), &status) != 0) {
            found->path = part;
            found->isInSharedFolder = isInShared;
            return failed(error);
        }
        const bool isLink = S_ISLNK(status.st_mode);
        const bool wasShared = isShared;
        if (const PathTrust trust = judge(opened.get(), status, error); trust != PathTrust::Trusted) {
            return trust;
        }
        if (isLink) {
            isShared = wasShared;
            if (!prependTarget(opened.get())) {
                return failed(error);
            }
        } else if (S_ISDIR(status.st_mode)) {
            folder.reset(opened.release());
            folderPath = part;
        } else if (std::any_of(rest.begin(), rest.end(), [](const QByteArray &more) { return !more.isEmpty(); })) {
            errno = ENOTDIR;
            return failed(error);
        }
    }
    *found = {part, status, isInShared};
    return PathTrust::Trusted;
}

} // namespace

PathPart judgePathPart(const struct stat &status, bool hasAccessList, const PathUser &user)
{
    if (status.st_uid != user.id && status.st_uid != 0) {
        return PathPart::ForeignOwner;
    }
    if (S_ISLNK(status.st_mode)) {
        return PathPart::Trusted; // nobody can write to a symlink, and its mode means nothing
    }
    const bool isGroupOthers = hasAccessList || !user.privateGroup || status.st_gid != *user.privateGroup;
    const bool canOthersWrite = (status.st_mode & S_IWOTH) != 0 || ((status.st_mode & S_IWGRP) != 0 && isGroupOthers);
    if (!canOthersWrite) {
        return PathPart::Trusted;
    }
    const bool isSticky = S_ISDIR(status.st_mode) && (status.st_mode & S_ISVTX) != 0;
    return isSticky ? PathPart::Shared : PathPart::Writable;
}

PathTrust followTrustedPath(const QString &path, FoundPath *found, QString *error)
{
    return Walk(path).run(found, error);
}
