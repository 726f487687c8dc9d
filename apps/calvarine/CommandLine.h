#pragma once

#include <optional>
#include <string>
#include <vector>

// The command line of calvarine, read before any window exists so that --help
// and mistakes need no display. Options and messages are in French, the
// operator's language. Arguments that begin with a single dash (other than -h)
// are the toolkit's own (-platform, -style...) and are left to it, with the
// value that follows them.
struct CommandLine {
    bool help = false;
    std::optional<std::string> database;
    std::optional<std::string> user;
    std::optional<std::string> printTo;
    std::string error; // what is wrong with the line; empty when it is right

    // args: the arguments after the program's name.
    static CommandLine parse(const std::vector<std::string>& args);
    static const char* helpText();
};
