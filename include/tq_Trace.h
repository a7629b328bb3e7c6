/// @file tq_Trace.h
/// Named trace instances: each has a level, a category mask, names for its categories, and destinations that its lines
/// go to. Every module of the library logs through the instance "tqos"; an application opens its own.
///
/// An application meets it in this order: tq_TraceInitInstance() with a name, whose settings stand in section "Trace"
/// of "tqos.ini"; tq_TraceSetCategoryName() for the categories it distinguishes; tq_Trace() wherever there is something
/// to say; tq_TraceTermInstance() at the end. Trace itself is started and stopped with the library.
///
/// A message passes an instance when the instance's level is at most the message's and the two category masks share a
/// bit. An instance at a negative level -N passes messages of level N and no others. A message that passes is written
/// to each destination of the instance, and its bare text to the system log. An instance without destinations writes
/// nothing at all.
///
/// A line is: date and time, if asked for and not suppressed, with a blank; "[" milliseconds "]: "; "TID:" library
/// thread id ":" kernel thread id and a blank, if the instance shows them; "(" instance name ") "; the level's tag
/// ("CRT: ", "SEV: ", "WRN: ", "INF: ", "DEB: ", "LOW: ", or "UNK: " for a value without a name); the message. No line
/// end is added: a message brings its own.
///
/// Threads: any thread may call any function, also while trace stops: a call that comes before trace has started, after
/// it has stopped or after a start that failed is answered as "trace does not run". A line is written under one lock,
/// so lines of all instances follow each other whole. No function here reports its own failures through trace.
#ifndef TQ_TRACE_H
#define TQ_TRACE_H

#include <stdarg.h>

#include "tq_List.h"
#include "tq_Types.h"

/// Levels of messages and of instances; the higher the more severe. Values in between are allowed.
enum {
    TQ_TRACE_LEVEL_ALL = 0, ///< of an instance: passes every message that is not below it
    TQ_TRACE_LEVEL_DEBUG_LOW = 5000,
    TQ_TRACE_LEVEL_DEBUG = 10000,
    TQ_TRACE_LEVEL_INFORMATIONAL = 20000,
    TQ_TRACE_LEVEL_WARNING = 30000,
    TQ_TRACE_LEVEL_SEVERE = 40000,
    TQ_TRACE_LEVEL_CRITICAL = 50000,
    TQ_TRACE_LEVEL_NONE = 0x7FFFFFFF ///< of an instance: passes nothing
};

/// Categories of the library's own instance "tqos".
enum {
    TQ_TRACE_CAT_SOCKETS = 1,
    TQ_TRACE_CAT_TIMERS = 2,
    TQ_TRACE_CAT_MSGQS = 4,
    TQ_TRACE_CAT_MEMORY = 8,
    TQ_TRACE_CAT_SYSTEM = 16,
    TQ_TRACE_CAT_CRITSEC = 32
};

/// Destination bits of an instance.
enum {
    TQ_TRACE_DEST_FLUSH = 1,      ///< flush the file after every line; comes and goes with TQ_TRACE_DEST_FILE
    TQ_TRACE_DEST_FILE = 2,       ///< log file
    TQ_TRACE_DEST_STDOUT = 4,     ///< standard output
    TQ_TRACE_DEST_MULTICAST = 8,  ///< network viewers
    TQ_TRACE_DEST_DEVSTUDIO = 16, ///< a debugger's output; stored and shown, but writes nothing on this platform
    TQ_TRACE_DEST_STDERR = 32     ///< standard error
};

/// One element of the copy that tq_TraceGetInstanceList() makes; owns its texts.
typedef struct _TQ_TRACE_INSTANCE {
    int hTraceInstance;   ///< its handle
    char* pszTraceName;   ///< its name
    char* pszCatName[32]; ///< name of category 1 << index, or null
} TQ_TRACE_INSTANCE;

