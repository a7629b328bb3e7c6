#include "tq_Report_p.h"

#include <stdio.h>

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
