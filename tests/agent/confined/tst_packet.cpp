// SPDX-License-Identifier: MIT
#include "agent/confined/packet.h"
#include "tests/agent/confined/visitorends.h"
#include "tests/testmain.h"

#include <QTest>

#include <cerrno>

class PacketTest final : public QObject
{
    Q_OBJECT

private:
    std::array<int, 2> ends = {-1, -1};

    static bool isOpen(int descriptor) { return ::fcntl(descriptor, F_GETFD) != -1; }

private slots:
    void init()
    {
        ends = makeControlPair();
        ::fcntl(ends[1], F_SETFL, O_NONBLOCK);
    }

    void cleanup()
    {
        ::close(ends[0]);
        ::close(ends[1]);
    }

    void packetsKeepTheirBorders()
    {
        QVERIFY(sendPacket(ends[0], "one"));
        QVERIFY(sendPacket(ends[0], std::string_view("t\0w", 3)));
        QVERIFY(sendPacket(ends[0], std::string(kMaxPacketBytes, 'x')));
        QVERIFY(receivePacket(ends[1]) == "one");
        QVERIFY(receivePacket(ends[1]) == std::string("t\0w", 3));
        QVERIFY(receivePacket(ends[1]) == std::string(kMaxPacketBytes, 'x'));
    }

    void noPacketYetIsNotTheEnd()
    {
        errno = 0;
        QVERIFY(!receivePacket(ends[1]));
        QCOMPARE(errno, EAGAIN);
        ::shutdown(ends[0], SHUT_RDWR);
        errno = EAGAIN;
        QVERIFY(!receivePacket(ends[1]));
        QCOMPARE(errno, 0);
    }

    void sendingToAClosedEndFails()
    {
        ::shutdown(ends[1], SHUT_RDWR);
        QVERIFY(!sendPacket(ends[0], "x"));
    }

    void fullQueueIsReported()
    {
        ::fcntl(ends[0], F_SETFL, O_NONBLOCK);
        int count = 0;
        while (sendPacket(ends[0], "x")) {
            QVERIFY(++count < 1000000);
        }
        QCOMPARE(errno, EAGAIN);
    }

    void descriptorsTravel()
    {
        const std::array<int, 2> given = makePair();
        QVERIFY(sendPacket(ends[0], "x", {given[0], given[1]}));
        std::vector<int> descriptors;
        QVERIFY(receivePacket(ends[1], &descriptors) == "x");
        QCOMPARE(descriptors.size(), size_t{2});
        ::close(given[0]);
        ::close(given[1]);
        writeBytes(descriptors[0], "through");
        QCOMPARE(readBytes(descriptors[1], 7), QByteArray("through"));
        for (const int descriptor : descriptors) {
            QCOMPARE(::fcntl(descriptor, F_GETFD), FD_CLOEXEC);
            ::close(descriptor);
        }
    }

    // A receiver that expects none must not collect them.
    void unwantedDescriptorsAreClosed()
    {
        const std::array<int, 2> given = makePair();
        QVERIFY(sendPacket(ends[0], "x", {given[1]}));
        const int next = ::dup(given[0]); // the number that a received descriptor would get
        ::close(next);
        QVERIFY(receivePacket(ends[1]) == "x");
        QVERIFY(!isOpen(next));
        ::close(given[1]);
        QCOMPARE(readToTheEnd(given[0]), QByteArray("")); // nobody has the other end
        ::close(given[0]);
    }

    void packetWithoutDescriptorsHasNone()
    {
        QVERIFY(sendPacket(ends[0], "x"));
        std::vector<int> descriptors = {-1};
        QVERIFY(receivePacket(ends[1], &descriptors));
        QVERIFY(descriptors.empty());
    }
};

ZARVO_TEST(PacketTest)
#include "tst_packet.moc"
