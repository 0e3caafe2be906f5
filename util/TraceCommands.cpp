// Console commands over the trace streams: trace, tracing, listTraces.
#include <cstring>
#include <string>

#include "util/ConsoleCommand.h"
#include "util/Trace.h"

namespace {

bool fieldMatches(const std::string& pattern, const std::string& value) { return pattern.empty() || pattern == value; }

int traceCommand(int argc, char** argv, std::ostream& out) {
    if (argc == 2 && std::strcmp(argv[1], "list") == 0) {
        Trace::ListTraces(out);
        return 0;
    }
    if (argc != 2 && argc != 3) {
        out << "Too many or too few parameters\n"
            << "trace list - list all traces\n"
            << "trace <GroupName:TraceName:TraceType> on|off|toggle\n";
        return -1;
    }
    std::string spec = argv[1];
    size_t c1 = spec.find(':');
    size_t c2 = c1 == std::string::npos ? std::string::npos : spec.find(':', c1 + 1);
    if (c2 == std::string::npos) {
        out << "Missing colon, use format GroupName:TraceName:TraceType (where the colons are required even if a "
               "given field is empty)\n";
        return -1;
    }
    std::string group = spec.substr(0, c1), name = spec.substr(c1 + 1, c2 - c1 - 1), type = spec.substr(c2 + 1);
    enum { Show, On, Off, Toggle } action = Show;
    if (argc == 3) {
        std::string a = argv[2];
        if (a == "on") action = On;
        else if (a == "off") action = Off;
        else if (a == "toggle") action = Toggle;
        else {
            out << "Unknown parameter " << a << "\n";
            return -1;
        }
    }
    int matched = 0;
    for (Trace* t : Trace::All()) {
        if (!fieldMatches(group, t->group()) || !fieldMatches(name, t->name()) || !fieldMatches(type, t->type()))
            continue;
        ++matched;
        if (action == On) t->SetTracing(true);
        else if (action == Off) t->SetTracing(false);
        else if (action == Toggle) t->SetTracing(!t->IsTracing());
        out << t->fullName() << " is " << (t->IsTracing() ? "enabled" : "disabled") << "\n";
    }
    if (matched == 0) {
        out << "No matching streams found\n";
        return -1;
    }
    return 0;
}

int tracingCommand(int argc, char** argv, std::ostream& out) {
    if (argc == 2) {
        std::string a = argv[1];
        if (a == "on") Trace::SetEnabled(true);
        else if (a == "off") Trace::SetEnabled(false);
        else if (a == "toggle") Trace::SetEnabled(!Trace::IsEnabled());
        else {
            out << "Unknown parameter " << a << "\n";
            return -1;
        }
    } else if (argc != 1) {
        out << "Usage: tracing [on|off|toggle]\n";
        return -1;
    }
    out << "Debug tracing is globally " << (Trace::IsEnabled() ? "enabled" : "disabled") << "\n";
    return 0;
}

int listTracesCommand(int, char**, std::ostream& out) {
    Trace::ListTraces(out);
    return 0;
}

ConsoleCommand gTrace("trace",
                      "Displays/sets status of individual/group traces. For an individual stream use the form "
                      "\"group:name:type\"",
                      traceCommand);
ConsoleCommand gTracing("tracing", "Displays/sets status of debug tracing globally", tracingCommand);
ConsoleCommand gListTraces("listTraces", "Lists all registered debug traces", listTracesCommand);

}  // namespace
