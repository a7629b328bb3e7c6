/// @file tq_Socket.h
#ifndef TQ_SOCKET_H
#define TQ_SOCKET_H

#include "tq_MsgQ.h"
#include "tq_Types.h"

/// Flags of a flushing close.
enum { TQ_SOCKET_FLUSH_IN = 1, TQ_SOCKET_FLUSH_OUT = 2 };

typedef struct _SOCKET_NEW_CONNECTION {
    MSG_COMMON msg;
    unsigned int new_socket;
    unsigned int srcaddress;
} SOCKET_NEW_CONNECTION;

typedef struct _SOCKET_DATAGRAM {
    MSG_COMMON msg;
    unsigned int srcaddress;
    unsigned int srcport;
    unsigned int length;
    unsigned char data[1];
} SOCKET_DATAGRAM;

typedef struct _SOCKET_CLOSED {
    MSG_COMMON msg;
    int error;
} SOCKET_CLOSED;

extern "C" {

TQ_API unsigned int tq_SocketInitialize();
TQ_API void CheckForInitialization();
TQ_API void tq_SocketTerminate(unsigned int errorLevel);
TQ_API void tq_SocketStopWorkerThread();

TQ_API unsigned int tq_SocketOpenTCPClient(unsigned int hMsgQ, unsigned int destIP, unsigned int destPort,
                                           unsigned int userparm, unsigned int srcIP, unsigned int srcPort);
TQ_API unsigned int tq_SocketOpenTCPServer(unsigned int hMsgQ, unsigned int srcPort, unsigned int userparm,
                                           unsigned int srcIP);
TQ_API unsigned int tq_SocketOpenUDP(unsigned int hMsgQ, unsigned int destIP, unsigned int destPort,
                                     unsigned int userparm, unsigned int srcIP, unsigned int srcPort);
TQ_API unsigned int tq_SocketOpenMultiCast(unsigned int hMsgQ, unsigned int mcastIP, unsigned int srcPort,
                                           unsigned int userparm, unsigned int srcIP);
TQ_API unsigned int tq_SocketOpenTCPClientDomain(unsigned int hMsgQ, const unsigned char* destName,
                                                 unsigned int userparm);
TQ_API unsigned int tq_SocketOpenTCPServerDomain(unsigned int hMsgQ, const unsigned char* srcName,
                                                 unsigned int userparm);

TQ_API unsigned int tq_SocketSendTo(unsigned int hSocket, const unsigned char* data, unsigned int len,
                                    unsigned int destIP, unsigned int destPort);
TQ_API unsigned int tq_SocketSendToNoTrace(unsigned int hSocket, const unsigned char* data, unsigned int len,
                                           unsigned int destIP, unsigned int destPort);
TQ_API unsigned int tq_SocketSendToInternal(unsigned int hSocket, const unsigned char* data, unsigned int len,
                                            unsigned int destIP, unsigned int destPort, bool bEnableTracing);
TQ_API unsigned int tq_SocketRecv(unsigned int hSocket, unsigned char* data, unsigned int len);
TQ_API unsigned int tq_SocketDataAvailable(unsigned int hSocket);

TQ_API unsigned int tq__SocketFlushAndClose(unsigned int hSocket, unsigned int Flags, const char* File,
                                            unsigned int Line);
TQ_API unsigned int tq__SocketClose(unsigned int hSocket, const char* File, unsigned int Line);
TQ_API bool tq_SocketCloseFromTelnet(unsigned int hSocket);

TQ_API void tq_SocketSetDataInCap(unsigned int hSocket, unsigned int MaxBytesToCache);
TQ_API void tq_SocketSetDataOutCap(unsigned int hSocket, unsigned int MaxBytesToCache);
TQ_API void tq_SocketSetWritePercentageNotification(unsigned int hSocket, unsigned int PercentRemaining);
TQ_API unsigned int tq_SocketGetWritePercentageNotification(unsigned int hSocket);
TQ_API int tq_SocketSetOpt(int hSocket, int level, int optname, const void* optval, int optlen);
TQ_API int tq_SocketGetOpt(int hSocket, int level, int optname, void* optval, int* optlen);
TQ_API void tq_SocketSetSendBufSize(unsigned int hSocket, unsigned int SendBufSize);
TQ_API void tq_SocketSetReceiveBufSize(unsigned int hSocket, unsigned int ReceiveBufSize);
TQ_API void tq_SocketEnableBroadcasting(unsigned int hSocket);
TQ_API unsigned int tq_SocketGetBoundPort(unsigned int hSocket);
TQ_API unsigned int tq_SocketGetSrcAddress(unsigned int hSocket);
TQ_API unsigned int tq_SocketGetUserParm(int hSocket);
TQ_API void tq_SocketSetUserParm(int hSocket, unsigned int UserParm);
TQ_API void tq_SocketSetName(unsigned int hSocket, const char* name);

TQ_API void tq_SocketTraceQueue(int level, const char* pszFormat, int handle, int socket, int error);
TQ_API void tq_SocketTraceFlush();
TQ_API int tq_SocketGetLastError(bool bUsehError);

TQ_API bool GetLocalInterfaces();
TQ_API void RefreshMacAddresses();

} // extern "C"

#define tq_SocketClose(hSocket) tq__SocketClose((hSocket), __FILE__, __LINE__)
#define tq_SocketFlushAndClose(hSocket, Flags) tq__SocketFlushAndClose((hSocket), (Flags), __FILE__, __LINE__)

#endif // TQ_SOCKET_H
