// The module's log: g_log, with the levels d (debug) and e (error).
//
// Messages are printf-style wide formats such as L"%s: running tests". They are
// formatted type-safely by fmt's printf, so "%s" takes a narrow (UTF-8) or a
// wide string alike and the same format texts work on every system; a format
// that does not fit its arguments logs the raw format rather than failing.
// Each line carries the UTC time, the level and the thread; control
// characters in the arguments are escaped. Thread-safe.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <type_traits>

#include <fmt/printf.h>
#include <fmt/xchar.h>

#include "platform/env/LogEnv.h"
#include "platform/util/Strings.h"

class Log {
public:
    template <typename... Args>
    void d(const wchar_t* format, const Args&... args) { Write('d', format, args...); }
    template <typename... Args>
    void e(const wchar_t* format, const Args&... args) { Write('e', format, args...); }

    // Directs the log to `sink` (null closes it: lines are dropped).
    void Open(std::shared_ptr<zep::platform::LogSink> sink);
    bool IsOpen() const;

private:
    // Every text argument has its control characters escaped: arguments
    // carry names, payloads and file contents from outside, and none of them
    // may end the line or forge one. The format texts are the module's own.
    template <typename T>
    static decltype(auto) Widen(const T& value) {
        using zep::text::EscapeControlCharacters;
        if constexpr (std::is_same_v<T, std::string> || std::is_same_v<T, std::string_view>) {
            return EscapeControlCharacters(zep::text::FromUtf8(value));
        } else if constexpr (std::is_convertible_v<T, const char*>) {
            return EscapeControlCharacters(zep::text::FromUtf8(value));
        } else if constexpr (std::is_same_v<T, std::wstring> || std::is_same_v<T, std::wstring_view> ||
                             std::is_convertible_v<T, const wchar_t*>) {
            return EscapeControlCharacters(value);
        } else if constexpr (std::is_same_v<T, bool>) {
            return static_cast<int>(value);
        } else if constexpr (std::is_enum_v<T>) {
            return static_cast<std::underlying_type_t<T>>(value);
        } else {
            return (value);
        }
    }

    template <typename... Args>
    void Write(char level, const wchar_t* format, const Args&... args) {
        // Logging never throws: it runs inside the handlers that keep
        // exceptions from leaving the module.
        try {
            if (!IsOpen()) return;
            std::wstring message;
            try {
                message = fmt::sprintf(std::wstring_view(format), Widen(args)...);
            } catch (const fmt::format_error&) {
                message = std::wstring(L"[unformattable] ") + format;
            }
            Emit(level, message);
        } catch (...) {
        }
    }

    void Emit(char level, const std::wstring& message);

    mutable std::mutex mutex_;
    std::shared_ptr<zep::platform::LogSink> sink_;
};

extern Log g_log;