extern "C" {

/// What an application does when a viewer asks for a reset. See tq_TraceSetResetHandler().
typedef void (*PFN_ONRESET)();

// Start and stop

/// Reads section "Trace" of "tqos.ini", makes the instance list and opens the system log. Called by tqOS_Initialize();
/// while trace runs it does nothing.
/// @return 0 trace runs; 1 no memory, and trace does not run
/// Threads: one, before others use trace.
TQ_API unsigned int tq_TraceInitialize();

/// Stops trace: waits for the threads that are inside one of its functions, closes the system log, closes and frees
/// every instance whoever opened it, and gives the handles back. Called by tqOS_Terminate(); harmless when trace does
/// not run.
/// Threads: one; not from inside a function of trace.
TQ_API void tq_TraceTerminate();

/// Opens an instance, or opens it once more when one of this name is open (the case of letters does not matter; nothing
/// is then read again). A new instance takes level, mask, destinations and the rest from the keys "<name>_Level",
/// "<name>_Cat", "<name>_LogToFile", "<name>_MaxFiles", "<name>_MaxBytesPerFile", "<name>_LogToMulticast",
/// "<name>_LogToSTDOUT", "<name>_LogToSTDERR", "<name>_LogToDevStudio", "<name>_SuppressTimestamp" and
/// "<name>_ShowThreadID" of section "Trace", and from the section's defaults. A log file that cannot be opened leaves
/// the instance without one; so does a socket for the network.
///
/// Deliberate: of the defaults, an instance with a "<name>_Level" key takes over only the mask and the looks of its
/// lines. It has no destinations but those that its own keys name, and its log file does not rotate unless its own
/// "<name>_MaxBytesPerFile" says so.
///
/// @param pszName      any length; copied
/// @param pszFilename  the caller's source file, kept by pointer with the memory: must live for the whole run
/// @param line         the caller's line
/// @return the instance's handle; 0 when pszName is null, trace does not run, or there is no memory or no free handle
/// Threads: any; takes the instance list's lock, and for one with "<name>_LogToMulticast" what
/// tq_TraceEnableMulticast() takes. Close it with tq_TraceTermInstance(), once for every opening.
TQ_API unsigned int tq__TraceInitInstance(const char* pszName, const char* pszFilename, unsigned int line);

/// Takes back one opening. The last one closes the log file and the network destination, frees the instance and gives
/// its handle back.
/// @return 0 done; 1 trace does not run or the handle is unknown
/// Threads: any; takes the instance list's lock, and the locks that closing a socket takes.
TQ_API int tq_TraceTermInstance(unsigned int hTraceInstance);

/// @return the handle of the instance of this name (the case of letters does not matter); 0 when there is none, pszName
///         is null or trace does not run
/// Threads: any; takes the instance list's lock.
TQ_API unsigned int tq_TraceGetHandleFromName(const char* pszName);

/// Reads a level's name: "All", "None", "Critical", "Severe", "Warning", "Informational", "Debug" or "Low", in any case
/// of letters. Deliberate: "Debug Low", as reports show the level 5000, is not accepted; its name is "Low" alone.
/// @param pszText  the name
/// @param pLevel  gets the level; untouched when the result is false
/// @return true when pszText is one of the names; false for any other text, for null and without pLevel
/// Threads: any; takes no lock, and works when trace does not run.
TQ_API bool ConvertStringToLevel(const char* pszText, int* pLevel);

// Tracing

/// Writes a message to the destinations of an instance and to the system log, if it passes. Nothing is formatted for a
/// message that does not, or when the handle is unknown, szFormat is null or trace does not run.
/// @param hTraceInstance     the instance's handle
/// @param Level              a TQ_TRACE_LEVEL_* or any other value
/// @param Category           bits of which one at least must be in the instance's mask; 0 never passes
/// @param bIncludeTimeStamp  begin the line with date and time, unless the instance suppresses them
/// @param szFormat           as for printf(); a message of any length is written whole
/// Threads: any; holds the instance list's lock while writing.
TQ_API void tq_Trace(unsigned int hTraceInstance, int Level, unsigned int Category, bool bIncludeTimeStamp,
                     const char* szFormat, ...) TQ_PRINTF(5, 6);

/// The same with an argument list, which is left as it came; the caller ends it.
TQ_API void tq_TraceVA(unsigned int hTraceInstance, int Level, unsigned int Category, bool bIncludeTimeStamp,
                       const char* szFormat, va_list args) TQ_PRINTF(5, 0);

/// The work behind tq_Trace() and tq_TraceVA(); the same as the latter.
TQ_API void tq_TraceInternal(unsigned int hTraceInstance, int Level, unsigned int Category, bool bIncludeTimeStamp,
                             const char* szFormat, va_list args) TQ_PRINTF(5, 0);

/// Writes a message with date and time, a line end, and a dump of memory: one line for each 16 bytes with the address
/// (the low 32 bits of it), the bytes in hexadecimal, and those of them that are printable ASCII, the others as ".".
/// Lines of other threads may come between those of a dump.
/// @param hTraceInstance,Level,Category  as tq_Trace()
/// @param pData    the memory; null: only the message and the line end are written
/// @param uLength  bytes to dump
/// @param szFormat as for printf(); null: the line end is written and the dump
/// Threads: any; takes the instance list's lock for every line.
TQ_API void tq_TraceHexDump(unsigned int hTraceInstance, int Level, unsigned int Category, const void* pData,
                            unsigned int uLength, const char* szFormat, ...) TQ_PRINTF(6, 7);

// Filter and names

/// @return the instance's level; 0 when trace does not run or the handle is unknown
/// Threads: any; takes the instance list's lock, as all functions below unless they say otherwise.
TQ_API int tq_TraceGetLevel(unsigned int hTraceInstance);

/// Sets the instance's level. Any value is taken; a negative one passes messages of exactly that magnitude.
/// @return 0 set; 1 trace does not run or the handle is unknown
TQ_API int tq_TraceSetLevel(unsigned int hTraceInstance, int level);

/// @return the instance's category mask, -1 for all; 0 also when trace does not run or the handle is unknown
TQ_API int tq_TraceGetCatMask(unsigned int hTraceInstance);

/// Sets the instance's category mask: -1 passes all categories, 0 none.
/// @return 0 set; 1 trace does not run or the handle is unknown
TQ_API int tq_TraceSetCatMask(unsigned int hTraceInstance, int mask);

/// Names a category, in place of the name it may have.
/// @param hTraceInstance  the instance's handle
/// @param category  a single bit: 1, 2, 4 ... 0x80000000
/// @param pszName   copied
/// @return 0 named; 1 category is not a single bit, pszName is null, there is no memory, trace does not run or the
///         handle is unknown
TQ_API int tq_TraceSetCategoryName(unsigned int hTraceInstance, unsigned int category, const char* pszName);

/// @return the bit of the lowest category of this name (the case of letters does not matter); 0 when there is none,
///         pszName is null, trace does not run or the handle is unknown
TQ_API unsigned int tq_TraceLookupCategory(unsigned int hTraceInstance, const char* pszName);

// Destinations

/// What tq_Trace() would do with a message, for callers that want to spare themselves making one.
/// @return the TQ_TRACE_DEST_* bits the message would go to; 0 when it would not pass, the instance has no destination,
///         trace does not run or the handle is unknown
TQ_API int tq_TraceGetDestinations(unsigned int hTraceInstance, int level, unsigned int category);

/// Switches a destination of an instance on or off.
/// @return 0 done, also when nothing changed; 1 trace does not run or the handle is unknown
TQ_API int tq_TraceEnableSTDOUT(unsigned int hTraceInstance);
/// @copydoc tq_TraceEnableSTDOUT
TQ_API int tq_TraceDisableSTDOUT(unsigned int hTraceInstance);
/// @copydoc tq_TraceEnableSTDOUT
TQ_API int tq_TraceEnableSTDERR(unsigned int hTraceInstance);
/// @copydoc tq_TraceEnableSTDOUT
TQ_API int tq_TraceDisableSTDERR(unsigned int hTraceInstance);
/// @copydoc tq_TraceEnableSTDOUT
TQ_API int tq_TraceEnableDevStudio(unsigned int hTraceInstance);
/// @copydoc tq_TraceEnableSTDOUT
TQ_API int tq_TraceDisableDevStudio(unsigned int hTraceInstance);

/// Opens a log file for an instance and switches it on as a destination, flushed after every line. An existing file is
/// overwritten. With rotation the files are "<prefix>0000.<suffix>", "<prefix>0001.<suffix>" and so on, round and
/// round; without, it is "<prefix>.<suffix>".
///
/// Deliberate: the path is cut into prefix and suffix at its last dot, and only a backslash, not a slash, keeps a dot
/// before it from counting: "/var/app.d/trace" has the prefix "/var/app" and the suffix "d/trace". A path without a dot
/// gives a file whose name ends with one.
///
/// Deliberate: a log file that the instance has open is not closed. Call tq_TraceDisableFile() first.
///
/// @param hTraceInstance   the instance's handle
/// @param pszPath          copied
/// @param maxFiles         files that take turns; 0 a single file, which starts again when it is full
/// @param maxBytesPerFile  bytes after which the next file is started; 0 never, and maxFiles then counts as 0
/// @param pszFilename      the caller's source file, kept by pointer with the memory: must live for the whole run
/// @param line             the caller's line
/// @return 0 the file is open; 1 it cannot be opened, there is no memory, pszPath is null, trace does not run or the
///         handle is unknown; the instance is then unchanged
TQ_API int tq__TraceEnableFile(unsigned int hTraceInstance, const char* pszPath, int maxFiles, int maxBytesPerFile,
                               const char* pszFilename, unsigned int line);

/// Closes the instance's log file, if any, and forgets its settings.
/// @return 0 done, also when there was none; 1 trace does not run or the handle is unknown
TQ_API int tq_TraceDisableFile(unsigned int hTraceInstance);

/// Switches the network on as a destination of an instance. The instance gets a UDP socket, bound to the machine's
/// first address and a port of the system's choice, and announces itself from 100 ms later on every 10 seconds to the
/// multicast group 224.123.111.105, port 3000. Viewers subscribe, and get every line of the instance from then on, as a
/// datagram each. A line is cut to 1023 characters there. What the system does not take at once is lost: no viewer
/// holds up who traces. When the machine loses the address, the socket is replaced by one on an address that it has;
/// viewers stay subscribed.
///
/// All messages are text with a terminating zero byte, which is sent. An instance announces itself as
///
///     DISCOVER/version=1.2/applicationName=NAME/mac=MAC/IPAddr=ADDRESS/port=PORT/host=//
///
/// where NAME is the address of the machine's first interface, a colon and the instance's name, cut to 255 characters.
/// To ADDRESS and PORT a viewer sends a text that begins with one of these words and is longer than it, be it by the
/// zero byte:
///
/// | text         | meaning                                                                                    |
/// |--------------|--------------------------------------------------------------------------------------------|
/// | "TRACEON/"   | subscribe; the viewer is whoever sent it, by its address and port. At most 128 may         |
/// | "KEEPALIVE/" | the answer to the same text, which a viewer is sent every 5 seconds; one that has not      |
/// |              | answered when it would be sent the next is dropped                                         |
/// | "TRACEOFF/"  | end the subscription. Deliberate: the other viewers are not asked either from then on, and |
/// |              | none is dropped, until somebody subscribes                                                 |
/// | "RESET/"     | call the application's handler (tq_TraceSetResetHandler())                                 |
///
/// Nothing of this is protected: whoever can reach the port may read the trace and ask for a reset. Section "Trace" of
/// tqos.ini may say that "MaxViewers" (0: 128) viewers are the most, and that requests are taken from "AllowedViewers"
/// (empty: all) alone: addresses, or networks like "10.0.0.0/8", with commas or blanks between them.
///
/// On an instance that has the destination already, everything begins anew, without viewers and reset handler.
/// @return 0 on; 1 it could not be (no socket, no memory), trace does not run or the handle is unknown. The instance is
///         then without this destination
/// Threads: any, without a lock of the library; may start the sockets layer, the timers and the queue "TQOS: Tracing",
/// on whose thread requests are handled.
TQ_API int tq_TraceEnableMulticast(unsigned int hTraceInstance);

/// Switches the network off as a destination: closes the socket and forgets the viewers and the reset handler.
/// @return 0 done, also when it was off; 1 trace does not run or the handle is unknown
/// Threads: as tq_TraceEnableMulticast().
TQ_API int tq_TraceDisableMulticast(unsigned int hTraceInstance);

/// Stores what is to be called when a viewer sends "RESET/". Only an instance that has the network as a destination
/// keeps it, and only as long as it has.
/// @param hTraceInstance   the instance's handle
/// @param pfnResetHandler  null: nothing is called. It is called on the thread of the queue "TQOS: Tracing", with no
///                         lock held: it may trace and switch destinations, but not stop trace or the library, which
///                         wait for this thread. One that has been replaced may still be running, or be called once
///                         more for a request that came before
/// @return Deliberate: 1, whether it was stored or not
TQ_API int tq_TraceSetResetHandler(unsigned int hTraceInstance, PFN_ONRESET pfnResetHandler);

// Prefix of the lines

/// Leaves date and time out of the instance's lines, or lets callers have them again.
/// @return 0 done; 1 trace does not run or the handle is unknown
TQ_API int tq_TraceSuppressTimestamp(unsigned int hTraceInstance, bool bSuppress);

/// Shows the thread's ids in the instance's lines, or not.
/// @return 0 done; 1 trace does not run or the handle is unknown
TQ_API int tq_TraceShowThreadID(unsigned int hTraceInstance, bool bShow);

/// Makes the milliseconds of all lines of all instances the time since the line before, or the clock again. The first
/// line after switching it on shows the clock.
/// @return 0 done; 1 trace does not run
/// Threads: any; takes the lock of the stamps alone.
TQ_API int tq_TraceSetDeltaTimestamps(bool bShowDeltas);

// Looking at the instances

/// Copies handle, name and category names of every instance.
/// @return a list of _TQ_TRACE_INSTANCE in the order of opening, which the caller gives back with
///         tq_TraceCleanupInstanceList(); null when there is no instance, no memory or trace does not run
TQ_API tq_List* tq_TraceGetInstanceList();

/// Frees what tq_TraceGetInstanceList() returned; null is ignored.
/// Threads: the list's owner; takes no lock of trace.
TQ_API void tq_TraceCleanupInstanceList(tq_List* pList);

/// Makes the console's report: all instances, a line each, or one of them in detail.
/// @param pszResponse  gets a new text that the caller frees with tq_free; null without memory. A null pointer here
///                     makes the call do nothing.
/// @param uiFlags      bit 1: details
/// @param pszArgument  for details, the instance's name or else its handle in decimal; may be null, which the report
///                     then says
TQ_API void tq_ShowTrace(char** pszResponse, unsigned int uiFlags, const char* pszArgument);

} // extern "C"

/// tq__TraceInitInstance() with the place of the call.
#define tq_TraceInitInstance(pszName) tq__TraceInitInstance((pszName), __FILE__, __LINE__)
/// tq__TraceEnableFile() with the place of the call.
#define tq_TraceEnableFile(hTraceInstance, pszPath, maxFiles, maxBytesPerFile)                                         \
    tq__TraceEnableFile((hTraceInstance), (pszPath), (maxFiles), (maxBytesPerFile), __FILE__, __LINE__)

#endif // TQ_TRACE_H
