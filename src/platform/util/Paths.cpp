#include "platform/util/Paths.h"

#include "platform/util/Strings.h"

namespace zep::path {

std::wstring NativePath(std::wstring_view windowsLiteral) {
    std::wstring out(windowsLiteral);
#ifndef _WIN32
    for (auto& c : out) {
        if (c == L'\\') c = L'/';
    }
#endif
    return out;
}

std::wstring ExtendedAbsolute(const std::wstring& path) {
    std::error_code ec;
    auto absolute = std::filesystem::absolute(ToFs(path), ec);
    if (ec) absolute = ToFs(path);
#ifdef _WIN32
    std::wstring text = absolute.wstring();
    if (text.rfind(L"\\\\?\\", 0) == 0) return text;
    if (text.rfind(L"\\\\", 0) == 0) return L"\\\\?\\UNC\\" + text.substr(2);
    return L"\\\\?\\" + text;
#else
    return FromFs(absolute);
#endif
}

std::filesystem::path ToFs(const std::wstring& path) {
#ifdef _WIN32
    return std::filesystem::path(path);
#else
    return std::filesystem::path(text::EncodeFileName(path));
#endif
}

std::wstring FromFs(const std::filesystem::path& path) {
#ifdef _WIN32
    return path.wstring();
#else
    return text::DecodeFileName(path.native());
#endif
}

std::string NarrowPath(const std::filesystem::path& path) {
#ifdef _WIN32
    return text::ToUtf8(path.native());
#else
    return path.native();
#endif
}

std::filesystem::path FromNarrow(const std::string& narrow) {
#ifdef _WIN32
    return std::filesystem::path(text::FromUtf8(narrow));
#else
    return std::filesystem::path(narrow);
#endif
}

}  // namespace zep::path
