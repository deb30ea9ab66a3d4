// The retention rules of `forget`, over the civil time of each snapshot.
#include "repository/Retention.h"

#include <algorithm>
#include <array>
#include <cctype>
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

// Keeps the newest snapshot of each period: of the `count` most recent
// periods that have one, or of the periods of snapshots made after
// `cutoff`. Walking newest first, the first snapshot seen in a period is
// the newest of it.
struct PeriodRule {
    std::string name;
    unsigned count = 0;
    std::optional<int64_t> cutoff;  // the within- rules
    Period (*periodOf)(const std::tm&) = nullptr;
    std::set<Period> seen;

    bool Open(int64_t time) const { return cutoff ? time > *cutoff : seen.size() < count; }
    bool Used() const { return cutoff || count > 0; }
};

// The moment `span` before `latest`, in civil time: years, months and days
// on the calendar (31 March less a month is 3 March, as mktime normalises
// 31 February), then hours.
int64_t Before(int64_t latest, const CalendarSpan& span, const RetentionClock& clock) {
    std::tm civil = clock.civil(latest);
    civil.tm_year -= span.years;
    civil.tm_mon -= span.months;
    civil.tm_mday -= span.days;
    civil.tm_isdst = -1;
    return clock.moment(civil) - int64_t{span.hours} * 3600;
}

std::vector<PeriodRule> PeriodRules(const RetentionPolicy& policy, int64_t latest, const RetentionClock& clock) {
    const std::pair<const char*, Period (*)(const std::tm&)> kinds[] = {
        {"hourly", Hour}, {"daily", Day}, {"weekly", Week}, {"monthly", Month}, {"yearly", Year}};
    const unsigned counts[] = {policy.keepHourly, policy.keepDaily, policy.keepWeekly, policy.keepMonthly,
                               policy.keepYearly};
    const CalendarSpan* spans[] = {&policy.withinHourly, &policy.withinDaily, &policy.withinWeekly,
                                   &policy.withinMonthly, &policy.withinYearly};
    std::vector<PeriodRule> rules;
    for (size_t i = 0; i < 5; ++i) rules.push_back({kinds[i].first, counts[i], std::nullopt, kinds[i].second, {}});
    for (size_t i = 0; i < 5; ++i) {
        std::optional<int64_t> cutoff;
        if (!spans[i]->Empty()) cutoff = Before(latest, *spans[i], clock);
        rules.push_back({std::string("within-") + kinds[i].first, 0, cutoff, kinds[i].second, {}});
    }
    return rules;
}

bool HasTags(const DatedSnapshot& snapshot, const std::vector<std::vector<std::string>>& tagSets) {
    const auto has = [&](const std::string& tag) {
        return std::find(snapshot.tags.begin(), snapshot.tags.end(), tag) != snapshot.tags.end();
    };
    return std::any_of(tagSets.begin(), tagSets.end(), [&](const std::vector<std::string>& set) {
        if (set.size() == 1 && set[0].empty()) return snapshot.tags.empty();
        return !set.empty() && std::all_of(set.begin(), set.end(), has);
    });
}

// The rules of a policy over the snapshots that are not in the future,
// newest first.
class RetentionRun {
public:
    RetentionRun(const RetentionPolicy& policy, const std::vector<const DatedSnapshot*>& past,
                 const RetentionClock& clock)
        : policy_(policy), past_(past), clock_(clock),
          rules_(past.empty() ? std::vector<PeriodRule>{} : PeriodRules(policy, past.front()->time, clock)) {
        if (!past.empty() && !policy.within.Empty()) within_ = Before(past.front()->time, policy.within, clock);
    }

    // Why the i-th snapshot is kept; empty: it is not.
    std::vector<std::string> Reasons(size_t i) {
        const DatedSnapshot& snapshot = *past_[i];
        std::vector<std::string> why;
        if (i < policy_.keepLast) why.emplace_back("last");
        std::optional<std::tm> civil;  // asked for only while some calendar rule still counts
        ApplyPeriods(0, 5, i, civil, why);
        if (within_ && snapshot.time > *within_) why.emplace_back("within");
        ApplyPeriods(5, rules_.size(), i, civil, why);
        if (!policy_.keepTags.empty() && HasTags(snapshot, policy_.keepTags)) why.emplace_back("tag");
        return why;
    }

private:
    void ApplyPeriods(size_t first, size_t end, size_t i, std::optional<std::tm>& civil,
                      std::vector<std::string>& why) {
        const int64_t time = past_[i]->time;
        for (size_t rule = first; rule < end; ++rule) {
            PeriodRule& period = rules_[rule];
            if (!period.Used() || !period.Open(time)) continue;
            if (!civil) civil = clock_.civil(time);
            if (period.seen.insert(period.periodOf(*civil)).second) {
                why.push_back(period.name);
            } else if (i + 1 == past_.size()) {
                why.push_back("oldest " + period.name);  // a rule not filled keeps the oldest snapshot too
            }
        }
    }

