#include "platform/util/CivilTime.h"

#include <cstdint>

namespace zep::civil {
namespace {

// Howard Hinnant's days_from_civil / civil_from_days.
std::int64_t DaysFromCivil(std::int64_t y, unsigned m, unsigned d) {
    y -= m <= 2;
    const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
    const auto yoe = static_cast<unsigned>(y - era * 400);
    const unsigned doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
    const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + static_cast<std::int64_t>(doe) - 719468;
}

void CivilFromDays(std::int64_t z, std::int64_t& y, unsigned& m, unsigned& d) {
    z += 719468;
    const std::int64_t era = (z >= 0 ? z : z - 146096) / 146097;
    const auto doe = static_cast<unsigned>(z - era * 146097);
    const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    y = static_cast<std::int64_t>(yoe) + era * 400;
    const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const unsigned mp = (5 * doy + 2) / 153;
    d = doy - (153 * mp + 2) / 5 + 1;
    m = mp < 10 ? mp + 3 : mp - 9;
    y += m <= 2;
}

bool ReadNumber(std::string_view text, std::size_t pos, std::size_t width, int& value) {
    if (pos + width > text.size()) return false;
    value = 0;
    for (std::size_t i = pos; i < pos + width; ++i) {
        if (text[i] < '0' || text[i] > '9') return false;
        value = value * 10 + (text[i] - '0');
    }
    return true;
}

}  // namespace

GmtDateTime ToGmt(std::chrono::system_clock::time_point time) {
    using namespace std::chrono;
    const auto ms = duration_cast<milliseconds>(time.time_since_epoch()).count();
    std::int64_t days = ms / 86400000;
    std::int64_t rest = ms % 86400000;
    if (rest < 0) {
        rest += 86400000;
        --days;
    }
    std::int64_t year = 0;
    unsigned month = 0, day = 0;
    CivilFromDays(days, year, month, day);
    GmtDateTime out;
    out.year = static_cast<int>(year);
    out.month = static_cast<int>(month);
    out.day = static_cast<int>(day);
    out.hour = static_cast<int>(rest / 3600000);
    out.minute = static_cast<int>(rest / 60000 % 60);
    out.second = static_cast<int>(rest / 1000 % 60);
    out.millisecond = static_cast<int>(rest % 1000);
    return out;
}

std::chrono::system_clock::time_point FromGmt(const GmtDateTime& t) {
    using namespace std::chrono;
    const std::int64_t days = DaysFromCivil(t.year, static_cast<unsigned>(t.month), static_cast<unsigned>(t.day));
    const std::int64_t ms = ((days * 24 + t.hour) * 60 + t.minute) * 60000LL + t.second * 1000LL + t.millisecond;
    return system_clock::time_point(duration_cast<system_clock::duration>(milliseconds(ms)));
}

std::optional<std::chrono::system_clock::time_point> ParseIso8601Utc(std::string_view text) {
    GmtDateTime t;
    if (text.size() < 20 || text[4] != '-' || text[7] != '-' || text[10] != 'T' || text[13] != ':' ||
        text[16] != ':' || text.back() != 'Z') {
        return std::nullopt;
    }
    if (!ReadNumber(text, 0, 4, t.year) || !ReadNumber(text, 5, 2, t.month) || !ReadNumber(text, 8, 2, t.day) ||
        !ReadNumber(text, 11, 2, t.hour) || !ReadNumber(text, 14, 2, t.minute) ||
        !ReadNumber(text, 17, 2, t.second)) {
        return std::nullopt;
    }
    // Only a fraction of a second may stand between the seconds and the Z.
    std::size_t pos = 19;
    if (pos < text.size() - 1) {
        if (text[pos] != '.' || pos + 1 == text.size() - 1) return std::nullopt;
        for (++pos; pos < text.size() - 1; ++pos) {
            if (text[pos] < '0' || text[pos] > '9') return std::nullopt;
        }
    }
    if (t.month < 1 || t.month > 12 || t.day < 1 || t.day > 31 || t.hour > 23 || t.minute > 59 || t.second > 60) {
        return std::nullopt;
    }
    return FromGmt(t);
}

}  // namespace zep::civil
