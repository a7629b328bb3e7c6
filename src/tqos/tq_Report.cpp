#include "tq_Report_p.h"

#include <stddef.h>
#include <stdio.h>

#include "tq_ConsoleResponse_p.h"

tq_ReportText::tq_ReportText(unsigned int initialBytes, unsigned int line, const char* pszFilename)
    : m_pszText(nullptr), m_capacity(initialBytes ? initialBytes : 1), m_line(line), m_pszFilename(pszFilename) {
    m_pszText = static_cast<char*>(tq__calloc(1, m_capacity, m_pszFilename, m_line));
}

tq_ReportText::~tq_ReportText() {
    tq_free(m_pszText);
}

bool tq_ReportText::GrowFor(unsigned int bytes) {
    if (bytes < m_capacity - m_length) { // one more byte than asked for: the terminator
        return true;
    }
    if (bytes > 0x40000000u - m_length) { // no report is meant to reach this
        return false;
    }
    const unsigned int wanted = m_length + bytes + 1;
    const unsigned int capacity = wanted > m_capacity * 2 ? wanted : m_capacity * 2;
    char* pszLarger = static_cast<char*>(tq__calloc(1, capacity, m_pszFilename, m_line));
    if (!pszLarger) {
        return false;
    }
    memcpy(pszLarger, m_pszText, m_length);
    tq_free(m_pszText);
    m_pszText = pszLarger;
    m_capacity = capacity;
    return true;
}

void tq_ReportText::Append(const char* pszFormat, ...) {
    if (!m_pszText) {
        return;
    }
    va_list args;
    va_start(args, pszFormat);
    va_list again;
    va_copy(again, args);
    const int length = vsnprintf(m_pszText + m_length, m_capacity - m_length, pszFormat, args);
    if (length > 0 && GrowFor(static_cast<unsigned int>(length))) {
        vsnprintf(m_pszText + m_length, m_capacity - m_length, pszFormat, again);
        m_length += static_cast<unsigned int>(length);
    }
    m_pszText[m_length] = '\0';
    va_end(again);
    va_end(args);
}

char* tq_ReportText::Release() {
    char* pszText = m_pszText;
    m_pszText = nullptr;
    return pszText;
}

struct tq_ResponseList::Response {
    Response* pNext;
    char text[1]; // as long as it needs
};

tq_ResponseList::~tq_ResponseList() {
    while (Response* const pResponse = TakeFirst()) {
        FreeResponse(pResponse);
    }
}

void tq_ResponseList::Add(const char* pszFormat, ...) {
    va_list args;
    va_list again;
    va_start(args, pszFormat);
    va_copy(again, args);
    const int length = vsnprintf(nullptr, 0, pszFormat, args);
    const unsigned int bytes = length > 0 ? static_cast<unsigned int>(length) + 1 : 1;
    Response* const pResponse = static_cast<Response*>(
        tq__malloc(static_cast<unsigned int>(offsetof(Response, text)) + bytes, m_pszFilename, m_line));
    if (pResponse) {
        pResponse->pNext = nullptr;
        pResponse->text[0] = '\0';
        vsnprintf(pResponse->text, bytes, pszFormat, again);
        (m_pLast ? m_pLast->pNext : m_pFirst) = pResponse;
        m_pLast = pResponse;
    }
    va_end(again);
    va_end(args);
}

void tq_ResponseList::SendTo(unsigned int instance) {
    while (Response* const pResponse = TakeFirst()) {
        tq_RespondToConsole(pResponse->text, instance);
        FreeResponse(pResponse);
    }
}

tq_ResponseList::Response* tq_ResponseList::TakeFirst() {
    Response* const pResponse = m_pFirst;
    if (pResponse) {
        m_pFirst = pResponse->pNext;
        m_pLast = m_pFirst ? m_pLast : nullptr;
    }
    return pResponse;
}

void tq_ResponseList::FreeResponse(Response* pResponse) {
    tq__free(pResponse, m_pszFilename, m_line);
}
