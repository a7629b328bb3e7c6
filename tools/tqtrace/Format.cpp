#include "Format.h"

#include <nlohmann/json.hpp>
#include <stdio.h>
#include <time.h>

namespace tqtrace {

namespace {

using Json = nlohmann::ordered_json;

std::string Line(const Json& object) { // bytes that are no UTF-8 come, too
    return object.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

} // namespace

std::string LocalTime() {
    const time_t now = time(nullptr);
    struct tm parts;
    char text[40];
    strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", localtime_r(&now, &parts));
    return text;
}

std::string UniversalTime() {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    struct tm parts;
    char date[40];
    strftime(date, sizeof(date), "%Y-%m-%dT%H:%M:%S", gmtime_r(&now.tv_sec, &parts));
    char text[60];
    snprintf(text, sizeof(text), "%s.%03ldZ", date, now.tv_nsec / 1000000);
    return text;
}

std::string Printable(const std::string& text) {
    std::string printable;
    for (const char c : text) {
        const unsigned char byte = static_cast<unsigned char>(c);
        if ((byte >= 32 && byte != 127) || c == '\t' || c == '\n') {
            printable += c;
        } else if (c != '\r') {
            char hex[8];
            snprintf(hex, sizeof(hex), "\\x%02x", byte);
            printable += hex;
        }
    }
    return printable;
}

std::string TextLine(const Record& record, const std::string& source) {
    return Printable(source + (source.empty() ? "" : ": ") + record.text) + "\n";
}

std::string JsonLine(const Record& record, const std::string& source, const std::string& time, bool bCut) {
    Json object = {{"type", record.IsTrace() ? "line" : "text"}};
    if (!time.empty()) {
        object["time"] = time;
    }
    object["source"] = source;
    if (!record.date.empty()) {
        object["date"] = record.date;
    }
    if (record.IsTrace()) {
        object["ms"] = record.ms;
        object["instance"] = record.instance;
        object["level"] = record.pLevel->pszName;
    }
    if (record.bThread) {
        object["thread"] = record.thread;
        object["kernelThread"] = record.kernelThread;
    }
    object["message"] = record.message;
    if (bCut) {
        object["cut"] = true;
    }
    return Line(object);
}

std::string TextLine(const Event& event, const std::string& source) {
    return Printable("-- " + LocalTime() + " " + source + (source.empty() ? "" : ": ") + event.text) + "\n";
}

std::string JsonLine(const Event& event, const std::string& source) {
    Json object = {{"type", "event"}, {"time", UniversalTime()}, {"source", source}, {"event", event.kind}};
    for (const auto& word : event.words) {
        object[word.first] = word.second;
    }
    for (const auto& number : event.numbers) {
        object[number.first] = number.second;
    }
    object["text"] = event.text;
    return Line(object);
}

} // namespace tqtrace
