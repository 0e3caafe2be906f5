#include "tests/support/TestBoard.h"

#include <unistd.h>

#include <fstream>
#include <sstream>

#include "platform/board/Board.h"

TestBoard::TestBoard() {
    char tmpl[] = "/tmp/esa-test-XXXXXX";
    mDir = ::mkdtemp(tmpl);
}

TestBoard::~TestBoard() {
    if (std::getenv("ESA_KEEP_TEST_BOARDS")) return;
    std::error_code ec;
    std::filesystem::remove_all(mDir, ec);
}

void TestBoard::configure(const std::function<void(nlohmann::json&)>& edit) {
    Board::createDefault(mDir);
    std::ifstream in(mDir / "board.json");
    nlohmann::json j = nlohmann::json::parse(in);
    edit(j);
    std::ofstream(mDir / "board.json") << j.dump(2);
}

void TestBoard::writeFile(const std::string& relative, const std::string& text) {
    std::filesystem::create_directories((mDir / relative).parent_path());
    std::ofstream(mDir / relative, std::ios::binary) << text;
}

std::string TestBoard::readFile(const std::string& relative) const {
    std::ifstream in(mDir / relative, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

bool TestBoard::exists(const std::string& relative) const { return std::filesystem::exists(mDir / relative); }
