// SPDX-License-Identifier: MIT
#include "contract/application.h"

#include <QCoreApplication>

void nameApplication()
{
    QCoreApplication::setApplicationName(kApplicationName);
    QCoreApplication::setApplicationVersion(QStringLiteral(ZARVO_VERSION));
    QCoreApplication::setOrganizationName(kOrganizationName);
}
