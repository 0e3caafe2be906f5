#include "platform/flash/Flash.h"

#include "platform/board/Board.h"

std::string flashPath(const std::string& rfaName) {
    std::string rest = rfaName;
    if (rest.rfind("/RFA/", 0) == 0) rest = rest.substr(5);
    else if (rest.rfind("/RFA", 0) == 0) rest = rest.substr(4);
    return (Board::GetInstance().dir() / "rfa" / rest).string();
}
