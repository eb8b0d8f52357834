// SPDX-License-Identifier: MIT
#include "rpc/tlsrules.h"
#include "tests/testmain.h"

#include <QSslCipher>
#include <QSslConfiguration>
#include <QTest>

using namespace Qt::StringLiterals;

class TestTlsRules : public QObject
{
    Q_OBJECT

private slots:
    void onlyForwardSecrecyAndAuthenticatedEncryptionStay();
};

void TestTlsRules::onlyForwardSecrecyAndAuthenticatedEncryptionStay()
{
    QSslConfiguration configuration;
    requireStrongTls(&configuration);
    QCOMPARE(configuration.protocol(), QSsl::TlsV1_2OrLater);
    QStringList old;
    QStringList modern;
    for (const QSslCipher &cipher : configuration.ciphers()) {
        (cipher.protocol() == QSsl::TlsV1_3 ? modern : old) += cipher.name();
    }
    QVERIFY(modern.contains(u"TLS_AES_256_GCM_SHA384"_s));
    // The clients that exist all know one of these.
    QVERIFY(old.contains(u"ECDHE-RSA-AES128-GCM-SHA256"_s));
    QVERIFY(old.contains(u"ECDHE-RSA-AES256-GCM-SHA384"_s));
    for (const QString &weak :
         {u"AES128-SHA"_s, u"AES128-GCM-SHA256"_s, u"AES256-GCM-SHA384"_s, u"ECDHE-RSA-AES256-SHA"_s,
          u"ECDHE-RSA-AES128-SHA256"_s, u"DHE-RSA-AES256-SHA256"_s, u"PSK-AES128-GCM-SHA256"_s}) {
        QVERIFY2(!old.contains(weak), qPrintable(weak));
    }
    for (const QString &name : old) {
        QVERIFY2(name.startsWith(u"ECDHE-"_s), qPrintable(name));
        QVERIFY2(name.contains(u"GCM"_s) || name.contains(u"POLY1305"_s), qPrintable(name));
    }
}

ZARVO_TEST(TestTlsRules)

#include "tst_tlsrules.moc"
