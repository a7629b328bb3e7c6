/// @file Output.h
/// Where lines go: standard output, or a file that rotates.
#ifndef TQTRACE_OUTPUT_H
#define TQTRACE_OUTPUT_H

#include <stdint.h>
#include <stdio.h>
#include <string>

namespace tqtrace {

class Output {
public:
    Output() = default;
    ~Output() { Close(); }
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    /// Appends to a file from now on. One that would grow beyond maxBytes becomes PATH.1, PATH.1 becomes PATH.2, and so
    /// on; what would be PATH.maxFiles is removed. False, with the reason, when it cannot be opened.
    /// @param maxBytes  0: it grows without end
    /// @param maxFiles  all of them, the one that is written included
    bool Open(const std::string& path, uint64_t maxBytes, unsigned int maxFiles, std::string* pProblem);

    /// Lines are never cut by a rotation.
    void Write(const std::string& lines);
    void Flush();

    /// Something could not be written: the disk is full, or nobody reads any more.
    bool HasFailed() const { return m_bFailed; }

private:
    void Close();
    bool OpenFile();
    void Rotate();

    FILE* m_pFile = nullptr; ///< null: standard output
    std::string m_path;
    uint64_t m_maxBytes = 0;
    unsigned int m_maxFiles = 1;
    uint64_t m_bytes = 0; ///< in the file
    bool m_bFailed = false;
};

} // namespace tqtrace

#endif // TQTRACE_OUTPUT_H
