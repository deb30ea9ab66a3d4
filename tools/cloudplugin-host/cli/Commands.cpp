// What the commands share: the ways to speak to the user and the small
// parsers and formatters.
#include "cli/Commands.h"

#include <cstdio>
#include <ctime>
#include <random>

namespace qvhost {

void CommandContext::Say(const std::string& text) const {
    if (options.json || options.quiet) return;
    std::fputs(text.c_str(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

void CommandContext::Warn(const std::string& text) const {
    if (options.json) return;
    std::fprintf(stderr, "%s\n", text.c_str());
}

void CommandContext::SayPluginShare(double pluginSeconds, double seconds) const {
    char line[160];
    std::snprintf(line, sizeof line,
                  "inside the plug-in (with the JVM and the storage service): %.1f s of thread time, "
                  "%.0f%% of %u jobs x %.1f s",
                  pluginSeconds, seconds > 0 ? 100.0 * pluginSeconds / (seconds * options.jobs) : 0.0,
                  options.jobs, seconds);
    Say(line);
}

ProgressStyle CommandContext::Style() const {
    return options.json || options.quiet ? ProgressStyle::Silent : DefaultProgressStyle();
}

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
    case 'd': unit = 86400; break;
    default: return -1;
    }
    if (text.size() > 10) return -1;  // more than a century in any unit
    return std::stoll(text.substr(0, text.size() - 1)) * unit;
}

namespace {

std::string FormatUtc(std::time_t time, const char* format) {
    std::tm parts{};
#ifdef _WIN32
    gmtime_s(&parts, &time);
#else
    gmtime_r(&time, &parts);
#endif
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
#ifdef _WIN32
    return static_cast<int64_t>(_mkgmtime(&parts));
#else
    return static_cast<int64_t>(timegm(&parts));
#endif
}

std::string NewBackupId() {
    std::random_device random;
    char suffix[8];
    std::snprintf(suffix, sizeof suffix, "%04x", static_cast<unsigned>(random() & 0xFFFF));
    return UtcNow("%Y%m%d-%H%M%S-") + suffix;
}

double MiBPerSecond(uint64_t bytes, double seconds) {
    return seconds > 0 ? static_cast<double>(bytes) / (1024.0 * 1024.0) / seconds : 0;
}

Json SkippedJson(const std::vector<SkippedEntry>& skipped) {
    Json list = Json::array();
    for (const SkippedEntry& entry : skipped) {
        list.push_back(Json{{"path", entry.relativePath}, {"reason", entry.reason}, {"unreadable", entry.unreadable}});
    }
    return list;
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

}  // namespace qvhost
