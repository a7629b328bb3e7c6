// The shared object exports what the public headers declare, all of it and nothing else, and is hardened. The headers
// are read as text: TQ_API in front of a function or a class says that it is public.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <stdio.h>
#include <string>
#include <vector>

namespace {

struct Class {
    std::map<std::string, unsigned int> methods; // defined in the library: name, and how many of that name
    unsigned int constructors = 0;
    bool bDestructor = false;
    bool bVirtual = false;
};

struct Surface {
    std::set<std::string> functions;
    std::map<std::string, Class> classes;
};

std::string ReadHeaders() {
    std::string text;
    for (const auto& entry : std::filesystem::directory_iterator(TQOS_INCLUDE_DIR)) {
        std::ifstream file(entry.path());
        std::ostringstream content;
        content << file.rdbuf();
        text += content.str() + "\n";
    }
    return text;
}

/// Without comments, preprocessor lines and attributes.
std::string CodeOf(std::string text) {
    text = std::regex_replace(text, std::regex("//[^\n]*"), "");
    text = std::regex_replace(text, std::regex(R"(\\\n)"), " ");
    text = std::regex_replace(text, std::regex("(^|\n)[ \t]*#[^\n]*"), "\n");
    return std::regex_replace(text, std::regex(R"(__attribute__\s*\(\([^;{}]*?\)\))"), "");
}

/// The text between the brace at `open` and the one that closes it; what stands in inner braces is left out, a "{}" in
/// its place.
std::string OuterLevel(const std::string& code, size_t open) {
    std::string text;
    int depth = 0;
    for (size_t at = open; at < code.size(); ++at) {
        if (code[at] == '}' && --depth == 0) {
            break;
        }
        if (depth == 1 && code[at] != '{') {
            text += code[at] == '}' ? ' ' : code[at];
        }
        if (code[at] == '{' && ++depth == 2) {
            text += "{};";
        }
    }
    return text;
}

/// The name in front of the first parenthesis, "~" included; empty when there is none.
std::string NameIn(const std::string& declaration) {
    std::smatch found;
    return std::regex_search(declaration, found, std::regex(R"((~?\w+)\s*\()")) ? found[1].str() : "";
}

Class ReadClass(const std::string& name, const std::string& body) {
    Class result;
    std::istringstream declarations(body);
    std::string declaration;
    while (std::getline(declarations, declaration, ';')) {
        const bool bInline = declaration.find("{}") != std::string::npos;
        const bool bDeleted = declaration.find("= delete") != std::string::npos;
        const std::string method = NameIn(declaration);
        result.bVirtual = result.bVirtual || std::regex_search(declaration, std::regex(R"(\b(virtual|override)\b)"));
        if (bInline || bDeleted || method.empty()) {
            continue;
        }
        if (method == name) {
            ++result.constructors;
        } else if (method == "~" + name) {
            result.bDestructor = true;
        } else {
            ++result.methods[method];
        }
    }
    return result;
}

Surface ReadSurface() {
    Surface surface;
    const std::string code = CodeOf(ReadHeaders());
    const std::regex function(R"(TQ_API\s[^;{}()]*?(\w+)\s*\()");
    for (std::sregex_iterator at(code.begin(), code.end(), function), end; at != end; ++at) {
        surface.functions.insert((*at)[1].str());
    }
    const std::regex classHead(R"(class\s+TQ_API\s+(\w+)[^;{]*\{)");
    for (std::sregex_iterator at(code.begin(), code.end(), classHead), end; at != end; ++at) {
        const std::string name = (*at)[1].str();
        const size_t open = static_cast<size_t>(at->position() + at->length() - 1);
        surface.classes[name] = ReadClass(name, OuterLevel(code, open));
    }
    return surface;
}

std::vector<std::string> OutputOf(const char* pszCommand) {
    std::vector<std::string> lines;
    FILE* pOutput = popen(pszCommand, "r");
    EXPECT_NE(nullptr, pOutput);
    char line[1024];
    while (pOutput && fgets(line, sizeof(line), pOutput)) {
        lines.push_back(line);
    }
    EXPECT_EQ(0, pOutput ? pclose(pOutput) : -1);
    return lines;
}

std::set<std::string> ReadExports() {
    std::set<std::string> exports;
    for (const std::string& line : OutputOf(TQOS_NM " -D --defined-only --format=posix " TQOS_LIBRARY)) {
        exports.insert(line.substr(0, line.find(' ')));
    }
    return exports;
}

/// Those of the lines that hold the text.
std::vector<std::string> Holding(const std::vector<std::string>& lines, const std::string& text) {
    std::vector<std::string> found;
    for (const std::string& line : lines) {
        if (line.find(text) != std::string::npos) {
            found.push_back(line);
        }
    }
    return found;
}

std::string Mangled(const std::string& name) {
    return std::to_string(name.size()) + name;
}

/// Takes out of the exports those that begin so; returns how many there were.
unsigned int TakeAll(std::set<std::string>* pExports, const std::string& prefix) {
    unsigned int count = 0;
    auto at = pExports->lower_bound(prefix);
    while (at != pExports->end() && at->compare(0, prefix.size(), prefix) == 0) {
        at = pExports->erase(at);
        ++count;
    }
    return count;
}

void TakeClass(std::set<std::string>* pExports, const std::string& name, const Class& expected) {
    for (const auto& method : expected.methods) {
        const std::string inside = Mangled(name) + Mangled(method.first) + "E";
        EXPECT_EQ(method.second, TakeAll(pExports, "_ZN" + inside) + TakeAll(pExports, "_ZNK" + inside))
            << name << "::" << method.first;
    }
    EXPECT_EQ(expected.constructors, TakeAll(pExports, "_ZN" + Mangled(name) + "C1E")) << name;
    TakeAll(pExports, "_ZN" + Mangled(name) + "C2E");
    EXPECT_EQ(expected.bDestructor ? 1u : 0u, TakeAll(pExports, "_ZN" + Mangled(name) + "D1E")) << name;
    TakeAll(pExports, "_ZN" + Mangled(name) + "D2E");
    // An application that derives from the class asks for its table and, when it is built with RTTI, for its type.
    const unsigned int once = expected.bVirtual ? 1u : 0u;
    EXPECT_EQ(once, TakeAll(pExports, "_ZN" + Mangled(name) + "D0E")) << name;
    EXPECT_EQ(once, TakeAll(pExports, "_ZTV" + Mangled(name))) << name;
    EXPECT_EQ(once, TakeAll(pExports, "_ZTI" + Mangled(name))) << name;
    EXPECT_EQ(once, TakeAll(pExports, "_ZTS" + Mangled(name))) << name;
}

TEST(Surface, TheSharedObjectExportsWhatTheHeadersDeclareAndNothingElse) {
    const Surface surface = ReadSurface();
    std::set<std::string> exports = ReadExports();
    for (const std::string& function : surface.functions) {
        EXPECT_EQ(1u, exports.erase(function)) << function << " is declared and not exported";
    }
    for (const auto& entry : surface.classes) {
        TakeClass(&exports, entry.first, entry.second);
    }
    EXPECT_EQ(std::set<std::string>{}, exports) << "exported and not declared";
}

TEST(Surface, TheHeadersAreUnderstood) {
    const Surface surface = ReadSurface();
    for (const char* pszFunction : {"tqOS_Initialize", "tq__beginthread", "tq_Trace", "LogCriticalError", "_strlwr",
                                    "tq_SocketOpenTCPServer", "tqos_SignalHandler"}) {
        EXPECT_EQ(1u, surface.functions.count(pszFunction)) << pszFunction;
    }
    for (const char* pszClass :
         {"tq_MsgQ", "tq_List", "tq_SemMutex", "tq_SemCritSec", "tq_SemSemaphore", "tq_SemEvent"}) {
        EXPECT_EQ(1u, surface.classes.count(pszClass)) << pszClass;
    }
    const Class& list = surface.classes.at("tq_List");
    EXPECT_TRUE(list.bVirtual);
    EXPECT_TRUE(list.bDestructor);
    EXPECT_EQ(3u, list.constructors);
    EXPECT_EQ(2u, list.methods.at("AddNode"));
    const Class& critSec = surface.classes.at("tq_SemCritSec");
    EXPECT_FALSE(critSec.bVirtual);
    EXPECT_EQ(1u, critSec.methods.count("_Enter"));
    EXPECT_EQ(0u, critSec.methods.count("Enter")); // inline
}

TEST(Hardening, NothingIsBothWritableAndExecutable) {
    const std::vector<std::string> segments = OutputOf(TQOS_READELF " -lW " TQOS_LIBRARY);
    EXPECT_FALSE(Holding(segments, "LOAD").empty());
    EXPECT_TRUE(Holding(Holding(segments, "LOAD"), "RWE").empty());
    const std::vector<std::string> stack = Holding(segments, "GNU_STACK");
    ASSERT_EQ(1u, stack.size());
    EXPECT_EQ(std::string::npos, stack[0].find("RWE")) << stack[0];
}

TEST(Hardening, RelocationsAreDoneAtTheStartAndClosed) {
    EXPECT_EQ(1u, Holding(OutputOf(TQOS_READELF " -lW " TQOS_LIBRARY), "GNU_RELRO").size());
    const std::vector<std::string> dynamic = OutputOf(TQOS_READELF " -dW " TQOS_LIBRARY);
    EXPECT_FALSE(Holding(dynamic, "NOW").empty());
    EXPECT_TRUE(Holding(dynamic, "TEXTREL").empty());
}

TEST(Hardening, BuffersAndStacksAreChecked) {
    const std::vector<std::string> imports = OutputOf(TQOS_NM " -D --undefined-only " TQOS_LIBRARY);
    EXPECT_FALSE(Holding(imports, "__stack_chk_fail").empty());
    EXPECT_EQ(TQOS_DEBUG_BUILD, Holding(imports, "__vsnprintf_chk").empty());
}

} // namespace
