// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "files/settingstext.h"

#include "files/settingsvalue.h"

using SettingsValue::isBlank;
using SettingsValue::isLineEnd;

namespace {

constexpr char byteOrderMark[] = "\xef\xbb\xbf";
constexpr char generalGroup[] = "general";
constexpr char generalHeader[] = "[General]\n";

/// A setting, a group header or invalid text, without leading blanks and without its terminator.
struct Line
{
    int begin = 0;
    int equalsSign = -1; ///< -1: the line is no setting.
    int end = 0;

    bool isEmpty() const { return begin == end; }
    bool isHeader(const QByteArray &content) const { return !isEmpty() && content.at(begin) == '['; }
};

/// The next line at or after `position`, which must be at the beginning of a line; empty at the end of the text. Quotes
/// and a backslash protect a line end. A semicolon ends the line and begins a comment.
Line nextLine(const QByteArray &content, int position)
{
    const int size = content.size();
    bool inComment = false;
    for (; position < size; ++position) {
        const char c = content.at(position);
        inComment = (inComment || c == ';') && !isLineEnd(c);
        if (!inComment && !isBlank(c) && !isLineEnd(c))
            break;
    }

    Line line = {position, -1, position};
    bool inQuotes = false;
    for (; line.end < size; ++line.end) {
        const char c = content.at(line.end);
        if (!inQuotes && (c == ';' || isLineEnd(c)))
            break;
        if (c == '"')
            inQuotes = !inQuotes;
        else if (c == '=' && line.equalsSign == -1)
            line.equalsSign = line.end;
        else if (c == '\\' && line.end + 1 < size)
            line.end += isLineEnd(content.at(line.end + 1)) ? SettingsValue::lineEndSize(content, line.end + 1) : 1;
    }
    return line;
}

bool isGeneralHeader(const QByteArray &content, const Line &line)
{
    const QByteArray header = content.mid(line.begin + 1, line.end - line.begin - 1);
    return header.mid(0, header.indexOf(']')).trimmed().toLower() == generalGroup;
}

/// Whether a line sets `key`. The line may spell any character as its code: "%61" and "%U0061" mean "a".
bool isSetting(const QByteArray &content, const Line &line, const QString &key)
{
    int end = line.equalsSign;
    while (end > line.begin && isBlank(content.at(end - 1)))
        --end;
    int matched = 0;
    for (int i = line.begin; i < end; ++matched) {
        QChar c = QLatin1Char(content.at(i++));
        if (c == QLatin1Char('%')) {
            const int first = content.at(i) == 'U' ? i + 1 : i;
            const int size = first > i ? 4 : 2;
            bool isCode = false;
            const int code = content.mid(first, size).toInt(&isCode, 16);
            if (isCode && first + size <= end) {
                c = QChar(ushort(code));
                i = first + size;
            }
        }
        if (matched == key.size() || c != key.at(matched))
            return false;
    }
    return matched == key.size();
}

/// Where a key is set, and where it could be inserted.
struct Place
{
    Line line; ///< The last line that sets the key; empty when none does.
    int headerEnd = -1; ///< Where the last terminated header of the general group ends; -1: there is none.
};

int markSize(const QByteArray &content)
{
    return content.startsWith(byteOrderMark) ? int(sizeof byteOrderMark - 1) : 0;
}

/// Finds `key` in the general group, which includes the lines before the first header.
Place findPlace(const QByteArray &content, const QString &key)
{
    Place place;
    // QSettings skips a byte-order mark before a header, but takes it as part of a key.
    const int mark = markSize(content);
    const int markedEnd = mark ? nextLine(content, 0).end : 0;
    bool inGeneral = true;
    for (Line line = nextLine(content, mark); !line.isEmpty(); line = nextLine(content, line.end)) {
        if (line.isHeader(content)) {
            inGeneral = isGeneralHeader(content, line);
            if (inGeneral && line.end < content.size())
                place.headerEnd = line.end;
        } else if (inGeneral && line.equalsSign != -1 && line.end > markedEnd && isSetting(content, line, key)) {
            place.line = line;
        }
    }
    return place;
}

/// The value of the setting in `line`; nothing when the line is empty.
std::optional<QVariant> valueOf(const QByteArray &content, const Line &line)
{
    if (line.isEmpty())
        return {};
    const QByteArray value = content.mid(line.equalsSign + 1, line.end - line.equalsSign - 1);
    return SettingsValue::parse(value, markSize(content) > 0);
}

/// The line end to insert after `last`. An escaped carriage return would take a line feed as its own second half.
char lineEndAfter(char last)
{
    return last == '\r' ? '\r' : '\n';
}

/// Whether both values exist and have the same type and value. To QVariant, bytes equal the number that they spell.
bool areSame(const std::optional<QVariant> &one, const std::optional<QVariant> &other)
{
    return one && other && one->userType() == other->userType() && *one == *other;
}

} // namespace

std::optional<QVariant> SettingsText::value(const QByteArray &content, const QString &key)
{
    return valueOf(content, findPlace(content, key).line);
}

bool SettingsText::setValue(QByteArray &content, const QString &key, const QVariant &value)
{
    const Place place = findPlace(content, key);
    const QByteArray text = SettingsValue::written(value);
    if (areSame(valueOf(content, place.line), SettingsValue::parse(text, false)))
        return false;

    const QByteArray line = key.toLatin1() + '=' + text;
    const int mark = markSize(content);
    const Line first = nextLine(content, mark);
    if (!place.line.isEmpty())
        content.replace(place.line.begin, place.line.end - place.line.begin, line);
    else if (place.headerEnd != -1)
        content.insert(place.headerEnd, lineEndAfter(content.at(place.headerEnd - 1)) + line);
    else if (first.isHeader(content))
        content.insert(first.begin, generalHeader + line + '\n');
    else // The first key's name includes the byte-order mark, so the mark is needed in both places.
        content.prepend(content.left(mark) + generalHeader + line + '\n');
    return true;
}
