// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QtEndian>

inline QByteArray countedBytes(const QByteArray &bytes)
{
    QByteArray length(2, Qt::Uninitialized);
    qToBigEndian(static_cast<quint16>(bytes.size()), length.data());
    return length + bytes;
}

/** An entry of an X authority file: address family, address, display, method, data. */
inline QByteArray authorityEntry(const QByteArray &display, const QByteArray &method = "MIT-MAGIC-COOKIE-1",
                                 const QByteArray &data = QByteArray(16, 'c'), const QByteArray &address = "host")
{
    return QByteArray::fromHex("0100") + countedBytes(address) + countedBytes(display) + countedBytes(method) +
           countedBytes(data);
}
