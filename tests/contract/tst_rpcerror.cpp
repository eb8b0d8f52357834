// SPDX-License-Identifier: MIT
#include "contract/rpcerror.h"
#include "contract/sessionerror.h"
#include "tests/testmain.h"

#include <QTest>

class TestRpcError : public QObject
{
    Q_OBJECT

private slots:
    void clientsGetTheFixedNumbers()
    {
        QCOMPARE(int{RpcParseError}, -32700);
        QCOMPARE(int{RpcInvalidRequest}, -32600);
        QCOMPARE(int{RpcMethodNotFound}, -32601);
        QCOMPARE(int{RpcInvalidParameters}, -32602);
        QCOMPARE(rpcErrorCode(UnknownError), -32099);
        QCOMPARE(rpcErrorCode(NoSuchSession), -32094);
        QCOMPARE(rpcErrorCode(TimedOut), -32077);
    }
};

ZARVO_TEST(TestRpcError)
#include "tst_rpcerror.moc"
