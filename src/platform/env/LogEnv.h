// Where the module's log lines go.
#pragma once

#include <memory>
#include <string>
#include <string_view>

namespace zep::platform {

class LogSink {
public:
    virtual ~LogSink() = default;
    // Appends one complete line (it ends with a line feed). Called under the
    // log's own lock, so a sink needs no locking of its own.
    virtual void Write(std::string_view line) = 0;
};

class LogEnv {
public:
    virtual ~LogEnv() = default;
    // Opens the log named `fileName` in the agent's log folder, keeping at
    // most `maxFiles` files when it rotates. Null when there is nowhere to
    // write: the log then drops its lines without formatting them.
    virtual std::shared_ptr<LogSink> OpenLog(const std::string& fileName, int maxFiles) = 0;
};

}  // namespace zep::platform
