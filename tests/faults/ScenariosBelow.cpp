// Scenarios of what stands on its own: memory, settings, files, locks, threads, lists, strings, compression, processes.
#include <atomic>
#include <stddef.h>
#include <stdio.h>
#include <string.h>
#include <sys/wait.h>

#include "Faults.h"
#include "Scenario.h"
#include "TestSupport.h"
#include "tqos.h"

namespace faults {

namespace {

/// A report, which is given back.
void Report(Run& run, const char* pszStep, void (*pfnShow)(char**)) {
    char* pszReport = nullptr;
    pfnShow(&pszReport);
    tq_free(run.Pointer(pszStep, pszReport));
}

} // namespace

// Memory

void MemoryBlocks(Run& run) {
    char* const pBlock = static_cast<char*>(run.Pointer("tq_malloc", tq_malloc(100)));
    if (pBlock) {
        memset(pBlock, 'x', 100);
    }
    unsigned char* const pZeroed = static_cast<unsigned char*>(run.Pointer("tq_calloc", tq_calloc(10, 20)));
    for (unsigned int i = 0; pZeroed && i < 200; ++i) {
        run.Must("tq_calloc zeroes", pZeroed[i] == 0);
    }
    char* const pText = run.Pointer("tq_newString", tq_newString("a text"));
    run.Must("tq_newString copies", !pText || strcmp(pText, "a text") == 0);
    void* const pObject = run.Pointer("tq_new", tq_new(48));
    void* const pArray = run.Pointer("tq_newArray", tq_newArray(5000));
    void* blocks[60];
    for (void*& pOne : blocks) {
        pOne = run.Pointer("one of many", tq_malloc(24));
    }
    for (void* pOne : blocks) {
        tq_free(pOne);
    }
    tq_deleteArray(pArray);
    tq_delete(pObject);
    tq_free(pText);
    tq_free(pZeroed);
    tq_free(pBlock);
}

void MemoryGrowth(Run& run) {
    constexpr unsigned int kLargest = 20000;
    unsigned int size = 16;
    char* pBlock = static_cast<char*>(run.Pointer("tq_malloc", tq_malloc(size)));
    if (!pBlock) {
        return;
    }
    memset(pBlock, 'a', size);
    while (size < kLargest) {
        char* const pGrown = static_cast<char*>(run.Pointer("tq_realloc", tq_realloc(pBlock, size * 2)));
        if (!pGrown) {
            break;
        }
        pBlock = pGrown;
        run.Must("what was written stays", pBlock[0] == 'a' && pBlock[size - 1] == 'a');
        memset(pBlock + size, 'a', size);
        size *= 2;
    }
    run.Must("a failed growth leaves the block whole", pBlock[0] == 'a' && pBlock[size - 1] == 'a');
    tq_free(pBlock);
}

void MemoryReports(Run& run) {
    static const char* const kCommands[] = {"",
                                            "pool=1",
                                            "histogram",
                                            "group",
                                            "group=bytes",
                                            "filter=test",
                                            "histogram format=ini",
                                            "histogram format=graphic",
                                            "size=100",
                                            "line=1"};
    void* const pBlock = run.Pointer("tq_malloc", tq_malloc(77));
    tq_MemoryMarkPools();
    for (const char* pszWords : kCommands) {
        for (unsigned int flags : {0u, 1u}) {
            char words[64];
            strcpy(words, pszWords);
            tq_ShowMemory(/*instance=*/0, flags, words); // nobody listens: what is sent goes nowhere, by any fault
        }
    }
    tq_MemoryUnmarkPools();
    FILE* const hFile = run.Pointer("fopen", fopen("report.txt", "w"));
    if (hFile) {
        tq_ShowMemoryPools(0, 1, false, hFile, 0, true, nullptr, nullptr, TQ_MEM_SORT_FORMATS::BYTES, false, false, 0,
                           0);
        tq_MemoryShowHistogram(0, hFile, TQ_MEM_HISTOGRAM_FORMATS::COMBO);
        tq_MemoryGenerateINIPoolingSection(0, hFile);
        fclose(hFile);
    }
    run.Must("no block is damaged", !tq_CheckMemoryPoolsInternal(0, false));
    tq_free(pBlock);
}

// Settings and files

void Settings(Run& run) {
    const char kFile[] = "settings.ini";
    {
        const Exempt exempt;
        test::WriteFile(kFile, "[Door]\r\nName=front\r\nCount=0x10\r\nLocked=yes\r\n[Other]\r\nKey=1\r\n");
    }
    char text[64];
    run.Is("tq_GetINIFileString", 5, tq_GetINIFileString("Door", "Name", "none", text, sizeof(text), kFile), {4});
    run.Must("a whole value or the default", strcmp(text, "front") == 0 || strcmp(text, "none") == 0);
    run.Is("tq_GetINIFileInt", 16, tq_GetINIFileInt("Door", "Count", 3, kFile), {3});
    run.True("tq_GetINIFileAffirmative", tq_GetINIFileAffirmative("Door", "Locked", "no", kFile));
    run.Is("tq_GetINIFileString of the keys", 19,
           tq_GetINIFileString("Door", nullptr, nullptr, text, sizeof(text), kFile), {0});
    run.True("tq_WriteINIFileString", tq_WriteINIFileString("Door", "Name", "back door", kFile) == 1);
    run.True("tq_WriteINIFileInt", tq_WriteINIFileInt("New", "Count", 42, kFile) == 1);
    const Exempt exempt;
    const std::string written = test::ReadFile(kFile);
    run.Must("the file is whole, old or new", written.find("[Other]\r\nKey=1\r\n") != std::string::npos);
    if (tq_GetINIFileInt("New", "Count", 0, kFile) == 42 && run.Failed().empty()) {
        tq_GetINIFileString("Door", "Name", nullptr, text, sizeof(text), kFile);
        run.Must("what was written is read", strcmp(text, "back door") == 0);
    }
    for (int i = 0; i < 5; ++i) {
        remove(("__temp__" + std::string(i ? std::to_string(i) : "") + kFile).c_str());
    }
}

void Files(Run& run) {
    unsigned int free = 0;
    unsigned int total = 0;
    run.True("tq_GetVolumeInfo", tq_GetVolumeInfo(nullptr, &free, &total));
    char before[512];
    if (!run.True("tq_GetWorkingDirectory", tq_GetWorkingDirectory(before, sizeof(before)) == 1)) {
        const Exempt exempt;
        tq_GetWorkingDirectory(before, sizeof(before));
    }
    run.True("tq_CreateDirectory", tq_CreateDirectory("files"));
    {
        const Exempt exempt;
        tq_CreateDirectory("files");
        test::WriteFile("files/one", std::string(10000, '1'));
    }
    if (run.True("tq_CopyFile", tq_CopyFile("files/one", "files/two"))) {
        const Exempt exempt;
        run.Must("a copy is whole", test::ReadFile("files/two") == std::string(10000, '1'));
    }
    TQ_FINDFILE_STRUCT found;
    void* const hSearch = tq_FindFirstFile("files/*o*", &found);
    const bool bFound = hSearch != reinterpret_cast<void*>(-1);
    run.True("tq_FindFirstFile", bFound);
    unsigned int count = bFound ? 1 : 0;
    while (tq_FindNextFile(hSearch, &found)) {
        ++count;
    }
    tq_FindClose(hSearch);
    run.True("tq_FindNextFile", count == 2);
    run.True("tq_SetWorkingDirectory", tq_SetWorkingDirectory("files") == 1);
    run.True("tq_RemoveFile", tq_RemoveFile("one"));
    const Exempt exempt;
    run.Must("the way back", tq_SetWorkingDirectory(before) == 1);
    run.Must("tq_Deltree", tq_Deltree("files") == 0);
}

void ErrorLog(Run& run) {
    {
        const Exempt exempt;
        test::WriteFile("tqos_error.log", "");
    }
    LogCriticalError("the device is on fire", false, TQ_TRACE_LEVEL_SEVERE, TQ_TRACE_CAT_SYSTEM);
    LogCriticalError("100%% sure", false, TQ_TRACE_LEVEL_SEVERE, TQ_TRACE_CAT_SYSTEM);
    const Exempt exempt;
    const std::string log = test::ReadFile("tqos_error.log");
    run.True("LogCriticalError", test::CountOf(log, "the device is on fire\n") == 1);
    run.True("LogCriticalError once more", test::CountOf(log, "100%% sure\n") == 1);
}

// Handles, clock, locks, threads

void Handles(Run& run) {
    unsigned int handles[150];
    for (unsigned int& handle : handles) {
        handle = run.Handle("tq_HandleGet", tq_HandleGet());
    }
    for (unsigned int handle : handles) {
        if (handle != 0) {
            tq_HandleRelease(handle);
        }
    }
    tq_ShowHandles(0);
    tq_CheckForDuplicateHandles(0);
}

void Clock(Run& run) {
    char text[26];
    tq_GetASCTime(text);
    run.True("tq_GetASCTime", strlen(text) == 24);
    run.Must("the day is a part of the week", tq_GetSecondsIntoDay() <= tq_GetSecondsIntoWeek() + 86400);
    Report(run, "tq_TimeShowMSPerTick", tq_TimeShowMSPerTick);
    TQ_UUID uuid;
    run.Must("tq_CreateUUID", tq_CreateUUID(&uuid));
    tq_Sleep(1);
}

void Locks(Run& run) {
    tq_SemMutex mutex(false);
    tq_SemCritSec section(true);
    tq_SemSemaphore semaphore(2, 3);
    tq_SemEvent event(1, 1);
    if (run.True("tq_SemMutex", mutex.WaitForMutex())) {
        if (run.True("a mutex is taken again", mutex.WaitForMutexWithTimeout(1000))) { // not without the clock
            run.Must("and given back", mutex.Release());
        }
        run.Must("a mutex is released", mutex.Release());
    }
    section.Enter(); // locks nothing where it could not be made
    section.Enter();
    section.Leave();
    section.Leave();
    if (run.True("tq_SemSemaphore", semaphore.WaitForSem(-1))) {
        run.Must("a unit comes back", semaphore.Release(1, nullptr));
    }
    if (run.True("tq_SemEvent", event.WaitForEvent(-1))) {
        run.Must("an event is reset", event.Reset());
    }
    run.True("an event that is not set", !event.WaitForEvent(1));
}

void TrackedWaits(Run& run) {
    tq_SemEnableSemTracking();
    Locks(run);
    tq_SemMutex mutex(false);
    if (run.True("tq_SemMutex", mutex.WaitForMutex())) {
        Report(run, "tq_ShowSemaphores", tq_ShowSemaphores);
        run.Must("a mutex is released", mutex.Release());
    }
    tq_Sleep(1);
    void* const pBlock = run.Pointer("tq_malloc", tq_malloc(100)); // a report's trace takes tracked locks
    tq_free(pBlock);
    tq_SemDisableSemTracking();
}

namespace {

struct Worker {
    std::atomic<unsigned int> ended{0};

