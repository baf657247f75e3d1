#include "support/Fakes.h"

#include <memory>

namespace zep::testing {

std::chrono::system_clock::time_point FakeClock::SystemNow() {
    return std::chrono::system_clock::time_point(std::chrono::milliseconds(systemMs_.load()));
}

void FakeClock::Advance(std::chrono::nanoseconds by) {
    steady_ += by.count();
    systemMs_ += std::chrono::duration_cast<std::chrono::milliseconds>(by).count();
}

void FakeClock::SetSystemTime(std::chrono::system_clock::time_point time) {
    systemMs_ = std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count();
}

int RecordingProcess::LaunchCommandLine(const std::wstring& commandLine, const std::wstring& arguments, bool,
                                        void* hostContext, std::chrono::milliseconds ceiling) {
    const std::wstring full = arguments.empty() ? commandLine : commandLine + L" " + arguments;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        commandLines_.push_back(full);
        lastHostContext = hostContext;
        lastCeiling = ceiling;
    }
    return onLaunch ? onLaunch(full) : 1;
}

platform::ProcessResult RecordingProcess::Spawn(const platform::ProcessRequest& request) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        spawns_.push_back(request);
    }
    if (onSpawn) return onSpawn(request);
    platform::ProcessResult result;
    result.started = true;
    result.exitCode = 0;
    return result;
}

std::vector<std::wstring> RecordingProcess::CommandLines() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return commandLines_;
}

std::vector<platform::ProcessRequest> RecordingProcess::Spawns() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return spawns_;
}

std::shared_ptr<platform::LogSink> MemoryLog::OpenLog(const std::string& /*fileName*/, int /*maxFiles*/) {
    // The sink is this object; the caller's shared_ptr must not delete it.
    return std::shared_ptr<platform::LogSink>(static_cast<platform::LogSink*>(this), [](platform::LogSink*) {});
}

void MemoryLog::Write(std::string_view line) {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.emplace_back(line);
}

std::vector<std::string> MemoryLog::Lines() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
}

std::vector<std::string> MemoryLog::Messages() const {
    std::vector<std::string> messages;
    for (const auto& line : Lines()) {
        // "<time> [d] [thread] message\n"
        std::size_t start = line.find("] [");
        start = start == std::string::npos ? 0 : line.find("] ", start + 3);
        std::string message = start == std::string::npos ? line : line.substr(start + 2);
        if (!message.empty() && message.back() == '\n') message.pop_back();
        messages.push_back(std::move(message));
    }
    return messages;
}

bool MemoryLog::Contains(const std::string& text) const { return Count(text) > 0; }

std::size_t MemoryLog::Count(const std::string& text) const {
    std::size_t count = 0;
    for (const auto& line : Lines()) {
        if (line.find(text) != std::string::npos) ++count;
    }
    return count;
}

void MemoryLog::Clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.clear();
}

}  // namespace zep::testing
