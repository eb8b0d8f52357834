// SPDX-License-Identifier: MIT
#include "agent/confined/doorpackets.h"
#include "tests/testmain.h"

#include <QTest>

class DoorPacketsTest final : public QObject
{
    Q_OBJECT

private:
    static VisitorOrder someOrder()
    {
        VisitorOrder order;
        order.id = 0x01020304;
        order.challenge = std::string("0123\0"
                                      "56789abcdef",
                                      16);
        order.reason = "why";
        return order;
    }

private slots:
    void orderArrivesAsItWasSent()
    {
        for (int flags = 0; flags < 8; ++flags) {
            VisitorOrder order = someOrder();
            order.offersTls = (flags & 1) != 0;
            order.offersPlain = (flags & 2) != 0;
            order.turnsAway = (flags & 4) != 0;
            const std::optional<VisitorOrder> arrived = VisitorOrder::fromPacket(order.toPacket());
            QVERIFY(arrived);
            QCOMPARE(arrived->id, order.id);
            QCOMPARE(arrived->offersTls, order.offersTls);
            QCOMPARE(arrived->offersPlain, order.offersPlain);
            QCOMPARE(arrived->turnsAway, order.turnsAway);
            QCOMPARE(arrived->challenge, order.challenge);
            QCOMPARE(arrived->reason, order.reason);
        }
    }

    void orderMayHaveNoReason()
    {
        VisitorOrder order = someOrder();
        order.reason.clear();
        const std::optional<VisitorOrder> arrived = VisitorOrder::fromPacket(order.toPacket());
        QVERIFY(arrived);
        QVERIFY(arrived->reason.empty());
    }

    void shortOrderIsNone()
    {
        VisitorOrder order = someOrder();
        order.reason.clear();
        const std::string packet = order.toPacket();
        for (size_t length = 0; length < packet.size(); ++length) {
            QVERIFY(!VisitorOrder::fromPacket(std::string_view(packet).substr(0, length)));
        }
    }

    void otherPacketIsNoOrder()
    {
        std::string packet = someOrder().toPacket();
        for (int kind = 0; kind < 256; ++kind) {
            packet[0] = static_cast<char>(kind);
            QCOMPARE(VisitorOrder::fromPacket(packet).has_value(), packet[0] == DoorPacket::kVisitor);
            QVERIFY(!idToEnd(packet));
        }
    }

    void endNamesTheVisitor()
    {
        for (const std::uint32_t id : {0U, 1U, 0x01020304U, 0xffffffffU}) {
            const std::string packet = endPacket(id);
            QCOMPARE(idToEnd(packet).value_or(~id), id);
            QVERIFY(!VisitorOrder::fromPacket(packet));
            QVERIFY(!idToEnd(packet + "x"));
            for (size_t length = 0; length < packet.size(); ++length) {
                QVERIFY(!idToEnd(std::string_view(packet).substr(0, length)));
            }
        }
        QVERIFY(!idToEnd("C1234"));
    }
};

ZARVO_TEST(DoorPacketsTest)
#include "tst_doorpackets.moc"
