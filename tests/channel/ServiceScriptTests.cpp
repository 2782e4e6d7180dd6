// The fake service's script: what tests and the service team write must mean what they think.
#include "tools/FakeService/ServiceScript.h"

#include <gtest/gtest.h>

TEST(ServiceScript, RefusesWhatItCannotPlayNamingTheLine)
{
    const char* bad[] = {"send 21",
                         "send 21 3 1 2 3 4 5 6 7",
                         "send 21 3 colour=red",
                         "bogus",
                         "pause",
                         "pause soon",
                         "oversize 63",
                         "raw 1",
                         "raw zz",
                         "vanish now",
                         "on-cancel now",
                         "send -1 3"};
    for (const char* text : bad)
    {
        ServiceScript script;
        std::string error;
        EXPECT_FALSE(ServiceScript::Parse(std::string("# first line\n") + text, script, error)) << text;
        EXPECT_EQ(0u, error.rfind("line 2", 0)) << text << ": " << error;
    }
}

TEST(ServiceScript, StepsBecomeTheBytesTheyName)
{
    ServiceScript script;
    std::string error;
    ASSERT_TRUE(
        ServiceScript::Parse("send 0x15 3 1 4096 source=\"E:\\in\\#1 b.txt\" target=F:\\out # report\n"
                             "raw 15 00 00 00 03\n"
                             "oversize 100\n"
                             "pause 25\n",
                             script, error))
        << error;
    ASSERT_EQ(4u, script.steps.size());
    ServiceMessage report;
    ASSERT_TRUE(DecodeServiceMessage(script.steps[0].bytes.data(), script.steps[0].bytes.size(), report));
    EXPECT_EQ(21u, report.kind);
    EXPECT_EQ(3u, report.phase);
    EXPECT_EQ("E:\\in\\#1 b.txt", report.source);
    EXPECT_EQ("F:\\out", report.target);
    EXPECT_EQ(4096u, report.values[1]);
    EXPECT_EQ(std::vector<BYTE>({0x15, 0, 0, 0, 3}), script.steps[1].bytes);
    ASSERT_EQ(100u, script.steps[2].bytes.size());
    ServiceMessage tail;
    ASSERT_TRUE(DecodeServiceMessage(script.steps[2].bytes.data() + 36, 64, tail)) << "the last 64 bytes";
    EXPECT_EQ(99u, tail.kind);
    EXPECT_EQ(ServiceStep::Pause, script.steps[3].action);
    EXPECT_EQ(25u, script.steps[3].milliseconds);
    // Without an on-cancel section a cancel is answered with a stop.
    ASSERT_EQ(1u, script.onCancel.size());
    ServiceMessage stop;
    ASSERT_TRUE(DecodeServiceMessage(script.onCancel[0].bytes.data(), script.onCancel[0].bytes.size(), stop));
    EXPECT_EQ(99u, stop.phase);
}
