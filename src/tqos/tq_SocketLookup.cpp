// Names to addresses: hosts and services.
#include "tq_SocketLookup_p.h"

#include <arpa/inet.h>
#include <arpa/nameser.h>
#include <netdb.h>
#include <resolv.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "tq_Memory.h"
#include "tq_Report_p.h"
#include "tq_Socket_p.h"

// Hosts

namespace {

constexpr unsigned int kHostWorkBytes = 512;
constexpr int kAddressBytes = 4;

/// Gives a caller what the system has found; null when it is nothing.
tq_hostent* Store(const struct hostent* pFound, tq_hostent* pHost) {
    if (!pFound) {
        return nullptr;
    }
    *pHost = {pFound->h_name, pFound->h_aliases, pFound->h_addrtype, pFound->h_length, pFound->h_addr_list};
    return pHost;
}

/// The first address of an entry; 0 when its list is empty.
unsigned int FirstAddress(const tq_hostent& host) {
    unsigned int address = 0;
    if (host.h_addr_list[0]) {
        memcpy(&address, host.h_addr_list[0], sizeof(address));
    }
    return address;
}

unsigned int PrintedPointer(const void* pointer) {
    return static_cast<unsigned int>(reinterpret_cast<uintptr_t>(pointer));
}

void TraceFailedLookup(const char* hostname, int error, const tq_hostent* pResult) {
    TraceSockets(TQ_TRACE_LEVEL_INFORMATIONAL,
                 "tqos Sockets: tq_GetIPAddress(\"%s\") failed when calling tq_gethostbyname_r().\n"
                 "   err=%u\n"
                 "   return=0x%x\n"
                 "   return->h_addr_list=0x%x\n"
                 "   return->h_addrtype=0x%x\n"
                 "   return->h_length=0x%x\n",
                 hostname, static_cast<unsigned int>(error), PrintedPointer(pResult),
                 pResult ? PrintedPointer(pResult->h_addr_list) : 0,
                 pResult ? static_cast<unsigned int>(pResult->h_addrtype) : 0,
                 pResult ? static_cast<unsigned int>(pResult->h_length) : 0);
}

unsigned int LookUpHost(const char* hostname) {
    tq_hostent host;
    tq_hostent* pResult = nullptr;
    alignas(void*) char work[kHostWorkBytes];
    int error = 0;
    tq_gethostbyname_r(hostname, &host, work, sizeof(work), &pResult, &error);
    if (!pResult || !pResult->h_addr_list || pResult->h_addrtype != AF_INET || pResult->h_length != kAddressBytes) {
        TraceFailedLookup(hostname, error, pResult);
        return 0;
    }
    const unsigned int address = FirstAddress(*pResult);
    if (address == 0) {
        TraceSockets(TQ_TRACE_LEVEL_INFORMATIONAL,
                     "tqos Sockets: tq_GetIPAddress(\"%s\") tq_gethostbyname_r() returned address=0.\n", hostname);
        return 0;
    }
    TraceSockets(TQ_TRACE_LEVEL_DEBUG,
                 "tqos Sockets: tq_GetIPAddress(\"%s\") tq_gethostbyname_r() returned address=0x%x.\n", hostname,
                 address);
    return address;
}

} // namespace

int tq_gethostbyname_r(const char* name, tq_hostent* pHost, char* pWork, unsigned int workBytes, tq_hostent** ppResult,
                       int* pError) {
    struct hostent host;
    struct hostent* pFound = nullptr;
    const int result = gethostbyname_r(name, &host, pWork, workBytes, &pFound, pError);
    *ppResult = Store(pFound, pHost);
    return result;
}

int tq_gethostbyaddr_r(const void* pAddress, unsigned int addressBytes, int type, tq_hostent* pHost, char* pWork,
                       unsigned int workBytes, tq_hostent** ppResult, int* pError) {
    struct hostent host;
    struct hostent* pFound = nullptr;
    const int result = gethostbyaddr_r(pAddress, addressBytes, type, &host, pWork, workBytes, &pFound, pError);
    *ppResult = Store(pFound, pHost);
    return result;
}

// No pass through the gate while the resolver works: it may take as long as name servers do not answer, and the layer's
// end would wait for it. Nothing of the layer is used.
unsigned int tq_GetIPAddress(const char* hostname) {
    if (!hostname || !gSocketGate.IsOpen()) {
        return 0;
    }
    return tq_SocketIsThisAnIP(hostname) ? inet_addr(hostname) : LookUpHost(hostname);
}

// Services: one answer

DNS_SRV_DATA::DNS_SRV_DATA(const char* pszTarget, unsigned int ttl, short priority, short weight, short port)
    : pNameTarget(tq_newString(pszTarget)), timeToLive(ttl), wPriority(priority), wWeight(weight), wPort(port) {}

