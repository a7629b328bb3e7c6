// Datagrams that come to a sender of trace, in any order with its timers and its lines, against a plain list of
// viewers. No socket and no timer is opened: the target takes their place, and what is sent and set is checked.
//
// Input: lines, each a letter and what follows: "d" a viewer's character and the datagram, where "~" stands for a zero
// byte; "p" a fired probe timer; "a" a fired announcement timer; "t" a line that is traced; "f" a character and a flood
// of subscriptions; "m" before any of them, for as many viewers as the library can have, which are few otherwise: the
// list is full soon then, and what is done for each viewer takes less long.
#include <algorithm>
#include <set>

#include <arpa/inet.h>

#include "Fuzz.h"
#include "tq_NetTrace_p.h"

namespace {

constexpr unsigned int kSocket = 4711; // the sender's
constexpr unsigned int kPort = 5555;
constexpr unsigned int kAnnouncementTimer = 1;
constexpr unsigned int kProbeTimer = 2;
constexpr size_t kMost = 128; // viewers
constexpr size_t kFew = 8;

/// How many floods an input has, and how much it has sent to viewers.
struct Limits {
    unsigned int floods;
    size_t datagrams;
};
constexpr Limits kLimitsOfSeeds = {1000, 1000000};
constexpr Limits kLimits = {3, 1000};

struct Sent {
    unsigned int ip;
    unsigned int port;
    std::string bytes;

    bool operator==(const Sent& other) const { return ip == other.ip && port == other.port && bytes == other.bytes; }
};

struct Viewer {
    unsigned int ip;
    unsigned int port;
    unsigned int unanswered;
};

// What the library does with sockets and timers, as the target sees it.
std::vector<Sent> gSent;
std::set<unsigned int> gTimers;
unsigned int gResets = 0;

size_t gAllowed = kFew; // as the configuration has it
std::vector<Viewer> gViewers;
bool gbProbing = false;
unsigned int ghTrace = 0;

} // namespace

extern "C" {

unsigned int __wrap_tq_SocketOpenUDP(unsigned int, unsigned int, unsigned int, unsigned int, unsigned int,
                                     unsigned int) {
    return kSocket;
}

unsigned int __wrap_tq_SocketSendTo(unsigned int hSocket, const unsigned char* data, unsigned int len,
                                    unsigned int destIP, unsigned int destPort) {
    FUZZ_EQUAL(kSocket, hSocket);
    gSent.push_back({destIP, destPort, std::string(reinterpret_cast<const char*>(data), len)});
    return len;
}

void __wrap__Z10SendOrDropjPKhjjj(unsigned int hSocket, const unsigned char* data, unsigned int len,
                                  unsigned int destIP, unsigned int destPort) {
    __wrap_tq_SocketSendTo(hSocket, data, len, destIP, destPort);
}

unsigned int __wrap_tq_SocketGetBoundPort(unsigned int) {
    return kPort;
}

unsigned int __wrap_tq_TimerSet(unsigned int, unsigned int, unsigned int instance, unsigned int userparm, unsigned int,
                                unsigned int, const char*, bool) {
    FUZZ_EQUAL(kSocket, userparm);
    gTimers.insert(instance);
    return 0;
}

unsigned int __wrap_tq_TimerKill(unsigned int, unsigned int instance, unsigned int, unsigned int) {
    return gTimers.erase(instance) ? 0 : 1;
}

} // extern "C"

