// The command line of the publisher.
#pragma once

#include <string>

#include "publisher/config/settings.hpp"

struct command_line {
    publisher_settings settings;
    std::string config; // file that the settings were read from; empty: none
    bool check = false; // say whether the settings are good, and do no more
    bool end = false;   // close the presentation
};

enum class parse_outcome {
    run,
    done, // the text asked for has been printed
    refused,
};

// What is wrong is printed.
parse_outcome parse_command_line(int argc, char** argv, const char* version, command_line& line);
