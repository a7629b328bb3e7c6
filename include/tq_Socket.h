/// @file tq_Socket.h
/// Sockets whose events are messages. An application opens a socket for a queue and never blocks on it: data, closures,
/// accepted connections and completed connects arrive at the queue as MSG_SOCKET_* messages. One thread of the library,
/// "TQOS: Sockets Thread", watches all sockets; it starts with the first socket that is opened.
///
/// An application opens (tq_SocketOpen...), waits for MSG_SOCKET_CONNECTED or MSG_SOCKET_NEW_CONNECTION, sends
/// (tq_SocketSendTo), takes what MSG_SOCKET_DATASTREAM announces (tq_SocketRecv) or a datagram out of its message, and
/// closes (tq_SocketClose), also after MSG_SOCKET_CLOSED. A slow reader is held by the caps (tq_SocketSetDataInCap,
/// tq_SocketSetDataOutCap) and MSG_SOCKET_WRITEABLE.
///
/// A socket is named by its handle, never by its descriptor; 0 is no socket. IPv4 addresses are in network byte order,
/// ports in host byte order. All functions may be called from any thread, queue handlers included; each takes the lock
/// of the list of all sockets. Before the library runs and after it has ended they find no socket: they return 0 (or
/// what each says) and do nothing.
#ifndef TQ_SOCKET_H
#define TQ_SOCKET_H

#include "tq_MsgQ.h"
#include "tq_Types.h"

/// Flags of tq_SocketFlushAndClose().
enum {
    TQ_SOCKET_FLUSH_IN = 1, ///< what was read stays for tq_SocketRecv() until it has been taken
    TQ_SOCKET_FLUSH_OUT = 2 ///< what is queued is still sent before the connection is shut down
};

/// MSG_SOCKET_NEW_CONNECTION, `size` 36: a listening socket accepted a connection. `instance` is the listener's handle,
/// `userparm` the new socket's (copied from the listener).
typedef struct _SOCKET_NEW_CONNECTION {
    MSG_COMMON msg;          ///< `size` is 36
    unsigned int new_socket; ///< handle of the accepted socket, which the receiver has to close
    unsigned int srcaddress; ///< the peer's IPv4 address; 0 for a local-domain peer
} SOCKET_NEW_CONNECTION;

/// MSG_SOCKET_DATAGRAM: one datagram, whole.
typedef struct _SOCKET_DATAGRAM {
    MSG_COMMON msg;          ///< `size` is `length` + 43
    unsigned int srcaddress; ///< the sender's IPv4 address
    unsigned int srcport;    ///< the sender's port, host byte order
    unsigned int length;     ///< bytes at `data`, at least 1
    unsigned char data[1];   ///< the bytes
} SOCKET_DATAGRAM;

/// MSG_SOCKET_CLOSED, `size` 32: the connection is over. The handle stays valid, what was read can still be taken, and
/// the receiver has to close the socket. Without memory for the message it comes as soon as there is some.
typedef struct _SOCKET_CLOSED {
    MSG_COMMON msg; ///< `size` is 32
    int error; ///< system error number; 0: closed by the peer or from the console; ECONNREFUSED (111 on x86): also a
               ///< connect refused without a reason
} SOCKET_CLOSED;

/// A host as tq_gethostbyname_r() and tq_gethostbyaddr_r() give it. All that it points to lies
/// in the work memory of the call.
typedef struct _tq_hostent {
    char* h_name;       ///< official name
    char** h_aliases;   ///< further names, ended by null
    int h_addrtype;     ///< AF_INET or AF_INET6
    int h_length;       ///< bytes of an address
    char** h_addr_list; ///< addresses in network byte order, ended by null
} tq_hostent;

/// Where a service is to be had: a result of tq_SocketFindService().
typedef struct _TQ_SERVICE_ADDRESS {
    unsigned int address; ///< IPv4, network byte order
    unsigned int port;    ///< host byte order; one above 32767 comes sign-extended, 0xFFFF8000 and up: take 16 bits
    unsigned int ttl;     ///< seconds for which the answer holds
} TQ_SERVICE_ADDRESS;

// The other messages are a bare MSG_COMMON of 28 bytes: MSG_SOCKET_CONNECTED (a connect completed, or a datagram socket
// is ready), MSG_SOCKET_DATASTREAM (stream data was read; one message a piece, so an earlier tq_SocketRecv() may have
// taken it already), MSG_SOCKET_WRITEABLE (a send was cut short by the out cap, and the queue has drained to the
// threshold since) and MSG_SOCKET_NEW_INTERFACES (to every queue, `instance` and `userparm` 0). In all messages of a
// socket `instance` is its handle and `userparm` the application's value, unless said otherwise above.

