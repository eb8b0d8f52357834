// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QByteArrayList>
#include <QIODevice>

#include <algorithm>
#include <cstring>
#include <memory>

/**
 * A stream whose peer is the test. A stalled device keeps what is written, like a socket whose peer does not read. Used
 * on the main thread.
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
    /** The peer reads everything that waits, and reads on. */
    void resume()
    {
        stalled = false;
        const auto size = static_cast<qint64>(waiting.join().size());
        *received += waiting;
        waiting.clear();
        emit bytesWritten(size);
    }
    /** The peer reads everything that waits, and stalls again. */
    void drainOnce()
    {
        resume();
        stalled = true;
    }

    /** What the peer has received, one element per write. */
    [[nodiscard]] const QByteArrayList &writes() const { return *received; }
    /** The same; stays readable when the device is gone. */
    [[nodiscard]] std::shared_ptr<const QByteArrayList> history() const { return received; }
    [[nodiscard]] QByteArray output() const { return received->join(); }
    /** What waits for a stalled peer. */
    [[nodiscard]] const QByteArrayList &unsent() const { return waiting; }
    /** How many bytes from the peer have not been read. */
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
