// Small texts the whole tool shares: splitting, sizes and ages as users
// write them, UTC times, byte counts and durations as people read them,
// text from storage made safe for a terminal, and the %-escapes that keep
// any byte of a name in a line of text.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

namespace qvhost {

// A text cut at every separator: Split("a/b", '/') is {"a", "b"}, an empty
// text one empty piece, and a separator at either end an empty piece there.
inline std::vector<std::string> Split(const std::string& text, char separator) {
    std::vector<std::string> pieces;
    size_t start = 0;
    for (;;) {
        const size_t end = text.find(separator, start);
        pieces.push_back(text.substr(start, end - start));
        if (end == std::string::npos) return pieces;
        start = end + 1;
    }
}

// "64M", "1G", "2T", "4096", "512K" (binary units); 0 for text that is not a size.
uint64_t ParseSize(const std::string& text);
// "30m", "24h", "7d", "90s" or "0"; -1 for text that is not an age.
int64_t ParseAge(const std::string& text);

constexpr int64_t kSecondsPerDay = 86400;
constexpr double kBytesPerGiB = 1024.0 * 1024.0 * 1024.0;

// The calendar fields of a UTC time, and back (gmtime and timegm, which
// Windows names otherwise).
std::tm UtcCivil(int64_t seconds);
int64_t UtcMoment(std::tm civil);
// The current UTC time in strftime's `format`.
std::string UtcNow(const char* format);
// "YYYY-MM-DDTHH:MM:SSZ" of seconds since 1970; "unknown" for a negative time.
std::string UtcTimeText(int64_t seconds);
// UTC time of "YYYY-MM-DDTHH:MM:SSZ" in seconds since 1970; -1 if the text is not one.
int64_t ParseUtcTime(const std::string& text);
// UTC time of an HTTP date ("Tue, 01 Dec 2026 00:00:00 GMT", RFC 1123) in
// seconds since 1970; -1 if the text is not one.
int64_t ParseHttpDate(const std::string& text);

// RFC 3339 in UTC of nanoseconds since 1970: "2024-03-05T10:20:30.5Z"
// (the fraction only when there is one, without trailing zeros).
std::string Rfc3339Nanos(int64_t nanoseconds);
// "YYYY-MM-DD HH:MM:SS" in local time.
std::string LocalTimeText(int64_t seconds);
// Seconds since 1970 of "YYYY-MM-DD", "YYYY-MM-DD HH:MM" or
// "YYYY-MM-DD HH:MM:SS" in local time, or "YYYY-MM-DDTHH:MM:SSZ" in UTC;
// -1 if the text is none of them.
int64_t ParseLocalTime(const std::string& text);

double MiBPerSecond(uint64_t bytes, double seconds);
// "12.3 MiB" and the like.
std::string FormatBytes(double bytes);
// "1:02:03" or "2:03".
std::string FormatDuration(double seconds);

// Text from storage made safe for a terminal: control characters as \xNN.
std::string Printable(const std::string& text);

// ASCII letters made lower case (names and values compared without case).
std::string AsciiLower(std::string text);

// Whether the bytes are well-formed UTF-8.
bool IsUtf8(const std::string& text);

// '%', control characters (and with `highBytes` every byte from 0x80 on)
// as %XX; PercentUnescape answers false for a bad escape.
std::string PercentEscape(const std::string& text, bool highBytes);
bool PercentUnescape(const std::string& text, std::string& out);

}  // namespace qvhost
