// SPDX-License-Identifier: MIT
#include "client/sessiontable.h"

#include "client/textwidth.h"

#include <algorithm>
#include <array>

using namespace Qt::StringLiterals;

namespace {

enum Column { Id, Name, Where, Mode, State, Started, LastConnected, ColumnCount };

using Row = std::array<QString, ColumnCount>;

constexpr int kGap = 2;

/** A terminal so narrow that less is left for the name gets lines that are cut at their end instead. */
constexpr int kMinNameWidth = 8;

/** To the minute; the year matters only to sessions of earlier ones, but a column of one form reads best. */
QString shortTime(const QString &time)
{
    return time.isEmpty() ? u"-"_s : printable(time).replace(u'T', u' ').left(16);
}

QString where(const SessionEntry &entry, const QString &localHost)
{
    const QString host = entry.host();
    return host.isEmpty() ? localHost : host;
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

std::array<int, ColumnCount> columnWidths(const QList<Row> &rows)
{
    std::array<int, ColumnCount> widths{};
    for (const Row &row : rows) {
        for (int column = 0; column < ColumnCount; ++column) {
            widths[column] = std::max(widths[column], displayWidth(row[column]));
        }
    }
    return widths;
}

/** The name gives way first, for it is the one that gets long and the one of which a part is enough. */
void fitName(std::array<int, ColumnCount> *widths, int width)
{
    int others = kGap * (ColumnCount - 1);
    for (int column = 0; column < ColumnCount; ++column) {
        others += column == Name ? 0 : (*widths)[column];
    }
    (*widths)[Name] = std::min((*widths)[Name], std::max(kMinNameWidth, width - others));
}

const char *colourOf(SessionState state)
{
    switch (state) {
    case SessionState::Connected:
        return "\x1b[32m";
    case SessionState::Offered:
        return "\x1b[33m";
    case SessionState::Suspended:
    case SessionState::Unknown:
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
            fitName(&widths, width);
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
            text += padded(elided(row[column], widths[column]), widths[column]) + QString(kGap, u' ');
        }
        text = trimmedEnd(text);
        return width > 0 ? elided(text, width) : text;
    }

private:
    std::array<int, ColumnCount> widths;
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
