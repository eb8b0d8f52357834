// SPDX-License-Identifier: MIT
#include "agent/session/agentoptions.h"

#include "agent/session/agentfiles.h"
#include "contract/geometry.h"
#include "support/filereader.h"

using namespace Qt::StringLiterals;

namespace {

/** A rootless screen gets the size of its first viewer's window. Until then it has this common size. */
constexpr QSize kRootlessSize(1280, 800);

constexpr int kMaxDisplayFileBytes = 64;

std::optional<quint16> parsePort(const QString &text)
{
    bool isNumber = false;
    const uint port = text.toUInt(&isNumber);
    // Compared as text, because toUInt() also takes blanks and signs.
    if (!isNumber || port < kFirstAgentPort || port > 65535 || QString::number(port) != text) {
        return std::nullopt;
    }
    return static_cast<quint16>(port);
}

} // namespace

bool parseAgentArguments(const QStringList &arguments, AgentOptions *options, QString *error)
{
    if (arguments.size() != 2) {
        *error = u"Expected two arguments, GEOMETRY and PORT, and got %1"_s.arg(arguments.size());
        return false;
    }
    AgentOptions parsed;
    parsed.rootless = arguments[0] == WindowMode::kRootless;
    const std::optional<QSize> size = parsed.rootless ? kRootlessSize : parseGeometry(arguments[0]);
    if (!size) {
        *error = u"The geometry \"%1\" is neither \"rootless\" nor a size like \"1280x800\""_s.arg(arguments[0]);
        return false;
    }
    parsed.size = *size;
    const std::optional<quint16> port = parsePort(arguments[1]);
    if (!port) {
        *error = u"The port \"%1\" is no number from %2 to 65535"_s.arg(arguments[1]).arg(kFirstAgentPort);
        return false;
    }
    parsed.port = *port;
    *options = parsed;
    return true;
}

bool readDisplayNumber(const QString &path, quint16 *display, QString *error)
{
    QByteArray text;
    if (!readFile(path, kMaxDisplayFileBytes, &text, error)) {
        return false;
    }
    bool isNumber = false;
    const ushort number = text.trimmed().toUShort(&isNumber);
    if (!isNumber) {
        *error = u"The file \"%1\" holds no display number"_s.arg(path);
        return false;
    }
    *display = number;
    return true;
}

bool checkPort(quint16 port, quint16 display, QString *error)
{
    const int expected = kFirstAgentPort + display;
    if (port == expected) {
        return true;
    }
    *error = u"The port of display %1 is %2, not %3"_s.arg(display).arg(expected).arg(port);
    return false;
}
