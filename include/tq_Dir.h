/// @file tq_Dir.h
/// Configuration files in INI form, the working directory, and files and directories.
///
/// The library reads its own settings from "tqos.ini" through these functions while it starts; an application may keep
/// its settings in a section of that file or in a file of its own. Nothing is kept in memory: each lookup reads the
/// file from its start. A file holds sections of keys:
///
///     [Memory]
///       EnableMemoryTracking = yes
///       DirtyMemoryAlloc=0xCD
///
/// - Section and key names are compared without regard to case. Nothing may stand between a header's brackets and the
///   name; what follows "]" is ignored. The first section of a name counts, and in it the first key of a name.
/// - A value runs to the end of the line, without the blanks, tabs and line ends around it. Quotes are part of it.
/// - There are no comments: a line that is neither a header nor the key in question is passed over. Keys before the
///   first header are never found.
/// - Lines end in "\n" or "\r\n"; what the library writes ends in "\r\n". A line is read in pieces of 511 characters,
///   each of which counts as a line.
/// - A FIFO or a device counts as a file that cannot be opened.
///
/// All functions may be called from any thread and at any time; none traces, and only those that write settings take a
/// lock of the library, that of its memory. Nobody guards a file against a reader and a writer, or two writers, at the
/// same time. The working directory is the whole process's.
#ifndef TQ_DIR_H
#define TQ_DIR_H

#include <stdio.h>

#include "tq_Types.h"

/// A directory search: what was found, and what is looked for. Fields of 260 bytes cut longer names.
typedef struct _TQ_FINDFILE_STRUCT {
    bool bIsDir;                  ///< the entry is a directory (or a socket or block device)
    unsigned int uiLastWriteTime; ///< when it was last modified, seconds since the start of 1970
    char pFilename[260];          ///< its name, without directory
    char pattern[260];            ///< the name pattern; left to the search
    char directory_name[260];     ///< the directory that is searched, with its "/"; left to the search
} TQ_FINDFILE_STRUCT;

