#include "util/Text.h"

#include <algorithm>
#include <cstdio>
#include <ctime>

#include "platform/TextCodec.h"

namespace qvhost {

uint64_t ParseSize(const std::string& text) {
    if (text.empty() || text[0] < '0' || text[0] > '9') return 0;
    size_t used = 0;
    uint64_t value = 0;
    try {
        value = std::stoull(text, &used);
    } catch (const std::exception&) {
        return 0;
    }
    std::string unit = text.substr(used);
    if (!unit.empty() && (unit.back() == 'B' || unit.back() == 'b')) unit.pop_back();
    if (!unit.empty() && (unit.back() == 'i')) unit.pop_back();
    int shift = 0;
    if (unit.empty()) shift = 0;
    else if (unit == "K" || unit == "k") shift = 10;
    else if (unit == "M" || unit == "m") shift = 20;
    else if (unit == "G" || unit == "g") shift = 30;
    else if (unit == "T" || unit == "t") shift = 40;
    else return 0;
    if (value > (UINT64_MAX >> shift)) return 0;
    return value << shift;
}

int64_t ParseAge(const std::string& text) {
    if (text == "0") return 0;
    if (text.size() < 2 || text.find_first_not_of("0123456789") != text.size() - 1) return -1;
    int64_t unit = 0;
    switch (text.back()) {
    case 's': unit = 1; break;
    case 'm': unit = 60; break;
    case 'h': unit = 3600; break;
    case 'd': unit = kSecondsPerDay; break;
    default: return -1;
    }
    if (text.size() > 10) return -1;  // more than a century in any unit
    return std::stoll(text.substr(0, text.size() - 1)) * unit;
}

// From the days since 1970 to the date of the proleptic Gregorian calendar
// (Howard Hinnant's civil_from_days): exact for any time, before 1970 too,
// where Windows' gmtime_s fails.
std::tm UtcCivil(int64_t seconds) {
    const int64_t days = seconds / kSecondsPerDay - (seconds % kSecondsPerDay < 0);
    const int64_t second = seconds - days * kSecondsPerDay;
    const int64_t z = days + 719468;
    const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
    const int64_t dayOfEra = z - era * 146097;
    const int64_t yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const int64_t monthIndex = (5 * dayOfYear + 2) / 153;  // March is 0
    std::tm parts{};
    parts.tm_mday = static_cast<int>(dayOfYear - (153 * monthIndex + 2) / 5 + 1);
    parts.tm_mon = static_cast<int>(monthIndex < 10 ? monthIndex + 2 : monthIndex - 10);
    parts.tm_year = static_cast<int>(yearOfEra + era * 400 + (parts.tm_mon <= 1) - 1900);
    parts.tm_hour = static_cast<int>(second / 3600);
    parts.tm_min = static_cast<int>(second / 60 % 60);
    parts.tm_sec = static_cast<int>(second % 60);
    parts.tm_wday = static_cast<int>(((days % 7) + 7 + 4) % 7);  // 1970-01-01 was a Thursday
    const int64_t year = parts.tm_year + int64_t{1900};
    const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
    static const int kBefore[] = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334};
    parts.tm_yday = kBefore[parts.tm_mon] + parts.tm_mday - 1 + (leap && parts.tm_mon > 1);
    return parts;
}

// The inverse (days_from_civil), taking fields out of their ranges as
// timegm does (month 12 is January of the next year, day 0 the last of the
// month before); Windows' _mkgmtime takes no time before 1970.
int64_t UtcMoment(std::tm civil) {
    int64_t year = civil.tm_year + int64_t{1900} + civil.tm_mon / 12;
    int64_t month = civil.tm_mon % 12;  // 0 = January
    if (month < 0) month += 12, --year;
    const int64_t y = month < 2 ? year - 1 : year;
    const int64_t era = (y >= 0 ? y : y - 399) / 400;
    const int64_t yearOfEra = y - era * 400;
    const int64_t dayOfYear = (153 * (month < 2 ? month + 10 : month - 2) + 2) / 5;  // of the March-based year
    const int64_t dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
    const int64_t days = era * 146097 + dayOfEra - 719468 + (civil.tm_mday - 1);
    return days * kSecondsPerDay + civil.tm_hour * int64_t{3600} + civil.tm_min * int64_t{60} + civil.tm_sec;
}

namespace {

std::string FormatUtc(std::time_t time, const char* format) {
    const std::tm parts = UtcCivil(static_cast<int64_t>(time));
    char text[64];
    std::strftime(text, sizeof text, format, &parts);
    return text;
}

}  // namespace

std::string UtcNow(const char* format) { return FormatUtc(std::time(nullptr), format); }

std::string UtcTimeText(int64_t seconds) {
    return seconds < 0 ? "unknown" : FormatUtc(static_cast<std::time_t>(seconds), "%Y-%m-%dT%H:%M:%SZ");
}

int64_t ParseUtcTime(const std::string& text) {
    std::tm parts{};
    char end = 0;
    if (text.size() != 20 || std::sscanf(text.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d%c", &parts.tm_year, &parts.tm_mon,
                                         &parts.tm_mday, &parts.tm_hour, &parts.tm_min, &parts.tm_sec, &end) != 7 ||
        end != 'Z') {
        return -1;
    }
    parts.tm_year -= 1900;
    parts.tm_mon -= 1;
    return UtcMoment(parts);
}

