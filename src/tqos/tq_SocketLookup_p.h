/// @file tq_SocketLookup_p.h
/// The lookup of services: the records of a name server's answer, one after the other and in the order of use.
///
/// An answer is input from outside. Every read lies inside the buffer; a name, a count or a length that points out of
/// it, or a name that cannot be expanded, ends the walk, and what was read before stands.
///
/// An object belongs to one thread. It needs no lock, and no library but for its memory.
#ifndef TQ_SOCKETLOOKUP_P_H
#define TQ_SOCKETLOOKUP_P_H

#include "tq_Socket.h"

constexpr unsigned int kDnsHeaderBytes = 12;
constexpr unsigned int kDnsBufferBytes = 1024; ///< for what follows the header
constexpr unsigned int kDnsNameBytes = 256;    ///< a name as text, with its terminator
constexpr unsigned int kCountOfQuestions = 4;  ///< where the header has it
constexpr unsigned int kCountOfAnswers = 6;
constexpr int kDnsClassInternet = 1;
constexpr int kDnsTypeSrv = 33;

/// One service record of an answer.
struct DNS_SRV_DATA {
    DNS_SRV_DATA(const char* pszTarget, unsigned int ttl, short priority, short weight, short port);
    ~DNS_SRV_DATA();
    DNS_SRV_DATA(const DNS_SRV_DATA&) = delete;
    DNS_SRV_DATA& operator=(const DNS_SRV_DATA&) = delete;

    char* pNameTarget;       ///< the host; null without memory
    unsigned int timeToLive; ///< seconds
    short wPriority;
    short wWeight;
    short wPort;
};

/// The service records of an answer, as they come. They live as long as the object.
class SrvIter {
public:
    /// Asks the name servers that the calling thread's resolver knows.
    explicit SrvIter(const char* pszQuery);
    /// Takes an answer of `length` bytes, of which it keeps what its buffer holds.
    SrvIter(const void* pAnswer, unsigned int length);
    ~SrvIter();
    SrvIter(const SrvIter&) = delete;
    SrvIter& operator=(const SrvIter&) = delete;

    /// The next service record; null when none remains, or the answer cannot be read any further.
    DNS_SRV_DATA* getNext();
    /// The number of records of any type that the answer says it has.
    unsigned int getSize() const { return ancount; }
    /// The records given so far; null slots follow, getSize() in all. Null for an answer without header.
    DNS_SRV_DATA** getSrvArr() const { return replyarray; }

private:
    void Begin(int length);
    /// Expands the name at the cursor and steps over it; false ends the walk.
    bool ReadName(char (&name)[kDnsNameBytes]);
    /// Steps over so many bytes. Where they began; null when the answer has no more so many, which ends the walk.
    const unsigned char* Skip(int bytes);
    DNS_SRV_DATA* ReadService(unsigned int ttl);

    unsigned char answer[kDnsHeaderBytes + kDnsBufferBytes] = {};
    DNS_SRV_DATA** replyarray = nullptr;
    unsigned int count = 0; ///< records in replyarray
    unsigned int ancount = 0;
    unsigned int m_read = 0; ///< answers read, of any type
    const unsigned char* const msg = answer;
    const unsigned char* eom = answer;
    const unsigned char* cp = nullptr; ///< null: the walk is over
};

/// The same records in the order of use: by priority, the lowest number first, and among equals by chance, each
/// according to its weight.
class SortedIter {
public:
    explicit SortedIter(const char* pszQuery);
    SortedIter(const void* pAnswer, unsigned int length);
    ~SortedIter();
    SortedIter(const SortedIter&) = delete;
    SortedIter& operator=(const SortedIter&) = delete;

    /// The next record, which lives as long as this object; null when none remains.
    DNS_SRV_DATA* getNext();

private:
    void Sort();
    /// Keeps qarr sorted, the largest priority number first, equal ones in the order they came.
    void Insert(DNS_SRV_DATA* pService);
    /// Shuffles a run of one priority, from slot `first` to slot `last`, by weight.
    void OrderByWeight(unsigned int first, unsigned int last);

    SrvIter unsorted;
    DNS_SRV_DATA** qarr = nullptr; ///< served from the end
    unsigned int rcount = 0;       ///< records left
};

/// Resolves the services' hosts into the array; how many entries were filled. For each pair of address and port the
/// first service counts.
unsigned int CollectServices(SortedIter& services, TQ_SERVICE_ADDRESS* pAddressArray, unsigned int uiArrayLen);

#endif // TQ_SOCKETLOOKUP_P_H
