// SPDX-License-Identifier: MIT
#include "support/json.h"

#include <json/reader.h>
#include <json/writer.h>

#include <QByteArrayView>
#include <QStringDecoder>

#include <cstring>
#include <memory>
#include <sstream>

namespace {

Json::CharReaderBuilder readerSettings()
{
    Json::CharReaderBuilder builder;
    builder["collectComments"] = false;
    builder["failIfExtra"] = false;
    return builder;
}

Json::StreamWriterBuilder writerSettings()
{
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["commentStyle"] = "None";
    builder["emitUTF8"] = true;
    return builder;
}

} // namespace

bool parseJson(const QByteArray &text, Json::Value *value)
{
    static const Json::CharReaderBuilder settings = readerSettings();
    const std::unique_ptr<Json::CharReader> reader(settings.newCharReader());
    Json::Value parsed;
    try {
        if (!reader->parse(text.constData(), text.constData() + text.size(), &parsed, nullptr)) {
            return false;
        }
    } catch (const std::exception &) {
        return false; // nested too deep
    }
    value->swap(parsed);
    return true;
}

QByteArray writeJson(const Json::Value &value)
{
    static const Json::StreamWriterBuilder settings = writerSettings();
    const std::string text = Json::writeString(settings, value);
    QByteArray bytes(text.data(), static_cast<qsizetype>(text.size()));
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
    // A byte order mark is a character like any other here; the plain conversion would drop it. Stateless, so that a
    // character cut off at the end shows.
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
