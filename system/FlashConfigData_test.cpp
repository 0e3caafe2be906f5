#include "system/FlashConfigData.h"

#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <fstream>
#include <memory>
#include <sstream>

#include "util/ConsoleCommand.h"

namespace {
class FlashConfig : public testing::Test {
protected:
    void SetUp() override { FlashConfigData::GetInstance()->DeleteConfigFile(); }
    void TearDown() override { FlashConfigData::GetInstance()->DeleteConfigFile(); }
    std::string path() { return FlashConfigData::GetInstance()->filePath(); }
    void writeFile(const std::string& text) { std::ofstream(path(), std::ios::binary) << text; }
    std::string readFile() {
        std::ifstream in(path(), std::ios::binary);
        std::stringstream s;
        s << in.rdbuf();
        return s.str();
    }
    // A fresh instance reads the file as the next start would.
    unsigned long afterRestart(const char* key, unsigned long preset = 12345) {
        auto restarted = std::make_unique<FlashConfigData>();
        unsigned long v = preset;
        restarted->GetValueUint32(key, v);
        return v;
    }
};
}  // namespace

TEST_F(FlashConfig, ASettingWrittenThroughTheConsoleSurvivesARestart) {
    std::ostringstream out;
    ConsoleCommand::ExecuteLine("flash set demomode 1", out);
    ConsoleCommand::ExecuteLine("flash set maxlunsize 16", out);
    EXPECT_EQ(afterRestart(FlashConfigData::DemoMode), 1u);
    EXPECT_EQ(afterRestart(FlashConfigData::MaxLunSize), 16u);
    EXPECT_EQ(readFile(), "demomode 1\nmaxlunsize 16\n");
    std::ostringstream get;
    ConsoleCommand::ExecuteLine("flash get maxlunsize", get);
    EXPECT_NE(get.str().find("maxlunsize = 16"), std::string::npos) << get.str();
}

TEST_F(FlashConfig, UnknownNamesAndBadCommandsAreRefused) {
    std::ostringstream out;
    ConsoleCommand::ExecuteLine("flash set nosuchkey 1", out);
    EXPECT_NE(out.str().find("Flash value nosuchkey not known"), std::string::npos) << out.str();
    ConsoleCommand::ExecuteLine("flash set demomode banana", out);
    ConsoleCommand::ExecuteLine("flash set demomode 99999999999", out);
    ConsoleCommand::ExecuteLine("flash frobnicate", out);
    EXPECT_NE(out.str().find("command not understood"), std::string::npos);
    EXPECT_EQ(afterRestart(FlashConfigData::DemoMode, 7), 7u) << "nothing was written";
    std::ostringstream list;
    ConsoleCommand::ExecuteLine("flash list", list);
    EXPECT_NE(list.str().find("leddimminglevel - 1 to 200; LED dimming level"), std::string::npos);
}

TEST_F(FlashConfig, NegativeThirtyTwoBitValuesRoundTrip) {
    FlashConfigData* flash = FlashConfigData::GetInstance();
    ASSERT_EQ(flash->SetValueUint32(FlashConfigData::ScaleFactor, 0xFFFFFFFFul), StatusCode::Success);
    EXPECT_EQ(readFile(), "scalefactor -1\n") << "written as the board's 32-bit long";
    EXPECT_EQ(afterRestart(FlashConfigData::ScaleFactor), 0xFFFFFFFFul);
    writeFile("scalefactor -2\nregionscalefactor 4294967294\nnetconfigipaddr 3232235777\n");
    EXPECT_EQ(afterRestart(FlashConfigData::ScaleFactor), 0xFFFFFFFEul);
    EXPECT_EQ(afterRestart(FlashConfigData::RegionScaleFactor), 0xFFFFFFFEul);
    EXPECT_EQ(afterRestart(FlashConfigData::NetConfigIPAddr), 3232235777ul);
    std::ostringstream out;
    ConsoleCommand::ExecuteLine("flash set netconfigsubnet -256", out);
    EXPECT_EQ(afterRestart(FlashConfigData::NetConfigSubnet), 0xFFFFFF00ul);
}

