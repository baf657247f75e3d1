#include "support/ZipReader.h"

#include <zip.h>

#include "platform/util/Paths.h"

namespace zep::testing {

std::vector<std::string> ZipNames(const std::filesystem::path& zip) {
    std::vector<std::string> names;
    int error = 0;
    zip_t* archive = zip_open(path::NarrowPath(zip).c_str(), ZIP_RDONLY, &error);
    if (archive == nullptr) return names;
    for (zip_int64_t i = 0; i < zip_get_num_entries(archive, 0); ++i) {
        names.emplace_back(zip_get_name(archive, static_cast<zip_uint64_t>(i), 0));
    }
    zip_discard(archive);
    return names;
}

std::set<std::string> ZipEntries(const std::filesystem::path& zip) {
    const std::vector<std::string> names = ZipNames(zip);
    return std::set<std::string>(names.begin(), names.end());
}

std::optional<std::string> ZipRead(const std::filesystem::path& zip, const std::string& entry) {
    int error = 0;
    zip_t* archive = zip_open(path::NarrowPath(zip).c_str(), ZIP_RDONLY, &error);
    if (archive == nullptr) return std::nullopt;
    std::optional<std::string> content;
    zip_stat_t info;
    zip_file_t* file = nullptr;
    if (zip_stat(archive, entry.c_str(), 0, &info) == 0 && (file = zip_fopen(archive, entry.c_str(), 0)) != nullptr) {
        std::string text(static_cast<std::size_t>(info.size), '\0');
        if (zip_fread(file, text.data(), info.size) == static_cast<zip_int64_t>(info.size)) content = std::move(text);
        zip_fclose(file);
    }
    zip_discard(archive);
    return content;
}

}  // namespace zep::testing
