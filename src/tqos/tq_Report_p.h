/// @file tq_Report_p.h
/// The one formatter of all reports: owns the text while it is built, grows it as needed, and hands it to the caller.
/// And what a report collects under a lock, to send it after leaving it.
#ifndef TQ_REPORT_P_H
#define TQ_REPORT_P_H

#include <stdarg.h>
#include <string.h>

#include "tq_Memory.h"
#include "tq_Types.h"

class tq_ReportText {
public:
    /// Starts with a zeroed tracked buffer of initialBytes (at least 1), charged to the caller's file and line.
    explicit tq_ReportText(unsigned int initialBytes, unsigned int line = TQ_CALLER_LINE,
                           const char* pszFilename = TQ_CALLER_FILE);
    ~tq_ReportText();
    tq_ReportText(const tq_ReportText&) = delete;
    tq_ReportText& operator=(const tq_ReportText&) = delete;

    /// False when the first buffer could not be allocated; nothing is then built and Release() gives null.
    explicit operator bool() const { return m_pszText != nullptr; }

    /// Appends a formatted piece. A piece for which the buffer cannot grow is left out whole.
    void Append(const char* pszFormat, ...) TQ_PRINTF(2, 3);

    unsigned int Length() const { return m_length; }

    /// Hands the text to the caller, who frees it with tq_free.
    char* Release();

private:
    bool GrowFor(unsigned int bytes);

    char* m_pszText;
    unsigned int m_length = 0;
    unsigned int m_capacity;
    unsigned int m_line;
    const char* m_pszFilename;
};

/// The responses that a report sends to a console session: collected, in their order, under whatever lock the report
/// needs, and sent after leaving it. A response for which there is no memory is left out.
class tq_ResponseList {
public:
    /// The memory is charged to the caller's file and line.
    explicit tq_ResponseList(unsigned int line = TQ_CALLER_LINE, const char* pszFilename = TQ_CALLER_FILE)
        : m_line(line), m_pszFilename(pszFilename) {}
    ~tq_ResponseList();
    tq_ResponseList(const tq_ResponseList&) = delete;
    tq_ResponseList& operator=(const tq_ResponseList&) = delete;

    /// Adds a response of any length.
    void Add(const char* pszFormat, ...) TQ_PRINTF(2, 3);

    /// Sends them all to a console session, oldest first; afterwards there is none. No lock of the library is held.
    void SendTo(unsigned int instance);

private:
    struct Response;

    Response* TakeFirst();
    void FreeResponse(Response* pResponse);

    Response* m_pFirst = nullptr;
    Response* m_pLast = nullptr;
    unsigned int m_line;
    const char* m_pszFilename;
};

/// A name as a report column of limited width shows it: its last characters when it is longer.
inline const char* tq_LastCharacters(const char* pszName, size_t most) {
    const size_t length = strlen(pszName);
    return length > most ? pszName + (length - most) : pszName;
}

#endif // TQ_REPORT_P_H
