// Which snapshots `forget` keeps: the newest N, and the newest snapshot of
// each of the most recent hours, days, ISO weeks, months and years that have
// one. Every rule counts on its own; a snapshot kept by none is forgotten.
#pragma once

#include <cstdint>
#include <ctime>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace qvhost::repo {

struct RetentionPolicy {
    unsigned keepLast = 0, keepHourly = 0, keepDaily = 0, keepWeekly = 0, keepMonthly = 0, keepYearly = 0;

    bool Empty() const;  // no rule given
};

struct DatedSnapshot {
    std::string id;
    int64_t time = 0;  // seconds since 1970 UTC
};

struct RetentionDecision {
    std::vector<std::string> keep;    // newest first
    std::vector<std::string> forget;  // newest first
    // id -> the rules that kept it, in the order "last", "hourly", "daily",
    // "weekly", "monthly", "yearly". Empty when the policy keeps everything.
    std::map<std::string, std::vector<std::string>> reasons;
};

// The civil time of a moment, with at least tm_year, tm_mon, tm_yday,
// tm_wday and tm_hour filled in. Hours, days and weeks are those of this
// clock, so the default is the machine's local time.
using CivilTime = std::function<std::tm(int64_t seconds)>;

// Throws std::invalid_argument for a moment the system cannot convert.
std::tm LocalCivilTime(int64_t seconds);

// Sorts the snapshots newest first (snapshots of the same second by id) and
// decides. An empty policy keeps everything. Throws std::invalid_argument
// when two snapshots share an id.
RetentionDecision ApplyRetention(std::vector<DatedSnapshot> snapshots, const RetentionPolicy& policy,
                                 const CivilTime& civil = LocalCivilTime);

}  // namespace qvhost::repo
