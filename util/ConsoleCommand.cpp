#include "util/ConsoleCommand.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>

#include "platform/rtos/BoardClock.h"

void (*ConsoleCommand::eventSink)(const std::string& text) = nullptr;

namespace {
std::string lower(std::string s) {
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return char(std::tolower(c)); });
    return s;
}
bool commandLess(const ConsoleCommand* a, const ConsoleCommand* b) {
    return std::strcmp(lower(a->name).c_str(), lower(b->name).c_str()) < 0;
}
std::mutex gExecuteLock;  // commands run one at a time, as on the single console thread
}  // namespace

std::vector<ConsoleCommand*>& ConsoleCommand::list() {
    static std::vector<ConsoleCommand*> commands;
    return commands;
}

const std::vector<ConsoleCommand*>& ConsoleCommand::Commands() { return list(); }

ConsoleCommand::ConsoleCommand(const char* n, const char* d, Handler h) : name(n), description(d), handler(h) {
    auto& v = list();
    v.insert(std::upper_bound(v.begin(), v.end(), this, commandLess), this);
}

ConsoleCommand::~ConsoleCommand() {
    auto& v = list();
    v.erase(std::remove(v.begin(), v.end(), this), v.end());
}

int ConsoleCommand::ExecuteCommand(int argc, char** argv, std::ostream& out) {
    if (argc < 1) {
        out << "Command string empty\n";
        return -1;
    }
    std::string wanted = argv[0];
    ConsoleCommand* found = nullptr;
    for (ConsoleCommand* c : list())
        if (c->name.size() == wanted.size() && std::memcmp(c->name.data(), wanted.data(), wanted.size()) == 0) found = c;
    if (!found) {
        out << "Command '" << wanted << "' not found\n";
        return -1;
    }
    timespec ts = BoardClock::GetInstance().realtime();
    time_t s = ts.tv_sec;
    struct tm tmv;
    localtime_r(&s, &tmv);
    char when[64];
    strftime(when, sizeof when, "%a %b %d %H:%M:%S %Y", &tmv);
    out << "Executing command '" << wanted << "' @ " << when << "\n";
    if (wanted.rfind("event", 0) != 0 && wanted.rfind("help", 0) != 0 && wanted.rfind("lockeddiags", 0) != 0 &&
        eventSink)
        eventSink("ESA: executing command '" + wanted);
    std::lock_guard<std::mutex> g(gExecuteLock);
    return found->handler(argc, argv, out);
}

int ConsoleCommand::ExecuteLine(const std::string& line, std::ostream& out) {
    std::vector<std::string> words;
    std::string current;
    bool inQuotes = false, have = false;
    for (char c : line) {
        if (c == '"') {
            inQuotes = !inQuotes;
            have = true;
        } else if (!inQuotes && (c == ' ' || c == '\t' || c == '\r' || c == '\n')) {
            if (have) words.push_back(current);
            current.clear();
            have = false;
        } else {
            current.push_back(c);
            have = true;
        }
    }
    if (have) words.push_back(current);
    std::vector<char*> argv;
    for (auto& w : words) argv.push_back(w.data());
    argv.push_back(nullptr);
    return ExecuteCommand(int(words.size()), argv.data(), out);
}

void ConsoleCommand::ListCommands(std::ostream& out) {
    for (ConsoleCommand* c : list()) out << c->name << " - " << c->description << "\n";
}

void ConsoleCommand::Apropos(const std::string& term, std::ostream& out) {
    std::string t = lower(term);
    for (ConsoleCommand* c : list())
        if (lower(c->name).find(t) != std::string::npos || lower(c->description).find(t) != std::string::npos)
            out << c->name << " - " << c->description << "\n";
}

bool parseConsoleNumber(const char* text, long long& value) {
    if (!text || !*text) return false;
    errno = 0;
    char* end = nullptr;
    value = std::strtoll(text, &end, 0);
    return errno == 0 && end && *end == '\0';
}

namespace {
int helpCommand(int, char**, std::ostream& out) {
    ConsoleCommand::ListCommands(out);
    return 0;
}
int aproposCommand(int argc, char** argv, std::ostream& out) {
    ConsoleCommand::Apropos(argc > 1 ? argv[1] : "", out);
    return 0;
}
ConsoleCommand gHelp("help", "Displays all commands registered with the ConsoleCommand class along with their description",
                     helpCommand);
ConsoleCommand gApropos("apropos", "Displays all commands with the search term in their name or description",
                        aproposCommand);
}  // namespace
