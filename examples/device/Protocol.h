/// @file Protocol.h
/// The line protocol: bytes into lines, lines into commands, samples into reply lines. Knows no sockets.
///
///     GET load             LOAD 0.42 0.40 0.35
///     GET memory           MEMORY 812345 of 2048000 kB
///     GET network          NETWORK in 1234 out 5678 bytes
///     HISTORY n            up to n lines SAMPLE, oldest first, then END with their number
///     WATCH ms             WATCHING ms, then a LOAD line every so often; WATCH 0 ends it
///     QUIT                 BYE, and the connection ends
///
/// Words may be in either case. Lines end with LF or CR LF and are answered with CR LF. What is not understood is
/// answered with one line that begins with ERROR, and the connection goes on.
#ifndef DEVICE_PROTOCOL_H
#define DEVICE_PROTOCOL_H

#include <stddef.h>
#include <string>
#include <string_view>

#include "Sample.h"

enum { kMaxLine = 128 }; ///< bytes of a line, its end not counted

/// Bytes as they come, cut into lines. A line that is too long is reported once, as soon as it is known to be, and
/// skipped to its end; the one after it is whole.
class LineBuffer {
public:
    enum Result { kLine, kTooLong, kNeedsBytes };

    /// Where the next bytes go, and how many fit: never none after Next() has said kNeedsBytes.
    unsigned char* Room() { return m_bytes + m_end; }
    unsigned int RoomBytes() const { return static_cast<unsigned int>(sizeof(m_bytes) - m_end); }
    /// So many bytes were put there.
    void Added(unsigned int count) { m_end += count; }

    /// The next line, without its end. The text is good until the next call.
    Result Next(std::string_view* pLine);

private:
    Result TakeLine(size_t lineEnd, std::string_view* pLine);
    Result KeepRest();

    unsigned char m_bytes[512] = {};
    size_t m_begin = 0; // what was not handed out yet
    size_t m_end = 0;
    bool m_bSkipping = false; // inside a line that was too long
};

enum class Verb { GetLoad, GetMemory, GetNetwork, History, Watch, Quit };

struct Command {
    Verb verb;
    unsigned int number; ///< of HISTORY and WATCH
};

/// Understands a line. Null, and *pCommand filled, when it does; else what is wrong, for ErrorLine().
const char* ParseCommand(std::string_view line, Command* pCommand);

std::string LoadLine(const Sample& sample);
std::string MemoryLine(const Sample& sample);
std::string NetworkLine(const Sample& sample);
std::string SampleLine(const Sample& sample);
std::string ErrorLine(const char* pszWhat);
/// A word and a number: "END 10", "WATCHING 500".
std::string NumberLine(const char* pszWord, unsigned int number);

/// A reply line for a place that ends lines itself.
std::string WithoutLineEnd(std::string line);

/// Whether the two are the same but for the case of their letters.
bool SameWord(std::string_view word, const char* pszWord);
/// A decimal number of digits alone, within the limits; false, and *pNumber of no meaning, for anything else.
bool ParseNumber(std::string_view word, unsigned int least, unsigned int most, unsigned int* pNumber);

#endif // DEVICE_PROTOCOL_H
