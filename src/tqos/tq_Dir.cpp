#include "tq_Dir_p.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <limits.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "tq_Base.h"
#include "tq_IniKeys_p.h"
#include "tq_Memory.h"

char psz_tqos_ini_file[512] = "";

namespace {

constexpr int kLineBytes = 512;           // a longer line is read in pieces, each a line of its own
constexpr unsigned int kValueBytes = 512; // a value is part of a line
constexpr unsigned int kShortValueBytes = 12;
constexpr int kCopyBackBytes = 511;
constexpr unsigned int kNumberTextBytes = 35;
constexpr size_t kShellPathLimit = 256;
constexpr size_t kCopyPieceBytes = 512;
constexpr unsigned int kDirectoryBit = 0x4000;

static_assert(sizeof(_TQ_FINDFILE_STRUCT) == 788, "the record that applications allocate");
static_assert(sizeof(off_t) == 8, "files of more than 2 GB are opened");

// ---- Text helpers

char* SkipBlanks(char* pszText) {
    return pszText + strspn(pszText, " \t");
}

/// Cuts blanks, tabs and line ends off the end of a text.
void TrimEnd(char* pszText) {
    size_t length = strlen(pszText);
    while (length > 0 && strchr(" \t\r\n", pszText[length - 1])) {
        --length;
    }
    pszText[length] = '\0';
}

bool EndsWithLineFeed(const char* pszText) {
    const size_t length = strlen(pszText);
    return length > 0 && pszText[length - 1] == '\n';
}

/// Copies what fits and terminates it. The buffer has at least one byte.
void CopyCut(char* pszTo, size_t toBytes, const char* pszFrom) {
    const size_t length = strnlen(pszFrom, toBytes - 1);
    memmove(pszTo, pszFrom, length);
    pszTo[length] = '\0';
}

// ---- Files

struct FileCloser {
    FILE* hFile;
    explicit FileCloser(FILE* hOpen) : hFile(hOpen) {}
    ~FileCloser() { Close(); }
    FileCloser(const FileCloser&) = delete;
    FileCloser& operator=(const FileCloser&) = delete;

