/// @file tq_Dir.h
#ifndef TQ_DIR_H
#define TQ_DIR_H

#include <stdio.h>

#include "tq_Types.h"

typedef struct _TQ_FINDFILE_STRUCT {
    bool bIsDir;
    unsigned int uiLastWriteTime;
    char pFilename[260];
    char pattern[260];
    char directory_name[260];
} TQ_FINDFILE_STRUCT;

extern "C" {

TQ_API char* tq_fgets(char* pBuffer, int len, FILE* hFile);
TQ_API bool FindSection(FILE* hFile, const char* pszSection, FILE* hFileOut);
TQ_API int FindKey(FILE* hFile, const char* pszKey, char* pszKeyValue, unsigned int nKeyValueSize, FILE* hFileOut);
TQ_API int FindSectionKey(const char* pszFilename, const char* pszSection, const char* pszKey, char* pszReturn,
                          unsigned int nSize);
TQ_API int tq_GetINIFileString(const char* pszSection, const char* pszKey, const char* pszDefault,
                               char* pszReturnString, unsigned int uiReturnBytes, const char* pszFilename);
TQ_API int tq_GetINIFileInt(const char* pszSection, const char* pszKey, int iDefault, const char* pszFilename);
TQ_API bool tq_GetINIFileAffirmative(const char* pszSection, const char* pszKey, const char* pszDefault,
                                     const char* pszFilename);
TQ_API int tq_WriteINIFileString(const char* pszSection, const char* pszKey, const char* pszString,
                                 const char* pszFilename);
TQ_API int tq_WriteINIFileInt(const char* pszSection, const char* pszKey, int iValue, const char* pszFilename);
TQ_API unsigned int tq_SetWorkingDirectory(const char* pszNewPath);
TQ_API unsigned int tq_SetWorkingDirectoryFromArgv(const char* pszNewPath);
TQ_API unsigned int tq_GetWorkingDirectory(char* pszPath, unsigned int PathLen);

TQ_API bool tq_GetVolumeInfo(const char* pszPath, unsigned int* uiKBFree, unsigned int* uiKBAvailable);
TQ_API int tq_Deltree(const char* directory);
TQ_API int tq_RemoveDirectory(const char* directory);
TQ_API bool tq_CreateDirectory(const char* path);
TQ_API bool tq_CopyFile(const char* srcFile, const char* dstFile);
TQ_API bool tq_RemoveFile(const char* name);
TQ_API void* tq_FindFirstFile(const char* pszFilePattern, _TQ_FINDFILE_STRUCT* pFileinfo);
TQ_API int tq_FindNextFile(void* Handle, _TQ_FINDFILE_STRUCT* pFileinfo);
TQ_API int tq_FindClose(void* dir);

} // extern "C"

#endif // TQ_DIR_H
