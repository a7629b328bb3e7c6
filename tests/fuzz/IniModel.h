/// @file IniModel.h
/// Configuration files as a second reader and writer understands them: the whole file in memory, cut into pieces, each
/// looked at by itself. The targets of INI files hold the library against it.
#ifndef INI_MODEL_H
#define INI_MODEL_H

#include <string>
#include <vector>

#include "Fuzz.h"

namespace ini {

constexpr size_t kPieceBytes = 511;

inline bool IsBlank(char c) {
    return c == ' ' || c == '\t';
}

inline char Lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
}

inline bool SameText(const std::string& one, const std::string& other) {
    bool bSame = one.size() == other.size();
    for (size_t i = 0; bSame && i < one.size(); ++i) {
        bSame = Lower(one[i]) == Lower(other[i]);
    }
    return bSame;
}

/// The pieces that a file is read in: up to and including a line feed, `bytes` at most; what follows a zero byte in a
/// piece is not seen.
inline std::vector<std::string> Pieces(const std::string& content, size_t bytes = kPieceBytes) {
    std::vector<std::string> pieces;
    for (size_t at = 0; at < content.size();) {
        const size_t feed = content.find('\n', at);
        const size_t end = feed == std::string::npos ? content.size() : feed + 1;
        const size_t length = end - at < bytes ? end - at : bytes;
        pieces.push_back(fuzz::Cut(content.substr(at, length)));
        at += length;
    }
    return pieces;
}

inline std::string WithoutBlanksBefore(std::string text) {
    while (!text.empty() && IsBlank(text[0])) {
        text.erase(0, 1);
    }
    return text;
}

inline std::string WithoutEnd(std::string text) {
    while (!text.empty() && (IsBlank(text.back()) || text.back() == '\r' || text.back() == '\n')) {
        text.pop_back();
    }
    return text;
}

inline bool IsHeader(const std::string& piece) {
    return WithoutBlanksBefore(piece).substr(0, 1) == "[";
}

inline bool IsHeaderOf(const std::string& piece, const std::string& section) {
    return SameText(WithoutBlanksBefore(piece).substr(0, section.size() + 2), "[" + section + "]");
}

/// Whether the piece is the key's, and what it gives it.
inline bool IsKey(const std::string& piece, const std::string& key, std::string* pValue) {
    const std::string text = WithoutBlanksBefore(piece);
    if (!SameText(text.substr(0, key.size()), key)) {
        return false;
    }
    const std::string rest = WithoutBlanksBefore(text.substr(key.size()));
    if (rest.empty() || rest[0] != '=') {
        return false;
    }
    *pValue = WithoutEnd(WithoutBlanksBefore(rest.substr(1)));
    return true;
}

/// The section's pieces, without its header and up to the next one; false when there is no such section.
inline bool Section(const std::string& content, const std::string& section, std::vector<std::string>* pPieces) {
    bool bInside = false;
    for (const std::string& piece : Pieces(content)) {
        if (bInside && IsHeader(piece)) {
            return true;
        }
        if (bInside) {
            pPieces->push_back(piece);
        }
        bInside = bInside || IsHeaderOf(piece, section);
    }
    return bInside;
}

/// The key's value; false when it is not there.
inline bool Value(const std::string& content, const std::string& section, const std::string& key, std::string* pValue) {
    std::vector<std::string> pieces;
    Section(content, section, &pieces);
    for (const std::string& piece : pieces) {
        if (IsKey(piece, key, pValue)) {
            return true;
        }
    }
    return false;
}

} // namespace ini

#endif // INI_MODEL_H
