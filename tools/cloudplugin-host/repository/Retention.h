// Which snapshots `forget` keeps, by the rules restic's documentation
// gives: the newest N (last); the newest snapshot of each of the most
// recent N hours, days, ISO weeks, months and years that have one; every
// snapshot made less than a span before the newest (within), or the newest of each
// hour, day, week, month or year within such a span (within-hourly ...);
// every snapshot that carries the tags of a --keep-tag. Every rule counts on
// its own; a snapshot kept by none is forgotten. A calendar rule that could
// keep more than there are periods also keeps the oldest snapshot ("oldest
// daily"), so that a young repository keeps its first snapshot. Snapshots
// dated after now (a clock set wrong) are kept and count for no rule.
#pragma once

#include <cstdint>
#include <ctime>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace qvhost::repo {

// A span of civil time as restic writes it: "1y5m7d2h" (years, months,
// days, hours; each at most once; "1w" is no span: write 7d).
struct CalendarSpan {
    int years = 0, months = 0, days = 0, hours = 0;

    bool Empty() const { return years == 0 && months == 0 && days == 0 && hours == 0; }
    std::string Text() const;  // "1y5m7d2h", its parts that are 0 left out
};
// Nothing for text that is no span, or a span of nothing.
std::optional<CalendarSpan> ParseCalendarSpan(const std::string& text);

struct RetentionPolicy {
    unsigned keepLast = 0, keepHourly = 0, keepDaily = 0, keepWeekly = 0, keepMonthly = 0, keepYearly = 0;
    CalendarSpan within, withinHourly, withinDaily, withinWeekly, withinMonthly, withinYearly;
    // A snapshot that carries every tag of any one set is kept; the set {""}
    // keeps the snapshots that have no tag at all.
    std::vector<std::vector<std::string>> keepTags;

    bool Empty() const;  // no rule given
};

struct DatedSnapshot {
    DatedSnapshot() = default;
    DatedSnapshot(std::string id_, int64_t time_, std::vector<std::string> tags_ = {}, int64_t timeNs_ = 0)
        : id(std::move(id_)), time(time_), tags(std::move(tags_)), timeNs(timeNs_) {}

    std::string id;
    int64_t time = 0;  // seconds since 1970 UTC
    std::vector<std::string> tags;
    int64_t timeNs = 0;  // the same in nanoseconds, when known: orders snapshots made within one second
};

struct RetentionDecision {
    std::vector<std::string> keep;    // newest first
    std::vector<std::string> forget;  // newest first
    // id -> the rules that kept it, in the order "last", "hourly", "daily",
    // "weekly", "monthly", "yearly", "within", "within-hourly", ...,
    // "within-yearly", "tag" (a calendar rule that kept the oldest snapshot
    // as such: "oldest daily"), or "future". Empty when the policy keeps
    // everything.
    std::map<std::string, std::vector<std::string>> reasons;
};

// The civil time of a moment, with at least tm_year, tm_mon, tm_mday,
// tm_yday, tm_wday and tm_hour filled in.
using CivilTime = std::function<std::tm(int64_t seconds)>;
// The moment of a civil time whose fields may lie outside their ranges
// (the 0th of March is the last of February), as mktime(3) takes it.
using CivilMoment = std::function<int64_t(std::tm civil)>;

// What retention reads of the world: the time now and a calendar. Hours,
// days and weeks are those of this calendar, so the default is the
// machine's local time.
struct RetentionClock {
    int64_t now = 0;  // seconds since 1970 UTC
    CivilTime civil;
    CivilMoment moment;
};
RetentionClock LocalClock();

// Throws std::invalid_argument for a moment the system cannot convert.
std::tm LocalCivilTime(int64_t seconds);

// Sorts the snapshots newest first (snapshots of the same second by id) and
// decides. An empty policy keeps everything. Throws std::invalid_argument
// when two snapshots share an id.
RetentionDecision ApplyRetention(std::vector<DatedSnapshot> snapshots, const RetentionPolicy& policy,
                                 const RetentionClock& clock = LocalClock());

}  // namespace qvhost::repo
