/// @file tq_List.h
/// The container of the library: a doubly linked list of node pointers that belong to its user, with an optional sort
/// order, an optional lock, a cursor with a remembered walk or search, and an entry in the registry of all lists.
///
/// The list stores the pointers in entries that it takes from blocks of 16 and recycles, so that a list in steady state
/// adds and removes without allocating. It never reads, copies or frees a node, except for the key inside it that
/// sorting and searching compare: it lies at a byte offset that the caller gives, in a form that a LIST_TYPE_ code
/// names. A node must live, and keep its sort key, for as long as it is in the list. The same pointer may be in a list
/// more than once.
///
/// A list can carry hash indexes over its nodes, which it keeps up by itself: a lookup in one costs a walk over the
/// nodes of one bucket, however many nodes the list has (see HashCreate()).
///
/// Threads: construction, destruction and SetName() are safe from any thread. No other operation locks by itself:
/// whoever shares a list brackets its use with Lock() and Unlock(), best through tq_ListLock. NodeCount() and
/// MaxNodeCount() may be asked without the lock and then give a number of some moment.
///
/// A list of devices, sorted by a number, and a search in it:
///
///     struct Device { unsigned int id; const char* pszName; };
///     tq_List devices(LIST_FLAGS_SORT_ASCENDING, LIST_TYPE_U32BITS, offsetof(Device, id), "Devices");
///     {
///         tq_ListLock lock(devices);
///         devices.AddToTail(pDevice);
///         void* pFound = devices.FindFirst(tq_ListKey(17), LIST_TYPE_U32BITS, offsetof(Device, id), nullptr,
///                                          LIST_DIRECTION_HEAD_TO_TAIL);
///     }
#ifndef TQ_LIST_H
#define TQ_LIST_H

#include "tq_SemCritSec.h"
#include "tq_Types.h"

/// Flags of a list: one of each group, joined with |.
enum {
    LIST_FLAGS_SORT_DISABLE = 0,      ///< unsorted
    LIST_FLAGS_SORT_ASCENDING = 1,    ///< kept in ascending order; goes before LIST_FLAGS_SORT_DESCENDING
    LIST_FLAGS_SORT_DESCENDING = 2,   ///< kept in descending order
    LIST_FLAGS_LOCK_ENABLE = 0,       ///< the list has a lock
    LIST_FLAGS_LOCK_DISABLE = 4,      ///< it has none: Lock() and Unlock() do nothing
    LIST_FLAGS_LOCK_NON_REENTRANT = 8 ///< its lock is made as a critical section that is not recursive
};

/// Types of the key inside a node, at the offset given with them. A number may lie at any address.
enum {
    LIST_TYPE_U32BITS = 1, ///< unsigned 32-bit number
    LIST_TYPE_S32BITS = 2, ///< signed 32-bit number
    LIST_TYPE_U16BITS = 3, ///< unsigned 16-bit number
    LIST_TYPE_S16BITS = 4, ///< signed 16-bit number
    LIST_TYPE_U8BITS = 5,  ///< unsigned 8-bit number
    LIST_TYPE_S8BITS = 6,  ///< signed 8-bit number
    LIST_TYPE_PZSTR = 7,   ///< pointer to a text; a null pointer counts as the empty text
    LIST_TYPE_ZSTR = 8,    ///< a text that stands in the node itself
    LIST_TYPE_PZISTR = 9,  ///< as LIST_TYPE_PZSTR, upper and lower case the same
    LIST_TYPE_ZISTR = 10,  ///< as LIST_TYPE_ZSTR, upper and lower case the same
    LIST_TYPE_CUSTOM = 11  ///< compared by CustomSort() when sorting, by a PFN_CUSTOM_FIND when searching
};

/// Directions of adding, walking and searching.
enum { LIST_DIRECTION_HEAD_TO_TAIL = 0, LIST_DIRECTION_TAIL_TO_HEAD = 1 };