DNS_SRV_DATA::~DNS_SRV_DATA() {
    tq_free(pNameTarget);
}

// Services: the answers as they come

namespace {

constexpr int kQuestionTail = 4; ///< type and class, behind the name
constexpr int kRecordBytes = 10; ///< type, class, time to live and data length, behind the name
constexpr int kSrvBytes = 6;     ///< priority, weight and port, before the target

unsigned int Number16(const unsigned char* pBytes) {
    return static_cast<unsigned int>(pBytes[0]) << 8 | pBytes[1];
}

unsigned int Number32(const unsigned char* pBytes) {
    return Number16(pBytes) << 16 | Number16(pBytes + 2);
}

/// Deliberate: a number above 32767 comes out negative, where a reader would expect all 16 bits. A port keeps that sign
/// all the way into the caller's 32-bit field.
short Signed16(const unsigned char* pBytes) {
    return static_cast<short>(static_cast<int16_t>(static_cast<uint16_t>(Number16(pBytes))));
}

} // namespace

SrvIter::SrvIter(const char* pszQuery) {
    if ((_res.options & RES_INIT) == 0 && res_ninit(&_res) != 0) {
        return;
    }
    const int length = res_query(pszQuery, kDnsClassInternet, kDnsTypeSrv, answer, static_cast<int>(sizeof(answer)));
    Begin(length);
}

SrvIter::SrvIter(const void* pAnswer, unsigned int length) {
    if (length > 0) { // of nothing there may be no address either
        memcpy(answer, pAnswer, length < sizeof(answer) ? length : sizeof(answer));
    }
    Begin(static_cast<int>(length < INT32_MAX ? length : INT32_MAX));
}

SrvIter::~SrvIter() {
    for (unsigned int i = 0; i < count; ++i) {
        tq_deleteObject(replyarray[i]);
    }
    tq_free(replyarray);
}

void SrvIter::Begin(int length) {
    if (length < static_cast<int>(kDnsHeaderBytes)) {
        return;
    }
    const unsigned int room = sizeof(answer) - kDnsHeaderBytes;
    // Deliberate: the end lies twelve bytes behind the last byte of the answer, where a reader would expect it right
    // behind that byte. An answer cut by up to twelve bytes so goes on with zeros. It never lies outside the buffer.
    eom = answer + kDnsHeaderBytes +
          (static_cast<unsigned int>(length) < room ? static_cast<unsigned int>(length) : room);
    cp = answer + kDnsHeaderBytes;
    ancount = Number16(answer + kCountOfAnswers);
    for (unsigned int questions = Number16(answer + kCountOfQuestions); questions > 0 && cp; --questions) {
        char name[kDnsNameBytes];
        ReadName(name);
        Skip(kQuestionTail);
    }
    // NOLINTNEXTLINE(bugprone-sizeof-expression): the array is one of pointers
    replyarray = static_cast<DNS_SRV_DATA**>(tq_calloc(ancount ? ancount : 1, sizeof(DNS_SRV_DATA*)));
    if (!replyarray) {
        ancount = 0;
    }
}

bool SrvIter::ReadName(char (&name)[kDnsNameBytes]) {
    const int bytes = cp ? dn_expand(msg, eom, cp, name, sizeof(name)) : -1;
    if (bytes < 0) {
        cp = nullptr;
        return false;
    }
    return Skip(bytes) != nullptr;
}

const unsigned char* SrvIter::Skip(int bytes) {
    const unsigned char* const pBegin = cp;
    cp = pBegin && bytes <= eom - pBegin ? pBegin + bytes : nullptr;
    return cp ? pBegin : nullptr;
}

DNS_SRV_DATA* SrvIter::ReadService(unsigned int ttl) {
    const unsigned char* const pNumbers = Skip(kSrvBytes);
    char target[kDnsNameBytes];
    if (!pNumbers || !ReadName(target)) {
        return nullptr;
    }
    DNS_SRV_DATA* const pService =
        tq_newObject<DNS_SRV_DATA>(target, ttl, Signed16(pNumbers), Signed16(pNumbers + 2), Signed16(pNumbers + 4));
    if (!pService || !pService->pNameTarget) {
        tq_deleteObject(pService);
        cp = nullptr;
        return nullptr;
    }
    replyarray[count++] = pService;
    return pService;
}

DNS_SRV_DATA* SrvIter::getNext() {
    while (cp && m_read < ancount) {
        ++m_read;
        char owner[kDnsNameBytes];
        const unsigned char* const pRecord = ReadName(owner) ? Skip(kRecordBytes) : nullptr;
        if (!pRecord) {
            return nullptr;
        }
        if (Number16(pRecord) == kDnsTypeSrv) {
            return ReadService(Number32(pRecord + 4));
        }
        Skip(static_cast<int>(Number16(pRecord + 8)));
    }
    return nullptr;
}

