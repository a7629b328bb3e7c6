/// @file PageExample.h
/// The examples of a page of docs/, which are what the library really sends and takes. They stand in blocks that begin
/// with "```bytes"; a line is who speaks, and what:
///   device  FF FB 01 ... "login: "     bytes in hexadecimal, texts, and "..." for whatever comes up to the next
#ifndef PAGE_EXAMPLE_H
#define PAGE_EXAMPLE_H

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "TestSupport.h"

namespace test {

/// A line of an example.
struct Spoken {
    std::string line;                ///< as the page has it
    std::string speaker;             ///< its first word
    std::vector<std::string> pieces; ///< bytes, with a gap between one piece and the next

    std::string Bytes() const { return pieces[0]; }

    /// Whether a datagram is what the line says.
    bool Is(const std::string& datagram) const {
        size_t at = pieces[0].size();
        bool bFits = datagram.compare(0, at, pieces[0]) == 0;
        for (size_t i = 1; bFits && i < pieces.size(); ++i) {
            const bool bLast = i + 1 == pieces.size();
            const size_t found =
                bLast ? datagram.size() - std::min(datagram.size(), pieces[i].size()) : datagram.find(pieces[i], at);
            bFits =
                found != std::string::npos && found >= at && datagram.compare(found, pieces[i].size(), pieces[i]) == 0;
            at = found + pieces[i].size();
        }
        return bFits && at == datagram.size();
    }
};

inline Spoken SpokenLine(const std::string& line) {
    Spoken spoken = {line, "", {""}};
    std::istringstream words(line);
    words >> spoken.speaker;
    while (words >> std::ws && words.peek() != std::istringstream::traits_type::eof()) {
        std::string word;
        if (words.peek() == '"') {
            words.get();
            std::getline(words, word, '"');
            spoken.pieces.back() += word;
        } else if (words >> word && word == "...") {
            spoken.pieces.push_back("");
        } else {
            EXPECT_EQ(2u, word.size()) << line;
            spoken.pieces.back() += static_cast<char>(std::stoi(word, nullptr, 16));
        }
    }
    return spoken;
}

/// All lines of a page's examples, in their order.
inline std::vector<Spoken> PageExample(const std::string& page) {
    std::istringstream file(ReadFile(std::string(TQOS_TEST_SOURCES) + "/../docs/" + page));
    std::vector<Spoken> lines;
    bool bExample = false;
    for (std::string line; std::getline(file, line);) {
        if (line.rfind("```", 0) == 0) {
            bExample = line == "```bytes";
        } else if (bExample) {
            lines.push_back(SpokenLine(line));
        }
    }
    EXPECT_LT(5u, lines.size()) << "no examples in " << page;
    return lines;
}

} // namespace test

#endif // PAGE_EXAMPLE_H
