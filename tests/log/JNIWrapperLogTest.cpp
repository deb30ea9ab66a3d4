// The process-wide log writer: record format, file names, rotation, pruning,
// levels, the error companion file and concurrent writers.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <iomanip>
#include <map>
#include <sstream>
#include <thread>
#include <vector>

#include "log/JNIWrapperLog.h"
#include "support/TempFolder.h"

using qvplatform::LocalTime;
using testsupport::DecodeUtf16Le;
using testsupport::ReadFileBytes;
using testsupport::TempFolder;

namespace {

constexpr LocalTime kMay3 = {2026, 5, 3, 7, 4, 9, 45};

LocalTime FixedMay3() { return kMay3; }

// A clock that moves on by one millisecond at every reading, so that every
// file started gets a name of its own.
JNIWrapperLog::Clock SteppingClock() {
    auto ticks = std::make_shared<std::atomic<int>>(0);
    return [ticks] {
        const int n = (*ticks)++;
        LocalTime t = {2026, 11, 22, 10, 0, 0, 0};
        t.millisecond = static_cast<uint16_t>(n % 1000);
        t.second = static_cast<uint16_t>((n / 1000) % 60);
        t.minute = static_cast<uint16_t>((n / 60000) % 60);
        return t;
    };
}

// The UTF-16LE bytes of ASCII text, built here without the writer's helpers.
std::string Utf16Le(const std::string& ascii) {
    std::string bytes;
    for (char c : ascii) {
        bytes.push_back(c);
        bytes.push_back('\0');
    }
    return bytes;
}

std::string Hex8(uint32_t value) {
    std::ostringstream s;
    s << std::setw(8) << std::setfill(' ') << std::hex << std::nouppercase << value;
    return s.str();
}

std::vector<std::u16string> LogFiles(const TempFolder& folder) {
    std::vector<std::u16string> names;
    for (const auto& f : qvplatform::ListFiles(folder.File(u"JNIWrapper*.log"))) names.push_back(f.name);
    std::sort(names.begin(), names.end());
    return names;
}

std::u16string Text(const TempFolder& folder, const std::u16string& name) {
    return DecodeUtf16Le(ReadFileBytes(folder.File(name)));
}

// The message length that makes one record fill a file to exactly `bytes`.
size_t MessageLengthFor(int64_t bytes) { return static_cast<size_t>(bytes / 2) - (2 + 46 + 2); }

}  // namespace

TEST(JNIWrapperLog, RecordMatchesIndependentlyBuiltBytes) {
    TempFolder folder;
    JNIWrapperLog log(folder.Path(), false, FixedMay3);
    log.Write(u"jniObj is not instaialized");

    const std::string expected = Utf16Le("\r\n2026-05-03 07:04:09.045  [" + Hex8(qvplatform::CurrentProcessId()) +
                                         "] [" + Hex8(qvplatform::CurrentThreadId()) +
                                         "] :jniObj is not instaialized");
    EXPECT_EQ(ReadFileBytes(folder.File(u"JNIWrapper_3-5-2026_7-4-9-45.log")), expected);
}

TEST(JNIWrapperLog, PrefixIs46CharactersWithBlankPaddedLowerCaseIds) {
    const std::u16string prefix = JNIWrapperLog::RecordPrefix(kMay3, 0xa3c, 0x1f08);
    EXPECT_EQ(prefix, u"2026-05-03 07:04:09.045  [     a3c] [    1f08]");
    EXPECT_EQ(prefix.size(), 46u);
    EXPECT_EQ(JNIWrapperLog::RecordPrefix(kMay3, 0xFFFFFFFFu, 0xABCDEF01u),
              u"2026-05-03 07:04:09.045  [ffffffff] [abcdef01]");
}

