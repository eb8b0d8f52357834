// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QByteArrayList>
#include <QIODevice>

#include <algorithm>
#include <cstring>
#include <memory>

/**
 * A stream whose other end the test holds: it feeds what the peer sends and sees what the peer gets. It can be
 * stalled, and then keeps what is written as a socket does whose peer does not read. Used on the main thread.
 */
class FakeDevice final : public QIODevice
{
public:
    FakeDevice() { open(QIODevice::ReadWrite | QIODevice::Unbuffered); }

    /** The peer sends @p bytes. */
    void feed(const QByteArray &bytes)
    {
        incoming += bytes;
        emit readyRead();
    }
    /** The peer stops reading. */
    void stall() { stalled = true; }
    /** The peer reads everything, and all that follows. */
    void resume()
    {
        stalled = false;
        const auto size = static_cast<qint64>(waiting.join().size());
        *received += waiting;
        waiting.clear();
        emit bytesWritten(size);
    }
    /** The peer reads what is waiting and stalls again. */
    void drainOnce()
    {
        resume();
        stalled = true;
    }

    /** What the peer has got, one element for each write. */
    [[nodiscard]] const QByteArrayList &writes() const { return *received; }
    /** The same, for a test that wants to look when the device is gone. */
    [[nodiscard]] std::shared_ptr<const QByteArrayList> history() const { return received; }
    [[nodiscard]] QByteArray output() const { return received->join(); }
    /** What a stalled peer has still to get. */
    [[nodiscard]] const QByteArrayList &unsent() const { return waiting; }
    /** What the peer has sent and nobody has read. */
    [[nodiscard]] qsizetype unread() const { return incoming.size(); }

    [[nodiscard]] bool isSequential() const override { return true; }
    [[nodiscard]] qint64 bytesAvailable() const override { return incoming.size() + QIODevice::bytesAvailable(); }
    [[nodiscard]] qint64 bytesToWrite() const override { return waiting.join().size(); }

protected:
    qint64 readData(char *data, qint64 maxSize) override
    {
        const auto size = std::min<qint64>(maxSize, incoming.size());
        std::memcpy(data, incoming.constData(), static_cast<size_t>(size));
        incoming.remove(0, size);
        return size;
    }
    qint64 writeData(const char *data, qint64 size) override
    {
        (stalled ? waiting : *received).append(QByteArray(data, size));
        return size;
    }

private:
    QByteArray incoming;
    QByteArrayList waiting;
    std::shared_ptr<QByteArrayList> received = std::make_shared<QByteArrayList>();
    bool stalled = false;
};