    /// False when something written before has been lost.
    bool Close() {
        if (!hFile) {
            return true;
        }
        const bool bWritten = ferror(hFile) == 0;
        FILE* hClosing = hFile;
        hFile = nullptr;
        return fclose(hClosing) == 0 && bWritten;
    }
    explicit operator bool() const { return hFile != nullptr; }
};

/// Opens a configuration file. A FIFO or a device counts as a file that cannot be opened: opening one may wait for ever
/// or set something off. Neither is opened even for a look.
FILE* OpenConfiguration(const char* pszFilename, const char* pszMode, int flags) {
    struct stat status;
    if (stat(pszFilename, &status) == 0 && !S_ISREG(status.st_mode)) {
        return nullptr;
    }
    const int fd = open(pszFilename, (flags & ~O_TRUNC) | O_NONBLOCK | O_CLOEXEC, 0666);
    if (fd < 0) {
        return nullptr;
    }
    FILE* hFile = fstat(fd, &status) == 0 && S_ISREG(status.st_mode) ? fdopen(fd, pszMode) : nullptr;
    if (!hFile) {
        close(fd);
    } else if ((flags & O_TRUNC) && ftruncate(fd, 0) != 0) { // emptied only now that it can be written
        fclose(hFile);
        hFile = nullptr;
    }
    return hFile;
}

FILE* OpenToRead(const char* pszFilename) {
    return OpenConfiguration(pszFilename, "rb", O_RDONLY);
}

FILE* OpenToReplace(const char* pszFilename) {
    return OpenConfiguration(pszFilename, "wb", O_WRONLY | O_CREAT | O_TRUNC);
}

FILE* OpenToAppend(const char* pszFilename) {
    return OpenConfiguration(pszFilename, "ab", O_WRONLY | O_CREAT | O_APPEND);
}

// ---- Lines of a configuration file

bool IsSectionHeader(char* pszLine) {
    return *SkipBlanks(pszLine) == '[';
}

bool IsHeaderOf(char* pszLine, const char* pszSection) {
    const char* pText = SkipBlanks(pszLine);
    const size_t length = strlen(pszSection);
    return *pText == '[' && strncasecmp(pText + 1, pszSection, length) == 0 && pText[1 + length] == ']';
}

/// Where the value of the key begins in the line, or null when the line is not this key's.
char* ValueOfKey(char* pszLine, const char* pszKey) {
    char* pText = SkipBlanks(pszLine);
    const size_t length = strlen(pszKey);
    if (strncasecmp(pText, pszKey, length) != 0) {
        return nullptr;
    }
    pText = SkipBlanks(pText + length);
    return *pText == '=' ? SkipBlanks(pText + 1) : nullptr;
}

/// Hands a value to the caller's buffer and says its length there.
int StoreValue(const char* pszValue, char* pszBuffer, unsigned int bufferBytes) {
    if (!pszBuffer) {
        return static_cast<int>(strlen(pszValue));
    }
    if (bufferBytes == 0) {
        return 0;
    }
    if (*pszValue == '\0' && bufferBytes >= 2) {
        // Deliberate: an empty value has the length 1, not 0. The key is there, so no default takes its place.
        pszBuffer[0] = pszBuffer[1] = '\0';
        return 1;
    }
    CopyCut(pszBuffer, bufferBytes, pszValue);
    return static_cast<int>(strlen(pszBuffer));
}

int ReadKey(FILE* hFile, const char* pszKey, char* pszBuffer, unsigned int bufferBytes) {
    char line[kLineBytes];
    while (tq_fgets(line, kLineBytes, hFile) && !IsSectionHeader(line)) {
        char* pszValue = ValueOfKey(line, pszKey);
        if (pszValue) {
            TrimEnd(pszValue);
            return StoreValue(pszValue, pszBuffer, bufferBytes);
        }
    }
    return 0;
}

/// Every line with a "=" names a key, one that looks like a comment too.
int ListKeys(FILE* hFile, char* pszBuffer, unsigned int bufferBytes) {
    char line[kLineBytes];
    size_t count = 0;
    while (tq_fgets(line, kLineBytes, hFile) && !IsSectionHeader(line)) {
        char* pEquals = strchr(line, '=');
        if (!pEquals) {
            continue;
        }
        *pEquals = '\0';
        TrimEnd(line);
        const char* pszName = SkipBlanks(line);
        const size_t length = strlen(pszName);
        if (pszBuffer) {
            if (count + length + 2 > bufferBytes) {
                continue;
            }
            memcpy(pszBuffer + count, pszName, length + 1);
            pszBuffer[count + length + 1] = '\0';
        }
        count += length + 1;
    }
    return static_cast<int>(count > 0 ? count + 1 : 0);
}

/// Whether a text appended at the position of the file would begin a line.
bool IsAtLineStart(FILE* hFile) {
    const off_t position = ftello(hFile);
    if (position <= 0 || fseeko(hFile, position - 1, SEEK_SET) != 0) {
        return true;
    }
    return fgetc(hFile) == '\n';
}

void CopyRest(FILE* hFrom, FILE* hTo) {
    char line[kLineBytes];
    while (tq_fgets(line, kLineBytes, hFrom)) {
        fputs(line, hTo);
    }
}

/// Copies the section to its end with the key's line replaced, or added when it has none, and then the rest of the
/// file.
void RewriteSection(FILE* hFrom, const char* pszKey, const char* pszValue, FILE* hTo) {
    char line[kLineBytes];
    bool bAtLineStart = IsAtLineStart(hFrom);
    while (tq_fgets(line, kLineBytes, hFrom)) {
        if (IsSectionHeader(line)) {
            fprintf(hTo, "  %s=%s\r\n\r\n%s", pszKey, pszValue, line);
            CopyRest(hFrom, hTo);
            return;
        }
        if (ValueOfKey(line, pszKey)) {
            fprintf(hTo, "  %s=%s\r\n", pszKey, pszValue);
            CopyRest(hFrom, hTo);
            return;
        }
        fputs(line, hTo);
        bAtLineStart = EndsWithLineFeed(line);
    }
    fprintf(hTo, "%s  %s=%s\r\n", bAtLineStart ? "" : "\r\n", pszKey, pszValue);
}

// ---- Numbers and switches

/// Deliberate: what is no hexadecimal digit is passed over instead of ending the number, so 0x1_0 is 16.
int HexadecimalValue(const char* pszDigits) {
    unsigned int value = 0;
    for (; *pszDigits != '\0'; ++pszDigits) {
        const unsigned int digit = IsCharInSet(*pszDigits, "0123456789abcdef0123456789ABCDEF");
        if (digit) {
            value = value << 4 | ((digit - 1) & 15);
        }
    }
    return static_cast<int>(value);
}

int DecimalValue(const char* pszText) {
    const long value = strtol(pszText, nullptr, 10);
    return value > INT_MAX ? INT_MAX : value < INT_MIN ? INT_MIN : static_cast<int>(value);
}

bool IsAffirmative(const char* pszText) {
    static const char* const kWords[] = {"yes", "y", "true", "1"};
    for (const char* pszWord : kWords) {
        if (strcasecmp(pszText, pszWord) == 0) {
            return true;
        }
    }
    return false;
}

// ---- Writing a key

enum class Stored { Same, Different, NoSection, Unreadable };

Stored CompareStored(const char* pszSection, const char* pszKey, const char* pszValue, const char* pszFilename) {
    errno = 0;
    FileCloser file(OpenToRead(pszFilename));
    if (!file) {
        return errno == ENOENT ? Stored::NoSection : Stored::Unreadable;
    }
    if (!FindSection(file.hFile, pszSection, nullptr)) {
        return ferror(file.hFile) != 0 ? Stored::Unreadable : Stored::NoSection;
    }
    char value[kValueBytes] = "";
    const bool bPresent = FindKey(file.hFile, pszKey, value, kValueBytes, nullptr) != 0;
    return bPresent && strcmp(value, pszValue) == 0 ? Stored::Same : Stored::Different;
}

/// The file that a rewrite goes through. Whatever happens, the file of the name chosen last is removed at the end.
class TemporaryFile {
public:
    explicit TemporaryFile(const char* pszFilename) : m_pszFilename(pszFilename) {
        m_nameBytes = static_cast<unsigned int>(strlen(pszFilename)) + 9;
        m_pszName = static_cast<char*>(tq_calloc(1, m_nameBytes));
    }
    ~TemporaryFile() {
        if (m_pszName) {
            // Deliberate: also when every candidate's name was taken. The last one, somebody else's file, is removed.
            tq_RemoveFile(m_pszName);
            tq_free(m_pszName);
        }
    }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    const char* Name() const { return m_pszName; }

