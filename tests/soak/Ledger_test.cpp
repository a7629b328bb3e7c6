// The accounts themselves: what they must not overlook.
#include <gtest/gtest.h>

#include "Ledger.h"

namespace {

using namespace soak;

template <class Account> Account Of(std::initializer_list<unsigned int> numbers) {
    Account account;
    for (const unsigned int number : numbers) {
        account.See(number);
    }
    return account;
}

TEST(SoakLedger, WhatIsLostDoubledOrOutOfOrderIsNoticed) {
    EXPECT_TRUE(Of<InOrder>({1, 2, 3}).IsComplete(3));
    EXPECT_FALSE(Of<InOrder>({1, 2}).IsComplete(3));
    EXPECT_FALSE(Of<InOrder>({1, 3}).IsComplete(3));
    EXPECT_FALSE(Of<InOrder>({1, 2, 2, 3}).IsComplete(3));
    EXPECT_FALSE(Of<InOrder>({2, 1, 3}).IsComplete(3));
    EXPECT_FALSE(Of<InOrder>({1, 2, 3, 4}).IsComplete(3));
}

TEST(SoakLedger, WhatComesInAnyOrderIsHeldToOnceEach) {
    EXPECT_TRUE(Of<OnceEach>({3, 1, 2}).IsComplete(3));
    EXPECT_FALSE(Of<OnceEach>({3, 1}).IsComplete(3));
    EXPECT_FALSE(Of<OnceEach>({1, 2, 2, 3}).IsComplete(3));
    EXPECT_FALSE(Of<OnceEach>({3, 3, 1, 2}).IsComplete(3));
    EXPECT_FALSE(Of<OnceEach>({1, 2, 3, 4}).IsComplete(3));
}

TEST(SoakLedger, WhatIsReplacedIsNotMissing) {
    EXPECT_TRUE(Of<Ascending>({1, 4}).IsCompleteWith(Of<Ascending>({2, 3}), 4));
    EXPECT_FALSE(Of<Ascending>({1, 4}).IsCompleteWith(Of<Ascending>({2}), 4));
    EXPECT_FALSE(Of<Ascending>({1, 4}).IsCompleteWith(Of<Ascending>({2, 4}), 4));
    EXPECT_FALSE(Of<Ascending>({4, 1}).IsCompleteWith(Of<Ascending>({2, 3}), 4));
    EXPECT_FALSE(Of<Ascending>({1, 4, 4}).IsCompleteWith(Of<Ascending>({2}), 4));
}

} // namespace
