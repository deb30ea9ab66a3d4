// Which snapshots `forget` keeps, on UTC civil time so that the results do not
// depend on the machine's time zone.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "repository/Retention.h"

using qvhost::repo::ApplyRetention;
using qvhost::repo::DatedSnapshot;
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

std::tm UtcCivilTime(int64_t seconds) {
    const auto moment = static_cast<std::time_t>(seconds);
    std::tm civil{};
#ifdef _WIN32
    gmtime_s(&civil, &moment);
#else
    gmtime_r(&moment, &civil);
#endif
    return civil;
}

RetentionDecision Apply(const std::vector<DatedSnapshot>& snapshots, const RetentionPolicy& policy) {
    return ApplyRetention(snapshots, policy, UtcCivilTime);
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
    EXPECT_EQ(month.keep, lastOfEachDay) << "29 days have snapshots: the newest of each";
}

TEST(Retention, KeepWeeklyFollowsIsoWeeksAcrossTheYearBoundary) {
    // ISO week 53 of 2020 runs from Monday 2020-12-28 to Sunday 2021-01-03; week 1 of 2021 starts 2021-01-04.
    const std::vector<DatedSnapshot> turnOf2020 = {At(2020, 12, 28), At(2020, 12, 31), At(2021, 1, 1),
                                                   At(2021, 1, 3),   At(2021, 1, 4),   At(2021, 1, 10)};
    const RetentionDecision decision2020 = Apply(turnOf2020, Policy(0, 0, 0, 10, 0, 0));
    ExpectConsistent(decision2020, turnOf2020.size());
    EXPECT_EQ(decision2020.keep, (Ids{"2021-01-10 12:00", "2021-01-03 12:00"}));
    EXPECT_EQ(decision2020.forget,
              (Ids{"2021-01-04 12:00", "2021-01-01 12:00", "2020-12-31 12:00", "2020-12-28 12:00"}));
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
        const std::tm civil = UtcCivilTime(snapshot.time);
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

}  // namespace
