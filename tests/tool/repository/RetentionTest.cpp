// Which snapshots `forget` keeps, on UTC civil time and a fixed "now" so that
// the results depend neither on the machine's time zone nor on the day the
// tests run. The examples of restic's manual ("Removing snapshots according
// to a policy") are among them.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <map>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "repository/Retention.h"
#include "util/Text.h"

using qvhost::repo::ApplyRetention;
using qvhost::repo::CalendarSpan;
using qvhost::repo::DatedSnapshot;
using qvhost::repo::ParseCalendarSpan;
using qvhost::repo::RetentionClock;
using qvhost::repo::LocalCivilTime;
using qvhost::repo::RetentionDecision;
using qvhost::repo::RetentionPolicy;

namespace {

using Ids = std::vector<std::string>;
using Reasons = std::vector<std::string>;

// Days from 1970-01-01 to a proleptic Gregorian date.
int64_t DaysFromCivil(int64_t year, unsigned month, unsigned day) {
    year -= month <= 2;
    const int64_t era = (year >= 0 ? year : year - 399) / 400;
    const int64_t yearOfEra = year - era * 400;
    const int64_t dayOfYear = (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
    const int64_t dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
    return era * 146097 + dayOfEra - 719468;
}

// A snapshot named after its UTC time, "2021-03-05 20:30".
DatedSnapshot At(int year, unsigned month, unsigned day, int hour = 12, int minute = 0) {
    char name[32];
    std::snprintf(name, sizeof name, "%04d-%02u-%02u %02d:%02d", year, month, day, hour, minute);
    return {name, DaysFromCivil(year, month, day) * 86400 + hour * 3600 + minute * 60};
}

// A clock of UTC whose "now" is fixed: by default far after every snapshot.
RetentionClock UtcClock(int64_t now = DaysFromCivil(2200, 1, 1) * 86400) {
    RetentionClock clock;
    clock.now = now;
    clock.civil = qvhost::UtcCivil;
    clock.moment = qvhost::UtcMoment;
    return clock;
}

RetentionDecision Apply(const std::vector<DatedSnapshot>& snapshots, const RetentionPolicy& policy,
                        const RetentionClock& clock = UtcClock()) {
    return ApplyRetention(snapshots, policy, clock);
}

CalendarSpan Span(const std::string& text) {
    const std::optional<CalendarSpan> span = ParseCalendarSpan(text);
    EXPECT_TRUE(span.has_value()) << text;
    return span.value_or(CalendarSpan{});
}

RetentionPolicy Policy(unsigned last, unsigned hourly, unsigned daily, unsigned weekly, unsigned monthly,
                       unsigned yearly) {
    RetentionPolicy policy;
    policy.keepLast = last;
    policy.keepHourly = hourly;
    policy.keepDaily = daily;
    policy.keepWeekly = weekly;
    policy.keepMonthly = monthly;
    policy.keepYearly = yearly;
    return policy;
}

// Every kept snapshot has a reason, every forgotten one none, and nothing is both or neither.
void ExpectConsistent(const RetentionDecision& decision, size_t snapshots) {
    EXPECT_EQ(decision.keep.size() + decision.forget.size(), snapshots);
    for (const std::string& id : decision.keep) {
        EXPECT_EQ(std::count(decision.forget.begin(), decision.forget.end(), id), 0) << id;
    }
    for (const auto& [id, reasons] : decision.reasons) {
        EXPECT_EQ(std::count(decision.keep.begin(), decision.keep.end(), id), 1) << id;
        EXPECT_FALSE(reasons.empty()) << id;
    }
}

TEST(Retention, EmptyPolicyKeepsEverything) {
    EXPECT_TRUE(RetentionPolicy{}.Empty());
    for (int rule = 0; rule < 6; ++rule) {
        const RetentionPolicy policy = Policy(rule == 0, rule == 1, rule == 2, rule == 3, rule == 4, rule == 5);
        EXPECT_FALSE(policy.Empty()) << "rule " << rule;
    }

    const std::vector<DatedSnapshot> snapshots = {At(2021, 5, 1), At(2021, 5, 3), At(2021, 5, 2), At(2020, 1, 1)};
    const RetentionDecision decision = Apply(snapshots, RetentionPolicy{});
    EXPECT_EQ(decision.keep, (Ids{"2021-05-03 12:00", "2021-05-02 12:00", "2021-05-01 12:00", "2020-01-01 12:00"}));
    EXPECT_TRUE(decision.forget.empty());
    EXPECT_TRUE(decision.reasons.empty());
}

TEST(Retention, KeepLastKeepsTheNewestN) {
    std::vector<DatedSnapshot> snapshots;
    for (int hour = 0; hour < 10; ++hour) {
        snapshots.push_back(At(2022, 7, 14, hour));
    }
    const RetentionDecision decision = Apply(snapshots, Policy(3, 0, 0, 0, 0, 0));
    ExpectConsistent(decision, snapshots.size());
    EXPECT_EQ(decision.keep, (Ids{"2022-07-14 09:00", "2022-07-14 08:00", "2022-07-14 07:00"}));
    Ids forget;
    for (int hour = 6; hour >= 0; --hour) {
        forget.push_back(At(2022, 7, 14, hour).id);
    }
    EXPECT_EQ(decision.forget, forget);
    for (const std::string& id : decision.keep) {
        EXPECT_EQ(decision.reasons.at(id), Reasons{"last"}) << id;
    }
}

TEST(Retention, SnapshotsMadeWithinOneSecondAreOrderedByTheirNanoseconds) {
    // Two backups in one second: the newer one's id sorts last.
    const int64_t second = DaysFromCivil(2026, 11, 25) * 86400;
    const std::vector<DatedSnapshot> snapshots = {{"aaa-older", second, {}, second * 1000000000 + 100000000},
                                                  {"zzz-newer", second, {}, second * 1000000000 + 900000000}};
    const RetentionDecision decision = Apply(snapshots, Policy(1, 0, 0, 0, 0, 0));
    EXPECT_EQ(decision.keep, (Ids{"zzz-newer"}));
    EXPECT_EQ(decision.forget, (Ids{"aaa-older"}));
}

TEST(Retention, KeepHourlyKeepsTheNewestOfEachHour) {
    std::vector<DatedSnapshot> snapshots;
    for (int hour = 21; hour < 24; ++hour) {
        for (int minute = 0; minute < 60; minute += 20) {
            snapshots.push_back(At(2022, 12, 31, hour, minute));
        }
    }
    snapshots.push_back(At(2023, 1, 1, 0, 5));  // the next hour is on the next day, and in the next year
    const RetentionDecision decision = Apply(snapshots, Policy(0, 3, 0, 0, 0, 0));
    ExpectConsistent(decision, snapshots.size());
    EXPECT_EQ(decision.keep, (Ids{"2023-01-01 00:05", "2022-12-31 23:40", "2022-12-31 22:40"}));
    EXPECT_EQ(decision.reasons.at("2022-12-31 23:40"), Reasons{"hourly"});
}

TEST(Retention, KeepDailyKeepsTheNewestOfEachDayAcrossAMonth) {
    // Three snapshots a day through March 2021, none on the 15th and the 28th.
    std::vector<DatedSnapshot> snapshots;
    Ids lastOfEachDay;  // newest first
    for (unsigned day = 31; day >= 1; --day) {
        if (day == 15 || day == 28) {
            continue;
        }
        snapshots.push_back(At(2021, 3, day, 6));
        snapshots.push_back(At(2021, 3, day, 23, 30));
        snapshots.push_back(At(2021, 3, day, 0, 1));
        lastOfEachDay.push_back(At(2021, 3, day, 23, 30).id);
    }

    const RetentionDecision week = Apply(snapshots, Policy(0, 0, 7, 0, 0, 0));
    ExpectConsistent(week, snapshots.size());
    EXPECT_EQ(week.keep, (Ids{"2021-03-31 23:30", "2021-03-30 23:30", "2021-03-29 23:30", "2021-03-27 23:30",
                              "2021-03-26 23:30", "2021-03-25 23:30", "2021-03-24 23:30"}))
        << "the seven most recent days that have a snapshot, skipping the 28th";
    EXPECT_EQ(week.forget.front(), "2021-03-31 06:00");
    EXPECT_EQ(week.forget.back(), "2021-03-01 00:01");
    EXPECT_EQ(week.reasons.at("2021-03-27 23:30"), Reasons{"daily"});

    const RetentionDecision month = Apply(snapshots, Policy(0, 0, 31, 0, 0, 0));
    ExpectConsistent(month, snapshots.size());
    Ids newestOfEachAndTheOldest = lastOfEachDay;
    newestOfEachAndTheOldest.push_back("2021-03-01 00:01");
    EXPECT_EQ(month.keep, newestOfEachAndTheOldest)
        << "29 days have snapshots: the newest of each, and as 31 were asked for, the oldest snapshot too";
    EXPECT_EQ(month.reasons.at("2021-03-01 00:01"), Reasons{"oldest daily"});
}

TEST(Retention, KeepWeeklyFollowsIsoWeeksAcrossTheYearBoundary) {
    // ISO week 53 of 2020 runs from Monday 2020-12-28 to Sunday 2021-01-03; week 1 of 2021 starts 2021-01-04.
    const std::vector<DatedSnapshot> turnOf2020 = {At(2020, 12, 28), At(2020, 12, 31), At(2021, 1, 1),
                                                   At(2021, 1, 3),   At(2021, 1, 4),   At(2021, 1, 10)};
    const RetentionDecision decision2020 = Apply(turnOf2020, Policy(0, 0, 0, 10, 0, 0));
    ExpectConsistent(decision2020, turnOf2020.size());
    // Two weeks have snapshots, ten were asked for: the oldest snapshot is kept as well.
    EXPECT_EQ(decision2020.keep, (Ids{"2021-01-10 12:00", "2021-01-03 12:00", "2020-12-28 12:00"}));
    EXPECT_EQ(decision2020.forget, (Ids{"2021-01-04 12:00", "2021-01-01 12:00", "2020-12-31 12:00"}));
    EXPECT_EQ(decision2020.reasons.at("2020-12-28 12:00"), Reasons{"oldest weekly"});
    EXPECT_EQ(decision2020.reasons.at("2021-01-03 12:00"), Reasons{"weekly"});

    // 2016-01-02 is in week 53 of 2015 (a year that is not a leap year).
    const std::vector<DatedSnapshot> turnOf2015 = {At(2015, 12, 27), At(2015, 12, 28), At(2016, 1, 2), At(2016, 1, 4)};
    EXPECT_EQ(Apply(turnOf2015, Policy(0, 0, 0, 10, 0, 0)).keep,
              (Ids{"2016-01-04 12:00", "2016-01-02 12:00", "2015-12-27 12:00"}));

    // And the other way: Monday 2018-12-31 is in week 1 of 2019.
    const std::vector<DatedSnapshot> turnOf2018 = {At(2018, 12, 30), At(2018, 12, 31), At(2019, 1, 6), At(2019, 1, 7)};
    const RetentionDecision decision2018 = Apply(turnOf2018, Policy(0, 0, 0, 10, 0, 0));
    EXPECT_EQ(decision2018.keep, (Ids{"2019-01-07 12:00", "2019-01-06 12:00", "2018-12-30 12:00"}));
    EXPECT_EQ(decision2018.forget, (Ids{"2018-12-31 12:00"}));

    // A snapshot every day: the four most recent weeks are the newest Sundays and the newest day.
    std::vector<DatedSnapshot> daily;
    for (int64_t day = DaysFromCivil(2020, 12, 1); day <= DaysFromCivil(2021, 1, 20); ++day) {
        daily.push_back({"day " + std::to_string(day), day * 86400 + 43200});
    }
    const auto name = [](int year, unsigned month, unsigned day) {
        return "day " + std::to_string(DaysFromCivil(year, month, day));
    };
    EXPECT_EQ(Apply(daily, Policy(0, 0, 0, 4, 0, 0)).keep,
              (Ids{name(2021, 1, 20), name(2021, 1, 17), name(2021, 1, 10), name(2021, 1, 3)}));
}

TEST(Retention, KeepMonthlyAndYearlyKeepTheNewestOfEachMonthAndYear) {
    std::vector<DatedSnapshot> snapshots;
    for (int year = 2018; year <= 2021; ++year) {
        for (unsigned month = 1; month <= (year == 2021 ? 2u : 12u); ++month) {
            for (const unsigned day : {1u, 15u, 28u}) {
                snapshots.push_back(At(year, month, day));
            }
        }
    }
    const RetentionDecision monthly = Apply(snapshots, Policy(0, 0, 0, 0, 6, 0));
    ExpectConsistent(monthly, snapshots.size());
    EXPECT_EQ(monthly.keep, (Ids{"2021-02-28 12:00", "2021-01-28 12:00", "2020-12-28 12:00", "2020-11-28 12:00",
                                 "2020-10-28 12:00", "2020-09-28 12:00"}));

    const RetentionDecision yearly = Apply(snapshots, Policy(0, 0, 0, 0, 0, 3));
    ExpectConsistent(yearly, snapshots.size());
    EXPECT_EQ(yearly.keep, (Ids{"2021-02-28 12:00", "2020-12-28 12:00", "2019-12-28 12:00"}));
    EXPECT_EQ(yearly.reasons.at("2019-12-28 12:00"), Reasons{"yearly"});
}

TEST(Retention, RulesCountIndependentlyAndListEveryReason) {
    // A snapshot at noon from 2021-01-01 to 2021-02-10, and one more in the evening of the 10th.
    std::vector<DatedSnapshot> snapshots;
    for (int64_t day = DaysFromCivil(2021, 1, 1); day <= DaysFromCivil(2021, 2, 10); ++day) {
        snapshots.push_back({"", day * 86400 + 43200});
    }
    for (DatedSnapshot& snapshot : snapshots) {
        const std::tm civil = qvhost::UtcCivil(snapshot.time);
        snapshot.id = At(civil.tm_year + 1900, static_cast<unsigned>(civil.tm_mon + 1),
                         static_cast<unsigned>(civil.tm_mday)).id;
    }
    snapshots.push_back(At(2021, 2, 10, 18));

    const RetentionDecision decision = Apply(snapshots, Policy(2, 0, 3, 2, 2, 0));
    ExpectConsistent(decision, snapshots.size());
    // Monday 2021-02-08 starts the newest week, so the week before ends on Sunday the 7th.
    EXPECT_EQ(decision.keep, (Ids{"2021-02-10 18:00", "2021-02-10 12:00", "2021-02-09 12:00", "2021-02-08 12:00",
                                  "2021-02-07 12:00", "2021-01-31 12:00"}));
    EXPECT_EQ(decision.reasons.at("2021-02-10 18:00"), (Reasons{"last", "daily", "weekly", "monthly"}));
    EXPECT_EQ(decision.reasons.at("2021-02-10 12:00"), Reasons{"last"});
    EXPECT_EQ(decision.reasons.at("2021-02-09 12:00"), Reasons{"daily"});
    EXPECT_EQ(decision.reasons.at("2021-02-08 12:00"), Reasons{"daily"});
    EXPECT_EQ(decision.reasons.at("2021-02-07 12:00"), Reasons{"weekly"});
    EXPECT_EQ(decision.reasons.at("2021-01-31 12:00"), Reasons{"monthly"});
    EXPECT_EQ(decision.forget.front(), "2021-02-06 12:00");
    EXPECT_EQ(decision.forget.back(), "2021-01-01 12:00");
}

TEST(Retention, FewerSnapshotsThanAskedForAreAllKept) {
    const std::vector<DatedSnapshot> snapshots = {At(2023, 4, 2), At(2023, 4, 1), At(2023, 4, 3)};
    const RetentionDecision decision = Apply(snapshots, Policy(10, 0, 30, 0, 0, 0));
    EXPECT_EQ(decision.keep, (Ids{"2023-04-03 12:00", "2023-04-02 12:00", "2023-04-01 12:00"}));
    EXPECT_TRUE(decision.forget.empty());
    for (const std::string& id : decision.keep) {
        EXPECT_EQ(decision.reasons.at(id), (Reasons{"last", "daily"})) << id;
    }

    const RetentionDecision none = Apply({}, Policy(1, 1, 1, 1, 1, 1));
    EXPECT_TRUE(none.keep.empty());
    EXPECT_TRUE(none.forget.empty());
}

TEST(Retention, InputOrderDoesNotMatter) {
    std::vector<DatedSnapshot> snapshots;
    for (int64_t day = DaysFromCivil(2019, 11, 20); day <= DaysFromCivil(2020, 2, 10); day += 3) {
        for (const int64_t second : {3600, 40000, 80000}) {
            snapshots.push_back({"s" + std::to_string(day) + "-" + std::to_string(second), day * 86400 + second});
        }
    }
    // Three snapshots of the same second: the smallest id counts as the newest.
    const int64_t newest = DaysFromCivil(2020, 2, 11) * 86400;
    snapshots.push_back({"tie-b", newest});
    snapshots.push_back({"tie-c", newest});
    snapshots.push_back({"tie-a", newest});

    const RetentionPolicy policy = Policy(2, 3, 5, 4, 3, 2);
    const RetentionDecision expected = Apply(snapshots, policy);
    ExpectConsistent(expected, snapshots.size());
    EXPECT_EQ(Ids(expected.keep.begin(), expected.keep.begin() + 2), (Ids{"tie-a", "tie-b"}));
    EXPECT_EQ(expected.reasons.at("tie-a"), (Reasons{"last", "hourly", "daily", "weekly", "monthly", "yearly"}));
    EXPECT_EQ(std::count(expected.forget.begin(), expected.forget.end(), "tie-c"), 1);

    std::mt19937 random(42);
    for (int round = 0; round < 20; ++round) {
        std::shuffle(snapshots.begin(), snapshots.end(), random);
        const RetentionDecision decision = Apply(snapshots, policy);
        EXPECT_EQ(decision.keep, expected.keep) << "order " << round;
        EXPECT_EQ(decision.forget, expected.forget) << "order " << round;
        EXPECT_EQ(decision.reasons, expected.reasons) << "order " << round;
    }
}

TEST(Retention, SnapshotsListedTwiceAreRefused) {
    const std::vector<DatedSnapshot> snapshots = {At(2021, 1, 1), At(2021, 1, 2), At(2021, 1, 1)};
    EXPECT_THROW(Apply(snapshots, Policy(1, 0, 0, 0, 0, 0)), std::invalid_argument);
}

TEST(Retention, LocalCivilTimeIsTheMachinesLocalTime) {
    for (const int64_t moment : {int64_t{0}, int64_t{951782400}, int64_t{1609459199}, int64_t{1700000000}}) {
        std::tm civil = LocalCivilTime(moment);
        EXPECT_EQ(static_cast<int64_t>(std::mktime(&civil)), moment) << "mktime undoes it for " << moment;
    }
}

// restic's manual: a backup every Sunday for 12 weeks; --keep-daily 4 keeps
// the last four Sundays and removes the other eight.
TEST(RetentionFromResticsManual, KeepDailyFourOfTwelveSundays) {
    const char* ids[] = {"0a1f9759", "46cfe4d5", "f6b1f037", "eb430a5d", "8cf1cb9a", "5d33b116",
                         "b9553125", "e1a7b58b", "8f8018c0", "59403279", "dfee9fb4", "e1ae2f40"};
    std::vector<DatedSnapshot> snapshots;
    for (int week = 0; week < 12; ++week) {
        snapshots.push_back({ids[week], (DaysFromCivil(2019, 9, 1) + 7 * week) * 86400 + 11 * 3600});
    }
    const RetentionDecision decision = Apply(snapshots, Policy(0, 0, 4, 0, 0, 0));
    EXPECT_EQ(decision.keep, (Ids{"e1ae2f40", "dfee9fb4", "59403279", "8f8018c0"}));
    EXPECT_EQ(decision.forget, (Ids{"e1a7b58b", "b9553125", "5d33b116", "8cf1cb9a", "eb430a5d", "f6b1f037",
                                    "46cfe4d5", "0a1f9759"}));
}

// restic's manual: a backup every day for 100 years and --keep-daily 7
// --keep-weekly 5 --keep-monthly 12 --keep-yearly 75 keep the 7 newest
// days, 4 more week ends (the dailies hold one), 11 or 12 more month ends and
// 74 or 75 more year ends. Here the newest day is Sunday 31 December, so it
// ends a week, a month and a year: 11 and 74.
TEST(RetentionFromResticsManual, OneHundredYearsOfDailyBackups) {
    std::vector<DatedSnapshot> snapshots;
    for (int64_t day = DaysFromCivil(1924, 1, 1); day <= DaysFromCivil(2023, 12, 31); ++day) {
        snapshots.push_back({"d" + std::to_string(day), day * 86400 + 43200});
    }
    const RetentionDecision decision = Apply(snapshots, Policy(0, 0, 7, 5, 12, 75));
    ExpectConsistent(decision, snapshots.size());
    std::map<std::string, size_t> byRule;
    size_t weeklyOnly = 0, monthlyOnly = 0, yearlyOnly = 0;
    for (const auto& [id, reasons] : decision.reasons) {
        for (const std::string& reason : reasons) ++byRule[reason];
        weeklyOnly += reasons == Reasons{"weekly"};
        monthlyOnly += reasons == Reasons{"monthly"};
        yearlyOnly += reasons == Reasons{"yearly"};
    }
    EXPECT_EQ(byRule, (std::map<std::string, size_t>{{"daily", 7}, {"weekly", 5}, {"monthly", 12}, {"yearly", 75}}));
    EXPECT_EQ(weeklyOnly, 4u);
    EXPECT_EQ(monthlyOnly, 11u);
    EXPECT_EQ(yearlyOnly, 74u);
    EXPECT_EQ(decision.keep.size(), 7u + 4u + 11u + 74u);
    EXPECT_EQ(decision.keep.back(), "d" + std::to_string(DaysFromCivil(1949, 12, 31)));
}

// restic's manual: --keep-within 2y5m7d3h keeps every snapshot made in the
// two years, five months, seven days and three hours before the newest.
TEST(RetentionFromResticsManual, KeepWithinCountsBackOnTheCalendarFromTheNewestSnapshot) {
    std::vector<DatedSnapshot> snapshots;
    for (int64_t day = DaysFromCivil(2021, 1, 1); day <= DaysFromCivil(2024, 6, 30); ++day) {
        const std::tm civil = qvhost::UtcCivil(day * 86400);
        snapshots.push_back(At(civil.tm_year + 1900, civil.tm_mon + 1, civil.tm_mday, 12));
    }
    RetentionPolicy policy;
    policy.within = Span("2y5m7d3h");
    // 2024-06-30 12:00 less 2 years, 5 months and 7 days is 2022-01-23 12:00, less 3 hours 09:00.
    const RetentionDecision decision = Apply(snapshots, policy, UtcClock(DaysFromCivil(2030, 1, 1) * 86400));
    ExpectConsistent(decision, snapshots.size());
    EXPECT_EQ(decision.keep.front(), "2024-06-30 12:00");
    EXPECT_EQ(decision.keep.back(), "2022-01-23 12:00");
    EXPECT_EQ(decision.forget.front(), "2022-01-22 12:00");
    EXPECT_EQ(decision.reasons.at("2023-03-01 12:00"), Reasons{"within"});
    EXPECT_EQ(decision.keep.size(), static_cast<size_t>(DaysFromCivil(2024, 6, 30) - DaysFromCivil(2022, 1, 23) + 1));

    // A month back from 31 March is "31 February", that is 3 March (as mktime
    // and restic count); a snapshot just at the limit is no longer within.
    const std::vector<DatedSnapshot> march = {At(2021, 3, 31), At(2021, 3, 3, 12, 1), At(2021, 3, 3), At(2021, 3, 2)};
    policy.within = Span("1m");
    EXPECT_EQ(Apply(march, policy).keep, (Ids{"2021-03-31 12:00", "2021-03-03 12:01"}));
    policy.within = Span("25h");
    EXPECT_EQ(Apply({At(2021, 3, 5, 12), At(2021, 3, 4, 11, 1), At(2021, 3, 4, 11)}, policy).keep,
              (Ids{"2021-03-05 12:00", "2021-03-04 11:01"}));
}

// restic's manual, for irregular backups: --keep-within-daily 7d
// --keep-within-weekly 1m --keep-within-monthly 1y --keep-within-yearly 75y
// keeps daily snapshots for the last week, weekly ones for the last month,
// monthly ones for the last year and yearly ones for the last 75 years.
TEST(RetentionFromResticsManual, KeepWithinDailyWeeklyMonthlyAndYearly) {
    std::vector<DatedSnapshot> snapshots;
    for (int64_t day = DaysFromCivil(2021, 7, 1); day <= DaysFromCivil(2024, 6, 30); ++day) {
        const std::tm civil = qvhost::UtcCivil(day * 86400);
        for (const int hour : {8, 18}) snapshots.push_back(At(civil.tm_year + 1900, civil.tm_mon + 1, civil.tm_mday, hour));
    }
    RetentionPolicy policy;
    policy.withinDaily = Span("7d");
    policy.withinWeekly = Span("1m");
    policy.withinMonthly = Span("1y");
    policy.withinYearly = Span("75y");
    const RetentionDecision decision = Apply(snapshots, policy);
    ExpectConsistent(decision, snapshots.size());
    Ids expected;
    for (unsigned day = 30; day >= 24; --day) expected.push_back(At(2024, 6, day, 18).id);  // the last 7 days
    for (unsigned day : {23u, 16u, 9u, 2u}) expected.push_back(At(2024, 6, day, 18).id);   // Sundays of the last month
    for (unsigned month = 5; month >= 1; --month) {
        expected.push_back(At(2024, month, month == 2 ? 29 : (month == 4 ? 30 : 31), 18).id);
    }
    for (unsigned month = 12; month >= 7; --month) {
        expected.push_back(At(2023, month, month == 9 || month == 11 ? 30 : 31, 18).id);
    }
    expected.push_back(At(2022, 12, 31, 18).id);
    expected.push_back(At(2021, 12, 31, 18).id);
    expected.push_back(At(2021, 7, 1, 8).id);  // 75 years were asked for: the oldest too
    EXPECT_EQ(decision.keep, expected);
    EXPECT_EQ(decision.reasons.at("2024-06-30 18:00"),
              (Reasons{"within-daily", "within-weekly", "within-monthly", "within-yearly"}));
    EXPECT_EQ(decision.reasons.at("2024-06-23 18:00"), Reasons{"within-weekly"});
    EXPECT_EQ(decision.reasons.at("2021-07-01 08:00"), Reasons{"oldest within-yearly"});
    EXPECT_EQ(std::count(decision.forget.begin(), decision.forget.end(), "2024-06-30 08:00"), 1);
}

TEST(RetentionFromResticsManual, KeepTagKeepsEverySnapshotWithAllTagsOfOneOption) {
    std::vector<DatedSnapshot> snapshots = {At(2021, 1, 5), At(2021, 1, 4), At(2021, 1, 3), At(2021, 1, 2),
                                            At(2021, 1, 1)};
    snapshots[1].tags = {"a"};
    snapshots[2].tags = {"b", "c"};
    snapshots[3].tags = {"b"};
    snapshots[4].tags = {"c", "a"};
    RetentionPolicy policy;
    policy.keepTags = {{"a"}};
    EXPECT_EQ(Apply(snapshots, policy).keep, (Ids{"2021-01-04 12:00", "2021-01-01 12:00"}));
    policy.keepTags = {{"b", "c"}};
    EXPECT_EQ(Apply(snapshots, policy).keep, (Ids{"2021-01-03 12:00"}));
    policy.keepTags = {{"b", "c"}, {"a"}};
    EXPECT_EQ(Apply(snapshots, policy).keep, (Ids{"2021-01-04 12:00", "2021-01-03 12:00", "2021-01-01 12:00"}));
    policy.keepTags = {{""}};  // --keep-tag '': the untagged ones only
    EXPECT_EQ(Apply(snapshots, policy).keep, (Ids{"2021-01-05 12:00"}));
    policy.keepLast = 1;
    policy.keepTags = {{"b"}};
    const RetentionDecision both = Apply(snapshots, policy);
    EXPECT_EQ(both.keep, (Ids{"2021-01-05 12:00", "2021-01-03 12:00", "2021-01-02 12:00"}));
    EXPECT_EQ(both.reasons.at("2021-01-02 12:00"), Reasons{"tag"});
    policy.keepTags = {{"nobody"}};
    EXPECT_FALSE(policy.Empty());
}

// restic's manual: a rule that could keep more periods than have snapshots
// keeps the oldest snapshot as well.
TEST(RetentionFromResticsManual, ARuleNotFilledKeepsTheOldestSnapshotToo) {
    const std::vector<DatedSnapshot> oneDay = {At(2023, 4, 1, 9), At(2023, 4, 1, 12), At(2023, 4, 1, 18)};
    const RetentionDecision decision = Apply(oneDay, Policy(0, 0, 7, 0, 0, 0));
    EXPECT_EQ(decision.keep, (Ids{"2023-04-01 18:00", "2023-04-01 09:00"}));
    EXPECT_EQ(decision.reasons.at("2023-04-01 09:00"), Reasons{"oldest daily"});
    // A rule that is filled does not.
    EXPECT_EQ(Apply(oneDay, Policy(0, 0, 1, 0, 0, 0)).keep, (Ids{"2023-04-01 18:00"}));
    EXPECT_EQ(Apply(oneDay, Policy(1, 0, 0, 0, 0, 0)).keep, (Ids{"2023-04-01 18:00"})) << "keep-last is no calendar";
}

// restic's manual: the duration rules ignore snapshots dated in the future
// (relative to when forget runs), which are hence not removed.
TEST(RetentionFromResticsManual, SnapshotsInTheFutureAreKeptAndCountForNoRule) {
    const int64_t now = DaysFromCivil(2023, 4, 10) * 86400;
    const std::vector<DatedSnapshot> snapshots = {At(2023, 4, 12), At(2023, 4, 9), At(2023, 4, 8), At(2023, 1, 1)};
    RetentionPolicy policy = Policy(1, 0, 0, 0, 0, 0);
    policy.within = Span("1d");
    const RetentionDecision decision = Apply(snapshots, policy, UtcClock(now));
    EXPECT_EQ(decision.keep, (Ids{"2023-04-12 12:00", "2023-04-09 12:00"}));
    EXPECT_EQ(decision.reasons.at("2023-04-12 12:00"), Reasons{"future"});
    EXPECT_EQ(decision.reasons.at("2023-04-09 12:00"), (Reasons{"last", "within"}))
        << "the newest snapshot not in the future is the one within counts from";
    EXPECT_EQ(decision.forget, (Ids{"2023-04-08 12:00", "2023-01-01 12:00"}));
}

TEST(Retention, SpansAreWrittenAsResticWritesThem) {
    const CalendarSpan span = Span("2y5m7d3h");
    EXPECT_EQ(span.years, 2);
    EXPECT_EQ(span.months, 5);
    EXPECT_EQ(span.days, 7);
    EXPECT_EQ(span.hours, 3);
    EXPECT_EQ(span.Text(), "2y5m7d3h");
    EXPECT_EQ(Span("7d").Text(), "7d");
    EXPECT_EQ(Span("3h1y").Text(), "1y3h");
    EXPECT_EQ(Span("0d12h").Text(), "12h");
    for (const char* text : {"", "1w", "7", "d", "0d", "1y1y", "1.5d", "-1d", "1d ", "1234567d", "y1"}) {
        EXPECT_FALSE(ParseCalendarSpan(text).has_value()) << text;
    }
    RetentionPolicy policy;
    policy.withinMonthly = Span("1y");
    EXPECT_FALSE(policy.Empty());
}

}  // namespace
