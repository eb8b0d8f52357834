// SPDX-License-Identifier: MIT
#include "client/terminal/exitcode.h"

#include <array>

using namespace Qt::StringLiterals;

namespace {

struct Row
{
    ExitCode code;
    const char *meaning;
};

constexpr std::array kRows = {
    Row{ExitCode::Done, "done"},
    Row{ExitCode::Negative, "the answer is no (wait, doctor, certificate), or the output could not be written"},
    Row{ExitCode::Usage, "wrong usage"},
    Row{ExitCode::NoSuchSession, "no such session"},
    Row{ExitCode::Ambiguous, "more than one session fits"},
    Row{ExitCode::NoServer, "no server answers"},
    Row{ExitCode::CertificateRefused, "the certificate is refused"},
    Row{ExitCode::TimedOut, "timed out"},
    Row{ExitCode::SessionFailed, "the session failed"},
    Row{ExitCode::WrongState, "not possible in the session's state"},
    Row{ExitCode::NoViewer, "no viewer, or it failed"},
    Row{ExitCode::UntrustedLocation, "the session's location is not trusted (connect)"},
};

} // namespace

bool fail(Failure *failure, ExitCode code, const QString &text)
{
    failure->code = code;
    failure->text = text;
    return false;
}

QString exitCodeHelp()
{
    QString text;
    for (const Row &row : kRows) {
        text += u"  %1  %2\n"_s.arg(static_cast<int>(row.code), 2).arg(QString::fromLatin1(row.meaning));
    }
    return text;
}