// Services: the answers in the order of use

namespace {

constexpr long long kRandomRange = 2147483647;

/// A number below total, which is at least 1.
long long DrawBelow(long long total) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): glibc's rand() has a lock
    return rand() / (kRandomRange / total + 1);
}

} // namespace

SortedIter::SortedIter(const char* pszQuery) : unsorted(pszQuery) {
    Sort();
}

SortedIter::SortedIter(const void* pAnswer, unsigned int length) : unsorted(pAnswer, length) {
    Sort();
}

SortedIter::~SortedIter() {
    tq_free(qarr);
}

void SortedIter::Sort() {
    // NOLINTNEXTLINE(bugprone-sizeof-expression): the array is one of pointers
    qarr = static_cast<DNS_SRV_DATA**>(tq_calloc(unsorted.getSize() ? unsorted.getSize() : 1, sizeof(DNS_SRV_DATA*)));
    if (!qarr) {
        return;
    }
    while (DNS_SRV_DATA* const pService = unsorted.getNext()) {
        pService->wWeight = pService->wWeight == 0 ? static_cast<short>(1) : pService->wWeight;
        Insert(pService);
    }
    unsigned int last = rcount;
    while (last > 0) {
        unsigned int first = last - 1;
        while (first > 0 && qarr[first - 1]->wPriority == qarr[last - 1]->wPriority) {
            --first;
        }
        OrderByWeight(first, last - 1);
        last = first;
    }
}

void SortedIter::Insert(DNS_SRV_DATA* pService) {
    unsigned int slot = rcount++;
    for (; slot > 0 && qarr[slot - 1]->wPriority < pService->wPriority; --slot) {
        qarr[slot] = qarr[slot - 1];
    }
    qarr[slot] = pService;
}

void SortedIter::OrderByWeight(unsigned int first, unsigned int last) {
    long long total = 0;
    for (unsigned int i = first; i <= last; ++i) {
        total += qarr[i]->wWeight;
    }
    for (unsigned int filled = last; filled > first && total > 0; --filled) {
        // Deliberate: one would expect the weight of the record that was chosen to leave the total. It is that of the
        // record that stood here before; the chances of those still to be placed are only nearly those of their
        // weights.
        const short weightBefore = qarr[filled]->wWeight;
        long long drawn = DrawBelow(total);
        for (unsigned int i = filled + 1; i-- > first;) {
            drawn -= qarr[i]->wWeight;
            if (drawn < 0) {
                DNS_SRV_DATA* const pChosen = qarr[i];
                qarr[i] = qarr[filled];
                qarr[filled] = pChosen;
                break;
            }
        }
        total -= weightBefore;
    }
}

DNS_SRV_DATA* SortedIter::getNext() {
    return rcount > 0 ? qarr[--rcount] : nullptr;
}

// Services: the lookup

namespace {

constexpr const char* kProtocols[] = {nullptr, "tcp", "udp"}; // by the number that callers give

bool IsAmong(const TQ_SERVICE_ADDRESS* pAddresses, unsigned int count, unsigned int address, unsigned int port) {
    while (count-- > 0) {
        if (pAddresses[count].address == address && pAddresses[count].port == port) {
            return true;
        }
    }
    return false;
}

} // namespace

unsigned int CollectServices(SortedIter& services, TQ_SERVICE_ADDRESS* pAddressArray, unsigned int uiArrayLen) {
    unsigned int filled = 0;
    while (filled < uiArrayLen) {
        const DNS_SRV_DATA* const pService = services.getNext();
        if (!pService) {
            break;
        }
        const unsigned int address = tq_GetIPAddress(pService->pNameTarget);
        const unsigned int port = static_cast<unsigned int>(static_cast<int>(pService->wPort));
        if (address != 0 && port != 0 && !IsAmong(pAddressArray, filled, address, port)) {
            pAddressArray[filled++] = {address, port, pService->timeToLive};
        }
    }
    return filled;
}

unsigned int tq_SocketFindService(const char* pszDomain, const char* pszService, TQ_SERVICE_ADDRESS* pAddressArray,
                                  unsigned int uiArrayLen, unsigned int uiProtocol) {
    if (!pszDomain || !pszService || !pAddressArray || uiArrayLen == 0 || (uiProtocol != 1 && uiProtocol != 2) ||
        !gSocketGate.IsOpen()) {
        return 0;
    }
    char query[kDnsNameBytes];
    const int length = snprintf(query, sizeof(query), "_%s._%s.%s", pszService, kProtocols[uiProtocol], pszDomain);
    if (length < 0 || static_cast<size_t>(length) >= sizeof(query)) {
        return 0; // longer than any name there can be
    }
    SortedIter services(query);
    return CollectServices(services, pAddressArray, uiArrayLen);
}
