// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QString>

#include <utility>

/** One end of a local connection, without an event loop. Plays a peer. All calls are non-blocking. */
class RawSocket final
{
public:
    RawSocket() = default;
    /** Takes ownership of a non-blocking descriptor; -1 for none. */
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
    Q_DISABLE_COPY(RawSocket)

    /** Both ends of a new connection. The caller owns the descriptor. */
    [[nodiscard]] static std::pair<RawSocket, int> pair();
    /** A socket that listens at @p path. */
    [[nodiscard]] static RawSocket listenAt(const QString &path);

    [[nodiscard]] bool isOpen() const { return descriptor != -1; }
    /** Accepts a connection; the result is not open if none is waiting. */
    [[nodiscard]] RawSocket accept() const;
    /** Reads everything that has arrived. */
    [[nodiscard]] QByteArray readAll() const;
    /** Writes as much as there is room for. @return the number of bytes written */
    qsizetype write(const QByteArray &bytes) const;
    /** The other end reads all that was written, and then the end. */
    void shutDownWriting() const;
    void close();

private:
    int descriptor = -1;
};