extern "C" {

// ---- Reading settings

/// Reads a value as text.
/// @param pszSection       the section
/// @param pszKey           the key; null lists the keys of the section, as FindKey() does
/// @param pszDefault       what to give when the key is not there; may be null, may be pszReturnString itself
/// @param pszReturnString  receives the text, cut to uiReturnBytes - 1 characters; null to learn the length only
/// @param uiReturnBytes    size of that buffer
/// @param pszFilename      the file
/// @return the length of the text. A key without a value gives an empty text and 1, not its default. Not found: the
///         length of the default, or 0 without one
/// Threads: any.
TQ_API int tq_GetINIFileString(const char* pszSection, const char* pszKey, const char* pszDefault,
                               char* pszReturnString, unsigned int uiReturnBytes, const char* pszFilename);

/// Reads a value as a number, by its first 11 characters: "0x" or "0X" makes it hexadecimal (what is no hexadecimal
/// digit is then passed over), anything else is read as atoi() does, held to the range of an int. What is no number,
/// and a key without a value, is 0.
/// @return the number; iDefault when the key is not there or a name is null
/// Threads: any.
TQ_API int tq_GetINIFileInt(const char* pszSection, const char* pszKey, int iDefault, const char* pszFilename);

/// Reads a value as a switch, by its first 11 characters.
/// @param pszSection   without brackets; null counts as one that is not there
/// @param pszKey       the key; not null
/// @param pszDefault   judged in the same way when the key is not there; may be null
/// @param pszFilename  the file; null counts as one that is not there
/// @return true for "yes", "y", "true" and "1" in any case; false for everything else
/// Threads: any.
TQ_API bool tq_GetINIFileAffirmative(const char* pszSection, const char* pszKey, const char* pszDefault,
                                     const char* pszFilename);

// ---- Writing settings

/// Writes a key, in place of the one that is there, at the end of its section, or in a new section at the end of the
/// file; makes the file when there is none. A file that already holds the value is not touched. The change goes through
/// a temporary file beside the file ("__temp__" and the name); should that name and the four after it all be taken,
/// nothing is written, but the last of those files is removed all the same.
/// @return 1 the file holds the value; 0 a name or the value is null, there is no memory, or the files could not be
///         opened or written
/// Threads: any, one a file.
TQ_API int tq_WriteINIFileString(const char* pszSection, const char* pszKey, const char* pszString,
                                 const char* pszFilename);

/// Writes a number in decimal, as tq_WriteINIFileString() does.
/// @return as tq_WriteINIFileString()
/// Threads: any, one a file.
TQ_API int tq_WriteINIFileInt(const char* pszSection, const char* pszKey, int iValue, const char* pszFilename);

// ---- What the settings are read with

/// Reads a line: up to and including a line feed, len - 1 characters at most. Line ends stay in it.
/// @param pBuffer  receives the line, closed with a zero
/// @param len      size of the buffer, at least 2
/// @param hFile    read from where it stands
/// @return pBuffer; null at the end of the file, when it cannot be read, for a null argument and for a smaller len
/// Threads: any, one a file.
TQ_API char* tq_fgets(char* pBuffer, int len, FILE* hFile);

/// Reads from where the file stands past the header of a section.
/// @param hFile       open for reading
/// @param pszSection  without brackets
/// @param hFileOut    receives every line that is read, the header included; null for none
/// @return true: the file stands behind the header; false: not found, or a null argument
/// Threads: any, one a file.
TQ_API bool FindSection(FILE* hFile, const char* pszSection, FILE* hFileOut);

/// Works on the section that the file stands in, in one of three ways:
/// - pszKey given, hFileOut null: reads the key's value into pszKeyValue, cut to nKeyValueSize - 1 characters, and
///   returns its length (1 for an empty value, if there is room for 2 bytes); 0 when the key is not in the section.
///   With pszKeyValue null it returns the length alone.
/// - pszKey and hFileOut null: lists the names of the section's keys, one after the other, each with its zero byte, and
///   one more zero byte at the end; returns the number of bytes, 0 for no key. A name that does not fit is left out.
///   With pszKeyValue null it returns the number of bytes alone.
/// - hFileOut given: copies the rest of the file to it with the key's line replaced, or a line for it added at the end
///   of the section. pszKeyValue is the new value; returns its length.
/// @return as above; 0 when hFile is null, or hFileOut is given and pszKey or pszKeyValue is null
/// Threads: any, one a file.
TQ_API int FindKey(FILE* hFile, const char* pszKey, char* pszKeyValue, unsigned int nKeyValueSize, FILE* hFileOut);

/// Reads a key, or lists the keys (pszKey null), of a section of a file.
/// @return as FindKey(); 0 when the file name or the section is null, or the file or the section is not there
/// Threads: any.
TQ_API int FindSectionKey(const char* pszFilename, const char* pszSection, const char* pszKey, char* pszReturn,
                          unsigned int nSize);

// ---- Working directory

/// Changes the working directory.
/// @return 1 done; 0 not, or the path is null
/// Threads: any.
TQ_API unsigned int tq_SetWorkingDirectory(const char* pszNewPath);

/// Changes to the directory of a program's own path (argv[0], of which 511 characters count): what stands before its
/// last "/", or before its last "\" when it has no "/".
/// @return 1 done; 0 the path is null, holds no separator or nothing before it, or the change failed; the working
///         directory is then as it was
/// Threads: any.
TQ_API unsigned int tq_SetWorkingDirectoryFromArgv(const char* pszNewPath);

/// The working directory's path.
/// @return 1 done; 0 the buffer is null, empty or too small
/// Threads: any.
TQ_API unsigned int tq_GetWorkingDirectory(char* pszPath, unsigned int PathLen);

// ---- Files and directories

/// Free space and size of the volume that holds a path.
/// @param pszPath        null for the working directory
/// @param uiKBFree       receives the free space, despite its name in units of 1048576 bytes; not null
/// @param uiKBAvailable  receives the volume's total size, despite its name, in the same units; not null
/// @return true; false when the volume cannot be asked or has no blocks
/// Threads: any.
TQ_API bool tq_GetVolumeInfo(const char* pszPath, unsigned int* uiKBFree, unsigned int* uiKBAvailable);

/// Removes a directory and all it holds with the shell's "rm -rf". The path is not quoted: the shell splits one with
/// blanks, and expands its wildcards.
/// @return what system() gives; -1 for a null path or one of 256 characters or more, for which nothing is run. After
///         tqOS_Initialize() system() cannot learn the command's status and gives -1 although the command has run
/// Threads: any.
TQ_API int tq_Deltree(const char* directory);

/// Removes an empty directory with the shell's "rmdir". The path is given to the shell as tq_Deltree() gives it.
/// @return as tq_Deltree(); also what system() gives when the directory is not there or holds something
/// Threads: any.
TQ_API int tq_RemoveDirectory(const char* directory);

/// Makes a directory; its parent must be there. All may use it as far as the umask lets them.
/// @return true; false when it is there already or cannot be made, or the path is null
/// Threads: any.
TQ_API bool tq_CreateDirectory(const char* path);

/// Copies a file's content over another file, which is made when it is not there.
/// @return true; false when a file could not be opened or not all could be written (the destination is left as far as
///         it got), or a name is null
/// Threads: any.
TQ_API bool tq_CopyFile(const char* srcFile, const char* dstFile);

/// Removes a file.
/// @return true; false when it cannot be removed or the name is null
/// Threads: any.
TQ_API bool tq_RemoveFile(const char* name);

/// Starts a search for the entries of a directory, "." and ".." included, in the order the system gives.
/// @param pszFilePattern  the directory up to the last "/" (without one: "./"), then a pattern for the names, with the
///                        shell's wildcards
/// @param pFileinfo       receives the first entry; the search goes on with the same record
/// @return the search, to be ended with tq_FindClose(); (void*)-1 when the directory cannot be opened (errno is
///         EINVAL), no name matches (errno is ENOENT), or an argument is null
/// Threads: any.
TQ_API void* tq_FindFirstFile(const char* pszFilePattern, _TQ_FINDFILE_STRUCT* pFileinfo);

/// The next entry of a search.
/// @param Handle     from tq_FindFirstFile()
/// @param pFileinfo  the record that tq_FindFirstFile() filled
/// @return 1 found; 0 no more, Handle is null or (void*)-1, or pFileinfo is null. The search stays open
/// Threads: any, one a search.
TQ_API int tq_FindNextFile(void* Handle, _TQ_FINDFILE_STRUCT* pFileinfo);

/// Ends a search; null and (void*)-1 are passed over.
/// @return 1
/// Threads: any.
TQ_API int tq_FindClose(void* dir);

} // extern "C"

#endif // TQ_DIR_H
