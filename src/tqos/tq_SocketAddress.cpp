// The table of the machine's network interfaces, and address helpers.
#include "tq_Socket_p.h"

#include <arpa/inet.h>
#include <ctype.h>
#include <net/if.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

// State: guarded by the lock of pListOfSockets

TQ_SOCKET_LOCALADDR_STRUCT g_localAddresses[kInterfaces];
unsigned int g_localAddressCount = 0;
char g_localMacAddresses[kMacAddresses][kMacTextSize];

namespace {

constexpr unsigned int kInterfaceRecords = 16; // with an address, as many as one request is given room for
constexpr char kAllZeroMac[] = "00:00:00:00:00:00";

/// A table in the making.
struct InterfaceTable {
    TQ_SOCKET_LOCALADDR_STRUCT entries[kInterfaces];
    unsigned int count;
};

/// Fills in the names, in the system's order; false when it does not say.
bool ReadNames(InterfaceTable& table) {
    struct if_nameindex* pNames = if_nameindex();
    if (!pNames) {
        return false;
    }
    for (const struct if_nameindex* pName = pNames; pName->if_name && table.count < kInterfaces; ++pName) {
        // The entry is zeroed, so what is cut has its terminator.
        strncpy(table.entries[table.count].name, pName->if_name, sizeof(table.entries[0].name) - 1);
        ++table.count;
    }
    if_freenameindex(pNames);
    return true;
}

bool IsUp(int descriptor, const struct ifreq& record) {
    struct ifreq request;
    memset(&request, 0, sizeof(request));
    memcpy(request.ifr_name, record.ifr_name, sizeof(request.ifr_name));
    return ioctl(descriptor, SIOCGIFFLAGS, &request) >= 0 && (request.ifr_flags & IFF_UP) != 0;
}

void StoreAddress(InterfaceTable& table, const struct ifreq& record) {
    for (unsigned int i = 0; i < table.count; ++i) {
        if (strncmp(table.entries[i].name, record.ifr_name, sizeof(record.ifr_name)) == 0) {
            struct sockaddr_in address;
            memcpy(&address, &record.ifr_addr, sizeof(address));
            table.entries[i].ip = address.sin_addr.s_addr;
            return;
        }
    }
}

/// Fills in the addresses of the interfaces that are up and have one.
void ReadAddresses(InterfaceTable& table) {
    const int descriptor = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
    if (descriptor < 0) {
        return;
    }
    struct ifreq records[kInterfaceRecords];
    struct ifconf request;
    request.ifc_len = sizeof(records);
    request.ifc_req = records;
    if (ioctl(descriptor, SIOCGIFCONF, &request) >= 0) {
        const size_t count = static_cast<size_t>(request.ifc_len) / sizeof(records[0]);
        for (size_t i = 0; i < count; ++i) {
            if (records[i].ifr_addr.sa_family == AF_INET && IsUp(descriptor, records[i])) {
                StoreAddress(table, records[i]);
            }
        }
    }
    close(descriptor);
}

void BecomeLoopbackOnly(InterfaceTable& table) {
    memset(&table, 0, sizeof(table));
    table.entries[0].ip = tq_inet_addr("127.0.0.1");
    table.count = 1;
}

void ReadMacAddress(int descriptor, unsigned int index) {
    struct ifreq request;
    memset(&request, 0, sizeof(request));
    strncpy(request.ifr_name, g_localAddresses[index].name, sizeof(request.ifr_name) - 1);
    if (ioctl(descriptor, SIOCGIFHWADDR, &request) < 0) {
        return;
    }
    unsigned char mac[6];
    memcpy(mac, request.ifr_hwaddr.sa_data, sizeof(mac));
    snprintf(g_localMacAddresses[index], kMacTextSize, "%.2X:%.2X:%.2X:%.2X:%.2X:%.2X", mac[0], mac[1], mac[2], mac[3],
             mac[4], mac[5]);
}

/// The text of an entry's MAC address, empty when it is unknown.
const char* MacOfLocked(unsigned int index) {
    return index < kMacAddresses && index < g_localAddressCount ? g_localMacAddresses[index] : "";
}

/// A reader's way to the table: starts the layer, passes the gate and holds the lock for a scope.
class InterfaceAccess {
public:
    InterfaceAccess() : m_pass((CheckForInitialization(), gSocketGate)), m_lock(m_pass ? pListOfSockets : nullptr) {}
    /// False when the layer cannot run: the table then counts as empty.
    explicit operator bool() const { return static_cast<bool>(m_pass); }
    unsigned int Count() const { return m_pass ? g_localAddressCount : 0; }

private:
    tq_GatePass m_pass;
    tq_ListLock m_lock;
};

} // namespace

// Reading the interfaces

