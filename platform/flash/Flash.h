#pragma once
// The flash file system /RFA of the board: a directory rfa/ in the board
// directory. flashPath("/RFA/FlashConfigData") names rfa/FlashConfigData.
#include <string>

std::string flashPath(const std::string& rfaName);
