// The retention rules of `forget`, over the civil time of each snapshot.
#include "repository/Retention.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

namespace qvhost::repo {

namespace {

// A period of civil time: an hour, a day, an ISO week, a month or a year.
using Period = std::array<long, 3>;

bool IsLeapYear(long year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

int WeekdayOf(long days) { return static_cast<int>(((days % 7) + 7) % 7); }  // 0 = Sunday, as in tm_wday

// A year has 53 ISO weeks when it starts or ends on a Thursday.
bool HasWeek53(int januaryFirst, bool leap) {
    return januaryFirst == 4 || WeekdayOf(januaryFirst + (leap ? 365 : 364)) == 4;
}

// The ISO 8601 week-based year and week: weeks start on Monday, and week 1
// is the one holding the year's first Thursday, so the first days of January
// may belong to the year before and the last days of December to the next.
std::pair<long, int> IsoWeek(const std::tm& civil) {
    long year = civil.tm_year + 1900L;
    const int weekday = (civil.tm_wday + 6) % 7 + 1;  // Monday 1 .. Sunday 7
    int week = (civil.tm_yday + 1 - weekday + 10) / 7;
    const int januaryFirst = WeekdayOf(civil.tm_wday - civil.tm_yday);
    if (week < 1) {
        const bool leap = IsLeapYear(year - 1);
        week = HasWeek53(WeekdayOf(januaryFirst - (leap ? 366 : 365)), leap) ? 53 : 52;
        --year;
    } else if (week == 53 && !HasWeek53(januaryFirst, IsLeapYear(year))) {
        week = 1;
        ++year;
    }
    return {year, week};
}

Period Hour(const std::tm& civil) { return {civil.tm_year + 1900L, civil.tm_yday, civil.tm_hour}; }
Period Day(const std::tm& civil) { return {civil.tm_year + 1900L, civil.tm_yday, 0}; }
Period Week(const std::tm& civil) {
    const auto [year, week] = IsoWeek(civil);
    return {year, week, 0};
}
Period Month(const std::tm& civil) { return {civil.tm_year + 1900L, civil.tm_mon, 0}; }
Period Year(const std::tm& civil) { return {civil.tm_year + 1900L, 0, 0}; }

// Keeps the newest snapshot of each of the `count` most recent periods that
// have one: walking newest first, the first snapshot seen in a period is the
// newest of it.
struct PeriodRule {
    const char* name;
    unsigned count;
    Period (*periodOf)(const std::tm&);
    std::set<Period> seen;

    bool Open() const { return seen.size() < count; }
};

}  // namespace

bool RetentionPolicy::Empty() const {
    return keepLast == 0 && keepHourly == 0 && keepDaily == 0 && keepWeekly == 0 && keepMonthly == 0 &&
           keepYearly == 0;
}

std::tm LocalCivilTime(int64_t seconds) {
    const auto moment = static_cast<std::time_t>(seconds);
    if (static_cast<int64_t>(moment) != seconds) {
        throw std::invalid_argument("the time " + std::to_string(seconds) + " is out of this system's range");
    }
    std::tm civil{};
#ifdef _WIN32
    const bool converted = localtime_s(&civil, &moment) == 0;
#else
    // POSIX lets localtime_r skip reading the time zone; read it once here.
    static const bool zoneRead = (tzset(), true);
    (void)zoneRead;
    const bool converted = localtime_r(&moment, &civil) != nullptr;
#endif
    if (!converted) {
        throw std::invalid_argument("the time " + std::to_string(seconds) + " has no local civil time");
    }
    return civil;
}

RetentionDecision ApplyRetention(std::vector<DatedSnapshot> snapshots, const RetentionPolicy& policy,
                                 const CivilTime& civil) {
    std::sort(snapshots.begin(), snapshots.end(), [](const DatedSnapshot& a, const DatedSnapshot& b) {
        return a.time != b.time ? a.time > b.time : a.id < b.id;
    });
    {
        std::set<std::string_view> ids;
        for (const DatedSnapshot& snapshot : snapshots) {
            if (!ids.insert(snapshot.id).second) {
                throw std::invalid_argument("snapshot " + snapshot.id + " is listed twice");
            }
        }
    }

    RetentionDecision decision;
    if (policy.Empty()) {
        for (const DatedSnapshot& snapshot : snapshots) {
            decision.keep.push_back(snapshot.id);
        }
        return decision;
    }

    PeriodRule rules[] = {
        {"hourly", policy.keepHourly, Hour, {}},
        {"daily", policy.keepDaily, Day, {}},
        {"weekly", policy.keepWeekly, Week, {}},
        {"monthly", policy.keepMonthly, Month, {}},
        {"yearly", policy.keepYearly, Year, {}},
    };
    for (size_t i = 0; i < snapshots.size(); ++i) {
        const DatedSnapshot& snapshot = snapshots[i];
        std::vector<std::string> why;
        if (i < policy.keepLast) {
            why.emplace_back("last");
        }
        // The civil time is asked for only while some rule still counts.
        if (std::any_of(std::begin(rules), std::end(rules), [](const PeriodRule& rule) { return rule.Open(); })) {
            const std::tm time = civil(snapshot.time);
            for (PeriodRule& rule : rules) {
                if (rule.Open() && rule.seen.insert(rule.periodOf(time)).second) {
                    why.emplace_back(rule.name);
                }
            }
        }
        if (why.empty()) {
            decision.forget.push_back(snapshot.id);
        } else {
            decision.keep.push_back(snapshot.id);
            decision.reasons.emplace(snapshot.id, std::move(why));
        }
    }
    return decision;
}

}  // namespace qvhost::repo
