// What tqcon knows of the console's commands, beside the console's own tables; and its options.
#include <gtest/gtest.h>

#include "Commands.h"
#include "Options.h"
#include "tq_Telnet_p.h"

namespace {

/// Both trees have the same keywords in the same order, the same modifiers and the same branches.
void ExpectSameTree(const TOKEN_PARSER* pDevice, const tqcon::Keyword* pOurs, const std::string& above) {
    for (; pDevice->pszToken && pOurs->pszWord; ++pDevice, ++pOurs) {
        const std::string word = above + pDevice->pszToken;
        EXPECT_EQ(word, above + pOurs->pszWord);
        EXPECT_EQ(pDevice->uiFlagValue != 0, pOurs->bModifier) << word;
        ASSERT_EQ(pDevice->pNextTokenStruct != nullptr, pOurs->pNext != nullptr) << word;
        if (pOurs->pNext) {
            ExpectSameTree(pDevice->pNextTokenStruct, pOurs->pNext, word + " ");
        }
    }
    EXPECT_EQ(nullptr, pDevice->pszToken);
    EXPECT_EQ(nullptr, pOurs->pszWord);
}

TEST(Commands, AreThoseOfTheConsole) {
    ExpectSameTree(kTopCommands, tqcon::kCommands, "");
}

struct CommandRow {
    const char* pszLine;
    const char* pszName;
    bool bDetail;
    std::vector<std::string> arguments;
};

TEST(Commands, AreUnderstoodAsTheConsoleDoes) {
    const CommandRow rows[] = {
        {"sh q", "show queues", false, {}},
        {"SHOW Queues", "show queues", false, {}},
        {"  sh\tdet  q 17", "show queues", true, {"17"}},
        {"sh tr det", "show trace", false, {"det"}},
        {"se sampler help", "send", false, {"sampler", "help"}},
        {"set tr en file \"a b\" x", "set trace file", false, {"a b", "x"}},
        {"t", "", false, {}},
        {"sh", "", false, {}},
        {"sh nothing", "", false, {}},
        {"shows q", "", false, {}},
        {"", "", false, {}},
        {"sh t", "show timers", false, {}},
        {"?", "?", false, {}},
    };
    for (const CommandRow& row : rows) {
        const tqcon::Command command = tqcon::ParseCommand(row.pszLine);
        EXPECT_EQ(row.pszName, command.name) << row.pszLine;
        EXPECT_EQ(row.bDetail, command.bDetail) << row.pszLine;
        EXPECT_EQ(row.arguments, command.arguments) << row.pszLine;
    }
}

TEST(Options, AScriptsLinesEndAnyWay) {
    const std::vector<std::string> lines = {"one", "two  ", " three", "four"};
    EXPECT_EQ(lines, tqcon::ScriptLines("one\ntwo  \r\n\r three\r# remark\n\t\n\n  # another\r\nfour"));
    EXPECT_TRUE(tqcon::ScriptLines("").empty());
}

struct AddressRow {
    const char* pszText;
    const char* pszHost;
    const char* pszPort;
};

TEST(Options, AnAddressIsAHostAndAPort) {
    const AddressRow rows[] = {{"device:23", "device", "23"},
                               {"10.0.0.1:2300", "10.0.0.1", "2300"},
                               {"[::1]:23", "::1", "23"},
                               {"device", "device", ""},
                               {":23", "", "23"},
                               {"device:", "device", ""}};
    for (const AddressRow& row : rows) {
        const tools::Address address = tools::ParseAddress(row.pszText);
        EXPECT_EQ(row.pszHost, address.host) << row.pszText;
        EXPECT_EQ(row.pszPort, address.port) << row.pszText;
    }
}

} // namespace