    /// False when there is no memory for a name, or all names are taken.
    bool ChooseName() {
        if (!m_pszName) {
            return false;
        }
        const char* pSeparator = strrchr(m_pszFilename, '\\');
        pSeparator = pSeparator ? pSeparator : strrchr(m_pszFilename, '/');
        const int directoryLength = pSeparator ? static_cast<int>(pSeparator - m_pszFilename) + 1 : 0;
        snprintf(m_pszName, m_nameBytes, "%.*s__temp__%s", directoryLength, m_pszFilename,
                 m_pszFilename + directoryLength);
        // Deliberate: the other candidates put their prefix before the whole name, directory included, so for a name
        // with a directory they lie under a directory of another name.
        static const char* const kPrefixes[] = {"___temp_", "____temp", "_temp___", "temp____"};
        for (const char* pszPrefix : kPrefixes) {
            if (!FileCloser(OpenToRead(m_pszName))) {
                return true;
            }
            snprintf(m_pszName, m_nameBytes, "%s%s", pszPrefix, m_pszFilename);
        }
        return !FileCloser(OpenToRead(m_pszName));
    }

private:
    const char* m_pszFilename;
    char* m_pszName;
    unsigned int m_nameBytes;
};

/// What a rewrite came to.
enum class Rewrite { Done, Failed, SectionGone };

/// Writes the changed configuration to the temporary file.
Rewrite WriteChanged(FILE* hFrom, const char* pszSection, const char* pszKey, const char* pszValue,
                     const char* pszTemporary) {
    FileCloser temporary(OpenToReplace(pszTemporary));
    if (!temporary) {
        return Rewrite::Failed;
    }
    if (!FindSection(hFrom, pszSection, temporary.hFile)) {
        return ferror(hFrom) == 0 ? Rewrite::SectionGone : Rewrite::Failed;
    }
    FindKey(hFrom, pszKey, const_cast<char*>(pszValue), kValueBytes, temporary.hFile);
    const bool bReadWhole = ferror(hFrom) == 0; // what could not be read would be lost
    return temporary.Close() && bReadWhole ? Rewrite::Done : Rewrite::Failed;
}

bool CopyBack(const char* pszTemporary, const char* pszFilename) {
    FileCloser from(OpenToRead(pszTemporary));
    FileCloser to(from ? OpenToReplace(pszFilename) : nullptr);
    if (!to) {
        return false;
    }
    char line[kCopyBackBytes];
    while (tq_fgets(line, kCopyBackBytes, from.hFile)) {
        fputs(line, to.hFile);
    }
    const bool bReadWhole = ferror(from.hFile) == 0;
    // The file has been emptied: when it cannot be filled again, the temporary file takes its place.
    return (to.Close() && bReadWhole) || rename(pszTemporary, pszFilename) == 0;
}

Rewrite RewriteFile(const char* pszSection, const char* pszKey, const char* pszValue, const char* pszFilename) {
    errno = 0;
    FileCloser from(OpenToRead(pszFilename));
    if (!from) {
        return errno == ENOENT ? Rewrite::SectionGone : Rewrite::Failed;
    }
    TemporaryFile temporary(pszFilename);
    if (!temporary.ChooseName()) {
        return Rewrite::Failed;
    }
    const Rewrite result = WriteChanged(from.hFile, pszSection, pszKey, pszValue, temporary.Name());
    from.Close();
    if (result != Rewrite::Done) {
        return result;
    }
    return CopyBack(temporary.Name(), pszFilename) ? Rewrite::Done : Rewrite::Failed;
}

bool AppendSection(const char* pszSection, const char* pszKey, const char* pszValue, const char* pszFilename) {
    FileCloser file(OpenToAppend(pszFilename));
    if (!file) {
        return false;
    }
    fprintf(file.hFile, "\r\n[%s]\r\n  %s=%s\r\n", pszSection, pszKey, pszValue);
    return file.Close();
}

// ---- Shell commands and directory searches

/// Deliberate: the path is not quoted, so the shell splits one with blanks and acts on each part.
int RunOnPath(const char* pszCommand, const char* pszPath) {
    if (!pszPath || strlen(pszPath) >= kShellPathLimit) {
        return -1;
    }
    char command[kShellPathLimit + 16];
    snprintf(command, sizeof(command), "%s %s", pszCommand, pszPath);
    return system(command); // NOLINT(concurrency-mt-unsafe): glibc's may run in several threads at once
}

void* NoSearch() {
    return reinterpret_cast<void*>(static_cast<intptr_t>(-1));
}

bool IsSearch(const void* handle) {
    return handle && handle != NoSearch();
}

/// The next entry whose name matches, or null at the end.
const struct dirent* NextMatch(DIR* pDirectory, const char* pszPattern) {
    const struct dirent* pEntry = nullptr;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the stream is this search's own
    while ((pEntry = readdir(pDirectory)) != nullptr) {
        if (fnmatch(pszPattern, pEntry->d_name, 0) == 0) {
            return pEntry;
        }
    }
    return nullptr;
}

void FillEntry(DIR* pDirectory, const char* pszName, _TQ_FINDFILE_STRUCT* pFileinfo) {
    struct stat status;
    memset(&status, 0, sizeof(status)); // an entry that cannot be looked at, such as a dangling link, shows zeros
    if (fstatat(dirfd(pDirectory), pszName, &status, 0) != 0) {
        memset(&status, 0, sizeof(status));
    }
    CopyCut(pFileinfo->pFilename, sizeof(pFileinfo->pFilename), pszName);
    pFileinfo->uiLastWriteTime = static_cast<unsigned int>(status.st_mtime);
    // Deliberate: one bit of the type is looked at, not the whole type. Sockets and block devices have it too, and so
    // count as directories.
    pFileinfo->bIsDir = (status.st_mode & kDirectoryBit) != 0;
}

/// Opens the directory of a pattern, "./" for one that names none.
DIR* OpenDirectoryOf(const char* pszPattern, size_t directoryLength) {
    char path[PATH_MAX];
    if (directoryLength >= sizeof(path)) {
        return nullptr;
    }
    memcpy(path, pszPattern, directoryLength);
    path[directoryLength] = '\0';
    return opendir(directoryLength > 0 ? path : "./");
}

} // namespace

