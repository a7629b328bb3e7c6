/// @file Names.h
/// What the device has at the moment: its queues, sockets, lists and trace instances.
#ifndef TQCON_NAMES_H
#define TQCON_NAMES_H

#include <map>

#include "Completion.h"
#include "Console.h"

namespace tqcon {

/// Asks the device when it has to. A name is believed for a moment: completing is a matter of several keys.
class Names {
public:
    explicit Names(tools::Console* pConsole) : m_pConsole(pConsole) {}

    std::vector<Named> operator()(Argument argument);

private:
    struct Known {
        tools::Clock::time_point until;
        std::vector<Named> names;
    };

    tools::Console* m_pConsole;
    std::map<Argument, Known> m_known;
};

} // namespace tqcon

#endif // TQCON_NAMES_H