extern "C" {

/// Decides for a custom search whether a node is meant.
/// @param data      the search value, as FindFirst() was given it
/// @param pNode     the node
/// @param userparm  the list's user value
/// @return 0 when the node matches
/// It runs under whatever lock the searcher holds and must not change the list.
typedef int (*PFN_CUSTOM_FIND)(void* data, void* pNode, void* userparm);

/// Gives the bucket of a node in a hash of LIST_TYPE_CUSTOM.
/// @param pNode     the node
/// @param userparm  the hash's user value
/// @return the bucket, from 0, used as it is; at or above the hash's range the node is left out of that hash
/// For one node it must give the same bucket for as long as the node is in the list. It must not change the list.
typedef unsigned int (*PFN_CUSTOM_HASH)(void* pNode, void* userparm);

/// Finds a text within another, upper and lower case the same.
/// @return where the first match begins within `string` itself; null when there is none, when either text is null or
///         empty, or when there is no memory for the two copies that it compares
/// Threads: any.
TQ_API char* tq_stristr(const char* string, const char* strSearch);

/// Reports the lists of the process to a console session: handle, nodes now and at most, hashes and name of each.
/// @param instance         the session
/// @param pszResponse      set to null, or to "No Lists currently exist...", which the caller frees with tq_free. May
///                         itself be null
/// @param StartingIndex    number of the first row shown, from 1 (0: 1)
/// @param Max              rows shown at most; 0, or more than there are lists: all
/// @param pszSearchString  only lists whose name contains it, upper and lower case the same; beginning with "-", only
///                         those whose name does not contain the rest, unnamed ones too. Null: all
/// @param bHashedOnly      only lists that have had a hash
/// @param uiSort           0 newest list first, 20 rows a response; else one row a response, by 1 nodes, 2 most nodes,
///                         3 name, 4 or more handle
/// @param bReverseSort     sorted rows in descending order
/// Rows are numbered among the lists that match. Without memory the report ends early, or a sorted row is missing.
/// Threads: any, with no lock of the library held.
TQ_API void tq_ListShowLists(unsigned int instance, char** pszResponse, unsigned int StartingIndex, unsigned int Max,
                             const char* pszSearchString, bool bHashedOnly, unsigned int uiSort, bool bReverseSort);

/// Reports to a console session how a list's nodes are spread over the buckets of its hashes.
/// @param ListHandle  the list's handle, as tq_ListShowLists() shows it
/// @param HashHandle  the hash instance, from 1, for details; not used otherwise
/// @param instance    the session
/// @param uiFlags     0: for each hash a line of the largest and the smallest buckets, all of them about the first one;
///                    else every bucket of one hash
/// What cannot be reported is answered with a line that says why; without memory nothing is.
/// Threads: any, with no lock of the library held.
TQ_API void tq_ListShowHashes(unsigned int ListHandle, unsigned int HashHandle, unsigned int instance,
                              unsigned int uiFlags);

} // extern "C"

struct _LIST_BLOCK;
struct _TQ_LIST_HASHING;
struct tq_ListInside;

/// The list. Applications use it as it is, or derive from it to give it an order of their own with CustomSort().
class TQ_API tq_List {
public:
    /// One link of a list.
    struct _TQ_LIST_ENTRY {
        void* pNode;           ///< the user's node; null while the entry is in the pool of empty ones
        _TQ_LIST_ENTRY* pNext; ///< towards the tail; in the pool the next free entry
        _TQ_LIST_ENTRY* pPrev; ///< towards the head; in the pool the previous free entry
    };

    /// The whole state of a list.
    struct _LIST_INSTANCE {
        _TQ_LIST_ENTRY* pHead;         ///< first entry
        _TQ_LIST_ENTRY* pTail;         ///< last entry
        _TQ_LIST_ENTRY* pEmpty;        ///< the pool of empty entries
        _TQ_LIST_ENTRY* pCurrent;      ///< the cursor
        _LIST_BLOCK* pListBlock;       ///< newest block of entries; leads to the older ones
        tq_SemCritSec* pSem;           ///< the lock; null when the list has none
        void* userparm;                ///< the user's value, handed to CustomSort() and PFN_CUSTOM_FIND
        char* pName;                   ///< the list's own copy of its name; may be null
        unsigned int flags;            ///< LIST_FLAGS_
        unsigned int Count;            ///< nodes in the list
        unsigned int maxCount;         ///< the most that Count has been
        unsigned int sortOffset;       ///< where the sort key lies in a node
        int sortType;                  ///< LIST_TYPE_ of the sort key
        int searchDirection;           ///< LIST_DIRECTION_ of the current walk or search
        _TQ_LIST_ENTRY* pPrevSearch;   ///< where a step back begins
        _TQ_LIST_ENTRY* pNextSearch;   ///< where a step forward begins
        void* searchData;              ///< the remembered search value
        int searchType;                ///< its LIST_TYPE_; 0 when a walk, not a search, is remembered
        unsigned int searchOffset;     ///< where the search key lies in a node
        PFN_CUSTOM_FIND pCustomSearch; ///< the remembered custom search
        _TQ_LIST_HASHING* pHash;       ///< hash indexes; null when the list has none
    };

