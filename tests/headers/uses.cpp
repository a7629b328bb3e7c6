// What a header compiles only when somebody calls it: the macros, the templates and the members with defaulted
// arguments, as an application writes them in any standard.
#include <tqos.h>

namespace {

struct Node {
    explicit Node(unsigned int number) : key(number) {}
    unsigned int key;
};

class Queue : public tq_MsgQ {
public:
    Queue() : tq_MsgQ("Queue", nullptr) {}
    Queue(const Queue&) = delete;
    Queue& operator=(const Queue&) = delete;
    ~Queue() override { Cleanup(); }
    void MessageHandler(MSG_COMMON* pMsg) override { tq_free(pMsg); }
};

class Descending : public tq_List {
public:
    Descending() : tq_List(LIST_FLAGS_SORT_ASCENDING, LIST_TYPE_CUSTOM, 0, "Descending") {}
    int CustomSort(void* pNode1, void* pNode2, void*) override {
        const unsigned int key1 = static_cast<Node*>(pNode1)->key;
        const unsigned int key2 = static_cast<Node*>(pNode2)->key;
        return key1 > key2 ? -1 : key1 < key2;
    }
};

void* Thread(void* pArgument) {
    tq_Sleep(1);
    return pArgument;
}

} // namespace

unsigned int UseMemory();
unsigned int UseMemory() {
    char* pszCopy = tq_newString("text");
    const unsigned char* pszBytes = tq_newString(reinterpret_cast<const unsigned char*>("bytes"));
    tq_free(pszCopy);
    tq_free(const_cast<unsigned char*>(pszBytes));
    void* pBlock = tq_malloc(10);
    pBlock = tq_realloc(pBlock, 20);
    tq_free(pBlock);
    tq_free(tq_calloc(2, 3));
    tq_delete(tq_new(4));
    tq_deleteArray(tq_newArray(5));
    tq_dealloc(tq_alloc(6, TQ_MEM_TYPE_NEW), TQ_MEM_TYPE_NEW);
    Node* pNode = tq_newObject<Node>(7u);
    const unsigned int key = pNode ? pNode->key : 0;
    tq_deleteObject(pNode);
    return key;
}

unsigned int UseStrings();
unsigned int UseStrings() {
    TqString* pString = tq_string_create(0);
    TqString* pCopy = tq_string_duplicate("copy");
    TqString* pPiece = tq_string_substring(pCopy, 0, 2);
    char line[16];
    int failed = tq_string_append(pString, "text");
    failed += tq_string_nappend(pString, "text", 2);
    failed += tq_string_replace(pString, 0, 1, "T");
    failed += tq_string_getline(pString, line, sizeof(line));
    failed += tq_string_strtok(pString, ",", TQ_STRING_NEXT_TOKEN);
    const unsigned int length = tq_string_length(pString);
    tq_string_destroy(pPiece);
    tq_string_destroy(pCopy);
    tq_string_destroy(pString);
    return failed ? 0 : length;
}

unsigned int UseLocks();
unsigned int UseLocks() {
    tq_SemMutex mutex(false);
    tq_SemCritSec critSec(true);
    tq_SemSemaphore semaphore(0, 1);
    tq_SemEvent event(0, 0);
    tq_CritSecLock held(critSec);
    tq_CritSecLock heldAgain(&critSec);
    critSec.Enter();
    critSec.Leave();
    unsigned int got = mutex.WaitForMutex();
    got += mutex.WaitForMutexWithTimeout(10);
    got += semaphore.WaitForSem(0);
    got += event.WaitForEvent(0);
    return got;
}

unsigned int UseQueues();
unsigned int UseQueues() {
    Queue queue;
    Descending list;
    tq_ListLock lock(list);
    tq_ListLock lockAgain(&list);
    list.FindFirst(tq_ListKey(5), LIST_TYPE_U32BITS, 0, nullptr, LIST_DIRECTION_HEAD_TO_TAIL);
    unsigned int threadId = 0;
    tq_beginthread(0, Thread, nullptr, &threadId, TQ_THREAD_PRIORITY_NORMAL);
    tq_MsgCreateCommonAndSend(0, queue.GetHandle(), MSG_USER, 1, 2, 3, false, TQ_MSG_PRIORITY_MEDIUM);
    tq_SocketClose(1);
    tq_SocketFlushAndClose(1, TQ_SOCKET_FLUSH_OUT);
    const unsigned int hTrace = tq_TraceInitInstance("uses");
    tq_TraceEnableFile(hTrace, "uses.log", 2, 1000);
    tq_Trace(hTrace, TQ_TRACE_LEVEL_WARNING, TQ_TRACE_CAT_SYSTEM, true, "%u\n", threadId);
    return threadId;
}
