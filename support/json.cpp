// SPDX-License-Identifier: MIT
#include "support/json.h"

#include <json/reader.h>
#include <json/writer.h>

#include <QByteArrayView>
#include <QStringDecoder>

#include <algorithm>
#include <cstring>
#include <memory>
#include <ostream>
#include <streambuf>

namespace {

std::unique_ptr<Json::CharReader> makeReader()
{
    Json::CharReaderBuilder builder;
    builder["collectComments"] = false;
    builder["failIfExtra"] = false;
    builder["allowTrailingCommas"] = false;
    builder["skipBom"] = false;
    return std::unique_ptr<Json::CharReader>(builder.newCharReader());
}

std::unique_ptr<Json::StreamWriter> makeWriter()
{
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["commentStyle"] = "None";
    builder["emitUTF8"] = true;
    return std::unique_ptr<Json::StreamWriter>(builder.newStreamWriter());
}

bool isLineEnd(char character)
{
    return character == '\n' || character == '\r';
}

/** The index behind a string or comment that begins at @p start; @p start itself if none begins there. */
qsizetype endOfStringOrComment(QByteArrayView text, qsizetype start)
{
    const QByteArrayView rest = text.sliced(start);
    if (rest.startsWith("/*")) {
        return text.indexOf("*/", start + 2) + 2;
    }
    if (rest.startsWith("//")) {
        return start + std::distance(rest.begin(), std::find_if(rest.begin(), rest.end(), isLineEnd));
    }
    if (text.at(start) != '"') {
        return start;
    }
    qsizetype end = start + 1;
    while (end < text.size() && text.at(end) != '"') {
        end += text.at(end) == '\\' ? 2 : 1;
    }
    return std::min(end + 1, text.size());
}

/**
 * Whether a comma stands before a closing brace in the array or object at the beginning of @p text, which has been
 * parsed. JsonCpp accepts such a comma if the name of the member before it is empty.
 */
bool hasTrailingComma(QByteArrayView text)
{
    char previous = 0;
    int depth = 0;
    for (qsizetype i = 0; i < text.size();) {
        const qsizetype end = endOfStringOrComment(text, i);
        const char current = text.at(i);
        if (end > i && current == '/') {
            i = end;
            continue;
        }
        if (previous == ',' && current == '}') {
            return true;
        }
        if (current == '{' || current == '[') {
            ++depth;
        } else if ((current == '}' || current == ']') && --depth == 0) {
            return false;
        }
        if (current != ' ' && current != '\t' && current != '\n' && current != '\r') {
            previous = current;
        }
        i = std::max(end, i + 1);
    }
    return false;
}

/** A stream buffer that appends to a byte array. */
class ByteArrayBuffer final : public std::streambuf
{
public:
    explicit ByteArrayBuffer(QByteArray *bytes_)
        : bytes(bytes_)
    {
    }

protected:
    int_type overflow(int_type character) override
    {
        bytes->append(traits_type::to_char_type(character));
        return character;
    }
    std::streamsize xsputn(const char *text, std::streamsize size) override
    {
        bytes->append(text, static_cast<qsizetype>(size));
        return size;
    }

private:
    QByteArray *bytes;
};

} // namespace

bool parseJson(const QByteArray &text, Json::Value *value)
{
    // Reused, because making a reader takes as long as parsing a request. It keeps no state between two texts.
    thread_local const std::unique_ptr<Json::CharReader> reader = makeReader();
    Json::Value parsed;
    try {
        if (!reader->parse(text.constData(), text.constData() + text.size(), &parsed, nullptr)) {
            return false;
        }
    } catch (const std::exception &) {
        return false; // the nesting is too deep
    }
    if ((parsed.isObject() || parsed.isArray()) && text.contains("\"\"") && hasTrailingComma(text)) {
        return false;
    }
    value->swap(parsed);
    return true;
}

QByteArray writeJson(const Json::Value &value)
{
    thread_local const std::unique_ptr<Json::StreamWriter> writer = makeWriter();
    QByteArray bytes;
    ByteArrayBuffer buffer(&bytes);
    std::ostream stream(&buffer);
    writer->write(value, &stream);
    bytes.append('\n');
    return bytes;
}

Json::Value jsonString(const QString &text)
{
    const QByteArray utf8 = text.toUtf8();
    return Json::Value(utf8.constData(), utf8.constData() + utf8.size());
}

QString stringFromJson(const Json::Value &value)
{
    const char *begin = nullptr;
    const char *end = nullptr;
    if (!value.isString() || !value.getString(&begin, &end)) {
        return {};
    }
    // Within a string a byte order mark is a character, but Qt's plain conversion would drop it. Stateless, so that an
    // incomplete character at the end becomes a replacement character.
    QStringDecoder decoder(QStringDecoder::Utf8,
                           QStringConverter::Flag::ConvertInitialBom | QStringConverter::Flag::Stateless);
    return decoder.decode(QByteArrayView(begin, end));
}

bool hasMember(const Json::Value &value, const char *name)
{
    return value.isObject() && value.isMember(name);
}

const Json::Value &member(const Json::Value &value, const char *name)
{
    const Json::Value *found = value.isObject() ? value.find(name, name + std::strlen(name)) : nullptr;
    return found ? *found : Json::Value::nullSingleton();
}
