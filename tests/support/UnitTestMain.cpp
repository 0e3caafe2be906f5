// main() of every unit-test executable: a fresh temporary board with a
// virtual clock, so that no test depends on real time or on another's files.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <unistd.h>

#include <cstdio>

#include "platform/board/Board.h"
#include "platform/drive/SimDriveController.h"
#include "platform/rtos/BoardClock.h"
#include "platform/rtos/Rtos.h"

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    char tmpl[] = "/tmp/esa-unit-XXXXXX";
    std::string dir = ::mkdtemp(tmpl);
    ::setenv("ESA_BOARD", dir.c_str(), 1);
    BoardClock::GetInstance().configure(BoardClock::Mode::Virtual);
    Board::GetInstance().open(dir);
    taskRegisterSelf("tUnitTest", 100);
    // The drives' cache (random unless ESA_DRIVE_CACHE says otherwise) without
    // its background write-back: here the drives' choices follow the test's
    // commands alone, so ESA_DRIVE_SEED=N replays a failing run exactly.
    SimDriveController& drives = SimDriveController::GetInstance();
    drives.setCacheMode(drives.cacheMode(), false);
    std::printf("%s\n", drives.cacheSettings().c_str());
    int rc = RUN_ALL_TESTS();
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
    return rc;
}
