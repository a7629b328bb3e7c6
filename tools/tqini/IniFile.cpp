#include "IniFile.h"

#include <errno.h>
#include <memory>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include <tq_Dir.h>

namespace tqini {

namespace {

constexpr int kPieceBytes = 512; // with the terminator, as the library's own buffer

struct FileCloser {
    void operator()(FILE* pFile) const { fclose(pFile); }
};
using File = std::unique_ptr<FILE, FileCloser>;

File Open(const std::string& path, std::string* pReason) {
    struct stat status;
    if (stat(path.c_str(), &status) != 0) {
        *pReason = strerror(errno);
        return nullptr;
    }
    if (!S_ISREG(status.st_mode)) { // the library opens none either; opening a FIFO would wait
        *pReason = "not a regular file";
        return nullptr;
    }
    File file(fopen(path.c_str(), "rb"));
    if (!file) {
        *pReason = strerror(errno);
    }
    return file;
}

bool ReadPiece(FILE* pFile, Piece* pPiece) {
    char buffer[kPieceBytes];
    const off_t before = ftello(pFile);
    if (!tq_fgets(buffer, kPieceBytes, pFile)) {
        return false;
    }
    const size_t bytes = static_cast<size_t>(ftello(pFile) - before);
    pPiece->text = buffer;
    pPiece->bHasZeroByte = pPiece->text.size() < bytes;
    pPiece->bEndsLine = buffer[bytes - 1] == '\n';
    return true;
}

bool BeginsRemark(const std::string& text) {
    return text[0] == ';' || text[0] == '#' || text.compare(0, 2, "//") == 0;
}

} // namespace

std::string WithoutBlanks(const std::string& text, const char* pszBlanks) {
    const size_t first = text.find_first_not_of(pszBlanks);
    return first == std::string::npos ? "" : text.substr(first, text.find_last_not_of(pszBlanks) - first + 1);
}

bool ReadIniFile(const std::string& path, std::vector<Piece>* pPieces, std::string* pReason) {
    const File file = Open(path, pReason);
    if (!file) {
        return false;
    }
    Piece piece;
    piece.line = 1;
    while (ReadPiece(file.get(), &piece)) {
        pPieces->push_back(piece);
        piece.bContinues = !piece.bEndsLine;
        piece.line += piece.bEndsLine ? 1 : 0;
    }
    if (ferror(file.get()) != 0) {
        *pReason = strerror(errno);
        return false;
    }
    return true;
}

Parts TakeApart(const Piece& piece) {
    Parts parts;
    const size_t start = piece.text.find_first_not_of(" \t");
    const std::string text = start == std::string::npos ? "" : piece.text.substr(start);
    if (WithoutBlanks(text).empty()) {
        return parts;
    }
    if (text[0] == '[') {
        const size_t end = text.find(']');
        parts.kind = end == std::string::npos ? PieceKind::BrokenHeader : PieceKind::Header;
        parts.name = end == std::string::npos ? WithoutBlanks(text.substr(1)) : text.substr(1, end - 1);
        return parts;
    }
    const size_t equals = text.find('=');
    if (BeginsRemark(text) || equals == std::string::npos) {
        parts.kind = BeginsRemark(text) ? PieceKind::Remark : PieceKind::Other;
        parts.name = WithoutBlanks(text);
        return parts;
    }
    parts.kind = PieceKind::KeyValue;
    parts.name = WithoutBlanks(text.substr(0, equals), " \t");
    parts.value = WithoutBlanks(text.substr(equals + 1));
    return parts;
}

} // namespace tqini
