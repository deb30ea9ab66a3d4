// The small texts the tool shares: JSON output, sizes, ages, UTC times,
// byte counts and durations, and text from storage made safe for a terminal.
#include <gtest/gtest.h>

#include <string>

#include "util/Json.h"
#include "util/Text.h"

using namespace qvhost;

namespace {

TEST(JsonOutput, ObjectsKeepTheirMemberOrderAndEscapeControlCharacters) {
    Json json = Json{{"b", 1}, {"a", "x\"y\\z\n\x01"}};
    json["list"] = Json::array({true, nullptr, 2.5});
    EXPECT_EQ(JsonText(json), "{\"b\":1,\"a\":\"x\\\"y\\\\z\\n\\u0001\",\"list\":[true,null,2.5]}");
}

TEST(JsonOutput, NonAsciiTextPassesThroughAndBytesThatAreNotUtf8AreReplaced) {
    EXPECT_EQ(JsonText(Json("Grüße 文件")), "\"Grüße 文件\"");
    EXPECT_EQ(JsonText(Json("caf\xE9")), "\"caf\xEF\xBF\xBD\"");
}

TEST(ParseSize, AcceptsBinaryUnitsAndRefusesTheRest) {
    EXPECT_EQ(ParseSize("4096"), 4096u);
    EXPECT_EQ(ParseSize("512K"), 512u << 10);
    EXPECT_EQ(ParseSize("64M"), 64u << 20);
    EXPECT_EQ(ParseSize("64MiB"), 64u << 20);
    EXPECT_EQ(ParseSize("2G"), 2ull << 30);
    EXPECT_EQ(ParseSize("2T"), 2ull << 40);  // restic's --exclude-larger-than takes t/T too
    EXPECT_EQ(ParseSize("1t"), 1ull << 40);
    EXPECT_EQ(ParseSize(""), 0u);
    EXPECT_EQ(ParseSize("M"), 0u);
    EXPECT_EQ(ParseSize("-1"), 0u);
    EXPECT_EQ(ParseSize("12X"), 0u);
    EXPECT_EQ(ParseSize("99999999999999999999G"), 0u);
}

TEST(ParseAge, AcceptsSecondsMinutesHoursAndDaysAndZero) {
    EXPECT_EQ(ParseAge("0"), 0);
    EXPECT_EQ(ParseAge("90s"), 90);
    EXPECT_EQ(ParseAge("30m"), 1800);
    EXPECT_EQ(ParseAge("24h"), 86400);
    EXPECT_EQ(ParseAge("7d"), 7 * 86400);
    for (const char* bad : {"", "5", "h", "-1h", "1.5h", "3w", "1h2", "99999999999d"}) EXPECT_EQ(ParseAge(bad), -1) << bad;
}

TEST(UtcTimes, ParseTheFormTheToolWrites) {
    EXPECT_EQ(ParseUtcTime("1970-01-01T00:00:00Z"), 0);
    EXPECT_EQ(ParseUtcTime("2026-11-23T10:15:30Z"), 1795428930);
    EXPECT_EQ(ParseUtcTime(UtcNow("%Y-%m-%dT%H:%M:%SZ")) / 60, std::time(nullptr) / 60);
    for (const char* bad : {"", "2026-11-23", "2026-11-23T10:15:30", "2026-11-23T10:15:30+01", "garbage-garbage-gar"}) {
        EXPECT_EQ(ParseUtcTime(bad), -1) << bad;
    }
}

TEST(UtcTimes, HttpDatesAsTheServiceListsThemAreRead) {
    EXPECT_EQ(ParseHttpDate("Mon, 23 Nov 2026 10:15:30 GMT"), 1795428930);
    EXPECT_EQ(ParseHttpDate("Thu, 01 Jan 1970 00:00:00 GMT"), 0);
    EXPECT_EQ(ParseHttpDate("Thu, 1 Jan 1970 00:00:01 GMT"), 1) << "a day of one digit";
    for (const char* bad : {"", "Mon, 23 Nov 2026 10:15:30", "Mon, 23 Nov 2026 10:15:30 UTC",
                            "Mon, 23 Foo 2026 10:15:30 GMT", "Mon, 32 Nov 2026 10:15:30 GMT",
                            "Mon, 23 Nov 2026 10:15:30 GMT trailing", "2026-11-23T10:15:30Z"}) {
        EXPECT_EQ(ParseHttpDate(bad), -1) << bad;
    }
}

TEST(Printable, ControlCharactersFromStorageNeverReachTheTerminal) {
    EXPECT_EQ(Printable("plain Grüße"), "plain Grüße");
    EXPECT_EQ(Printable("a\x1b[2Jb\nc\x7f"), "a\\x1B[2Jb\\x0Ac\\x7F");
}

TEST(FormatBytes, FormatsSizesAndDurations) {
    EXPECT_EQ(FormatBytes(0), "0 B");
    EXPECT_EQ(FormatBytes(1536), "1.5 KiB");
    EXPECT_EQ(FormatBytes(300.0 * 1048576), "300.0 MiB");
    EXPECT_EQ(FormatDuration(65), "1:05");
    EXPECT_EQ(FormatDuration(3725), "1:02:05");
    EXPECT_EQ(FormatDuration(-1), "--:--");
}

}  // namespace