    /// Takes the list out of the registry, gives its handle back and frees what the list itself allocated. The nodes
    /// are not touched. Once the library has terminated it frees nothing but the object: the registry, the handles and
    /// perhaps the list's memory are gone by then.
    /// Threads: any, once nobody else uses the list; the caller does not hold its lock.
    virtual ~tq_List();

    /// Compares two nodes of a list sorted by LIST_TYPE_CUSTOM; derived lists override it. Here it orders the node
    /// addresses themselves, read as signed numbers.
    /// @param pNode1    the node that is being added
    /// @param pNode2    a node of the list
    /// @param userparm  the list's user value
    /// @return negative, 0 or positive: pNode1 belongs before, is equal to, belongs behind pNode2 in ascending order
    /// It must not change the list.
    virtual int CustomSort(void* pNode1, void* pNode2, void* userparm);

    /// A list with a new handle.
    /// @param flags       LIST_FLAGS_
    /// @param sortType    LIST_TYPE_ of the sort key; for a sorted list anything else counts as LIST_TYPE_U32BITS
    /// @param sortOffset  where the sort key lies in a node, in bytes
    /// @param name        shown in reports; copied, may be null
    ///
    /// Of a list for whose lock, name or registry entry there is no memory, that part is missing; it works without.
    /// So does a list made before the library starts or after it has terminated: it has no handle and no entry.
    /// Threads: any.
    tq_List(int flags, int sortType, unsigned int sortOffset, const char* name);

    /// An unsorted list with a lock.
    /// @param name    as above
    /// @param handle  its handle, which the list gives back when it is destroyed; 0 takes a new one
    tq_List(const char* name, int handle);

    /// An unsorted list with a lock and a new handle.
    explicit tq_List(const char* name);

    tq_List(const tq_List&) = delete;
    tq_List& operator=(const tq_List&) = delete;

    /// The work of the constructors, which call it with their arguments (handle 0: a new one). Not to be called again:
    /// it would forget all that the list holds.
    void init(int flags, int sortType, unsigned int sortOffset, const char* name, int handle);

    /// Adds a node and makes it the cursor. A null node is ignored; without memory for a further entry the node is not
    /// added, and nothing says so but NodeCount().
    /// @param pNode      stays the caller's
    /// @param direction  unsorted list: LIST_DIRECTION_TAIL_TO_HEAD puts the node at the head, anything else at the
    ///                   tail. Sorted list: the end from which its place is looked for, the head unless it is
    ///                   LIST_DIRECTION_TAIL_TO_HEAD; a node goes before its equals when it comes from the head, behind
    ///                   them when it comes from the tail
    void AddNode(void* pNode, int direction);
    /// AddNode(pNode, LIST_DIRECTION_HEAD_TO_TAIL): at the tail of an unsorted list.
    void AddNode(void* pNode);

    /// Adds a node at the head, or to a sorted list at its place, looked for from the head. Else as AddNode().
    void AddToHead(void* pNode);
    /// Adds a node at the tail, or to a sorted list at its place, looked for from the tail. Else as AddNode().
    void AddToTail(void* pNode);

    /// Adds a node behind the cursor as the current walk or search sees it: after it on a walk from head to tail,
    /// before it on the opposite walk. The new node becomes the cursor and the walk goes on with its neighbours.
    /// Without a cursor, or on a sorted list, AddNode(pNode, direction of the walk). Else as AddNode().
    void AddNextNode(void* pNode);
    /// The mirror of AddNextNode(): in front of the cursor as the walk sees it. Without a cursor, or on a sorted list,
    /// the same AddNode(pNode, direction of the walk).
    void AddPrevNode(void* pNode);

    /// Takes the first node out of the list. Every removal leaves the list without a cursor; a walk or search that was
    /// under way goes on with the nodes that remain.
    /// @return the node; null when the list is empty
    void* RemoveHead();
    /// Takes the last node out of the list.
    /// @return the node; null when the list is empty
    void* RemoveTail();
    /// Takes a node out of the list: the cursor when it is that node, else its first occurrence from the head.
    /// @return the node; null when it is null or not in the list, and then nothing changes
    void* RemoveNode(void* pNodeToRemove);

