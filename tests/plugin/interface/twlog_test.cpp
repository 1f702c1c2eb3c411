// The log gate, the per-process level check and the enumeration texts.
#include <gtest/gtest.h>
#include <unistd.h>

#include "interface/twlog.h"
#include "support/testenv.h"

namespace {

using tw::host::DbgLogConfig;
using tw::test::ScopedLogCapture;

#define TW_LOG_CATEG LOG_CATEG_MOTIONDET

void LogAtLevel(int level) { TWLOG(level, "level %d message\n", level); }

size_t Printed(ScopedLogCapture& capture, int level) {
    return capture->Count("level " + std::to_string(level) + " message\n");
}

TEST(LogGate, WithoutConfigurationLevelThreeIsPrintedAndLevelFourIsNot) {
    ScopedLogCapture capture;
    DbgLogConfig::Uninstall();
    LogAtLevel(1);
    LogAtLevel(3);
    LogAtLevel(4);
    LogAtLevel(6);
    EXPECT_EQ(Printed(capture, 1), 1u);
    EXPECT_EQ(Printed(capture, 3), 1u);
    EXPECT_EQ(Printed(capture, 4), 0u);
    EXPECT_EQ(Printed(capture, 6), 0u);
}

TEST(LogGate, CategoryThresholdTwoWithoutOwnEntrySuppressesLevelThree) {
    ScopedLogCapture capture;
    DbgLogConfig config;
    config.SetCategoryLevel(LOG_CATEG_MOTIONDET, 2);
    config.AddPidEntry(getpid() + 1, 7);  // somebody else's entry
    config.Install();
    LogAtLevel(2);
    LogAtLevel(3);
    EXPECT_EQ(Printed(capture, 2), 1u);
    EXPECT_EQ(Printed(capture, 3), 0u);
}

TEST(LogGate, CategoryThresholdZeroWithOwnEntrySixPrintsLevelSix) {
    ScopedLogCapture capture;
    DbgLogConfig config;
    config.SetCategoryLevel(LOG_CATEG_MOTIONDET, 0);
    config.AddPidEntry(getpid(), 6);
    config.Install();
    LogAtLevel(6);
    LogAtLevel(7);
    EXPECT_EQ(Printed(capture, 6), 1u);
    EXPECT_EQ(Printed(capture, 7), 0u);
}

TEST(LogGate, OnlyTheFirstEntryOfTheOwnProcessCounts) {
    ScopedLogCapture capture;
    DbgLogConfig config;
    config.AddPidEntry(getpid(), 2);
    config.AddPidEntry(getpid(), 6);
    config.Install();
    LogAtLevel(2);
    LogAtLevel(3);
    EXPECT_EQ(Printed(capture, 2), 1u);
    EXPECT_EQ(Printed(capture, 3), 0u);
}

TEST(LogGate, EntryCountBelowOneIgnoresEntries) {
    ScopedLogCapture capture;
    DbgLogConfig config;
    config.AddPidEntry(getpid(), 6);
    config.SetPidEntryCount(0);
    config.Install();
    LogAtLevel(1);
    EXPECT_EQ(Printed(capture, 1), 0u);
}

TEST(LogGate, ThresholdOfAnotherCategoryDoesNotApply) {
    ScopedLogCapture capture;
    DbgLogConfig config;
    config.SetCategoryLevel(LOG_CATEG_LIVECAM, 7);
    config.Install();
    LogAtLevel(3);
    EXPECT_EQ(Printed(capture, 3), 0u);
}

TEST(LogGate, FillsTheProcessIdCacheWhenItNeedsIt) {
    ScopedLogCapture capture;
    DbgLogConfig config;
    config.AddPidEntry(getpid(), 6);
    config.Install();
    g_DbgLogPid = 0;
    LogAtLevel(5);
    EXPECT_EQ(g_DbgLogPid, getpid());
    EXPECT_EQ(Printed(capture, 5), 1u);
}

TEST(LogCall, PassesTypeCategoryLevelFileLineAndFunction) {
    ScopedLogCapture capture;
    DbgLogConfig::Uninstall();
    const int line = __LINE__ + 1;
    TWLOG(3, "Cam[%d]: hello\n", 7);
    std::vector<tw::host::LogRecord> records = capture->Find("Cam[7]: hello\n");
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].type, 0);
    EXPECT_EQ(records[0].category, "motiondet");
    EXPECT_EQ(records[0].level, "WARN");
    EXPECT_EQ(records[0].line, line);
    EXPECT_EQ(records[0].function, "TestBody");
}

TEST(ChkPidLevel, FailsWithoutConfiguration) {
    DbgLogConfig::Uninstall();
    EXPECT_FALSE(ChkPidLevel(LOG_LEVEL_NONE));
    EXPECT_FALSE(ChkPidLevel(LOG_LEVEL_CRIT));
}

TEST(ChkPidLevel, LevelZeroPassesWithoutOwnEntry) {
    DbgLogConfig config;
    config.Install();
    EXPECT_TRUE(ChkPidLevel(LOG_LEVEL_NONE));
    EXPECT_FALSE(ChkPidLevel(LOG_LEVEL_CRIT));
    config.AddPidEntry(getpid() + 1, 7);
    EXPECT_TRUE(ChkPidLevel(LOG_LEVEL_NONE));
    EXPECT_FALSE(ChkPidLevel(LOG_LEVEL_CRIT));
}

TEST(ChkPidLevel, FirstOwnEntryDecides) {
    DbgLogConfig config;
    config.AddPidEntry(getpid(), 4);
    config.AddPidEntry(getpid(), 7);
    config.Install();
    EXPECT_TRUE(ChkPidLevel(LOG_LEVEL_NOTICE));
    EXPECT_FALSE(ChkPidLevel(LOG_LEVEL_INFO));
}

TEST(ChkPidLevel, CategoryThresholdsDoNotMatter) {
    DbgLogConfig config;
    config.SetAllCategoryLevels(7);
    config.Install();
    EXPECT_FALSE(ChkPidLevel(LOG_LEVEL_CRIT));
}

TEST(Enum2String, KnownValuesUseTheHostTexts) {
    EXPECT_STREQ(Enum2String<LOG_CATEG>(LOG_CATEG_MOTIONDET), "motiondet");
    EXPECT_STREQ(Enum2String<LOG_LEVEL>(LOG_LEVEL_DEBUG), "DEBUG");
}

TEST(Enum2String, MissingLevelYieldsUnknownAndIsNotAdded) {
    EXPECT_STREQ(Enum2String<LOG_LEVEL>(static_cast<LOG_LEVEL>(42)), "unknown");
    EXPECT_STREQ(Enum2String<LOG_LEVEL>(static_cast<LOG_LEVEL>(42)), "unknown");
    EXPECT_STREQ(Enum2String<LOG_CATEG>(static_cast<LOG_CATEG>(311)), "unknown");
}

}  // namespace
