/// @file ConsoleClient.h
/// A session of the console as a test sees it: a plain TCP connection, what is typed into it, and what must come back,
/// byte for byte. Whole sessions are written down as text files, see RunSession().
#ifndef CONSOLE_CLIENT_H
#define CONSOLE_CLIENT_H

#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "SocketPeers.h"

namespace test {

/// Bytes as a test's message shows them.
inline std::string Shown(const std::string& bytes) {
    std::string text;
    for (unsigned char byte : bytes) {
        char hex[8];
        snprintf(hex, sizeof(hex), "\\x%02x", byte);
        text += byte == '\r' ? "\\r" : byte == '\n' ? "\\n\n" : byte < 32 || byte > 126 ? hex : std::string(1, byte);
    }
    return text;
}

/// Values that stand in a session's text as {name}.
typedef std::map<std::string, std::string> Values;

/// The other end of a session.
class ConsoleClient {
public:
    explicit ConsoleClient(unsigned int port) : m_fd(ConnectedPeer(port)) {}
    explicit ConsoleClient(Fd fd) : m_fd(std::move(fd)) {}

    void Send(const std::string& bytes) {
        for (size_t sent = 0; sent < bytes.size();) {
            const ssize_t result = write(m_fd.Get(), bytes.data() + sent, bytes.size() - sent);
            ASSERT_GT(result, 0) << strerror(errno);
            sent += static_cast<size_t>(result);
        }
    }

    /// The next byte, which stays; -1 at the end of the connection.
    int Peek() {
        if (m_at == m_buffer.size()) {
            m_buffer.clear();
            m_at = 0;
            char bytes[4096];
            const ssize_t length = WaitReadable(m_fd) ? read(m_fd.Get(), bytes, sizeof(bytes)) : 0;
            if (length <= 0) {
                return -1;
            }
            m_buffer.assign(bytes, static_cast<size_t>(length));
        }
        return static_cast<unsigned char>(m_buffer[m_at]);
    }

    int Get() {
        const int byte = Peek();
        if (byte >= 0) {
            m_came += static_cast<char>(byte);
            ++m_at;
        }
        return byte;
    }

    /// Reads exactly what the pattern says: its bytes, and where it has a field what the field stands for.
    ///   {time} date and time; {d} digits; {x} hexadecimal digits; {5d} five digits or blanks; {8x} eight hexadecimal
    ///   digits; {20*} twenty bytes; {line} the rest of the line
    /// Fails the test at the first byte that differs; false then.
    bool Expect(const std::string& pattern) {
        m_came.clear();
        for (size_t at = 0; at < pattern.size();) {
            const std::string field = FieldAt(pattern, at);
            const bool bDone = field.empty() ? Get() == static_cast<unsigned char>(pattern[at]) : Field(field);
            if (!bDone) {
                ADD_FAILURE() << "expected, from the wrong byte on: " << Shown(pattern.substr(at, kShownBytes))
                              << "\nwhat came, the wrong byte (or the end of the session) last:\n"
                              << Shown(LastOf(m_came)) << "\nafter it: " << Shown(Rest());
                return false;
            }
            at += field.empty() ? 1 : field.size() + 2;
        }
        return true;
    }

    /// Reads until the text has come, and returns all up to its end.
    std::string ReadTo(const std::string& text) {
        m_came.clear();
        while (m_came.size() < text.size() || m_came.compare(m_came.size() - text.size(), text.size(), text) != 0) {
            if (Get() < 0) {
                ADD_FAILURE() << "never came: " << Shown(text) << "\ncame last: " << Shown(LastOf(m_came));
                break;
            }
        }
        return m_came;
    }

    /// What a program that stands between says of its own when the session has ended.
    void ExpectAtEnd(const std::string& text) { m_atEnd = text; }

    /// The session has ended, and nothing more came before.
    bool IsClosed() {
        if (!m_atEnd.empty() && !Expect(m_atEnd)) {
            return false;
        }
        const int byte = Peek();
        EXPECT_EQ(-1, byte) << Shown(Rest());
        return byte == -1;
    }

    void Close() { m_fd.Close(); }
    const Fd& Descriptor() const { return m_fd; }

private:
    static constexpr size_t kShownBytes = 500;

    static std::string LastOf(const std::string& text) {
        return text.size() > kShownBytes ? text.substr(text.size() - kShownBytes) : text;
    }