TEST(JNIWrapperLog, FileNameHasNoLeadingZeros) {
    EXPECT_EQ(JNIWrapperLog::FileNameFor(kMay3), u"JNIWrapper_3-5-2026_7-4-9-45.log");
    const LocalTime late = {2026, 12, 31, 23, 59, 58, 999};
    EXPECT_EQ(JNIWrapperLog::FileNameFor(late), u"JNIWrapper_31-12-2026_23-59-58-999.log");
    const LocalTime zero = {2026, 1, 1, 0, 0, 0, 0};
    EXPECT_EQ(JNIWrapperLog::FileNameFor(zero), u"JNIWrapper_1-1-2026_0-0-0-0.log");
}

TEST(JNIWrapperLog, ConstructionCreatesNoFile) {
    TempFolder folder;
    JNIWrapperLog log(folder.Path(), true, FixedMay3);
    EXPECT_TRUE(LogFiles(folder).empty());
    EXPECT_EQ(log.CurrentFilePath(), folder.File(u"JNIWrapper_3-5-2026_7-4-9-45.log"));
}

TEST(JNIWrapperLog, FileStartsWithAnEmptyLineAndHasNoByteOrderMark) {
    TempFolder folder;
    JNIWrapperLog log(folder.Path(), false, FixedMay3);
    log.Write(u"first");
    log.Write(u"second");
    const std::string bytes = ReadFileBytes(folder.File(u"JNIWrapper_3-5-2026_7-4-9-45.log"));
    ASSERT_GE(bytes.size(), 4u);
    EXPECT_EQ(bytes.substr(0, 4), std::string("\r\0\n\0", 4));
    const std::u16string text = DecodeUtf16Le(bytes);
    const std::u16string prefix = JNIWrapperLog::RecordPrefix(kMay3, qvplatform::CurrentProcessId(),
                                                              qvplatform::CurrentThreadId());
    EXPECT_EQ(text, u"\r\n" + prefix + u" :first\r\n" + prefix + u" :second");
}

TEST(JNIWrapperLog, MessageWithLineBreaksIsWrittenUnchanged) {
    TempFolder folder;
    JNIWrapperLog log(folder.Path(), false, FixedMay3);
    const std::u16string message = u"line one\r\nline two\nline three\r";
    log.Write(message);
    const std::u16string text = Text(folder, u"JNIWrapper_3-5-2026_7-4-9-45.log");
    ASSERT_GE(text.size(), message.size());
    EXPECT_EQ(text.substr(text.size() - message.size()), message);
    EXPECT_EQ(text.size(), 2 + 46 + 2 + message.size());
}

TEST(JNIWrapperLog, NonAsciiTextAndEmbeddedNulsAreWrittenAsUtf16) {
    TempFolder folder;
    JNIWrapperLog log(folder.Path(), false, FixedMay3);
    std::u16string message = u"\u00e9\u4e2d\U0001F600";
    message.push_back(u'\0');
    message += u"after";
    log.Write(message);
    const std::u16string text = Text(folder, u"JNIWrapper_3-5-2026_7-4-9-45.log");
    EXPECT_EQ(text.substr(text.size() - message.size()), message);
}

TEST(JNIWrapperLog, RecordReachingTheLimitSendsTheNextRecordToANewFile) {
    TempFolder folder;
    JNIWrapperLog log(folder.Path(), false, SteppingClock());
    const std::u16string first = log.CurrentFilePath();
    log.Write(std::u16string(MessageLengthFor(JNIWrapperLog::kRotationSize), u'x'));
    EXPECT_EQ(ReadFileBytes(first).size(), static_cast<size_t>(JNIWrapperLog::kRotationSize));
    const std::u16string second = log.CurrentFilePath();
    EXPECT_NE(second, first);
    // The new file is started (empty) at once; the next record goes there.
    EXPECT_TRUE(qvplatform::FileExists(second));
    EXPECT_EQ(ReadFileBytes(second).size(), 0u);
    log.Write(u"next");
    EXPECT_EQ(ReadFileBytes(first).size(), static_cast<size_t>(JNIWrapperLog::kRotationSize));
    const std::u16string text = DecodeUtf16Le(ReadFileBytes(second));
    EXPECT_EQ(text.substr(text.size() - 6), u" :next");
    EXPECT_EQ(LogFiles(folder).size(), 2u);
}