    static void* Work(void* pWorker) {
        tq_Sleep(1);
        ++static_cast<Worker*>(pWorker)->ended;
        return nullptr;
    }
};

} // namespace

void Threads(Run& run) {
    Worker worker;
    unsigned int started = 0;
    for (unsigned int stackBytes : {0u, 65536u, 0u}) {
        unsigned int tid = 0;
        if (run.Handle("tq_beginthread",
                       tq_beginthread(stackBytes, Worker::Work, &worker, &tid, TQ_THREAD_PRIORITY_NORMAL))) {
            run.Must("a started thread has an id", tid != 0);
            tq_ThreadSetName(tid, "worker of the scenario");
            ++started;
        }
    }
    Report(run, "tq_ShowThreads", tq_ShowThreads);
    const Exempt exempt; // a started thread always runs
    run.Must("every started thread runs", test::WaitUntil([&] { return worker.ended == started; }));
}

// Lists

namespace {

struct Item {
    unsigned int id;
    const char* pszName;
};

constexpr unsigned int kItems = 50;

/// A node that could not be added is noticed by the count alone.
bool Add(Run& run, tq_List& list, void* pNode) {
    const unsigned int before = list.NodeCount();
    list.AddNode(pNode);
    return run.True("AddNode", list.NodeCount() == before + 1);
}

} // namespace

void Lists(Run& run) {
    Item items[kItems] = {};
    tq_List list("scenario list");
    const tq_ListLock lock(list);
    unsigned int added = 0;
    for (Item& item : items) {
        item.id = added;
        added += Add(run, list, &item) ? 1 : 0;
    }
    list.SetName("another name");
    unsigned int walked = 0;
    for (void* pNode = list.GetTail(); pNode; pNode = list.GetNext()) {
        ++walked;
    }
    run.Must("a walk passes every node", walked == added);
    unsigned int expected = 0;
    while (Item* const pItem = static_cast<Item*>(list.RemoveHead())) {
        run.Must("nodes come in their order", pItem->id == expected);
        ++expected;
    }
    run.Must("all nodes come off", expected == added && list.NodeCount() == 0);
}

void SortedLists(Run& run) {
    Item items[kItems] = {};
    tq_List list(LIST_FLAGS_SORT_DESCENDING, LIST_TYPE_U32BITS, offsetof(Item, id), "sorted");
    const tq_ListLock lock(list);
    unsigned int added = 0;
    for (unsigned int i = 0; i < kItems; ++i) {
        items[i].id = i * 7 % kItems;
        added += Add(run, list, &items[i]) ? 1 : 0;
    }
    unsigned int last = kItems;
    unsigned int walked = 0;
    for (void* pNode = list.GetHead(); pNode; pNode = list.GetNext()) {
        const unsigned int id = static_cast<Item*>(pNode)->id;
        run.Must("the order holds", id < last);
        last = id;
        ++walked;
    }
    run.Must("a walk passes every node", walked == added);
    run.True("FindFirst", list.FindFirst(tq_ListKey(7), LIST_TYPE_U32BITS, offsetof(Item, id), nullptr,
                                         LIST_DIRECTION_HEAD_TO_TAIL) != nullptr);
}

void Hashes(Run& run) {
    Item items[kItems] = {};
    tq_List list("hashed");
    const tq_ListLock lock(list);
    const unsigned int byId =
        run.Handle("HashCreate", list.HashCreate(LIST_TYPE_U32BITS, offsetof(Item, id), 16, nullptr, "by id"));
    unsigned int added = 0;
    for (Item& item : items) {
        item.id = added;
        item.pszName = "name";
        added += Add(run, list, &item) ? 1 : 0;
    }
    const unsigned int byName = run.Handle(
        "HashCreate of a full list", list.HashCreate(LIST_TYPE_PZSTR, offsetof(Item, pszName), 4, nullptr, nullptr));
    list.HashSetName(byName, "by name");
    unsigned int found = 0;
    for (unsigned int bucket = 0; bucket < 16; ++bucket) {
        for (void* pNode = list.HashFindFirst(byId, bucket); pNode; pNode = list.HashFindNext(byId)) {
            ++found;
        }
    }
    run.True("every node is in the hash", found == added);
    run.Must("no node is there that was not added", found <= added);
    list.RemoveNode(&items[0]);
    list.HashDestroy(byId);
    while (list.RemoveTail()) {
    }
    list.HashDestroy(byName);
}

void ListReports(Run& run) {
    tq_List list("shown");
    Item item = {1, "item"};
    if (Add(run, list, &item)) {
        run.Handle("HashCreate", list.HashCreate(LIST_TYPE_U32BITS, offsetof(Item, id), 8, nullptr, "by id"));
    }
    for (unsigned int sort = 0; sort <= 4; ++sort) {
        char* pszReport = nullptr;
        tq_ListShowLists(0, &pszReport, 1, 0, sort % 2 ? "SHOWN" : nullptr, false, sort, sort > 2);
        tq_free(pszReport);
    }
    tq_ListShowHashes(list.NodeCount(), 1, 0, 0);
    list.RemoveNode(&item);
    char* const pszInside = tq_stristr(const_cast<char*>("Where the Needle is"), "needle");
    run.True("tq_stristr", pszInside != nullptr);
}

// Strings, compression, processes

void Strings(Run& run) {
    TqString* const pString = run.Pointer("tq_string_create", tq_string_create(16));
    if (!pString) {
        return;
    }
    std::string expected;
    for (int i = 0; i < 20; ++i) {
        if (run.Zero("tq_string_append", tq_string_append(pString, "0123456789"))) {
            expected += "0123456789";
        }
    }
    if (run.Zero("tq_string_sprintf", tq_string_sprintf(pString, "[%05u|%s]", 42u, "text"))) {
        expected += "[00042|text]";
    }
    if (run.Zero("tq_string_appendInteger", tq_string_appendInteger(pString, 7))) {
        expected += "7";
    }
    if (!expected.empty() && run.Zero("tq_string_insert", tq_string_insert(pString, 0, "front"))) {
        expected.insert(0, "front");
    }
    if (expected.size() > 3 && run.Zero("tq_string_replace", tq_string_replace(pString, 1, 2, "longer than two"))) {
        expected.replace(1, 2, "longer than two");
    }
    const char* const pText = reinterpret_cast<const char*>(tq_string_ptr(pString, 0));
    run.Must("a failed operation changes nothing", pText && expected == pText);
    if (expected.size() > 10) {
        tq_string_destroy(run.Pointer("tq_string_substring", tq_string_substring(pString, 2, 8)));
    }
    tq_string_destroy(run.Pointer("tq_string_duplicate", tq_string_duplicate("copied")));
    tq_string_destroy(pString);
}

void StringEscapes(Run& run) {
    const char kText[] = "a <b> & \"c\" 'd' = @ 100%";
    for (int round = 0; round < 2; ++round) {
        TqString* const pString = run.Pointer("tq_string_duplicate", tq_string_duplicate(kText));
        if (!pString) {
            continue;
        }
        int (*const pfnEscape)(TqString*) = round ? tq_string_xmlEscape : tq_string_escape;
        const bool bEscaped = run.Zero("escape", pfnEscape(pString));
        const bool bUnescaped = bEscaped && run.Zero("unescape", round ? tq_string_xmlUnEscape(pString)
                                                                       : tq_string_unescape(pString, false));
        const char* const pText = reinterpret_cast<const char*>(tq_string_ptr(pString, 0));
        run.Must("the text is there and back, or escaped", bEscaped != bUnescaped || strcmp(pText, kText) == 0);
        tq_string_destroy(pString);
    }
}

void Compression(Run& run) {
    std::string text;
    for (unsigned int i = 0; text.size() < 90000; ++i) {
        text += std::to_string(i * 2654435761u) + ",";
    }
    char* pStream = nullptr;
    unsigned int streamBytes = 0;
    tq_lzwCompress(text.data(), static_cast<unsigned int>(text.size()), &pStream, &streamBytes);
    run.Must("a stream has a length", (pStream != nullptr) == (streamBytes != 0));
    if (!run.Pointer("tq_lzwCompress", pStream)) {
        return;
    }
    char* pExpanded = nullptr;
    unsigned int bytes = 0;
    tq_lzwExpand(pStream, streamBytes, &pExpanded, &bytes);
    run.Must("bytes have a count", (pExpanded != nullptr) == (bytes != 0));
    if (run.Pointer("tq_lzwExpand", pExpanded)) {
        run.Must("what was compressed comes back", text == std::string(pExpanded, bytes));
    }
    tq_free(pExpanded);
    tq_free(pStream);
}

void Processes(Run& run) {
    run.True("tq_SpawnProcess", tq_SpawnProcess("touch spawned", nullptr, /*bWait=*/true) > 0);
    {
        const Exempt exempt;
        run.True("a program that is waited for has run", test::FileExists("spawned"));
        remove("spawned");
    }
    const int child = tq_SpawnProcess("sleep 60", "/", /*bWait=*/false);
    if (run.True("tq_SpawnProcess without waiting", child > 0)) {
        run.Must("tq_KillProcess", tq_KillProcess(child) == 0);
        const Exempt exempt;
        tq_KillProcess(child); // where the shell could not be run
        test::WaitUntil([child] { return waitpid(child, nullptr, WNOHANG) != 0; });
    }
    void* const pLibrary = run.Pointer("tq_LoadLibrary", tq_LoadLibrary(nullptr));
    run.Must("a symbol of the program", !pLibrary || tq_GetProcAddress(pLibrary, "malloc") != nullptr);
    run.Must("tq_FreeLibrary", tq_FreeLibrary(pLibrary) == (pLibrary ? 1 : 0));
}

} // namespace faults
