#include "tq_Report_p.h"

#include <gtest/gtest.h>
#include <string>

#include "MemoryCap.h"
#include "TestSupport.h"
#include "tq_Memory.h"

using test::AllocatedBytes;
using test::Cap;
using test::kCapped;
using test::Library;

namespace {

/// What a report hands over.
std::string Released(tq_ReportText& report) {
    char* const pszText = report.Release();
    const std::string text = pszText ? pszText : "(none)";
    tq_free(pszText);
    return text;
}

} // namespace

TEST(ReportText, GrowsWithWhatIsAppended) {
    Library library;
    tq_ReportText report(1);
    std::string expected;
    for (int i = 0; i < 200; ++i) {
        report.Append("%d,", i);
        expected += std::to_string(i) + ",";
        EXPECT_EQ(expected.size(), report.Length());
    }
    EXPECT_EQ(expected, Released(report));
}

TEST(ReportText, APieceThatJustFitsLeavesRoomForItsEnd) {
    Library library;
    for (unsigned int length = 0; length < 20; ++length) {
        tq_ReportText report(10);
        report.Append("%s", std::string(length, 'x').c_str());
        report.Append("%s", "y");
        EXPECT_EQ(std::string(length, 'x') + "y", Released(report));
    }
}

TEST(ReportText, APieceWithoutMemoryForItIsLeftOutWhole) {
    Library library(kCapped);
    tq_ReportText report(8);
    report.Append("first");
    {
        const Cap none(0);
        report.Append("%s", std::string(1000, 'x').c_str());
    }
    report.Append("last");
    EXPECT_EQ("firstlast", Released(report));
}

TEST(ReportText, WithoutItsFirstBufferItIsNone) {
    Library library(kCapped);
    const Cap none(0);
    tq_ReportText report(1000);
    EXPECT_FALSE(report);
    report.Append("lost");
    EXPECT_EQ("(none)", Released(report));
}

TEST(ResponseList, ResponsesThatAreNeverSentAreGivenBack) {
    Library library(kCapped);
    const unsigned int before = AllocatedBytes();
    {
        tq_ResponseList responses;
        responses.Add("%s", "");
        responses.Add("%s", std::string(1000, 'x').c_str());
        EXPECT_LT(before + 1000, AllocatedBytes());
    }
    EXPECT_EQ(before, AllocatedBytes());
}

TEST(ResponseList, AResponseWithoutMemoryIsLeftOut) {
    Library library(kCapped);
    const unsigned int before = AllocatedBytes();
    tq_ResponseList responses;
    const Cap none(0);
    const unsigned int full = AllocatedBytes();
    responses.Add("%s", std::string(1000, 'x').c_str());
    EXPECT_EQ(full, AllocatedBytes());
    EXPECT_LT(before, full);
    responses.SendTo(0);
}
