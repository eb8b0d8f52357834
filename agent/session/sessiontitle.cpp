// SPDX-License-Identifier: MIT
#include "agent/session/sessiontitle.h"

using namespace Qt::StringLiterals;

QString sessionTitle(const QByteArray &name, quint16 display)
{
    const QString title = QString::fromUtf8(name).simplified();
    return title.isEmpty() ? u"Session :%1"_s.arg(display) : title;
}