TEST_F(FlashConfig, AFileEditedOutsideIsReadAgainBeforeAWrite) {
    FlashConfigData* flash = FlashConfigData::GetInstance();
    flash->SetValueUint32(FlashConfigData::DemoMode, 1);
    unsigned long v = 0;
    ASSERT_EQ(flash->GetValueUint32(FlashConfigData::DemoMode, v), StatusCode::Success);
    // Another path rewrites the file behind our back, within the same clock tick.
    writeFile("demomode 0\nnohost 1\n");
    flash->SetValueUint32(FlashConfigData::ReadOnly, 1);
    EXPECT_EQ(readFile(), "demomode 0\nnohost 1\nreadonly 1\n") << "the outside edit must not be lost";
    // The same length, rewritten in place: the modification time tells it.
    writeFile("demomode 1\nnohost 0\nreadonly 1\n");
    struct timespec times[2] = {{0, UTIME_OMIT}, {1000000000, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path().c_str(), times, 0), 0);
    flash->SetValueUint32(FlashConfigData::EncryptDiag, 0);
    EXPECT_EQ(readFile(), "demomode 1\nnohost 0\nreadonly 1\nencryptdiag 0\n");
}

TEST_F(FlashConfig, AFileOverTheLimitLosesOnlyWhatLiesBeyond) {
    std::string text = "demomode 1\n";
    while (text.size() < 4085) text += "# padding comment line to fill the file up to its limit\n";
    text.resize(4085);
    text += "\nnohost 123456\nreadonly 1\n";  // "nohost 123" ends at byte 4096 exactly
    ASSERT_GT(text.size(), 4096u);
    writeFile(text);
    EXPECT_EQ(afterRestart(FlashConfigData::DemoMode), 1u);
    EXPECT_EQ(afterRestart(FlashConfigData::NoHost), 123u) << "the cut line is parsed as it stands";
    EXPECT_EQ(afterRestart(FlashConfigData::ReadOnly, 9), 9u) << "beyond the limit";
}

TEST_F(FlashConfig, ParsingRulesForMalformedLines) {
    std::string text = "# a comment\n";
    text += std::string("\0demomode 1\n", 12);  // a line starting with NUL is skipped
    text += "   nohost 1\n";                     // leading blanks
    text += "readonly\n";                        // no value reads as 0
    text += "hreadonly 12abc\n";                 // leading digits
    text += "maxlunsize 4\nmaxlunsize 8\n";      // the first of two wins
    text += "cleardisk 1";                       // no final newline
    writeFile(text);
    EXPECT_EQ(afterRestart(FlashConfigData::DemoMode, 5), 5u);
    EXPECT_EQ(afterRestart(FlashConfigData::NoHost), 1u);
    EXPECT_EQ(afterRestart(FlashConfigData::ReadOnly, 5), 0u);
    EXPECT_EQ(afterRestart(FlashConfigData::HostReadOnly), 12u);
    EXPECT_EQ(afterRestart(FlashConfigData::MaxLunSize), 4u);
    EXPECT_EQ(afterRestart(FlashConfigData::ClearDisk), 1u);

    FlashConfigData flash;
    flash.SetValueUint32(FlashConfigData::MaxLunSize, 2);
    EXPECT_EQ(afterRestart(FlashConfigData::MaxLunSize), 2u) << "a set changes the first";
    std::string after = readFile();
    EXPECT_NE(after.find("maxlunsize 2\nmaxlunsize 8\n"), std::string::npos) << after;
}

TEST_F(FlashConfig, MissingFilesAndDeletion) {
    FlashConfigData flash;
    unsigned long v = 77;
    EXPECT_EQ(flash.GetValueUint32(FlashConfigData::DemoMode, v), StatusCode::InternalError);
    EXPECT_EQ(v, 77u) << "the caller's default stands";
    EXPECT_EQ(flash.DeleteConfigFile(), StatusCode::Success) << "deleting a missing file is no fault";
    writeFile("");
    FlashConfigData empty;
    EXPECT_EQ(empty.GetValueUint32(FlashConfigData::DemoMode, v), StatusCode::DiskNotPresent);
    std::ostringstream out;
    ConsoleCommand::ExecuteLine("flash set esxcert 1", out);
    ConsoleCommand::ExecuteLine("flash reset", out);
    EXPECT_EQ(afterRestart(FlashConfigData::ESXCert, 3), 3u);
}