TEST(JNIWrapperLog, RecordEndingBelowTheLimitKeepsTheFileUntilOneCrossesIt) {
    TempFolder folder;
    JNIWrapperLog log(folder.Path(), false, SteppingClock());
    const std::u16string first = log.CurrentFilePath();
    log.Write(std::u16string(MessageLengthFor(JNIWrapperLog::kRotationSize - 2), u'x'));
    EXPECT_EQ(log.CurrentFilePath(), first);
    // This record crosses the limit: it stays in the old file, and only the
    // record after it goes to a new one.
    log.Write(u"crossing");
    EXPECT_EQ(ReadFileBytes(first).size(), static_cast<size_t>(JNIWrapperLog::kRotationSize - 2 + 2 * 58));
    EXPECT_NE(log.CurrentFilePath(), first);
    log.Write(u"after");
    const std::u16string old = DecodeUtf16Le(ReadFileBytes(first));
    EXPECT_EQ(old.substr(old.size() - 10), u" :crossing");
    const std::u16string fresh = DecodeUtf16Le(ReadFileBytes(log.CurrentFilePath()));
    EXPECT_EQ(fresh.size(), 2u + 46 + 2 + 5);
}

TEST(JNIWrapperLog, FileStartedInTheSameMillisecondContinuesTheSameFile) {
    TempFolder folder;
    JNIWrapperLog log(folder.Path(), false, FixedMay3);
    log.Write(std::u16string(MessageLengthFor(JNIWrapperLog::kRotationSize), u'x'));
    EXPECT_EQ(log.CurrentFilePath(), folder.File(u"JNIWrapper_3-5-2026_7-4-9-45.log"));
    log.Write(u"same name");
    const auto files = LogFiles(folder);
    ASSERT_EQ(files.size(), 1u);
    const std::u16string text = Text(folder, files[0]);
    EXPECT_EQ(text.size(), static_cast<size_t>(JNIWrapperLog::kRotationSize / 2) + 2 + 46 + 2 + 9);
    EXPECT_EQ(text.substr(text.size() - 11), u" :same name");
}

namespace {
// Makes `count` log files whose last-write times are one minute apart,
// oldest first: old-00.log is the oldest.
std::vector<std::u16string> MakeOldLogFiles(const TempFolder& folder, int count) {
    std::vector<std::u16string> names;
    for (int i = 0; i < count; ++i) {
        std::u16string name = u"JNIWrapper_old-";
        name.push_back(static_cast<char16_t>(u'0' + i / 10));
        name.push_back(static_cast<char16_t>(u'0' + i % 10));
        name += u".log";
        EXPECT_TRUE(testsupport::WriteFileBytes(folder.File(name), "old"));
        EXPECT_TRUE(qvplatform::SetLastWriteTimeSeconds(folder.File(name), 1600000000 + 60 * i));
        names.push_back(name);
    }
    return names;
}
}  // namespace

TEST(JNIWrapperLog, ConstructionWithPruningKeepsTheNewest30Files) {
    TempFolder folder;
    const auto old = MakeOldLogFiles(folder, 35);
    ASSERT_TRUE(testsupport::WriteFileBytes(folder.File(u"JNIWrapper_old-00.log_error"), "e"));
    ASSERT_TRUE(testsupport::WriteFileBytes(folder.File(u"unrelated.log"), "u"));
    JNIWrapperLog log(folder.Path(), true, FixedMay3);
    const auto left = LogFiles(folder);
    ASSERT_EQ(left.size(), 30u);
    EXPECT_EQ(left, std::vector<std::u16string>(old.begin() + 5, old.end()));
    EXPECT_TRUE(qvplatform::FileExists(folder.File(u"JNIWrapper_old-00.log_error")));
    EXPECT_TRUE(qvplatform::FileExists(folder.File(u"unrelated.log")));
}

