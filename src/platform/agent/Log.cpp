#include "platform/agent/Log.h"

#include <chrono>
#include <ctime>
#include <functional>
#include <thread>

#include "platform/env/Env.h"

Log g_log;

void Log::Open(std::shared_ptr<zep::platform::LogSink> sink) {
    std::lock_guard<std::mutex> guard(mutex_);
    sink_ = std::move(sink);
}

bool Log::IsOpen() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return sink_ != nullptr;
}

void Log::Emit(char level, const std::wstring& message) {
    using namespace std::chrono;
    const auto now = zep::platform::CurrentEnv()->clock->SystemNow();
    const std::time_t seconds = system_clock::to_time_t(now);
    const auto millis = duration_cast<milliseconds>(now.time_since_epoch()).count() % 1000;
    std::tm utc{};
#ifdef _WIN32
    gmtime_s(&utc, &seconds);
#else
    gmtime_r(&seconds, &utc);
#endif
    const auto thread = std::hash<std::thread::id>{}(std::this_thread::get_id()) % 100000;
    std::string line = fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}Z [{}] [{:05}] ", utc.tm_year + 1900,
                                   utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec, millis, level,
                                   thread);
    line += zep::text::ToUtf8(message);
    line += '\n';
    std::lock_guard<std::mutex> guard(mutex_);
    if (sink_) sink_->Write(line);
}
