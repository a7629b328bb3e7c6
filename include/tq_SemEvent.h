/// @file tq_SemEvent.h
#ifndef TQ_SEMEVENT_H
#define TQ_SEMEVENT_H

#include "tq_Types.h"

class TQ_API tq_SemEvent {
public:
    tq_SemEvent(int bManualReset, int bInitialState);
    ~tq_SemEvent();
    tq_SemEvent(const tq_SemEvent&) = delete;
    tq_SemEvent& operator=(const tq_SemEvent&) = delete;

    BOOL _WaitForEvent(int msTimeOut, unsigned int uiLine, const char* pszFilename);
    BOOL Set();
    BOOL Reset();

    BOOL WaitForEvent(int msTimeOut, unsigned int uiLine = TQ_CALLER_LINE, const char* pszFilename = TQ_CALLER_FILE) {
        return _WaitForEvent(msTimeOut, uiLine, pszFilename);
    }

private:
    void* m_hSemEvent;
};

#endif // TQ_SEMEVENT_H