TEST(JNIWrapperLog, RotationWithPruningKeepsTheNewest30FilesPlusTheNewOne) {
    TempFolder folder;
    JNIWrapperLog log(folder.Path(), true, SteppingClock());
    const std::u16string a = log.CurrentFilePath();
    log.Write(std::u16string(MessageLengthFor(JNIWrapperLog::kRotationSize), u'a'));
    const std::u16string b = log.CurrentFilePath();
    const auto old = MakeOldLogFiles(folder, 35);
    ASSERT_TRUE(qvplatform::SetLastWriteTimeSeconds(a, 1800000000));
    ASSERT_TRUE(qvplatform::SetLastWriteTimeSeconds(b, 1800000060));
    log.Write(std::u16string(MessageLengthFor(JNIWrapperLog::kRotationSize), u'b'));
    const std::u16string c = log.CurrentFilePath();
    // 35 old + a + b = 37 before the new file: the 7 oldest go, then c starts.
    const auto left = LogFiles(folder);
    EXPECT_EQ(left.size(), 31u);
    EXPECT_TRUE(qvplatform::FileExists(a));
    EXPECT_TRUE(qvplatform::FileExists(b));
    EXPECT_TRUE(qvplatform::FileExists(c));
    for (int i = 0; i < 35; ++i) EXPECT_EQ(qvplatform::FileExists(folder.File(old[i])), i >= 7) << i;
}

TEST(JNIWrapperLog, NoFileIsDeletedWithPruningOff) {
    TempFolder folder;
    const auto old = MakeOldLogFiles(folder, 35);
    JNIWrapperLog log(folder.Path(), false, SteppingClock());
    log.Write(std::u16string(MessageLengthFor(JNIWrapperLog::kRotationSize), u'a'));
    log.Write(std::u16string(MessageLengthFor(JNIWrapperLog::kRotationSize), u'b'));
    log.Write(u"third file");
    EXPECT_EQ(LogFiles(folder).size(), 35u + 3u);
    for (const auto& name : old) EXPECT_TRUE(qvplatform::FileExists(folder.File(name)));
}

TEST(JNIWrapperLog, LevelledWritesPassAtOrBelowLevelThree) {
    TempFolder folder;
    JNIWrapperLog log(folder.Path(), false, FixedMay3);
    log.WriteDetail(u"detail");
    log.WriteWarning(u"warning");
    log.Write(1, u"level1");
    log.Write(3, u"level3");
    log.Write(4, u"level4");
    log.Write(-7, u"negative");
    log.Write(3, u"with value", 99u);
    log.Write(4, u"with value too high", 99u);
    const std::u16string prefix = JNIWrapperLog::RecordPrefix(kMay3, qvplatform::CurrentProcessId(),
                                                              qvplatform::CurrentThreadId());
    std::u16string expected;
    for (const std::u16string m : {u"detail", u"warning", u"level1", u"level3", u"negative", u"with value"}) {
        expected += u"\r\n" + prefix + u" :" + m;
    }
    EXPECT_EQ(Text(folder, u"JNIWrapper_3-5-2026_7-4-9-45.log"), expected);
}

TEST(JNIWrapperLog, WriteErrorGoesToTheCompanionFileOnly) {
    TempFolder folder;
    JNIWrapperLog log(folder.Path(), true, FixedMay3);
    log.WriteError(u"broken");
    EXPECT_FALSE(qvplatform::FileExists(folder.File(u"JNIWrapper_3-5-2026_7-4-9-45.log")));
    const std::u16string prefix = JNIWrapperLog::RecordPrefix(kMay3, qvplatform::CurrentProcessId(),
                                                              qvplatform::CurrentThreadId());
    EXPECT_EQ(Text(folder, u"JNIWrapper_3-5-2026_7-4-9-45.log_error"), u"\r\n" + prefix + u" :broken");
    EXPECT_TRUE(LogFiles(folder).empty());  // the companion never counts as a log file
}