    const RetentionPolicy& policy_;
    const std::vector<const DatedSnapshot*>& past_;
    const RetentionClock& clock_;
    std::vector<PeriodRule> rules_;
    std::optional<int64_t> within_;
};

void SortNewestFirst(std::vector<DatedSnapshot>& snapshots) {
    std::sort(snapshots.begin(), snapshots.end(), [](const DatedSnapshot& a, const DatedSnapshot& b) {
        if (a.time != b.time) return a.time > b.time;
        return a.timeNs != b.timeNs ? a.timeNs > b.timeNs : a.id < b.id;
    });
    std::set<std::string_view> ids;
    for (const DatedSnapshot& snapshot : snapshots) {
        if (!ids.insert(snapshot.id).second) {
            throw std::invalid_argument("snapshot " + snapshot.id + " is listed twice");
        }
    }
}

}  // namespace

std::string CalendarSpan::Text() const {
    std::string text;
    const std::pair<int, char> parts[] = {{years, 'y'}, {months, 'm'}, {days, 'd'}, {hours, 'h'}};
    for (const auto& [value, unit] : parts) {
        if (value != 0) text += std::to_string(value) + unit;
    }
    return text;
}

std::optional<CalendarSpan> ParseCalendarSpan(const std::string& text) {
    CalendarSpan span;
    std::string units;  // seen
    size_t i = 0;
    while (i < text.size()) {
        size_t digits = 0;
        while (i + digits < text.size() && std::isdigit(static_cast<unsigned char>(text[i + digits]))) ++digits;
        if (digits == 0 || digits > 6 || i + digits == text.size()) return std::nullopt;
        const int value = std::stoi(text.substr(i, digits));
        const char unit = text[i + digits];
        if (units.find(unit) != std::string::npos) return std::nullopt;
        units += unit;
        switch (unit) {
        case 'y': span.years = value; break;
        case 'm': span.months = value; break;
        case 'd': span.days = value; break;
        case 'h': span.hours = value; break;
        default: return std::nullopt;
        }
        i += digits + 1;
    }
    if (span.Empty()) return std::nullopt;
    return span;
}

bool RetentionPolicy::Empty() const {
    return keepLast == 0 && keepHourly == 0 && keepDaily == 0 && keepWeekly == 0 && keepMonthly == 0 &&
           keepYearly == 0 && within.Empty() && withinHourly.Empty() && withinDaily.Empty() &&
           withinWeekly.Empty() && withinMonthly.Empty() && withinYearly.Empty() && keepTags.empty();
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

RetentionClock LocalClock() {
    RetentionClock clock;
    clock.now = static_cast<int64_t>(std::time(nullptr));
    clock.civil = LocalCivilTime;
    clock.moment = [](std::tm civil) { return static_cast<int64_t>(std::mktime(&civil)); };
    return clock;
}

RetentionDecision ApplyRetention(std::vector<DatedSnapshot> snapshots, const RetentionPolicy& policy,
                                 const RetentionClock& clock) {
    SortNewestFirst(snapshots);
    RetentionDecision decision;
    if (policy.Empty()) {
        for (const DatedSnapshot& snapshot : snapshots) decision.keep.push_back(snapshot.id);
        return decision;
    }
    std::vector<const DatedSnapshot*> past;
    for (const DatedSnapshot& snapshot : snapshots) {
        if (snapshot.time > clock.now) {
            decision.keep.push_back(snapshot.id);
            decision.reasons[snapshot.id] = {"future"};
        } else {
            past.push_back(&snapshot);
        }
    }
    RetentionRun run(policy, past, clock);
    for (size_t i = 0; i < past.size(); ++i) {
        std::vector<std::string> why = run.Reasons(i);
        (why.empty() ? decision.forget : decision.keep).push_back(past[i]->id);
        if (!why.empty()) decision.reasons.emplace(past[i]->id, std::move(why));
    }
    return decision;
}

}  // namespace qvhost::repo
