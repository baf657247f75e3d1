// The text of the exception being handled, for log lines. Call it only inside
// a catch block.
#pragma once

#include <exception>
#include <string>

#include "platform/util/Strings.h"

namespace zep {

inline std::wstring CurrentExceptionText() {
    try {
        throw;
    } catch (const std::exception& ex) {
        return text::FromUtf8(ex.what());
    } catch (...) {
        return L"unknown exception";
    }
}

}  // namespace zep