extern "C" {

/// Starts the sockets layer, or counts one more user of it. An application need not call it: every open does.
/// @return 0 started, or running already; 1 an object or the thread could not be made, or the library is not running;
/// otherwise the system error number that kept the thread from being connected. A failed start is undone and logged as
/// a critical error.
TQ_API unsigned int tq_SocketInitialize();

/// Starts the sockets layer unless it runs. When this fails, or the library is not running, nothing happens.
/// Not to be called with a lock held that a trace call takes.
TQ_API void CheckForInitialization();

/// Takes one user off the layer; with the last one, ends the thread and unmakes everything. Without a start, nothing
/// happens. Called by tqOS_Terminate(), for which every user counts as gone.
/// @param errorLevel  1 to 3 or 99: open sockets are closed and freed; anything else: they are left as they are, and
/// lost
TQ_API void tq_SocketTerminate(unsigned int errorLevel);

/// Ends the sockets thread and waits for it; sockets stay in the list but no message comes any more. May be called any
/// number of times.
TQ_API void tq_SocketStopWorkerThread();

/// Opens a TCP connection; completion is reported by MSG_SOCKET_CONNECTED, failure by MSG_SOCKET_CLOSED.
/// @param hMsgQ     queue that receives the socket's messages
/// @param destIP    peer's address
/// @param destPort  peer's port
/// @param userparm  echoed in every message
/// @param srcIP     local address, 0 for any
/// @param srcPort   local port, 0 for any
/// @return the socket's handle; 0 when it could not be made, bound or connected (traced; no message is sent)
TQ_API unsigned int tq_SocketOpenTCPClient(unsigned int hMsgQ, unsigned int destIP, unsigned int destPort,
                                           unsigned int userparm, unsigned int srcIP, unsigned int srcPort);

/// Listens for TCP connections; each arrives as MSG_SOCKET_NEW_CONNECTION.
/// @param hMsgQ,userparm  the queue that the socket's messages go to, and the value that each of them carries
/// @param srcPort  port to listen on; with 0 the system chooses one (tq_SocketGetBoundPort)
/// @param srcIP    local address, 0 for all
/// @return the listening socket's handle; 0 on failure (traced)
TQ_API unsigned int tq_SocketOpenTCPServer(unsigned int hMsgQ, unsigned int srcPort, unsigned int userparm,
                                           unsigned int srcIP);

/// Opens a datagram socket. It announces itself with MSG_SOCKET_CONNECTED, as a client does, but can send at once.
/// @param hMsgQ,userparm  the queue that the socket's messages go to, and the value that each of them carries
/// @param destIP    default destination of sends; 0xFFFFFFFF also allows broadcasting; 0 for none
/// @param destPort  its port
/// @param srcIP     local address, 0 for any
/// @param srcPort   local port, 0 for any
/// @return the socket's handle; 0 on failure (traced)
TQ_API unsigned int tq_SocketOpenUDP(unsigned int hMsgQ, unsigned int destIP, unsigned int destPort,
                                     unsigned int userparm, unsigned int srcIP, unsigned int srcPort);

/// Opens a datagram socket that is a member of a multicast group until it is closed. Announces itself as
/// tq_SocketOpenUDP() does. Sends go to the group by default but must give the port.
/// @param hMsgQ,userparm  the queue that the socket's messages go to, and the value that each of them carries
/// @param mcastIP  the group
/// @param srcPort  local port, which may be shared with other sockets
/// @param srcIP    address to bind to, and of the interface to join on; 0: any, and the system's choice
/// @return the socket's handle; 0 on failure (traced)
TQ_API unsigned int tq_SocketOpenMultiCast(unsigned int hMsgQ, unsigned int mcastIP, unsigned int srcPort,
                                           unsigned int userparm, unsigned int srcIP);

/// Connects to a local-domain stream socket.
/// @param hMsgQ,userparm  the queue that the socket's messages go to, and the value that each of them carries
/// @param destName  path of the peer's socket file, at most 107 characters; copied
/// @return the socket's handle; 0 on failure (traced)
TQ_API unsigned int tq_SocketOpenTCPClientDomain(unsigned int hMsgQ, const unsigned char* destName,
                                                 unsigned int userparm);

/// Listens on a local-domain stream socket. A file that stands at the path is removed, its directory made (mode 01777)
/// when missing, and the socket file gets mode 01777. An existing directory must belong to root or to the caller, must
/// have neither set-id bit, and must have the sticky bit when others may write to it.
/// @param hMsgQ,userparm  the queue that the socket's messages go to, and the value that each of them carries
/// @param srcName  path of the socket file, at most 107 characters; copied. The file stays when the socket is closed.
/// @return the listening socket's handle; 0 on failure (traced)
TQ_API unsigned int tq_SocketOpenTCPServerDomain(unsigned int hMsgQ, const unsigned char* srcName,
                                                 unsigned int userparm);

/// Sends on a socket. What the system does not take at once is copied and queued, up to the out cap, and sent by the
/// sockets thread in order. When the cap cuts it short, MSG_SOCKET_WRITEABLE follows once the queue has drained.
/// @param hSocket   the socket's handle
/// @param data,len  the bytes and their count; null sends nothing
/// @param destIP    datagram sockets: destination, 0 for the socket's own. Stream sockets ignore it.
/// @param destPort  likewise, the port
/// @return bytes accepted, sent or queued; 0 for an unknown or closed socket, without memory for the queue, and also
/// when the queue is above the out cap. Errors of the system show in the trace alone.
TQ_API unsigned int tq_SocketSendTo(unsigned int hSocket, const unsigned char* data, unsigned int len,
                                    unsigned int destIP, unsigned int destPort);
/// tq_SocketSendTo() without its trace lines.
TQ_API unsigned int tq_SocketSendToNoTrace(unsigned int hSocket, const unsigned char* data, unsigned int len,
                                           unsigned int destIP, unsigned int destPort);
/// Both of the above.
TQ_API unsigned int tq_SocketSendToInternal(unsigned int hSocket, const unsigned char* data, unsigned int len,
                                            unsigned int destIP, unsigned int destPort, bool bEnableTracing);

/// Takes stream data that was read. Never blocks.
/// @param hSocket   the socket's handle
/// @param data,len  where they go, and room there; null is traced
/// @return bytes copied, at most len; 0 when there are none, for an unknown socket, a null data or a len of 0
TQ_API unsigned int tq_SocketRecv(unsigned int hSocket, unsigned char* data, unsigned int len);
/// @return bytes that tq_SocketRecv() would find; 0 for an unknown socket
TQ_API unsigned int tq_SocketDataAvailable(unsigned int hSocket);

/// Closes a socket, letting go of its data first as the flags say. The socket counts as closed at once; its handle is
/// released when the data is gone, at once when there is none.
/// @param hSocket  the socket's handle
/// @param Flags  TQ_SOCKET_FLUSH_IN and TQ_SOCKET_FLUSH_OUT, or 0 to drop both directions' data
/// @param File,Line  the caller, for the trace
/// @return 0; 1 for an unknown socket
TQ_API unsigned int tq__SocketFlushAndClose(unsigned int hSocket, unsigned int Flags, const char* File,
                                            unsigned int Line);
/// tq__SocketFlushAndClose() with no flags.
TQ_API unsigned int tq__SocketClose(unsigned int hSocket, const char* File, unsigned int Line);
/// Closes a socket's connection by force, as the console does: its owner is sent MSG_SOCKET_CLOSED with error 0 and
/// still has to close the socket.
/// @return true when there is such a socket
TQ_API bool tq_SocketCloseFromTelnet(unsigned int hSocket);

/// Sets the most bytes that are read ahead of tq_SocketRecv(); without it there is no limit. While a socket holds that
/// many, it is not read, so that the peer is held back. Datagrams do not count. Unknown sockets are ignored.
TQ_API void tq_SocketSetDataInCap(unsigned int hSocket, unsigned int MaxBytesToCache);
/// Sets the most bytes that are queued for sending; without it there is no limit. Unknown sockets are ignored.
TQ_API void tq_SocketSetDataOutCap(unsigned int hSocket, unsigned int MaxBytesToCache);
/// Sets how far the queue must drain before MSG_SOCKET_WRITEABLE: to this percentage of the out cap. 0, as at first,
/// means empty; above 100 counts as 100. Unknown sockets are ignored.
TQ_API void tq_SocketSetWritePercentageNotification(unsigned int hSocket, unsigned int PercentRemaining);
/// @return that percentage; 0 for an unknown socket
TQ_API unsigned int tq_SocketGetWritePercentageNotification(unsigned int hSocket);

/// setsockopt() on a socket.
/// @return its result; -1 with errno ENOTSOCK for an unknown socket
TQ_API int tq_SocketSetOpt(int hSocket, int level, int optname, const void* optval, int optlen);
/// getsockopt() on a socket.
/// @return its result; -1 with errno ENOTSOCK for an unknown socket
TQ_API int tq_SocketGetOpt(int hSocket, int level, int optname, void* optval, int* optlen);
/// Sets the system's send buffer of a socket, in bytes; with handle 0 that of streams opened from now on (0 leaves the
/// system's own). Deliberate: an accepted connection has the sizes of its listener, and only the listener is given
/// those set with handle 0, each time it has accepted one. Unknown sockets are ignored.
TQ_API void tq_SocketSetSendBufSize(unsigned int hSocket, unsigned int SendBufSize);
/// The same for the receive buffer.
TQ_API void tq_SocketSetReceiveBufSize(unsigned int hSocket, unsigned int ReceiveBufSize);
/// Allows a datagram socket to broadcast. Unknown sockets are ignored.
TQ_API void tq_SocketEnableBroadcasting(unsigned int hSocket);

/// @return the local port; 0 for an unknown socket and an accepted one
TQ_API unsigned int tq_SocketGetBoundPort(unsigned int hSocket);
/// @return the local address; 0 for an unknown socket and an accepted one
TQ_API unsigned int tq_SocketGetSrcAddress(unsigned int hSocket);
/// @return the application's value; 0 for an unknown socket
TQ_API unsigned int tq_SocketGetUserParm(int hSocket);
/// Replaces the application's value; later messages carry the new one. Unknown sockets are ignored.
TQ_API void tq_SocketSetUserParm(int hSocket, unsigned int UserParm);
/// Names a socket for traces and reports; its data lists are named after it. The name is copied; null takes it away.
TQ_API void tq_SocketSetName(unsigned int hSocket, const char* name);

/// Reports all sockets, or one in detail, for the console.
/// @param pszResponse  receives the report, which the caller frees with tq_free; null without memory. Otherwise a text
///                     that says that the layer does not run, that there are no sockets, or that none has the handle.
/// @param uiFlags      1: one socket in detail; otherwise a line for each, oldest first
/// @param pszCommand   for details, a word that holds the socket's handle in decimal; the words are cut out in place.
///                     Not used otherwise.
/// @return 0; 1 when the handle of the details is missing or 0, or pszResponse is null: there is then no text
TQ_API unsigned int tq_SocketShowSockets(char** pszResponse, unsigned int uiFlags, char* pszCommand);

/// Puts a trace line off until no lock of the sockets layer is held. Of 100 lines waiting, a further one is dropped.
/// @param level  the trace level
/// @param handle,socket,error  what the line tells
/// @param pszFormat  takes handle, socket and error, in this order; kept by pointer, so it must live on
TQ_API void tq_SocketTraceQueue(int level, const char* pszFormat, int handle, int socket, int error);
/// Traces the lines put off, in order, on the library's instance in category "Sockets".
TQ_API void tq_SocketTraceFlush();
/// @return the calling thread's errno, or the resolver's h_errno when bUsehError
TQ_API int tq_SocketGetLastError(bool bUsehError);

/// Reads the machine's network interfaces into the table that the functions below read. The sockets thread does so
/// every 5 seconds. At most 20 interfaces are kept; the first 18 can have a MAC address.
/// @return true when the table has changed
TQ_API bool GetLocalInterfaces();
/// Reads the MAC addresses of the interfaces in the table.
TQ_API void RefreshMacAddresses();

// The interface table. These start the sockets layer. An index counts from 0 in the system's order.

/// Copies the first MAC address that is known and not all zero, as "00:11:22:AA:BB:CC" (18 bytes with the terminator).
/// @return 0; 1 when there is none, and nothing is copied
TQ_API unsigned int tq_GetMACAddress(char* pMACAddr);
/// Copies the MAC address of an interface, all zero included.
/// @return 0; 1 for a bad index or an unknown address, and nothing is copied
TQ_API unsigned int tq_GetMACofInterface(char* pMACAddr, unsigned int Interface);
/// @return index of the interface of that name, without regard to case; -1 when there is none
TQ_API int tq_SocketFindInterfaceByName(const char* pszName);
/// Copies the name of an interface (at most 511 characters and the terminator).
/// @return 0; 1 for a bad index, and nothing is copied
TQ_API unsigned int tq_SocketGetInterfaceName(char* pszName, unsigned int index);
/// @return address of an interface; 0 when it has none or is down, and for a bad index
TQ_API unsigned int tq_SocketGetInterfaceAddress(unsigned int index);
/// @return number of interfaces
TQ_API unsigned int tq_SocketGetInterfaceCount();
/// Reports the interfaces, a line for each with its index, its address and its MAC address.
/// @param pszResponse  receives the report, which the caller frees with tq_free; null without memory. With a null
///                     pszResponse there is no report.
/// @return number of interfaces
TQ_API unsigned int tq_SocketShowInterfaces(char** pszResponse);

// Addresses. These need no running library.

/// @return true when the text is four decimal numbers below 256 with dots between; leading zeros do not matter
TQ_API bool tq_SocketIsThisAnIP(const char* pszIP);
/// gethostbyname_r(): looks a host up. May block for as long as name servers take.
/// @param name       the host
/// @param pHost      receives the entry
/// @param pWork      workBytes of work memory, into which the entry points
/// @param workBytes  its size
/// @param ppResult   receives pHost; null when nothing was found
/// @param pError     receives the resolver's error number when nothing was found
/// @return 0; otherwise the system error number, ERANGE when the work memory is too small. A host that there is not can
///         also give 0 with a null *ppResult.
TQ_API int tq_gethostbyname_r(const char* name, tq_hostent* pHost, char* pWork, unsigned int workBytes,
                              tq_hostent** ppResult, int* pError);
/// gethostbyaddr_r(): looks the host of an address up, as tq_gethostbyname_r() looks up that of a name.
/// @param pAddress      the address, network byte order
/// @param addressBytes  its size
/// @param type          AF_INET or AF_INET6
/// @param pHost,pWork,workBytes,ppResult,pError  as in tq_gethostbyname_r()
/// @return as tq_gethostbyname_r() does
TQ_API int tq_gethostbyaddr_r(const void* pAddress, unsigned int addressBytes, int type, tq_hostent* pHost, char* pWork,
                              unsigned int workBytes, tq_hostent** ppResult, int* pError);
/// @return the address as dotted text, in a buffer of the calling thread that its next call overwrites
TQ_API char* tq_inet_ntoa(unsigned int address);
/// inet_addr(): the address of a dotted text; 0xFFFFFFFF when it is none.
TQ_API unsigned int tq_inet_addr(const char* pszAddress);
/// 16 bits from host to network byte order.
TQ_API unsigned short tq_htons(unsigned short value);
/// 16 bits from network to host byte order.
TQ_API unsigned short tq_ntohs(unsigned short value);
/// 32 bits from host to network byte order.
TQ_API unsigned int tq_htonl(unsigned int value);
/// 32 bits from network to host byte order.
TQ_API unsigned int tq_ntohl(unsigned int value);
/// gethostname(): the machine's name into namelen bytes at name.
/// @return 0; -1 on failure, with errno
TQ_API int tq_gethostname(char* name, int namelen);

// Names. These need the sockets layer to run, and do not start it. They block for as long as name servers take and hold
// no lock meanwhile; not to be called where that matters, as in a queue's handler.

/// The address of a host: a dotted text, or a name that is looked up (traced).
/// @return its first IPv4 address; 0 for null, for an unknown host and while the sockets layer does not run
TQ_API unsigned int tq_GetIPAddress(const char* hostname);
/// Finds where a service of a domain is to be had, by its DNS service records: those of the lowest priority number
/// first, and among equals in an order drawn by weight. A host that has no address, a port 0 and an address and port
/// that is in the array already are passed over.
/// @param pszDomain      for instance "lan"
/// @param pszService     for instance "sip"
/// @param pAddressArray  receives what is found
/// @param uiArrayLen     room there, in entries
/// @param uiProtocol     1 TCP, 2 UDP
/// @return entries filled, from the first; 0 when there is nothing, for a null argument, an uiArrayLen of 0, another
///         protocol or a name above 255 characters (without a query), and while the sockets layer does not run
TQ_API unsigned int tq_SocketFindService(const char* pszDomain, const char* pszService,
                                         TQ_SERVICE_ADDRESS* pAddressArray, unsigned int uiArrayLen,
                                         unsigned int uiProtocol);

} // extern "C"

/// tq__SocketClose() with the place of the call.
#define tq_SocketClose(hSocket) tq__SocketClose((hSocket), __FILE__, __LINE__)
/// tq__SocketFlushAndClose() with the place of the call.
#define tq_SocketFlushAndClose(hSocket, Flags) tq__SocketFlushAndClose((hSocket), (Flags), __FILE__, __LINE__)

#endif // TQ_SOCKET_H
