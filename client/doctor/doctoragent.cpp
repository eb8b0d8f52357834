// SPDX-License-Identifier: MIT
#include "client/doctor/doctorcheck.h"

using namespace Qt::StringLiterals;

namespace {

constexpr auto kRemedy = "Correct it in \"%1\""_L1;

QStringList agentKeys()
{
    QStringList keys;
    for (const AgentSettingRow &row : agentSettingTable()) {
        keys.append(row.key);
    }
    return keys;
}

} // namespace

QList<Finding> checkAgentSettings(const DoctorInput &input)
{
    const QString path = input.agentFile.path;
    QList<Finding> findings = findUnusableSettings(input.agentFile, agentKeys());
    for (const QString &problem : input.agentProblems) {
        findings.append(warning(problem, QString(kRemedy).arg(path)));
    }
    if (input.agentSettings.allowPlainFromNetwork) {
        findings.append(
            warning(u"AllowPlainFromNetwork is true: everybody on the way to a viewer without TLS can read along"_s,
                    u"Remove it from \"%1\", unless the network is closed"_s.arg(path)));
    }
    if (findings.isEmpty()) {
        findings.append(fine(input.agentFile.values.isEmpty()
                                 ? u"All settings of the bundled agent have their defaults"_s
                                 : u"\"%1\" is valid"_s.arg(path)));
    }
    return findings;
}

QList<Finding> checkConfinement(const DoctorInput &input)
{
    QList<Finding> findings;
    if (!input.canFilterSystemCalls) {
        // Landlock restricts signals, abstract sockets and TCP only in its newer versions.
        findings.append(warning(
            input.canHideFiles
                ? u"The kernel has no seccomp. A stranger who takes over the process that receives viewers can run "
                  "code of his own there, and use the network, but opens no file"_s
                : u"The kernel has no seccomp and no Landlock. A stranger who takes over the process that receives "
                  "viewers can do what you can do, except for what needs new rights"_s,
            u"Use a kernel with CONFIG_SECCOMP_FILTER, and a container that allows seccomp()"_s));
    }
    if (!input.canHideFiles) {
        findings.append(warning(
            input.canFilterSystemCalls
                ? u"The kernel has no Landlock. Only seccomp keeps the process that receives viewers from files"_s
                : u"The kernel has no Landlock"_s,
            u"Use a kernel with CONFIG_SECURITY_LANDLOCK, and name landlock in its parameter lsm="_s));
    }
    if (findings.isEmpty()) {
        findings.append(fine(u"The kernel has seccomp and Landlock for the process that receives viewers"_s));
    }
    return findings;
}
