/// @file IniFile.h
/// A configuration file in the pieces that the library reads it in, and what the library makes of a piece.
#ifndef TQINI_INI_FILE_H
#define TQINI_INI_FILE_H

#include <string>
#include <vector>

namespace tqini {

/// What the library takes for a line: a line of the file, or 511 characters of one that is longer.
struct Piece {
    unsigned int line = 0;     ///< of the file, from 1
    bool bContinues = false;   ///< what stands before it in the line is another piece
    bool bEndsLine = true;     ///< it has the line's end
    bool bHasZeroByte = false; ///< the library reads it as a text, which ends at a zero byte
    std::string text;          ///< up to that byte, with the line's end where it has one
};

/// All pieces of a file; false, with the reason, where the library takes it as one that cannot be opened.
bool ReadIniFile(const std::string& path, std::vector<Piece>* pPieces, std::string* pReason);

enum class PieceKind {
    Blank,
    Remark, ///< begins like a comment of other formats: ";", "#" or "//"
    Header,
    BrokenHeader, ///< "[" without "]"
    KeyValue,
    Other,
};

/// A piece taken apart as the library's reader does.
struct Parts {
    PieceKind kind = PieceKind::Blank;
    std::string name;  ///< of a header: up to the first "]"; of a key: up to the "=", without the blanks around it
    std::string value; ///< without the blanks and line ends around it
};

Parts TakeApart(const Piece& piece);

std::string WithoutBlanks(const std::string& text, const char* pszBlanks = " \t\r\n"); ///< around it

} // namespace tqini

#endif // TQINI_INI_FILE_H
