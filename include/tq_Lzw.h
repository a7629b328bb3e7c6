/// @file tq_Lzw.h
/// Compresses a block of memory into another and expands it back, with the LZW method: 14-bit codes, a string table
/// that is filled once and never reset, a header with a checksum.
///
/// Stream: the characters "LZW" and a zero byte; the stream's length in bytes, header included; a checksum of what
/// follows (both unsigned 32-bit, big-endian); then 14-bit codes, most significant bit first. Codes 0 to 255 are bytes,
/// 256 to 16382 table entries in the order in which they arise, 16383 the end.
///
/// Threads: both functions share static tables of 320 KB. One call at a time in the process; callers on several
/// threads serialise them.
#ifndef TQ_LZW_H
#define TQ_LZW_H

#include "tq_Types.h"

/// The first 12 bytes of a stream, as they lie in memory: both numbers are big-endian.
typedef struct _tqLZW_HEADER {
    char LZWFourCC[4];    ///< "LZW" and its zero byte
    unsigned int DataLen; ///< length of the whole stream in bytes
    unsigned int crc;     ///< checksum of the bytes behind the header
} tqLZW_HEADER;

extern "C" {

/// Compresses inlen bytes.
/// @param input   the bytes
/// @param inlen   their count
/// @param output  receives a new buffer (malloc family) with the stream, which the caller frees with tq_free; null when
///                there is no memory; left as it is when there is nothing to compress
/// @param outlen  receives the stream's length in bytes; 0 when inlen is 0 or there is no memory
/// Data in which one byte repeats some eight million times or more builds strings longer than 4095 bytes; a stream
/// of it compresses but does not expand again. Compress such data in pieces.
TQ_API void tq_lzwCompress(const char* input, unsigned int inlen, char** output, unsigned int* outlen);

/// Expands a stream that tq_lzwCompress() made.
/// @param input   the stream
/// @param inlen   its length in bytes
/// @param output  receives a new buffer (malloc family) with the bytes; the caller frees it with tq_free
/// @param outlen  receives their count
/// On failure both are null and 0: 12 bytes or fewer, no "LZW" at the start, a wrong checksum, a code that cannot stand
/// where it does, no end mark, a string of more than 4095 bytes, no memory. The input may hold anything: nothing
/// outside it is read. The length in the header is not looked at.
TQ_API void tq_lzwExpand(const char* input, unsigned int inlen, char** output, unsigned int* outlen);

} // extern "C"

#endif // TQ_LZW_H
