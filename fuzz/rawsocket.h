// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QString>

#include <utility>

/** One end of a local connection, without an event loop: what a peer is that does as it likes. Nothing here waits. */
class RawSocket final
{
public:
    RawSocket() = default;
    /** Takes the descriptor, which is a non-blocking one; -1 for none. */
    explicit RawSocket(int descriptor_)
        : descriptor(descriptor_)
    {
    }
    ~RawSocket() { close(); }
    RawSocket(RawSocket &&other) noexcept
        : descriptor(std::exchange(other.descriptor, -1))
    {
    }
    RawSocket &operator=(RawSocket &&other) noexcept
    {
        std::swap(descriptor, other.descriptor);
        return *this;
    }

    /** Two ends of one connection; the descriptor is the other one. */
    [[nodiscard]] static std::pair<RawSocket, int> pair();
    /** Listens at this path. */
    [[nodiscard]] static RawSocket listenAt(const QString &path);

    [[nodiscard]] bool isOpen() const { return descriptor != -1; }
    /** Whoever has come; not open when nobody has. */
    [[nodiscard]] RawSocket accept() const;
    /** Everything that has arrived. */
    [[nodiscard]] QByteArray readAll() const;
    /** How many bytes of it the other side has room for. */
    qsizetype write(const QByteArray &bytes) const;
    void close();

private:
    int descriptor = -1;
};
