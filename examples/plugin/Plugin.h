// What a plugin of this example gives the program that loads it: one function with C linkage.
#ifndef PLUGIN_H
#define PLUGIN_H

#include <tqos.h>

/// Makes the plugin's queue, not yet created. The program gives it back to the plugin's own PluginUnmake().
extern "C" TQ_API tq_MsgQ* PluginMake(const char* pszName);
extern "C" TQ_API void PluginUnmake(tq_MsgQ* pQueue);

/// Their types, for the program, which finds them by name.
using PFN_PLUGIN_MAKE = decltype(&PluginMake);
using PFN_PLUGIN_UNMAKE = decltype(&PluginUnmake);

/// A plugin answers it on the queue in hSource with the same command, userparm doubled.
enum { MSG_PLUGIN_DOUBLE = MSG_USER };

#endif // PLUGIN_H
