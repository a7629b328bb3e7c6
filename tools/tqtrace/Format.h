/// @file Format.h
/// Records and events as lines of text or of JSON.
#ifndef TQTRACE_FORMAT_H
#define TQTRACE_FORMAT_H

#include <map>
#include <string>

#include "Record.h"

namespace tqtrace {

/// Something about a device that is not its trace: it was found, it has restarted, lines were lost.
struct Event {
    std::string kind; ///< one word, for programs
    std::string text; ///< for people
    std::map<std::string, std::string> words;
    std::map<std::string, uint64_t> numbers;
};

/// The time of now, in this machine's zone: "2026-11-21 18:07:12".
std::string LocalTime();
/// The time of now: "2026-11-21T17:07:12.345Z".
std::string UniversalTime();

/// Text without control characters but tabs and line feeds: what comes from elsewhere gives a terminal no orders.
std::string Printable(const std::string& text);

/// Each ends with a line feed.
/// @param source  the device or the file; empty: not shown
/// @param time    when it came; empty: not known
/// @param bCut    the device has cut the message to what a datagram takes
std::string TextLine(const Record& record, const std::string& source);
std::string JsonLine(const Record& record, const std::string& source, const std::string& time, bool bCut);
std::string TextLine(const Event& event, const std::string& source);
std::string JsonLine(const Event& event, const std::string& source);

} // namespace tqtrace

#endif // TQTRACE_FORMAT_H
