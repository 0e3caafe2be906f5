#include "system/nvram.h"

#include "platform/board/Board.h"

nvram* nvram::GetInstance() {
    static nvram instance;
    return &instance;
}

StatusCode nvram::Initialize(bool) {
    Board& board = Board::GetInstance();
    if (!board.openRegion("/nvramDRAMSim", 0x1000000) || !board.openRegion("/nvramPSRAM", 0x400000))
        return StatusCode::InitFailed;
    mRegions = 2;
    return StatusCode::Success;
}