TEST(TimeTexts, Rfc3339KeepsTheFractionOnlyWhenThereIsOne) {
    EXPECT_EQ(Rfc3339Nanos(0), "1970-01-01T00:00:00Z");
    EXPECT_EQ(Rfc3339Nanos(1700000000500000000), "2023-11-14T22:13:20.5Z");
    EXPECT_EQ(Rfc3339Nanos(1700000000000000123), "2023-11-14T22:13:20.000000123Z");
    EXPECT_EQ(Rfc3339Nanos(-1), "1969-12-31T23:59:59.999999999Z");
}

TEST(TimeTexts, LocalTimesReadBackAsTheyAreShown) {
    const int64_t seconds = 1700000000;
    EXPECT_EQ(ParseLocalTime(LocalTimeText(seconds)), seconds);
    EXPECT_EQ(ParseLocalTime(LocalTimeText(seconds).substr(0, 16)), seconds - seconds % 60);
    EXPECT_EQ(ParseLocalTime("2023-11-14T22:13:20Z"), seconds);
    EXPECT_GT(ParseLocalTime("2023-11-14"), seconds - 2 * 86400);
    EXPECT_EQ(ParseLocalTime("2023-13-01"), -1);
    EXPECT_EQ(ParseLocalTime("yesterday"), -1);
    EXPECT_EQ(ParseLocalTime("2023-11-14 22"), -1);
}

TEST(AsciiLower, LowersAsciiLettersAndLeavesEveryOtherByte) {
    EXPECT_EQ(AsciiLower("AccessTier=ARCHIVE"), "accesstier=archive");
    EXPECT_EQ(AsciiLower("\xC3\x84Z9_"), "\xC3\x84z9_");
}

TEST(UtcCalendar, DatesBeforeAndAfter1970ComeAndGoExactlyOnEverySystem) {
    const std::tm before = UtcCivil(-1);
    EXPECT_EQ(before.tm_year, 69);
    EXPECT_EQ(before.tm_mon, 11);
    EXPECT_EQ(before.tm_mday, 31);
    EXPECT_EQ(before.tm_hour, 23);
    EXPECT_EQ(before.tm_sec, 59);
    EXPECT_EQ(before.tm_wday, 3);  // a Wednesday
    EXPECT_EQ(before.tm_yday, 364);
    EXPECT_EQ(UtcMoment(before), -1);
    const std::tm leapDay = UtcCivil(951782400);  // 2000-02-29T00:00:00Z
    EXPECT_EQ(leapDay.tm_mon, 1);
    EXPECT_EQ(leapDay.tm_mday, 29);
    EXPECT_EQ(leapDay.tm_yday, 59);
    // Fields out of their ranges, as timegm takes them: day 0 of March is the last of February.
    std::tm march{};
    march.tm_year = 100, march.tm_mon = 2, march.tm_mday = 0;
    EXPECT_EQ(UtcMoment(march), 951782400);
    std::tm thirteenth{};
    thirteenth.tm_year = 125, thirteenth.tm_mon = 12, thirteenth.tm_mday = 1;  // month 12 of 2025: January 2026
    EXPECT_EQ(UtcTimeText(UtcMoment(thirteenth)), "2026-01-01T00:00:00Z");
    EXPECT_EQ(UtcTimeText(-86400 * 365), "unknown");
}