TEST(JNIWrapperLog, WriteIntoAMissingFolderLosesTheRecordQuietly) {
    TempFolder folder;
    JNIWrapperLog log(folder.File(u"missing"), true, FixedMay3);
    log.Write(u"lost");
    log.WriteError(u"lost too");
    EXPECT_FALSE(qvplatform::FileExists(log.CurrentFilePath()));
    EXPECT_EQ(log.CurrentFilePath(), folder.File(u"missing") + qvplatform::kPathSeparator +
                                         u"JNIWrapper_3-5-2026_7-4-9-45.log");
}

TEST(JNIWrapperLog, ProcessWideWriterIsCreatedOnceAndIgnoresLaterArguments) {
    TempFolder first;
    TempFolder second;
    JNIWrapperLog* writer = GetJNIWrapperLog(first.Path(), false);
    ASSERT_NE(writer, nullptr);
    EXPECT_EQ(GetJNIWrapperLog(second.Path(), true), writer);
    const std::u16string path = writer->CurrentFilePath();
    EXPECT_EQ(path.substr(0, first.Path().size() + 1), first.Path() + qvplatform::kPathSeparator);
}

// Eight threads write 5,000 records each through one writer while the file
// rotates: every record must be present exactly once and whole.
TEST(JNIWrapperLog, ConcurrentWritersAcrossARotationLoseAndTearNothing) {
    constexpr int kThreads = 8;
    constexpr int kRecords = 5000;
    TempFolder folder;
    JNIWrapperLog log(folder.Path(), false, SteppingClock());
    // Fill the first file to just below the limit so that the run crosses it.
    log.Write(std::u16string(MessageLengthFor(JNIWrapperLog::kRotationSize - 20000), u'f'));

    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&log, t] {
            for (int i = 0; i < kRecords; ++i) {
                const std::string m = "thread " + std::to_string(t) + " record " + std::to_string(i) + " " +
                                      std::string(static_cast<size_t>(10 + i % 7), static_cast<char>('a' + t));
                log.Write(std::u16string(m.begin(), m.end()));
            }
        });
    }
    for (auto& thread : threads) thread.join();

    const auto files = LogFiles(folder);
    EXPECT_EQ(files.size(), 2u);
    std::map<std::pair<int, int>, int> seen;
    size_t filler = 0;
    for (const auto& name : files) {
        const std::u16string text = Text(folder, name);
        ASSERT_EQ(text.substr(0, 2), u"\r\n");
        size_t start = 2;
        while (start <= text.size()) {
            size_t end = text.find(u"\r\n", start);
            if (end == std::u16string::npos) end = text.size();
            const std::u16string record = text.substr(start, end - start);
            start = end + 2;
            ASSERT_GE(record.size(), 48u);
            EXPECT_EQ(record.substr(46, 2), u" :");
            const std::string m(record.begin() + 48, record.end());
            if (m[0] == 'f') {
                ++filler;
                continue;
            }
            int t = -1;
            int i = -1;
            char tail[64] = {};
            ASSERT_EQ(std::sscanf(m.c_str(), "thread %d record %d %63s", &t, &i, tail), 3) << m;
            EXPECT_EQ(std::string(tail), std::string(static_cast<size_t>(10 + i % 7), static_cast<char>('a' + t)));
            ++seen[{t, i}];
        }
    }
    EXPECT_EQ(filler, 1u);
    ASSERT_EQ(seen.size(), static_cast<size_t>(kThreads * kRecords));
    for (const auto& entry : seen) EXPECT_EQ(entry.second, 1);
}