    /// Begins a walk from head to tail: the first node becomes the cursor.
    /// @return it; null when the list is empty
    void* GetHead();
    /// Begins a walk from tail to head: the last node becomes the cursor.
    /// @return it; null when the list is empty
    void* GetTail();
    /// The next step of the walk or search begun last, without regard to a search value.
    /// @return the node, now the cursor; null at the end, and then there is no cursor
    void* GetNext();
    /// A step back, against the direction of the walk.
    /// @return the node, now the cursor; null at the end, and then there is no cursor
    void* GetPrev();
    /// @return the cursor's node; null when there is no cursor
    void* GetCurrent();
    /// Makes the first occurrence of a node, from the head, the cursor. Whatever the direction of the walk is, the next
    /// step is then the neighbour towards the tail and the step back the one towards the head.
    /// @return the node; null when it is not in the list, and then nothing changes
    void* SetCurrent(void* pNode);

    /// Begins a search and finds its first match, which becomes the cursor.
    /// @param data           the value: a number in the pointer itself (see tq_ListKey(); 16- and 8-bit keys compare
    ///                       their low bits), a text, or whatever pCustomSearch takes. It is remembered, not copied
    /// @param searchType     LIST_TYPE_ of the key
    /// @param searchOffset   where the key lies in a node, in bytes; not used by LIST_TYPE_CUSTOM
    /// @param pCustomSearch  for LIST_TYPE_CUSTOM; not used otherwise
    /// @param direction      LIST_DIRECTION_
    /// @return the node; null when none matches. Also null, without a search to go on with, for an unknown type or
    ///         direction, a null text, and a custom search without function
    void* FindFirst(void* data, int searchType, unsigned int searchOffset, PFN_CUSTOM_FIND pCustomSearch,
                    int direction);
    /// FindFirst() that also takes the match out of the list.
    void* FindFirstAndRemove(void* data, int searchType, unsigned int searchOffset, PFN_CUSTOM_FIND pCustomSearch,
                             int direction);
    /// Finds the next match of the search begun last, from the next step on; it becomes the cursor, and the step back
    /// is where the cursor was.
    /// @param bRemove  also take it out of the list
    /// @return the node; null when none of the nodes ahead matches, and then there is no cursor. Also null, and the
    ///         cursor stays, when there is no next step, and after GetHead() or GetTail(), which begin a walk without a
    ///         search
    void* FindNext(bool bRemove);
    /// The mirror of FindNext(): from the step back on, against the direction of the search. Right after FindFirst() it
    /// begins where the cursor was before that search.
    void* FindPrev(bool bRemove);

    /// Waits for the list's lock; nothing without one. Reports of held locks show it under the list's name.
    /// Threads: any. The same thread may enter again and leaves as often (but see LIST_FLAGS_LOCK_NON_REENTRANT).
    void Lock();
    /// Leaves the list's lock; nothing without one.
    void Unlock();

    /// Replaces the name by a copy, or by none for null or without memory.
    /// Threads: any.
    void SetName(const char* name);

    /// @return the user's value, null at first
    void* GetUserParm();
    /// Sets the user's value, which CustomSort() and custom searches are given.
    void SetUserParm(void* userparm);

    /// @return how many nodes are in the list
    unsigned int NodeCount();
    /// @return the most nodes that have been in the list at once
    unsigned int MaxNodeCount();

    /// Makes a hash index over the nodes of the list, those that it holds now and all that come later.
    /// @param type           LIST_TYPE_ of the key; one that there is not puts every node into bucket 0
    /// @param offset         where the key lies in a node, in bytes
    /// @param hashRange      number of buckets, at least 1
    /// @param pfnCustomHash  for LIST_TYPE_CUSTOM, where null puts every node into bucket 0; not used by other types
    /// @param name           copied, may be null
    /// @return the hash instance, from 1, that names the hash in the other calls: the lowest that is free. 0 when
    ///         hashRange is below 1 or there is no memory
    ///
    /// A node must keep its hash keys, as its sort key, for as long as it is in the list. A node for whose entry in a
    /// hash there is no memory is missing there, and nothing says so.
    unsigned int HashCreate(int type, unsigned int offset, int hashRange, PFN_CUSTOM_HASH pfnCustomHash,
                            const char* name);
    /// Ends a hash. Its number is free for the next HashCreate(). An instance that there is not is ignored.
    void HashDestroy(unsigned int hashInstance);

