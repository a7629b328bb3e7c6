// plugin LIBRARY: loads a queue that it knows nothing of but the functions that make and unmake it, asks it something,
// and unloads it.
#include <stdio.h>

#include "Plugin.h"

namespace {

class Asker : public tq_MsgQ {
public:
    Asker() : tq_MsgQ("Asker", "asks the plugin"), m_answered(/*bManualReset=*/1, /*bInitialState=*/0) {}
    ~Asker() override { Cleanup(); }

    void MessageHandler(MSG_COMMON* pMsg) override {
        if (pMsg->command == MSG_PLUGIN_DOUBLE) {
            printf("plugin: answers %u\n", pMsg->userparm);
            m_answered.Set();
        }
        tq_free(pMsg);
    }

    bool Ask(unsigned int hPlugin, unsigned int number) {
        return tq_MsgCreateCommonAndSend(GetHandle(), hPlugin, MSG_PLUGIN_DOUBLE, 0, number, 0, /*bAddToHead=*/false,
                                         TQ_MSG_PRIORITY_MEDIUM) &&
               m_answered.WaitForEvent(10000);
    }

private:
    tq_SemEvent m_answered;
};

/// @return whether the plugin was there and answered
bool UsePlugin(void* hLibrary) {
    const auto make = reinterpret_cast<PFN_PLUGIN_MAKE>(tq_GetProcAddress(hLibrary, "PluginMake"));
    const auto unmake = reinterpret_cast<PFN_PLUGIN_UNMAKE>(tq_GetProcAddress(hLibrary, "PluginUnmake"));
    tq_MsgQ* pPlugin = make && unmake ? make("Plugin") : nullptr;
    if (!pPlugin) {
        return false;
    }
    pPlugin->Create(TQ_THREAD_PRIORITY_NORMAL);
    bool bAnswered;
    {
        Asker asker;
        asker.Create(TQ_THREAD_PRIORITY_NORMAL);
        bAnswered = asker.Ask(tq_MsgQGetIdFromName("Plugin"), 21);
    }
    unmake(pPlugin); // waits for its thread: no code of the plugin runs when it is unloaded
    return bAnswered;
}

} // namespace

int main(int argc, char** argv) {
    bool bUsed = false;
    if (argc == 2 && tqOS_Initialize() == 0) {
        void* hLibrary = tq_LoadLibrary(argv[1]);
        if (hLibrary) {
            bUsed = UsePlugin(hLibrary);
            printf("plugin: unloaded: %s\n", tq_FreeLibrary(hLibrary) ? "yes" : "no");
        } else {
            printf("plugin: %s cannot be loaded\n", argv[1]);
        }
    }
    tqOS_Terminate(/*bDumpResources=*/false, /*bWaitForThreads=*/true);
    return bUsed ? 0 : 1;
}