bool RefreshInterfaceTable() {
    InterfaceTable table;
    memset(&table, 0, sizeof(table));
    const bool bNamed = ReadNames(table);
    ReadAddresses(table);
    if (!bNamed) {
        BecomeLoopbackOnly(table);
    }
    {
        tq_ListLock lock(pListOfSockets);
        if (table.count == g_localAddressCount && memcmp(table.entries, g_localAddresses, sizeof(table.entries)) == 0) {
            return false;
        }
        g_localAddressCount = table.count;
        memcpy(g_localAddresses, table.entries, sizeof(table.entries));
    }
    RefreshMacTable();
    return true;
}

void RefreshMacTable() {
    const int descriptor = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    // Deliberate: only 0 counts as a failure, where a reader would expect any negative result. With -1 the table is
    // cleared and every request fails, so that no address that may be out of date is left. Descriptor 0 itself, which
    // is free only in a process without standard input, stays taken, and the next call gets another.
    if (descriptor == 0) {
        return;
    }
    {
        tq_ListLock lock(pListOfSockets);
        memset(g_localMacAddresses, 0, sizeof(g_localMacAddresses));
        for (unsigned int i = 0; i < g_localAddressCount && i < kMacAddresses; ++i) {
            ReadMacAddress(descriptor, i);
        }
    }
    close(descriptor);
}

bool GetLocalInterfaces() {
    CheckForInitialization();
    tq_GatePass pass(gSocketGate);
    return pass && RefreshInterfaceTable();
}

void RefreshMacAddresses() {
    CheckForInitialization();
    tq_GatePass pass(gSocketGate);
    if (pass) {
        RefreshMacTable();
    }
}

// The table's getters

unsigned int tq_GetMACAddress(char* pMACAddr) {
    InterfaceAccess table;
    for (unsigned int i = 0; pMACAddr && i < table.Count(); ++i) {
        const char* pszMac = MacOfLocked(i);
        if (*pszMac && strcmp(pszMac, kAllZeroMac) != 0) {
            strcpy(pMACAddr, pszMac);
            return 0;
        }
    }
    return 1;
}

unsigned int tq_GetMACofInterface(char* pMACAddr, unsigned int Interface) {
    InterfaceAccess table;
    if (!pMACAddr || Interface >= table.Count() || !*MacOfLocked(Interface)) {
        return 1;
    }
    strcpy(pMACAddr, MacOfLocked(Interface));
    return 0;
}

int tq_SocketFindInterfaceByName(const char* pszName) {
    InterfaceAccess table;
    for (unsigned int i = 0; pszName && i < table.Count(); ++i) {
        if (strcasecmp(g_localAddresses[i].name, pszName) == 0) {
            return static_cast<int>(i);
        }
    }
    return -1;
}

unsigned int tq_SocketGetInterfaceName(char* pszName, unsigned int index) {
    InterfaceAccess table;
    if (!pszName || index >= table.Count()) {
        return 1;
    }
    strcpy(pszName, g_localAddresses[index].name);
    return 0;
}

unsigned int tq_SocketGetInterfaceAddress(unsigned int index) {
    InterfaceAccess table;
    return index < table.Count() ? g_localAddresses[index].ip : 0;
}

unsigned int tq_SocketGetInterfaceCount() {
    InterfaceAccess table;
    return table.Count();
}

// Addresses

bool tq_SocketIsThisAnIP(const char* pszIP) {
    if (!pszIP) {
        return false;
    }
    unsigned int dots = 0;
    for (const char* pch = pszIP; *pch; ++pch) {
        if (*pch == '.') {
            ++dots;
        } else if (!isdigit(static_cast<unsigned char>(*pch))) {
            return false;
        }
    }
    unsigned long numbers[4] = {0, 0, 0, 0};
    if (dots != 3 || sscanf(pszIP, "%lu.%lu.%lu.%lu", &numbers[0], &numbers[1], &numbers[2], &numbers[3]) != 4) {
        return false;
    }
    return numbers[0] < 256 && numbers[1] < 256 && numbers[2] < 256 && numbers[3] < 256;
}

char* tq_inet_ntoa(unsigned int address) {
    struct in_addr in;
    in.s_addr = address;
    return inet_ntoa(in); // NOLINT(concurrency-mt-unsafe): the text belongs to the calling thread
}

unsigned int tq_inet_addr(const char* pszAddress) {
    return inet_addr(pszAddress);
}

unsigned short tq_htons(unsigned short value) {
    return htons(value);
}

unsigned short tq_ntohs(unsigned short value) {
    return ntohs(value);
}

unsigned int tq_htonl(unsigned int value) {
    return htonl(value);
}

unsigned int tq_ntohl(unsigned int value) {
    return ntohl(value);
}

int tq_gethostname(char* name, int namelen) {
    return gethostname(name, static_cast<size_t>(namelen < 0 ? 0 : namelen));
}
