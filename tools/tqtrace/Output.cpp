#include "Output.h"

#include <errno.h>
#include <string.h>
#include <unistd.h>

namespace tqtrace {

bool Output::Open(const std::string& path, uint64_t maxBytes, unsigned int maxFiles, std::string* pProblem) {
    m_path = path;
    m_maxBytes = maxBytes;
    m_maxFiles = maxFiles;
    if (!OpenFile()) {
        *pProblem = path + ": " + strerror(errno);
        return false;
    }
    return true;
}

bool Output::OpenFile() {
    m_pFile = fopen(m_path.c_str(), "ae");
    if (m_pFile) {
        fseeko(m_pFile, 0, SEEK_END);
        m_bytes = static_cast<uint64_t>(ftello(m_pFile));
    }
    return m_pFile != nullptr;
}

void Output::Close() {
    if (m_pFile) {
        m_bFailed = fclose(m_pFile) != 0 || m_bFailed;
        m_pFile = nullptr;
    }
}

void Output::Rotate() {
    Close();
    for (unsigned int number = m_maxFiles - 1; number > 0; --number) {
        const std::string from = number > 1 ? m_path + "." + std::to_string(number - 1) : m_path;
        rename(from.c_str(), (m_path + "." + std::to_string(number)).c_str()); // in place of what is there
    }
    if (m_maxFiles == 1) {
        unlink(m_path.c_str());
    }
    m_bFailed = !OpenFile() || m_bFailed;
}

void Output::Write(const std::string& lines) {
    if (m_pFile && m_maxBytes > 0 && m_bytes > 0 && m_bytes + lines.size() > m_maxBytes) {
        Rotate();
    }
    if (m_bFailed) {
        return;
    }
    m_bytes += lines.size();
    m_bFailed = fwrite(lines.data(), 1, lines.size(), m_pFile ? m_pFile : stdout) != lines.size();
}

void Output::Flush() {
    m_bFailed = fflush(m_pFile ? m_pFile : stdout) != 0 || m_bFailed;
}

} // namespace tqtrace