    /// The field that begins at a place of a pattern, without its braces; empty when none does.
    static std::string FieldAt(const std::string& pattern, size_t at) {
        const size_t end = pattern[at] == '{' ? pattern.find('}', at) : std::string::npos;
        if (end == std::string::npos) {
            return "";
        }
        const std::string field = pattern.substr(at + 1, end - at - 1);
        const size_t digits = field.find_first_not_of("0123456789");
        const bool bCounted = digits != std::string::npos && digits + 1 == field.size() &&
                              strchr(digits > 0 ? "dx*" : "dx", field[digits]);
        return bCounted || field == "time" || field == "line" ? field : "";
    }

    static bool IsDigit(int byte) { return byte >= '0' && byte <= '9'; }
    static bool IsHex(int byte) {
        return IsDigit(byte) || (byte >= 'a' && byte <= 'f') || (byte >= 'A' && byte <= 'F');
    }

    static bool Matches(char kind, int byte) {
        return byte >= 0 &&
               (kind == '*' || (kind == 'd' && (IsDigit(byte) || byte == ' ')) || (kind == 'x' && IsHex(byte)));
    }

    bool Field(const std::string& field) {
        if (field == "time") {
            return Field("24*");
        }
        if (field == "line") {
            while (Peek() >= 0 && Peek() != '\r') {
                Get();
            }
            return true;
        }
        const char kind = field.back();
        if (field.size() == 1) {
            const auto fits = kind == 'd' ? IsDigit : IsHex;
            bool bAny = false;
            while (fits(Peek())) {
                Get();
                bAny = true;
            }
            return bAny;
        }
        for (int left = std::stoi(field); left > 0; --left) {
            if (!Matches(kind, Get())) {
                return false;
            }
        }
        return true;
    }

    /// What has been read already, for the message.
    std::string Rest() { return m_buffer.substr(m_at, kShownBytes); }

    Fd m_fd;
    std::string m_buffer;
    size_t m_at = 0;
    std::string m_came;
    std::string m_atEnd;
};

/// \r, \n, \t, \e, \b, \\ and \xHH as the bytes they stand for.
inline std::string Unescaped(const std::string& text) {
    static const std::map<char, char> kEscapes = {{'r', '\r'}, {'n', '\n'}, {'e', '\x1b'},
                                                  {'b', '\b'}, {'t', '\t'}, {'\\', '\\'}};
    std::string bytes;
    for (size_t at = 0; at < text.size(); ++at) {
        if (text[at] != '\\' || at + 1 == text.size()) {
            bytes += text[at];
        } else if (text[++at] == 'x') {
            bytes += static_cast<char>(std::stoi(text.substr(at + 1, 2), nullptr, 16));
            at += 2;
        } else {
            bytes += kEscapes.at(text[at]);
        }
    }
    return bytes;
}

inline std::string WithValues(std::string text, const Values& values) {
    for (const auto& value : values) {
        const std::string name = "{" + value.first + "}";
        for (size_t at = text.find(name); at != std::string::npos; at = text.find(name, at + value.second.size())) {
            text.replace(at, name.size(), value.second);
        }
    }
    return text;
}

/// The bytes that a line of a session's text stands for, with what ends it: a line end, or nothing after a backslash.
inline std::string LineBytes(std::string line) {
    const bool bOpen = !line.empty() && line.back() == '\\' && (line.size() < 2 || line[line.size() - 2] != '\\');
    if (bOpen) {
        line.pop_back();
    }
    return Unescaped(line) + (bOpen ? "" : "\r\n");
}

/// Holds a session as a text file has it, line by line:
///   # ...     a remark
///   send: ... these bytes are typed
///   |...      this comes back, and a line end; without one where the line ends with a backslash
///   closed    the session ends, and nothing more has come
/// Escapes are those of Unescaped(), fields those of ConsoleClient::Expect(), and {name} stands for a value.
inline void RunSession(ConsoleClient& client, const std::string& path, const Values& values) {
    std::istringstream file(ReadFile(path));
    std::string line;
    std::string expected;
    unsigned int number = 0;
    const auto expect = [&] {
        const bool bCame = client.Expect(expected);
        expected.clear();
        return bCame;
    };
    ASSERT_TRUE(FileExists(path)) << path;
    while (std::getline(file, line)) {
        ++number;
        SCOPED_TRACE(path + " before line " + std::to_string(number));
        line = WithValues(line, values);
        if (line.rfind("|", 0) == 0) {
            expected += LineBytes(line.substr(1));
            continue;
        }
        if (line.empty() || line[0] == '#') {
            continue;
        }
        ASSERT_TRUE(expect());
        if (line == "closed") {
            ASSERT_TRUE(client.IsClosed());
        } else {
            ASSERT_EQ(0u, line.rfind("send: ", 0)) << line;
            client.Send(Unescaped(line.substr(6)));
        }
    }
    ASSERT_TRUE(expect());
}

} // namespace test

#endif // CONSOLE_CLIENT_H
