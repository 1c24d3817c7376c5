// Records with room behind what is known of them.
#include "canon/Roomy.h"

#include <algorithm>
#include <cstring>

#include <gtest/gtest.h>

#include "EdSdk.h"

namespace {

template <typename Record>
class Roomy : public testing::Test
{};

using Records = testing::Types<EdsDeviceInfo, EdsDirectoryItemInfo, EdsPropertyDesc>;
TYPED_TEST_SUITE(Roomy, Records);

TYPED_TEST(Roomy, TakesTwoHundredAndFiftySixBytesMoreThanTheRecord)
{
    struct {
        canon::Roomy<TypeParam> record;
        unsigned char behind[256] = {};
    } place;
    std::memset(place.record.toFill(), 0xEE, sizeof(TypeParam) + 256);
    EXPECT_EQ(std::count(std::begin(place.behind), std::end(place.behind), 0), 256);
}

TYPED_TEST(Roomy, IsEmptyAtFirstAndShowsWhatWasFilled)
{
    canon::Roomy<TypeParam> record;
    const TypeParam empty = {};
    EXPECT_EQ(std::memcmp(&*record, &empty, sizeof empty), 0);
    std::memset(record.toFill(), 0xEE, sizeof empty);
    const TypeParam shown = *record;
    EXPECT_EQ(std::memcmp(&shown, record.toFill(), sizeof shown), 0);
    EXPECT_NE(std::memcmp(&shown, &empty, sizeof shown), 0);
}

}  // namespace
