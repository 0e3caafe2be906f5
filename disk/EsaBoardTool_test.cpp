// esa-board, the offline board editor, run as a program on a scratch board.
// It needs the built tools: skipped when ESA_BIN_DIR does not name them.
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "platform/drive/SimDisk.h"

namespace fs = std::filesystem;

namespace {

class EsaBoardTool : public ::testing::Test {
protected:
    void SetUp() override {
        const char* bin = std::getenv("ESA_BIN_DIR");
        if (!bin || !fs::exists(fs::path(bin) / "esa-board")) GTEST_SKIP() << "esa-board not built";
        tool = (fs::path(bin) / "esa-board").string();
        char tmpl[] = "/tmp/esa-board-test-XXXXXX";
        dir = ::mkdtemp(tmpl);
        fs::remove(dir);
    }
    void TearDown() override {
        std::error_code ec;
        if (!dir.empty()) fs::remove_all(dir, ec);
    }
    // Runs esa-board with the arguments; returns its exit status and output.
    int run(const std::string& args, std::string* output = nullptr) {
        std::string cmd = tool + " " + args + " 2>&1";
        FILE* p = ::popen(cmd.c_str(), "r");
        std::string out;
        std::array<char, 256> buf;
        while (p && std::fgets(buf.data(), int(buf.size()), p)) out += buf.data();
        int rc = p ? ::pclose(p) : -1;
        if (output) *output = out;
        return WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
    }
    std::string tool;
    fs::path dir;
};

TEST_F(EsaBoardTool, CreateListPullInsertFaultAndButton) {
    std::string out;
    ASSERT_EQ(run("create " + dir.string()), 0);
    for (int s = 0; s < 4; ++s) {
        auto j = SimDisk::readSidecar(dir / "slots" / std::to_string(s));
        ASSERT_TRUE(j) << s;
        EXPECT_EQ((*j)["sectors"].get<uint64_t>(), (s < 2 ? 64ull : 32ull) << 21) << "four disks, 64G,64G,32G,32G";
    }
    EXPECT_FALSE(fs::exists(dir / "slots" / "4.img"));
    EXPECT_NE(run("create " + dir.string()), 0) << "an existing board is not overwritten";

    ASSERT_EQ(run("pull " + dir.string() + " 1", &out), 0);
    std::string serial = SimDisk::readSidecar(dir / "shelf" / fs::path(out.substr(out.rfind('/') + 1)).stem())
                             .value_or(nlohmann::json::object())
                             .value("serial", std::string());
    ASSERT_FALSE(serial.empty()) << out;
    ASSERT_EQ(run("insert " + dir.string() + " 6 " + (dir / "shelf" / (serial + ".img")).string()), 0);
    EXPECT_EQ(SimDisk::readSidecar(dir / "slots" / "6")->value("serial", std::string()), serial);
    ASSERT_EQ(run("insert " + dir.string() + " 7 2T"), 0);
    EXPECT_EQ(SimDisk::readSidecar(dir / "slots" / "7")->value("sectors", uint64_t(0)), 1ull << 32);
    EXPECT_NE(run("insert " + dir.string() + " 7 1G"), 0) << "slot taken";

    ASSERT_EQ(run("fault " + dir.string() + " 2 accesstimeout write lba=5-9 once"), 0);
    auto faults = SimDisk::readSidecar(dir / "slots" / "2")->value("faults", nlohmann::json::array());
    ASSERT_EQ(faults.size(), 1u);
    EXPECT_EQ(faults[0]["kind"], "accesstimeout");
    EXPECT_NE(run("fault " + dir.string() + " 2 melt"), 0);
    ASSERT_EQ(run("fault " + dir.string() + " 2 clear"), 0);
    EXPECT_TRUE(SimDisk::readSidecar(dir / "slots" / "2")->value("faults", nlohmann::json::array()).empty());

    ASSERT_EQ(run("button " + dir.string() + " on"), 0);
    ASSERT_EQ(run("list " + dir.string(), &out), 0);
    EXPECT_NE(out.find("clear button 1"), std::string::npos) << out;
    EXPECT_NE(out.find("slot 1: empty"), std::string::npos) << out;
    EXPECT_NE(out.find(serial), std::string::npos) << out;

    EXPECT_NE(run("list /nonexistent-board"), 0);
    EXPECT_NE(run("create " + (dir / "b2").string() + " --disks 64G,huge"), 0);
    ASSERT_EQ(run("create " + (dir / "b3").string() + " --disks '1G:MYSERIAL:My Model:FW9'"), 0);
    auto j = SimDisk::readSidecar(dir / "b3" / "slots" / "0");
    ASSERT_TRUE(j);
    EXPECT_EQ(j->value("serial", std::string()), "MYSERIAL");
    EXPECT_EQ(j->value("model", std::string()), "My Model");
}

}  // namespace