namespace {

Viewer ViewerOf(unsigned int character) {
    // A few of them have the address or the port of another, and one has none at all.
    return {htonl(0x7F000001 + character / 4), character == '0' ? 0 : 1000 + character % 4, 0};
}

std::vector<Viewer>::iterator Find(const Viewer& viewer) {
    return std::find_if(gViewers.begin(), gViewers.end(),
                        [&viewer](const Viewer& other) { return other.ip == viewer.ip && other.port == viewer.port; });
}

template <typename Message> Message* NewMessage(size_t bytes, unsigned int command) {
    Message* pMessage = static_cast<Message*>(tq_calloc(1, static_cast<unsigned int>(bytes)));
    FUZZ_CHECK(pMessage);
    MSG_COMMON& header = reinterpret_cast<MSG_COMMON&>(*pMessage);
    header.size = static_cast<unsigned int>(bytes);
    header.command = command;
    return pMessage;
}

void Handle(MSG_COMMON* pMessage) {
    static CTraceMsgQ queue;
    queue.MessageHandler(pMessage);
}

void SendDatagram(const Viewer& from, const std::string& bytes) {
    // The message is as long as its datagram: the sanitizer sees whoever reads on.
    SOCKET_DATAGRAM* pMessage = NewMessage<SOCKET_DATAGRAM>(bytes.size() + 43, MSG_SOCKET_DATAGRAM);
    pMessage->msg.instance = kSocket;
    pMessage->srcaddress = from.ip;
    pMessage->srcport = from.port;
    pMessage->length = static_cast<unsigned int>(bytes.size());
    memcpy(pMessage->data, bytes.data(), bytes.size());
    Handle(&pMessage->msg);
}

bool Begins(const std::string& bytes, const std::string& keyword) {
    return bytes.size() > keyword.size() && bytes.compare(0, keyword.size(), keyword) == 0;
}

void Datagram(const Viewer& from, std::string bytes) {
    const unsigned int resets = gResets;
    SendDatagram(from, bytes);
    if (!bytes.empty()) {
        bytes.back() = '\0'; // whatever it ends with
    }
    const auto viewer = Find(from);
    FUZZ_EQUAL(resets + (Begins(bytes, "RESET/") ? 1 : 0), gResets);
    if (Begins(bytes, "TRACEON/")) {
        if (viewer != gViewers.end()) {
            viewer->unanswered = 0;
        } else if (from.port != 0 && gViewers.size() < gAllowed) {
            gViewers.push_back(from);
            gbProbing = true;
        }
    } else if (Begins(bytes, "TRACEOFF/") && viewer != gViewers.end()) {
        gViewers.erase(viewer);
        gbProbing = false;
    } else if (Begins(bytes, "KEEPALIVE/") && viewer != gViewers.end()) {
        viewer->unanswered = 0;
    }
}

void Fire(unsigned int timer) {
    MSG_COMMON* pMessage = NewMessage<MSG_COMMON>(sizeof(MSG_COMMON), MSG_TIMER);
    pMessage->instance = timer;
    pMessage->userparm = kSocket;
    gTimers.erase(timer);
    Handle(pMessage);
}

void Expect(const std::vector<Sent>& expected) {
    FUZZ_EQUAL(expected.size(), gSent.size());
    FUZZ_CHECK(expected == gSent);
    gSent.clear();
}

void FireProbe() {
    Fire(kProbeTimer);
    std::vector<Sent> probes;
    if (gbProbing) {
        for (Viewer& viewer : gViewers) {
            viewer.unanswered += 1;
        }
        const auto isSilent = [](const Viewer& viewer) { return viewer.unanswered >= 2; };
        gViewers.erase(std::remove_if(gViewers.begin(), gViewers.end(), isSilent), gViewers.end());
        for (const Viewer& viewer : gViewers) {
            probes.push_back({viewer.ip, viewer.port, std::string("KEEPALIVE/", 11)});
        }
        gbProbing = !gViewers.empty();
    }
    Expect(probes);
}

void FireAnnouncement() {
    Fire(kAnnouncementTimer);
    FUZZ_EQUAL(1u, gSent.size());
    FUZZ_EQUAL(htonl(0xE07B6F69), gSent[0].ip);
    FUZZ_EQUAL(3000u, gSent[0].port);
    FUZZ_CHECK(Begins(gSent[0].bytes, "DISCOVER/version="));
    gSent.clear();
    FUZZ_CHECK(gTimers.count(kAnnouncementTimer));
}

void TraceLine(const std::string& text) {
    tq_Trace(ghTrace, TQ_TRACE_LEVEL_CRITICAL, -1, false, "%s\n", text.c_str());
    FUZZ_EQUAL(gViewers.size(), gSent.size());
    for (size_t i = 0; i < gViewers.size(); ++i) {
        FUZZ_CHECK(gSent[i].ip == gViewers[i].ip && gSent[i].port == gViewers[i].port);
        FUZZ_EQUAL(gSent[0].bytes, gSent[i].bytes);
    }
    FUZZ_CHECK(gSent.empty() || gSent[0].bytes.find(text) != std::string::npos);
    FUZZ_CHECK(gSent.empty() || gSent[0].bytes.back() == '\0');
    gSent.clear();
}

void Check() {
    tq_LockedTrace trace;
    const _TRACEINSTANCE* pInstance = tq_FindTraceInstanceLocked(ghTrace);
    FUZZ_EQUAL(gViewers.size(), pInstance->pNetTrace->Viewers());
    FUZZ_EQUAL(gbProbing, pInstance->pNetTrace->IsProbing());
    FUZZ_EQUAL(gbProbing, gTimers.count(kProbeTimer) == 1);
}

void CountReset() {
    ++gResets;
}

void Start() {
    ghTrace = tq_TraceInitInstance("fuzz");
    FUZZ_EQUAL(0, tq_TraceEnableMulticast(ghTrace));
    tq_TraceSetResetHandler(ghTrace, CountReset);
    FireAnnouncement();                   // makes the queue of this target
    Datagram(ViewerOf('1'), "TRACEON/!"); // the list of viewers keeps its first block
    Datagram(ViewerOf('1'), "TRACEOFF/!");
    fuzz::Settle();
}

/// Changes the configuration and reads it again, while there is no viewer.
void Allow(size_t viewers) {
    if (viewers != gAllowed && gViewers.empty()) {
        gAllowed = viewers;
        fuzz::WriteFile("tqos.ini", viewers == kFew ? "[Trace]\r\nMaxViewers=8\r\n" : "");
        tq_NetTraceReadSettings();
        remove("tqos.ini");
    }
}

/// Many subscriptions: three floods fill the list.
void Flood(unsigned int first, Limits& left) {
    if (left.floods > 0) {
        left.floods -= 1;
        for (unsigned int i = 0; i <= gAllowed / 3; ++i) {
            Datagram(ViewerOf(first + i), "TRACEON/!");
        }
    }
}

/// Whether this much more may be sent; what each viewer gets is as much as there are viewers.
bool MaySendToViewers(Limits& left) {
    const bool bMay = gViewers.size() <= left.datagrams;
    left.datagrams -= bMay ? gViewers.size() : 0;
    return bMay;
}

void OneStep(fuzz::Input& input, Limits& left) {
    const unsigned int letter = input.Byte();
    switch (letter) {
    case 'd': {
        const Viewer from = ViewerOf(input.Byte());
        std::string bytes = input.Line();
        std::replace(bytes.begin(), bytes.end(), '~', '\0');
        Datagram(from, bytes);
        break;
    }
    case 'f':
        Flood(input.Byte(), left);
        break;
    case 'm':
        Allow(kMost);
        break;
    case 'p':
        if (MaySendToViewers(left)) {
            FireProbe();
        }
        break;
    case 'a':
        FireAnnouncement();
        break;
    case 't': {
        const std::string line = fuzz::Cut(input.Line());
        if (MaySendToViewers(left)) {
            TraceLine(line);
        }
        break;
    }
    default:
        break;
    }
}

/// All viewers fall silent: what they are probed with twice, while they are probed, ends them.
void LoseViewers() {
    const Viewer last = {gViewers.back().ip, gViewers.back().port, 0};
    Datagram(last, "TRACEOFF/!");
    Datagram(last, "TRACEON/!"); // they are probed from now on
    FireProbe();
    FireProbe();
    FUZZ_CHECK(gViewers.empty());
}

void OneInput(fuzz::Input input) {
    Limits left = fuzz::OnlySeeds() ? kLimitsOfSeeds : kLimits;
    Allow(kFew);
    while (!input.IsEmpty()) {
        OneStep(input, left);
        Check();
    }
    if (!gViewers.empty()) {
        LoseViewers();
    }
    Fire(kProbeTimer); // a late one
    Check();
    FUZZ_CHECK(gSent.empty());
}

} // namespace

FUZZ_TARGET_WITH_START("[Memory]\r\nEnableMemoryTracking=yes\r\n[Trace]\r\nDefaultLevel=Warning\r\nMaxViewers=8\r\n",
                       Start, OneInput)
