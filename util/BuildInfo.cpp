#include "util/BuildInfo.h"

#include "platform/board/Board.h"

std::string BuildInfo::buildDate() { return std::string(__DATE__) + "," + __TIME__; }

std::string BuildInfo::version() {
    std::string model = "ESA-8";
    if (Board::GetInstance().isOpen()) model = Board::GetInstance().config().value("model", model);
    return "2.41.24969 (1.1.4) NODEBUG BUILD (GCC) (" + model + ")";
}