    /// Begins a walk over a bucket, newest node first. It gives every node whose key hashes to the bucket: the caller
    /// compares the keys. Each hash has one walk at a time; a node that is removed does not disturb it.
    /// @param hashInstance  from HashCreate()
    /// @param hashValue  the bucket, from 0: for a hash of any type but LIST_TYPE_CUSTOM HashValueFromDataDefault()
    /// @return the first node; null when the bucket is empty or there is no such bucket or instance
    void* HashFindFirst(unsigned int hashInstance, unsigned int hashValue);
    /// @return the next node of the bucket; null at the end, or when there is no such instance
    void* HashFindNext(unsigned int hashInstance);

    /// Replaces a hash's name by a copy, or by none for null or without memory.
    void HashSetName(unsigned int hashInstance, const char* name);
    /// @return the hash's user value, null at first; null when there is no such instance
    void* HashGetUserParm(unsigned int hashInstance);
    /// Sets the value that the hash's custom function is given. The nodes already in the hash stay where they are, so a
    /// function whose result depends on it has to be given it before there are any.
    void HashSetUserParm(unsigned int hashInstance, void* userparm);

    /// The bucket of a key in a hash that has no custom function. Numbers count by their bits, unsigned, texts by the
    /// sum of their first four characters.
    /// @param data       a node, or any memory that holds such a key at `offset`
    /// @param type       LIST_TYPE_ of the key
    /// @param offset     where the key lies, in bytes
    /// @param hashRange  number of buckets
    /// @return the bucket, below hashRange; 0 when hashRange is below 1, `data` is null, the text is null, or the type
    ///         is LIST_TYPE_CUSTOM or unknown
    /// Threads: any; no lock is needed.
    unsigned int HashValueFromDataDefault(void* data, int type, unsigned int offset, int hashRange);

    /// Adds a node to one hash, or to all. The list does this itself for every node that it is given; whoever calls it
    /// for a node of his own also takes that node out again. A null node or an unknown instance is ignored.
    void AddToHash(unsigned int hashInstance, void* pNode);
    void AddToHashes(void* pNode); ///< AddToHash() for every hash of the list
    /// Takes a node out of one hash, or of all; the list does this itself for every node that is removed. A node that
    /// is not there, or an unknown instance, is ignored.
    void RemoveFromHash(unsigned int hashInstance, void* pNode);
    void RemoveFromHashes(void* pNode); ///< RemoveFromHash() for every hash of the list

protected:
    /// Takes an entry out of the pool, which a block of 16 fills up when it is empty. Null without memory.
    _TQ_LIST_ENTRY* GetNextEmpty();
    /// Puts an entry into the pool.
    void ReturnNewEmpty(_TQ_LIST_ENTRY* le);
    /// Gives all blocks but the oldest back, unless a hash still holds entries. Called when the list has become empty.
    void ReduceListNodes();
    /// Takes an entry out of the list and puts it into the pool; no remembered step points at it afterwards.
    void LocalListRemoveNode(_TQ_LIST_ENTRY* le);
    /// FindFirst() and FindFirstAndRemove().
    void* FindFirstInternal(void* data, int searchType, unsigned int searchOffset, PFN_CUSTOM_FIND pCustomSearch,
                            int direction, bool bRemove);

    _LIST_INSTANCE m_li; ///< the list's state

private:
    friend struct tq_ListInside; // the library's own reports

    void AddBesideCursor(void* pNode, bool bTowardsHead);
    void* RemoveEntry(_TQ_LIST_ENTRY* le);
    void* BeginWalk(_TQ_LIST_ENTRY* pFirst, int direction);
    void DestroyHashes(); // by the destructor; the entries go with the blocks
};

/// A search value that is a number, in the form that FindFirst() takes it.
inline void* tq_ListKey(unsigned int value) {
    return reinterpret_cast<void*>(static_cast<unsigned long>(value));
}

/// Holds a list's lock for a scope. A null list is passed over.
class tq_ListLock {
public:
    /// Takes the lock; of a null list none.
    explicit tq_ListLock(tq_List* pList) : m_pList(pList) {
        if (m_pList) {
            m_pList->Lock();
        }
    }
    /// The same.
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
