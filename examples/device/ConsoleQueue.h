/// @file ConsoleQueue.h
/// A queue that the diagnostic console can ask: "SHow SUMmary" for a summary, and "SEnd" for whatever its table of
/// commands has. Both come as messages, like everything else, and are answered on the queue's own thread: what an
/// answer looks at or changes needs no lock for it.
#ifndef DEVICE_CONSOLE_QUEUE_H
#define DEVICE_CONSOLE_QUEUE_H

#include <string>
#include <string_view>

#include <tqos.h>

class ConsoleQueue : public tq_MsgQ {
protected:
    using Answer = std::string (ConsoleQueue::*)(std::string_view argument);

    /// A row of a queue's commands. "help" needs none.
    struct ConsoleCommand {
        const char* pszName; // in any letter case
        const char*
            pszArgument; // one word, as the help shows it: "<ms>" must be there, "[ms]" may; null: there is none
        const char* pszMeaning;
        Answer answer; // the argument is empty where none was given
    };

    /// For the table: the queue's own member function.
    template <class Queue> static constexpr Answer AnswerOf(std::string (Queue::*answer)(std::string_view argument)) {
        return static_cast<Answer>(answer);
    }

    /// The table ends with a row whose name is null. It outlives the queue.
    ConsoleQueue(const char* pszName, const char* pszDescription, const ConsoleCommand* pCommands);

    /// To be called first by the handler, which goes on to free the message. False: this is no request of the console.
    bool AnswerConsole(MSG_COMMON* pMsg);

    /// What "SHow SUMmary" shows: one line. With "DETail" more of them; the console does not say then from whom they
    /// come, so the first one does. Lines are parted by CR LF; none stands at the end.
    virtual std::string Summary(bool bDetail) = 0;

private:
    std::string AnswerLine(char* pszLine);
    std::string Help() const;

    const char* const m_pszOwnName;
    const ConsoleCommand* const m_pCommands;
};

#endif // DEVICE_CONSOLE_QUEUE_H
