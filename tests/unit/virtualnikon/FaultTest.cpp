// Commands that misbehave on request.
#include "Host.h"

namespace {

class NikonFault : public NikonOpenTest
{};

TEST_F(NikonFault, AnyCommandAnswersAnyCodeForAsManyCallsAsTold)
{
    ASSERT_TRUE(driver().failNext("GetCapCount", kMaidBufferSize, 2));
    std::uint32_t count = 0;
    for (int i = 0; i < 2; ++i) {
        const Outcome outcome = m_host.issue(m_host.source(), kMaidCommandGetCapCount, 0,
                                             kMaidDataTypeUnsignedPtr, dataOf(&count));
        EXPECT_EQ(outcome.result, kMaidBufferSize);
        EXPECT_EQ(outcome.completion, kMaidBufferSize);
        EXPECT_EQ(outcome.completions, 1);
        EXPECT_EQ(count, 0U);
    }
    EXPECT_FALSE(m_host.capabilities(m_host.source()).empty());
}

TEST_F(NikonFault, EveryCommandHasAName)
{
    struct Row {
        const char* name;
        std::uint32_t command;
    };
    for (const Row& row : {Row{"Async", 0}, Row{"Open", 1}, Row{"Close", 2}, Row{"GetCapCount", 3},
                           Row{"GetCapInfo", 4}, Row{"CapStart", 5}, Row{"CapSet", 6},
                           Row{"CapGet", 7}, Row{"CapGetArray", 9}, Row{"EnumChildren", 13}}) {
        ASSERT_TRUE(driver().failNext(row.name, -42, 1));
        EXPECT_EQ(m_host.begin(m_host.source(), row.command, 0)->result, -42) << row.name;
        EXPECT_EQ(driver().openCount(0), 2);
    }
}

TEST_F(NikonFault, RulesChooseCapabilityLevelAndObject)
{
    ASSERT_TRUE(driver().fault("CapGet capability=0x8113 code=-1 calls=0"));
    ASSERT_TRUE(driver().fault("CapGet level=module code=-2 calls=0"));
    ASSERT_TRUE(driver().fault("CapGet object=1 code=-3 skip=1"));
    const auto get = [&](MaidObject* object, std::uint32_t id) {
        MaidEnum record{};
        return m_host.issue(object, kMaidCommandCapGet, id, kMaidDataTypeEnumPtr, dataOf(&record))
            .result;
    };
    EXPECT_EQ(get(m_host.source(), kMaidCapAperture), -1);
    EXPECT_EQ(get(m_host.module(), kMaidCapChildren), -2);
    EXPECT_EQ(get(m_host.source(), kMaidCapShutterSpeed), 0);
    EXPECT_EQ(get(m_host.source(), kMaidCapShutterSpeed), -3);
    EXPECT_EQ(get(m_host.source(), kMaidCapShutterSpeed), 0);
    driver().clearFaults();
    EXPECT_EQ(get(m_host.source(), kMaidCapAperture), 0);
}

TEST_F(NikonFault, TheNameCommandMeansAllButRunningPendingWork)
{
    ASSERT_TRUE(driver().fault("Command code=-5 calls=0"));
    EXPECT_EQ(Host::async(m_host.source()), kMaidOk);
    EXPECT_EQ(m_host.begin(m_host.source(), kMaidCommandEnumChildren, 0)->result, -5);
    driver().clearFaults();
    ASSERT_TRUE(driver().fault("* code=-6"));
    EXPECT_EQ(Host::async(m_host.source()), -6);
}

TEST_F(NikonFault, TheCableIsPulledAtACommand)
{
    ASSERT_TRUE(driver().fault("CapGet capability=0x8112 unplug"));
    EXPECT_EQ(m_host.issue(m_host.source(), kMaidCommandCapGet, kMaidCapShutterSpeed).result, -10);
    EXPECT_EQ(m_host.issue(m_host.source(), kMaidCommandCapGet, kMaidCapLiveness).result, -10);
    configure("gone.code = -77");
    EXPECT_EQ(m_host.issue(m_host.source(), kMaidCommandCapGet, kMaidCapLiveness).result, -77);
}

TEST_F(NikonFault, ARefusedOpenOpensNothing)
{
    driver().pressShutter(0);
    ASSERT_TRUE(driver().waitForPictures(1, kDeadlineMs));
    ASSERT_TRUE(driver().failNext("Open", -4, 1));
    EXPECT_EQ(m_host.openChild(m_host.source(), 1), nullptr);
    EXPECT_NE(m_host.openChild(m_host.source(), 1), nullptr);
}

TEST_F(NikonFault, AnAnswerThatContradictsAnOpenLeavesTheObjectOpen)
{
    driver().pressShutter(0);
    ASSERT_TRUE(driver().waitForPictures(1, kDeadlineMs));
    ASSERT_TRUE(driver().fault("Open code=-4 after"));
    auto record = std::make_unique<MaidObject>();
    EXPECT_EQ(driver().entryPoint(m_host.source(), kMaidCommandOpen, 1, kMaidDataTypeObjectPtr,
                                  dataOf(record.get()), nullptr, nullptr),
              -4);
    EXPECT_EQ(driver().openCount(3), 1);
    driver().entryPoint(record.get(), kMaidCommandClose, 0, 0, 0, nullptr, nullptr);
}

TEST_F(NikonFault, AProcedureThatARuleKeepsInstalledIsNoMisuseAtTheClose)
{
    ASSERT_TRUE(driver().fault("CapSet capability=3 level=source code=-5"));
    m_host.closeAll();
    EXPECT_EQ(driver().misuseCount(), 0);
    EXPECT_EQ(driver().openCount(0), 0);
}

TEST_F(NikonFault, BadRulesAreRefusedWithAReason)
{
    char text[200];
    for (const char* rule :
         {"", "Nonsense code=1", "CapGet code", "CapGet code=x", "CapGet what", "CapGet what=1",
          "CapGet delay_ms=-1", "CapGet calls=-1", "CapGet code=99999999999"}) {
        EXPECT_EQ(driver().fault(rule), 0) << rule;
        EXPECT_GT(driver().lastError(text, sizeof text), 0);
    }
}

}  // namespace
