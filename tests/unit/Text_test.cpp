// The helpers for texts of fixed size.
#include "Text.h"

#include <gtest/gtest.h>

namespace {

TEST(BoundedCopy, CopiesTheTextAndItsTerminatorOnly)
{
    char target[6] = {'x', 'x', 'x', 'x', 'x', 'x'};
    boundedCopy(target, sizeof target, "abc", "the text");
    EXPECT_EQ(std::string(target, sizeof target), std::string("abc\0xx", 6));
}

TEST(BoundedCopy, TakesATextThatFillsTheTarget)
{
    char target[4];
    boundedCopy(target, sizeof target, "abc", "the text");
    EXPECT_STREQ(target, "abc");
}

TEST(BoundedCopy, TakesAnEmptyText)
{
    char target[1] = {'x'};
    boundedCopy(target, sizeof target, "", "the text");
    EXPECT_STREQ(target, "");
}

TEST(BoundedCopy, EndsTheProcessForATextThatIsOneByteTooLong)
{
    char target[4];
    EXPECT_EXIT(boundedCopy(target, sizeof target, "abcd", "the text is too long"),
                testing::ExitedWithCode(3),
                testing::Eq("Lumatie: the text is too long; the process ends.\n"));
}

TEST(BoundedCopy, EndsTheProcessForAMissingText)
{
    char target[4];
    EXPECT_EXIT(boundedCopy(target, sizeof target, nullptr, "the text is missing"),
                testing::ExitedWithCode(3),
                testing::Eq("Lumatie: the text is missing; the process ends.\n"));
}

TEST(FieldText, EndsAtTheTerminatorWhateverIsBehindIt)
{
    const char field[8] = {'a', 'b', '\0', 'x', '\xFF', 'x', 'x', 'x'};
    EXPECT_EQ(fieldText(field, sizeof field), "ab");
}

TEST(FieldText, IsTheWholeFieldWithoutATerminator)
{
    const char field[3] = {'a', 'b', 'c'};
    EXPECT_EQ(fieldText(field, sizeof field), "abc");
}

TEST(FieldText, MayBeEmpty)
{
    const char field[2] = {'\0', 'x'};
    EXPECT_EQ(fieldText(field, sizeof field), "");
    EXPECT_EQ(fieldText(field, 0), "");
}

TEST(EqualIgnoringCase, LooksPastTheCaseOfAsciiLetters)
{
    EXPECT_TRUE(equalIgnoringCase("Virtual EOS", "vIRTUAL eos"));
    EXPECT_TRUE(equalIgnoringCase("azAZ", "AZaz"));
    EXPECT_TRUE(equalIgnoringCase("", ""));
}

TEST(EqualIgnoringCase, ComparesTheWholeTexts)
{
    EXPECT_FALSE(equalIgnoringCase("EOS", "EOS 80D"));
    EXPECT_FALSE(equalIgnoringCase("EOS 80D", "EOS"));
    EXPECT_FALSE(equalIgnoringCase("", "E"));
    EXPECT_FALSE(equalIgnoringCase("EOS", "EOS "));
}

TEST(EqualIgnoringCase, KeepsApartTheSignsBesideTheLetters)
{
    EXPECT_FALSE(equalIgnoringCase("@", "`"));
    EXPECT_FALSE(equalIgnoringCase("[", "{"));
}

TEST(EqualIgnoringCase, KeepsApartLettersBeyondAscii)
{
    EXPECT_FALSE(equalIgnoringCase("\xC3\x84", "\xC3\xA4"));
    EXPECT_TRUE(equalIgnoringCase("\xC3\x84", "\xC3\x84"));
}

}  // namespace
