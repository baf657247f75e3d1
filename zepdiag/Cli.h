// The command line of zepdiag: what to do and on which device folder.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "serve/ServeOptions.h"

namespace zepdiag {

enum class Command { Help, Init, Scan, Notify, Online, History, Serve };

struct Options {
    Command command = Command::Help;
    std::string device = "zep-device";  // relative to the working directory
    bool scheduled = false;             // scan: report the scan as scheduled, not manual
    bool native = false;                // scan: collect and pack natively, not with PowerShell (Windows)
    bool noWait = false;                // fail at once when the device folder is in use
    std::string payload;                // notify: the notification's JSON text
    bool json = false;                  // scan, notify, online, history: one JSON document on stdout
    serve::ServeOptions serve;          // serve: the roads to the cloud
};

struct ParsedCommandLine {
    std::optional<Options> options;  // empty on a usage error
    std::string error;               // what was wrong, for the user
};

// Parses the arguments after the program name. No command at all is a usage
// error; "help" and --help are not.
ParsedCommandLine ParseCommandLine(const std::vector<std::string>& args);

std::string UsageText();

}  // namespace zepdiag
