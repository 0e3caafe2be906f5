#pragma once
// ConsoleCommand: a named console command with a one-line description. Every
// instance is a global object that adds itself, by construction, to one
// vector kept sorted by name (lower-cased, strcmp). The vector is built before
// main and then only read; commands run one at a time on the console thread.
#include <ostream>
#include <string>
#include <vector>

class ConsoleCommand {
public:
    using Handler = int (*)(int argc, char** argv, std::ostream& out);
    ConsoleCommand(const char* name, const char* description, Handler handler);
    ~ConsoleCommand();

    static int ExecuteCommand(int argc, char** argv, std::ostream& out);
    // Splits a command line on blanks (double quotes group words) and runs it.
    static int ExecuteLine(const std::string& line, std::ostream& out);
    static void ListCommands(std::ostream& out);
    static void Apropos(const std::string& term, std::ostream& out);
    static const std::vector<ConsoleCommand*>& Commands();

    // Where "ESA: executing command" lines go; the event log sets it when it starts.
    static void (*eventSink)(const std::string& text);

    std::string name;
    std::string description;
    Handler handler;

private:
    static std::vector<ConsoleCommand*>& list();
};

// Parses an integer argument (decimal, 0x hex); false when it is not one.
bool parseConsoleNumber(const char* text, long long& value);
