// A named request.
#include "canon/ActionEvent.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace {

using canon::ActionEvent;

TEST(ActionEvent, TakesItsNameOver)
{
    std::string name = "a name that is too long to be kept inside the string object";
    const std::string expected = name;
    const ActionEvent event(std::move(name));
    EXPECT_EQ(event.actionCommand(), expected);
    EXPECT_TRUE(name.empty());  // NOLINT(bugprone-use-after-move): what is tested
}

TEST(ActionEvent, HasNoArgumentUnlessOneIsGiven)
{
    EXPECT_EQ(ActionEvent("TakePicture").argument(), nullptr);
}

TEST(ActionEvent, HandsItsArgumentOn)
{
    int value = 5;
    EXPECT_EQ(ActionEvent("set_Tv", &value).argument(), &value);
}

}  // namespace
