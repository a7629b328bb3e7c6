/// @file tq_List.h
#ifndef TQ_LIST_H
#define TQ_LIST_H

#include "tq_SemCritSec.h"
#include "tq_Types.h"

enum {
    LIST_FLAGS_SORT_DISABLE = 0,
    LIST_FLAGS_SORT_ASCENDING = 1,
    LIST_FLAGS_SORT_DESCENDING = 2,
    LIST_FLAGS_LOCK_ENABLE = 0,
    LIST_FLAGS_LOCK_DISABLE = 4,
    LIST_FLAGS_LOCK_NON_REENTRANT = 8
};

enum {
    LIST_TYPE_U32BITS = 1,
    LIST_TYPE_S32BITS = 2,
    LIST_TYPE_U16BITS = 3,
    LIST_TYPE_S16BITS = 4,
    LIST_TYPE_U8BITS = 5,
    LIST_TYPE_S8BITS = 6,
    LIST_TYPE_PZSTR = 7,
    LIST_TYPE_ZSTR = 8,
    LIST_TYPE_PZISTR = 9,
    LIST_TYPE_ZISTR = 10,
    LIST_TYPE_CUSTOM = 11
};

enum { LIST_DIRECTION_HEAD_TO_TAIL = 0, LIST_DIRECTION_TAIL_TO_HEAD = 1 };

extern "C" {

typedef int (*PFN_CUSTOM_FIND)(void* data, void* pNode, void* userparm);

TQ_API char* tq_stristr(const char* string, const char* strSearch);

} // extern "C"

struct _LIST_BLOCK;
struct _TQ_LIST_HASHING;

class TQ_API tq_List {
public:
    struct _TQ_LIST_ENTRY {
        void* pNode;
        _TQ_LIST_ENTRY* pNext;
        _TQ_LIST_ENTRY* pPrev;
    };

    struct _LIST_INSTANCE {
        _TQ_LIST_ENTRY* pHead;
        _TQ_LIST_ENTRY* pTail;
        _TQ_LIST_ENTRY* pEmpty;
        _TQ_LIST_ENTRY* pCurrent;
        _LIST_BLOCK* pListBlock;
        tq_SemCritSec* pSem;
        void* userparm;
        char* pName;
        unsigned int flags;
        unsigned int Count;
        unsigned int maxCount;
        unsigned int sortOffset;
        int sortType;
        int searchDirection;
        _TQ_LIST_ENTRY* pPrevSearch;
        _TQ_LIST_ENTRY* pNextSearch;
        void* searchData;
        int searchType;
        unsigned int searchOffset;
        PFN_CUSTOM_FIND pCustomSearch;
        _TQ_LIST_HASHING* pHash;
    };

    virtual ~tq_List();
    virtual int CustomSort(void* pNode1, void* pNode2, void* userparm);

    tq_List(int flags, int sortType, unsigned int sortOffset, const char* name);
    tq_List(const char* name, int handle);
    explicit tq_List(const char* name);
    tq_List(const tq_List&) = delete;
    tq_List& operator=(const tq_List&) = delete;

    void init(int flags, int sortType, unsigned int sortOffset, const char* name, int handle);

    void AddNode(void* pNode, int direction);
    void AddNode(void* pNode);
    void AddToHead(void* pNode);
    void AddToTail(void* pNode);
    void AddNextNode(void* pNode);
    void AddPrevNode(void* pNode);

    void* RemoveHead();
    void* RemoveTail();
    void* RemoveNode(void* pNodeToRemove);

    void* GetHead();
    void* GetTail();
    void* GetNext();
    void* GetPrev();
    void* GetCurrent();
    void* SetCurrent(void* pNode);

    void* FindFirst(void* data, int searchType, unsigned int searchOffset, PFN_CUSTOM_FIND pCustomSearch,
                    int direction);
    void* FindFirstAndRemove(void* data, int searchType, unsigned int searchOffset, PFN_CUSTOM_FIND pCustomSearch,
                             int direction);
    void* FindNext(bool bRemove);
    void* FindPrev(bool bRemove);

    void Lock();
    void Unlock();
    void SetName(const char* name);
    void* GetUserParm();
    void SetUserParm(void* userparm);
    unsigned int NodeCount();
    unsigned int MaxNodeCount();

protected:
    _LIST_INSTANCE m_li;
};

/// A search value that is a number, in the form that FindFirst() takes it.
inline void* tq_ListKey(unsigned int value) {
    return reinterpret_cast<void*>(static_cast<unsigned long>(value));
}

/// Holds a list's lock for a scope. A null list is passed over.
class tq_ListLock {
public:
    explicit tq_ListLock(tq_List* pList) : m_pList(pList) {
        if (m_pList) {
            m_pList->Lock();
        }
    }
    explicit tq_ListLock(tq_List& list) : tq_ListLock(&list) {}
    ~tq_ListLock() {
        if (m_pList) {
            m_pList->Unlock();
        }
    }
    tq_ListLock(const tq_ListLock&) = delete;
    tq_ListLock& operator=(const tq_ListLock&) = delete;

private:
    tq_List* m_pList;
};

#endif // TQ_LIST_H
