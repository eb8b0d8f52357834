// SPDX-License-Identifier: MIT
#include "client/sessions/sessiontable.h"

#include "client/terminal/textwidth.h"

#include <algorithm>
#include <array>
#include <numeric>

using namespace Qt::StringLiterals;

namespace {

enum Column { Id, Name, Where, Mode, State, Started, LastConnected, ColumnCount };

using Widths = std::array<int, ColumnCount>; ///< 0: the column is hidden

using Row = std::array<QString, ColumnCount>;

constexpr int kGap = 2;

/** The name is never narrower. On a narrower terminal, lines are cut at their end instead. */
constexpr int kMinNameWidth = 8;

/** The host's name is never narrower. */
constexpr int kMinWhereWidth = 16;

/** To the minute. The year is always shown, so that the column has one form. */
QString shortTime(const QString &time)
{
    return time.isEmpty() ? u"-"_s : printable(time).replace(u'T', u' ').left(16);
}

QString where(const SessionEntry &entry, const QString &localHost)
{
    if (entry.location.isEmpty()) {
        return localHost;
    }
    // A location names another host, even if it cannot be parsed; so never show the local one.
    const QString host = entry.host();
    if (host.isEmpty()) {
        return u"?"_s;
    }
    return entry.trusted ? host : u"! "_s + host;
}

Row titles()
{
    return {u"ID"_s, u"NAME"_s, u"WHERE"_s, u"MODE"_s, u"STATE"_s, u"STARTED"_s, u"LAST CONNECTED"_s};
}

Row cells(const SessionEntry &entry, const QString &localHost, int idLength)
{
    return {printable(entry.id.left(idLength)), printable(entry.name),    printable(where(entry, localHost)),
            printable(entry.windowMode),        stateName(entry.state()), shortTime(entry.started),
            shortTime(entry.lastConnect)};
}

Widths columnWidths(const QList<Row> &rows)
{
    Widths widths{};
    for (const Row &row : rows) {
        for (int column = 0; column < ColumnCount; ++column) {
            widths[column] = std::max(widths[column], displayWidth(row[column]));
        }
    }
    return widths;
}

int lineWidth(const Widths &widths)
{
    const int columns = static_cast<int>(std::count_if(widths.begin(), widths.end(), [](int w) { return w > 0; }));
    return std::accumulate(widths.begin(), widths.end(), kGap * (columns - 1));
}

/** Narrows a column until the line fits into @p width, but not below @p least. */
void narrow(Widths *widths, Column column, int least, int width)
{
    const int excess = std::max(0, lineWidth(*widths) - width);
    (*widths)[column] = std::min((*widths)[column], std::max(least, (*widths)[column] - excess));
}

/**
 * Narrows the name first, because it is the longest and a part of it is enough; then the host's name; then hides the
 * times. The state always stays, because users look for it.
 */
Widths fitted(Widths whole, int width)
{
    Widths widths = whole;
    for (const Column next : {LastConnected, Started, ColumnCount}) {
        widths = whole;
        narrow(&widths, Name, kMinNameWidth, width);
        narrow(&widths, Where, kMinWhereWidth, width);
        if (lineWidth(widths) <= width || next == ColumnCount) {
            break;
        }
        whole[next] = 0;
    }
    return widths;
}

const char *colourOf(EntryState state)
{
    switch (state) {
    case EntryState::Connected:
        return "\x1b[32m";
    case EntryState::Offered:
        return "\x1b[33m";
    case EntryState::Suspended:
    case EntryState::Unknown:
        return "\x1b[2m";
    }
    return "";
}

QString coloured(QString line, qsizetype from, qsizetype length, const char *colour)
{
    const qsizetype end = std::min(from + length, line.size());
    if (from < end) {
        line.insert(end, u"\x1b[0m"_s);
        line.insert(from, QLatin1StringView(colour));
    }
    return line;
}

QString trimmedEnd(QString line)
{
    while (line.endsWith(u' ')) {
        line.chop(1);
    }
    return line;
}

class Layout
{
public:
    Layout(const QList<Row> &rows, int width_)
        : widths(columnWidths(rows))
        , width(width_)
    {
        if (width > 0) {
            widths = fitted(widths, width);
        }
    }

    /** @param stateStart  set to where the state begins within the line */
    [[nodiscard]] QString line(const Row &row, qsizetype *stateStart) const
    {
        QString text;
        for (int column = 0; column < ColumnCount; ++column) {
            if (column == State) {
                *stateStart = text.size();
            }
            if (widths[column] == 0) {
                continue;
            }
            text += padded(elided(row[column], widths[column]), widths[column]) + QString(kGap, u' ');
        }
        text = trimmedEnd(text);
        return width > 0 ? elided(text, width) : text;
    }

private:
    Widths widths;
    int width;
};

} // namespace

QString sessionTable(const SessionList &sessions, const TableStyle &style)
{
    const int idLength = shortIdLength(sessions);
    QList<Row> rows;
    if (style.legend) {
        rows.append(titles());
    }
    for (const SessionEntry &entry : sessions) {
        rows.append(cells(entry, style.localHost, idLength));
    }

    const Layout layout(rows, style.width);
    const qsizetype titleRows = style.legend ? 1 : 0;
    QString table;
    for (qsizetype i = 0; i < rows.size(); ++i) {
        qsizetype stateStart = 0;
        QString line = layout.line(rows[i], &stateStart);
        if (style.colour && i < titleRows) {
            line = coloured(line, 0, line.size(), "\x1b[1m");
        } else if (style.colour) {
            line = coloured(line, stateStart, rows[i][State].size(), colourOf(sessions[i - titleRows].state()));
        }
        table += line + u'\n';
    }
    return table;
}

QString plainSessionTable(const SessionList &sessions, const QString &localHost)
{
    QString table;
    for (const SessionEntry &entry : sessions) {
        const QStringList fields = {
            entry.id,      entry.name,       where(entry, localHost), entry.windowMode, stateName(entry.state()),
            entry.started, entry.lastConnect};
        QStringList clean;
        for (const QString &field : fields) {
            clean.append(printable(field));
        }
        table += clean.join(u'\t') + u'\n';
    }
    return table;
}

QString untrustedNote(const SessionList &sessions)
{
    const bool hasMark = std::any_of(sessions.begin(), sessions.end(), [](const SessionEntry &entry) {
        return !entry.trusted && !entry.host().isEmpty();
    });
    return hasMark ? u"\"!\": another host has reported the session than the one where it is said to be."_s : QString();
}
