// The plugin: a queue that doubles numbers.
#include "Plugin.h"

namespace {

class Doubler : public tq_MsgQ {
public:
    explicit Doubler(const char* pszName) : tq_MsgQ(pszName, "doubles numbers") {}
    ~Doubler() override { Cleanup(); }

    void MessageHandler(MSG_COMMON* pMsg) override {
        if (pMsg->command == MSG_PLUGIN_DOUBLE) {
            tq_MsgCreateCommonAndSend(GetHandle(), pMsg->hSource, MSG_PLUGIN_DOUBLE, pMsg->instance, 2 * pMsg->userparm,
                                      0, /*bAddToHead=*/false, TQ_MSG_PRIORITY_MEDIUM);
        }
        tq_free(pMsg);
    }
};

} // namespace

tq_MsgQ* PluginMake(const char* pszName) {
    return tq_newObject<Doubler>(pszName);
}

void PluginUnmake(tq_MsgQ* pQueue) {
    tq_deleteObject(pQueue);
}