int64_t ParseHttpDate(const std::string& text) {
    static const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                          "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    std::tm parts{};
    char weekday[4] = {}, month[4] = {}, zone[4] = {};
    int used = 0;
    if (std::sscanf(text.c_str(), "%3[A-Za-z], %2d %3[A-Za-z] %4d %2d:%2d:%2d %3[A-Z]%n", weekday, &parts.tm_mday,
                    month, &parts.tm_year, &parts.tm_hour, &parts.tm_min, &parts.tm_sec, zone, &used) != 8 ||
        static_cast<size_t>(used) != text.size() || std::string(zone) != "GMT") {
        return -1;
    }
    const auto found = std::find_if(std::begin(kMonths), std::end(kMonths),
                                    [&](const char* name) { return std::string(name) == month; });
    if (found == std::end(kMonths) || parts.tm_mday < 1 || parts.tm_mday > 31) return -1;
    char iso[32];
    std::snprintf(iso, sizeof iso, "%04d-%02d-%02dT%02d:%02d:%02dZ", parts.tm_year,
                  static_cast<int>(found - std::begin(kMonths)) + 1, parts.tm_mday, parts.tm_hour, parts.tm_min,
                  parts.tm_sec);
    return ParseUtcTime(iso);
}

std::string Rfc3339Nanos(int64_t nanoseconds) {
    int64_t seconds = nanoseconds / 1000000000;
    int64_t fraction = nanoseconds % 1000000000;
    if (fraction < 0) fraction += 1000000000, --seconds;
    std::string text = FormatUtc(static_cast<std::time_t>(seconds), "%Y-%m-%dT%H:%M:%S");
    if (fraction != 0) {
        char digits[16];
        std::snprintf(digits, sizeof digits, ".%09lld", static_cast<long long>(fraction));
        std::string part = digits;
        while (part.back() == '0') part.pop_back();
        text += part;
    }
    return text + "Z";
}

std::string LocalTimeText(int64_t seconds) {
    const std::time_t time = static_cast<std::time_t>(seconds);
    std::tm parts{};
#ifdef _WIN32
    localtime_s(&parts, &time);
#else
    localtime_r(&time, &parts);
#endif
    char text[64];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts);
    return text;
}

int64_t ParseLocalTime(const std::string& text) {
    if (text.size() == 20 && text.back() == 'Z') return ParseUtcTime(text);
    std::tm parts{};
    char rest = 0;
    const int read = std::sscanf(text.c_str(), "%4d-%2d-%2d %2d:%2d:%2d%c", &parts.tm_year, &parts.tm_mon,
                                 &parts.tm_mday, &parts.tm_hour, &parts.tm_min, &parts.tm_sec, &rest);
    const bool shaped = (read == 3 && text.size() == 10) || (read == 5 && text.size() == 16) ||
                        (read == 6 && text.size() == 19);
    if (!shaped || parts.tm_mon < 1 || parts.tm_mon > 12 || parts.tm_mday < 1 || parts.tm_mday > 31) return -1;
    parts.tm_year -= 1900;
    parts.tm_mon -= 1;
    parts.tm_isdst = -1;
    return static_cast<int64_t>(std::mktime(&parts));
}

double MiBPerSecond(uint64_t bytes, double seconds) {
    return seconds > 0 ? static_cast<double>(bytes) / (1024.0 * 1024.0) / seconds : 0;
}

std::string FormatBytes(double bytes) {
    static const char* const kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB"};
    int unit = 0;
    while (bytes >= 1024 && unit < 4) bytes /= 1024, ++unit;
    char text[32];
    std::snprintf(text, sizeof text, unit == 0 ? "%.0f %s" : "%.1f %s", bytes, kUnits[unit]);
    return text;
}

std::string FormatDuration(double seconds) {
    if (!(seconds >= 0) || seconds > 359999) return "--:--";
    const long total = static_cast<long>(seconds + 0.5);
    char text[32];
    if (total >= 3600) {
        std::snprintf(text, sizeof text, "%ld:%02ld:%02ld", total / 3600, total / 60 % 60, total % 60);
    } else {
        std::snprintf(text, sizeof text, "%ld:%02ld", total / 60, total % 60);
    }
    return text;
}

std::string AsciiLower(std::string text) {
    for (char& c : text) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return text;
}

std::string Printable(const std::string& text) {
    std::string out;
    for (const unsigned char c : text) {
        if (c < 0x20 || c == 0x7F) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\x%02X", c);
            out += escaped;
        } else {
            out.push_back(static_cast<char>(c));
        }
    }
    return out;
}

bool IsUtf8(const std::string& text) { return qvplatform::ToUtf8(qvplatform::FromUtf8(text)) == text; }

namespace {

int HexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

}  // namespace

std::string PercentEscape(const std::string& text, bool highBytes) {
    std::string out;
    for (unsigned char c : text) {
        if (c == '%' || c < 0x20 || c == 0x7F || (highBytes && c >= 0x80)) {
            char escaped[4];
            std::snprintf(escaped, sizeof escaped, "%%%02X", c);
            out += escaped;
        } else {
            out.push_back(static_cast<char>(c));
        }
    }
    return out;
}

bool PercentUnescape(const std::string& text, std::string& out) {
    out.clear();
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            out.push_back(text[i]);
            continue;
        }
        const int high = i + 2 < text.size() ? HexValue(text[i + 1]) : -1;
        const int low = i + 2 < text.size() ? HexValue(text[i + 2]) : -1;
        if (high < 0 || low < 0) return false;
        out.push_back(static_cast<char>(high * 16 + low));
        i += 2;
    }
    return true;
}

}  // namespace qvhost
