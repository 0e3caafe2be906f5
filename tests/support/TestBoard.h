#pragma once
// TestBoard: a temporary board directory for one test, removed afterwards.
#include <filesystem>
#include <functional>
#include <string>

#include <nlohmann/json.hpp>

class TestBoard {
public:
    TestBoard();
    ~TestBoard();
    const std::filesystem::path& dir() const { return mDir; }
    std::filesystem::path path(const std::string& relative) const { return mDir / relative; }
    // Creates board.json (default board) and lets the test edit it.
    void configure(const std::function<void(nlohmann::json&)>& edit);
    void writeFile(const std::string& relative, const std::string& text);
    std::string readFile(const std::string& relative) const;
    bool exists(const std::string& relative) const;

private:
    std::filesystem::path mDir;
};