void tq_ReadIniRows(const char* pszSection, const tq_IniInteger* pRows, size_t rows) {
    for (const tq_IniInteger* pRow = pRows; pRow < pRows + rows; ++pRow) {
        *pRow->puiValue =
            static_cast<unsigned int>(tq_GetINIFileInt(pszSection, pRow->pszKey, pRow->iDefault, psz_tqos_ini_file));
    }
}

void tq_ReadIniRows(const char* pszSection, const tq_IniSwitch* pRows, size_t rows) {
    for (const tq_IniSwitch* pRow = pRows; pRow < pRows + rows; ++pRow) {
        *pRow->pbValue =
            tq_GetINIFileAffirmative(pszSection, pRow->pszKey, pRow->bDefault ? "yes" : "no", psz_tqos_ini_file);
    }
}

extern "C" {

char* tq_fgets(char* pBuffer, int len, FILE* hFile) {
    if (len < 2 || !pBuffer || !hFile) {
        return nullptr;
    }
    pBuffer[0] = '\0'; // which the C library leaves as it is when there is nothing to read
    return fgets(pBuffer, len, hFile);
}

bool FindSection(FILE* hFile, const char* pszSection, FILE* hFileOut) {
    if (!hFile || !pszSection) {
        return false;
    }
    char line[kLineBytes];
    while (tq_fgets(line, kLineBytes, hFile)) {
        if (hFileOut) {
            fputs(line, hFileOut);
        }
        if (IsHeaderOf(line, pszSection)) {
            return true;
        }
    }
    return false;
}

int FindKey(FILE* hFile, const char* pszKey, char* pszKeyValue, unsigned int nKeyValueSize, FILE* hFileOut) {
    if (!hFile || (hFileOut && (!pszKeyValue || !pszKey))) {
        return 0;
    }
    if (hFileOut) {
        RewriteSection(hFile, pszKey, pszKeyValue, hFileOut);
        return static_cast<int>(strlen(pszKeyValue));
    }
    return pszKey ? ReadKey(hFile, pszKey, pszKeyValue, nKeyValueSize) : ListKeys(hFile, pszKeyValue, nKeyValueSize);
}

int FindSectionKey(const char* pszFilename, const char* pszSection, const char* pszKey, char* pszReturn,
                   unsigned int nSize) {
    if (!pszFilename || !pszSection) {
        return 0;
    }
    FileCloser file(OpenToRead(pszFilename));
    if (!file || !FindSection(file.hFile, pszSection, nullptr)) {
        return 0;
    }
    return FindKey(file.hFile, pszKey, pszReturn, nSize, nullptr);
}

int tq_GetINIFileString(const char* pszSection, const char* pszKey, const char* pszDefault, char* pszReturnString,
                        unsigned int uiReturnBytes, const char* pszFilename) {
    const int found = FindSectionKey(pszFilename, pszSection, pszKey, pszReturnString, uiReturnBytes);
    if (found != 0 || !pszDefault || !pszKey) {
        return found;
    }
    if (!pszReturnString) {
        return static_cast<int>(strlen(pszDefault));
    }
    if (uiReturnBytes == 0) {
        return 0;
    }
    if (pszReturnString != pszDefault) {
        CopyCut(pszReturnString, uiReturnBytes, pszDefault);
    }
    pszReturnString[uiReturnBytes - 1] = '\0';
    return static_cast<int>(strlen(pszReturnString));
}

int tq_GetINIFileInt(const char* pszSection, const char* pszKey, int iDefault, const char* pszFilename) {
    char value[kShortValueBytes] = "";
    if (!pszKey || FindSectionKey(pszFilename, pszSection, pszKey, value, kShortValueBytes) == 0) {
        return iDefault;
    }
    const bool bHexadecimal = strlen(value) > 2 && value[0] == '0' && (value[1] == 'x' || value[1] == 'X');
    return bHexadecimal ? HexadecimalValue(value + 2) : DecimalValue(value);
}

bool tq_GetINIFileAffirmative(const char* pszSection, const char* pszKey, const char* pszDefault,
                              const char* pszFilename) {
    char value[kShortValueBytes] = "";
    tq_GetINIFileString(pszSection, pszKey, pszDefault, value, kShortValueBytes, pszFilename);
    return IsAffirmative(value);
}

int tq_WriteINIFileString(const char* pszSection, const char* pszKey, const char* pszString, const char* pszFilename) {
    if (!pszSection || !pszKey || !pszString || !pszFilename) {
        return 0;
    }
    const Stored stored = CompareStored(pszSection, pszKey, pszString, pszFilename);
    if (stored == Stored::Same || stored == Stored::Unreadable) {
        return stored == Stored::Same ? 1 : 0;
    }
    if (stored == Stored::Different) {
        const Rewrite rewritten = RewriteFile(pszSection, pszKey, pszString, pszFilename);
        if (rewritten != Rewrite::SectionGone) {
            return rewritten == Rewrite::Done ? 1 : 0;
        }
    }
    return AppendSection(pszSection, pszKey, pszString, pszFilename) ? 1 : 0;
}

int tq_WriteINIFileInt(const char* pszSection, const char* pszKey, int iValue, const char* pszFilename) {
    char text[kNumberTextBytes];
    return tq_WriteINIFileString(pszSection, pszKey, itoa(iValue, text, 10), pszFilename);
}

unsigned int tq_SetWorkingDirectory(const char* pszNewPath) {
    return pszNewPath && chdir(pszNewPath) == 0 ? 1 : 0;
}

unsigned int tq_SetWorkingDirectoryFromArgv(const char* pszNewPath) {
    if (!pszNewPath) {
        return 0;
    }
    char path[512];
    CopyCut(path, sizeof(path), pszNewPath);
    char* pSeparator = strrchr(path, '/');
    pSeparator = pSeparator ? pSeparator : strrchr(path, '\\');
    if (!pSeparator) {
        return 0;
    }
    *pSeparator = '\0';
    return tq_SetWorkingDirectory(path);
}

unsigned int tq_GetWorkingDirectory(char* pszPath, unsigned int PathLen) {
    return pszPath && PathLen > 0 && getcwd(pszPath, PathLen) ? 1 : 0;
}

bool tq_GetVolumeInfo(const char* pszPath, unsigned int* uiKBFree, unsigned int* uiKBAvailable) {
    struct statvfs volume;
    if (statvfs(pszPath ? pszPath : ".", &volume) != 0 || volume.f_bsize == 0 || volume.f_frsize == 0 ||
        volume.f_blocks == 0) {
        return false;
    }
    // Deliberate: despite their names both are in units of 1048576 bytes, and the second is the volume's total size,
    // not the space that is available.
    *uiKBFree = static_cast<unsigned int>(((uint64_t{volume.f_bfree} >> 10) * volume.f_bsize) >> 10);
    *uiKBAvailable = static_cast<unsigned int>(((uint64_t{volume.f_blocks} >> 10) * volume.f_frsize) >> 10);
    return true;
}

int tq_Deltree(const char* directory) {
    return RunOnPath("rm -rf", directory);
}

int tq_RemoveDirectory(const char* directory) {
    return RunOnPath("rmdir", directory);
}

bool tq_CreateDirectory(const char* path) {
    return path && mkdir(path, 0777) == 0;
}

bool tq_CopyFile(const char* srcFile, const char* dstFile) {
    FileCloser from(srcFile ? fopen(srcFile, "rb") : nullptr);
    FileCloser to(from && dstFile ? fopen(dstFile, "wb") : nullptr);
    if (!to) {
        return false;
    }
    char piece[kCopyPieceBytes];
    size_t length = 0;
    do {
        length = fread(piece, 1, sizeof(piece), from.hFile);
        if (fwrite(piece, 1, length, to.hFile) != length) {
            return false;
        }
    } while (length != 0);
    return ferror(from.hFile) == 0 && to.Close(); // what was still buffered may find no room either
}

bool tq_RemoveFile(const char* name) {
    return name && unlink(name) == 0;
}

void* tq_FindFirstFile(const char* pszFilePattern, _TQ_FINDFILE_STRUCT* pFileinfo) {
    if (!pszFilePattern || !pFileinfo) {
        return NoSearch();
    }
    const char* pSlash = strrchr(pszFilePattern, '/');
    const size_t directoryLength = pSlash ? static_cast<size_t>(pSlash - pszFilePattern) + 1 : 0;
    const char* pszPattern = pszFilePattern + directoryLength;
    DIR* pDirectory = OpenDirectoryOf(pszFilePattern, directoryLength);
    if (!pDirectory) {
        errno = EINVAL;
        return NoSearch();
    }
    const struct dirent* pEntry = NextMatch(pDirectory, pszPattern);
    if (!pEntry) {
        closedir(pDirectory);
        errno = ENOENT;
        return NoSearch();
    }
    FillEntry(pDirectory, pEntry->d_name, pFileinfo);
    CopyCut(pFileinfo->pattern, sizeof(pFileinfo->pattern), pszPattern);
    snprintf(pFileinfo->directory_name, sizeof(pFileinfo->directory_name), "%.*s",
             directoryLength > 0 ? static_cast<int>(directoryLength) : 2, directoryLength > 0 ? pszFilePattern : "./");
    return pDirectory;
}

int tq_FindNextFile(void* Handle, _TQ_FINDFILE_STRUCT* pFileinfo) {
    if (!IsSearch(Handle) || !pFileinfo) {
        return 0;
    }
    DIR* pDirectory = static_cast<DIR*>(Handle);
    const struct dirent* pEntry = NextMatch(pDirectory, pFileinfo->pattern);
    if (!pEntry) {
        return 0;
    }
    FillEntry(pDirectory, pEntry->d_name, pFileinfo);
    return 1;
}

int tq_FindClose(void* dir) {
    if (IsSearch(dir)) {
        closedir(static_cast<DIR*>(dir));
    }
    return 1;
}

} // extern "C"
