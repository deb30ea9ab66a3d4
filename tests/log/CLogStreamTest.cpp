#include "log/CLogStream.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "platform/Platform.h"
#include "support/TempFolder.h"

using testsupport::ReadFileBytes;
using testsupport::TempFolder;
using testsupport::WriteFileBytes;

namespace {

constexpr size_t kTenMiB = 10485760;

// Closes the shared log file when a test starts and when it ends, so that every test opens the file in its
// own folder and leaves none open.
class SharedFileReset {
public:
    SharedFileReset() { CLogStream::CloseSharedFile(); }
    ~SharedFileReset() { CLogStream::CloseSharedFile(); }
    SharedFileReset(const SharedFileReset&) = delete;
    SharedFileReset& operator=(const SharedFileReset&) = delete;
};

// The fields of a written line "[MM/DD hh:mm:ss] [pid] [tid]: text".
struct LineFields {
    unsigned month = 0;
    unsigned day = 0;
    unsigned hour = 0;
    unsigned minute = 0;
    unsigned second = 0;
    unsigned processId = 0;
    unsigned threadId = 0;
    std::string text;  // with its line end
};

bool ParseLine(const std::string& line, LineFields& fields) {
    int consumed = -1;
    const int read = std::sscanf(line.c_str(), "[%2u/%2u %2u:%2u:%2u] [%8x] [%8x]:%n", &fields.month,
                                 &fields.day, &fields.hour, &fields.minute, &fields.second, &fields.processId,
                                 &fields.threadId, &consumed);
    if (read != 7 || consumed < 0 || static_cast<size_t>(consumed) >= line.size()) return false;
    if (line[static_cast<size_t>(consumed)] != ' ') return false;
    fields.text = line.substr(static_cast<size_t>(consumed) + 1);
    return true;
}

std::string ExpectedLine(const LineFields& time, uint32_t processId, uint32_t threadId,
                         const std::string& textWithEnd) {
    char prefix[80];
    std::snprintf(prefix, sizeof prefix, "[%02u/%02u %02u:%02u:%02u] [%8x] [%8x]: ", time.month, time.day,
                  time.hour, time.minute, time.second, static_cast<unsigned>(processId),
                  static_cast<unsigned>(threadId));
    return prefix + textWithEnd;
}

// Checks that `line` is, byte for byte, the line that thread `threadId` of this process writes for
// `textWithEnd`, at a plausible time.
testing::AssertionResult IsLogLine(const std::string& line, const std::string& textWithEnd,
                                   uint32_t threadId = qvplatform::CurrentThreadId()) {
    LineFields fields;
    if (!ParseLine(line, fields)) return testing::AssertionFailure() << "not a log line: \"" << line << "\"";
    if (fields.month < 1 || fields.month > 12 || fields.day < 1 || fields.day > 31 || fields.hour > 23 ||
        fields.minute > 59 || fields.second > 60) {
        return testing::AssertionFailure() << "implausible time in \"" << line << "\"";
    }
    const std::string expected = ExpectedLine(fields, qvplatform::CurrentProcessId(), threadId, textWithEnd);
    if (line != expected) {
        return testing::AssertionFailure() << "line \"" << line << "\" differs from \"" << expected << "\"";
    }
    return testing::AssertionSuccess();
}

// The lines of a file whose lines all end with "\r\n", without their ends.
std::vector<std::string> SplitLines(const std::string& bytes) {
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < bytes.size()) {
        const size_t end = bytes.find("\r\n", start);
        if (end == std::string::npos) {
            lines.push_back(bytes.substr(start));
            break;
        }
        lines.push_back(bytes.substr(start, end - start));
        start = end + 2;
    }
    return lines;
}

// Checks that `bytes` holds exactly one log line for each of `texts`, in order.
void ExpectLogLines(const std::string& bytes, const std::vector<std::string>& texts) {
    const std::vector<std::string> lines = SplitLines(bytes);
    ASSERT_EQ(lines.size(), texts.size());
    for (size_t i = 0; i < texts.size(); ++i) EXPECT_TRUE(IsLogLine(lines[i] + "\r\n", texts[i] + "\r\n")) << i;
}

std::u16string LogFile(const TempFolder& folder, const char16_t* name) { return folder.File(name); }

std::string Formatted(const std::string& format, const std::function<void(CLogStream&)>& append) {
    CLogStream stream;
    stream.SetFormat(format);
    append(stream);
    return stream.Text();
}

}  // namespace

// ---------------------------------------------------------------- the log file

TEST(CLogStream, DefaultFolderBaseIsTheVexaLogFolderOfThePlatform) {
    SharedFileReset reset;
    if (qvplatform::kPathSeparator == u'\\') {
        EXPECT_EQ(CLogStream::DefaultFolderBase(), "D:\\log\\Vexa\\Log\\");
    } else {
        EXPECT_EQ(CLogStream::DefaultFolderBase(), "/var/log/Vexa/Log/");
    }
}

TEST(CLogStream, FlushWithEmptyFolderWritesToJNIWrapper0000InTheDefaultFolder) {
    SharedFileReset reset;
    const std::string base = CLogStream::DefaultFolderBase();
    const char separator = static_cast<char>(qvplatform::kPathSeparator);
    // Each level of the folder, the drive excepted.
    for (size_t at = base.find(separator, 1); at != std::string::npos; at = base.find(separator, at + 1)) {
        const std::string level = base.substr(0, at);
        if (level.back() == ':') continue;
        if (!qvplatform::CreateFolder(qvplatform::FromUtf8(level))) {
            GTEST_SKIP() << "the default log folder cannot be created here: " << level;
        }
    }
    const std::u16string path = qvplatform::FromUtf8(base + "JNIWrapper0000.log");
    const bool existed = qvplatform::FileExists(path);
    if (existed) {
        qvplatform::SharedFile file;
        ASSERT_TRUE(file.OpenOrCreate(path));
        if (file.Size() >= static_cast<int64_t>(kTenMiB)) GTEST_SKIP() << "the default log file is full";
    }

    const std::string text = "default folder line " + qvplatform::ToUtf8(qvplatform::NewUuidText());
    CLogStream stream;
    stream << text;
    stream.Flush();
    CLogStream::CloseSharedFile();

    const std::string bytes = ReadFileBytes(path);
    ASSERT_GE(bytes.size(), 2u);
    const size_t lastLineStart = bytes.rfind("\r\n", bytes.size() - 3);
    const std::string lastLine = bytes.substr(lastLineStart == std::string::npos ? 0 : lastLineStart + 2);
    EXPECT_TRUE(IsLogLine(lastLine, text + "\r\n"));

    if (!existed) {
        qvplatform::DeleteFileAt(path);
        // Only folders left empty go.
        const std::string logFolder = base.substr(0, base.size() - 1);
        qvplatform::RemoveEmptyFolder(qvplatform::FromUtf8(logFolder));
        qvplatform::RemoveEmptyFolder(qvplatform::FromUtf8(logFolder.substr(0, logFolder.rfind(separator))));
    }
}

TEST(CLogStream, NumberedFilesInTheFolderDoNotChangeTheTargetFile) {
    SharedFileReset reset;
    TempFolder temp;
    ASSERT_TRUE(WriteFileBytes(LogFile(temp, u"JNIWrapper0005.log"), "five\r\n"));
    ASSERT_TRUE(WriteFileBytes(LogFile(temp, u"JNIWrapper0009.log"), "nine\r\n"));
    ASSERT_TRUE(WriteFileBytes(LogFile(temp, u"jniwrapper0012.log"), "twelve\r\n"));

    CLogStream stream;
    stream.SetFolder(temp.PathUtf8());
    stream << "numbered files around";
    stream.Flush();
    CLogStream::CloseSharedFile();

    EXPECT_TRUE(IsLogLine(ReadFileBytes(LogFile(temp, u"JNIWrapper0000.log")), "numbered files around\r\n"));
    EXPECT_EQ(ReadFileBytes(LogFile(temp, u"JNIWrapper0005.log")), "five\r\n");
    EXPECT_EQ(ReadFileBytes(LogFile(temp, u"JNIWrapper0009.log")), "nine\r\n");
    EXPECT_EQ(ReadFileBytes(LogFile(temp, u"jniwrapper0012.log")), "twelve\r\n");
    EXPECT_FALSE(qvplatform::FileExists(LogFile(temp, u"JNIWrapper0010.log")));
    EXPECT_FALSE(qvplatform::FileExists(LogFile(temp, u"JNIWrapper0013.log")));
}

TEST(CLogStream, FlushGoesToJNIWrapper0001WhenJNIWrapper0000HasReachedTenMiB) {
    SharedFileReset reset;
    TempFolder temp;
    const std::string full(kTenMiB, 'x');
    ASSERT_TRUE(WriteFileBytes(LogFile(temp, u"JNIWrapper0000.log"), full));

    CLogStream stream;
    stream.SetFolder(temp.PathUtf8());
    stream << "first after rotation";
    stream.Flush();
    stream << "second after rotation";
    stream.Flush();
    CLogStream::CloseSharedFile();

    EXPECT_TRUE(ReadFileBytes(LogFile(temp, u"JNIWrapper0000.log")) == full);
    ExpectLogLines(ReadFileBytes(LogFile(temp, u"JNIWrapper0001.log")),
                   {"first after rotation", "second after rotation"});
}

TEST(CLogStream, FullJNIWrapper0001KeepsGrowingAfterEachReopening) {
    SharedFileReset reset;
    TempFolder temp;
    const std::string full0(kTenMiB, 'x');
    const std::string full1(kTenMiB, 'y');
    ASSERT_TRUE(WriteFileBytes(LogFile(temp, u"JNIWrapper0000.log"), full0));
    ASSERT_TRUE(WriteFileBytes(LogFile(temp, u"JNIWrapper0001.log"), full1));

    CLogStream stream;
    stream.SetFolder(temp.PathUtf8());
    stream << "one";
    stream.Flush();
    // The open file is full: this flush closes it and opens again.
    stream << "two";
    stream.Flush();
    CLogStream::CloseSharedFile();
    stream << "three";
    stream.Flush();
    CLogStream::CloseSharedFile();

    EXPECT_TRUE(ReadFileBytes(LogFile(temp, u"JNIWrapper0000.log")) == full0);
    const std::string grown = ReadFileBytes(LogFile(temp, u"JNIWrapper0001.log"));
    ASSERT_GT(grown.size(), kTenMiB);
    EXPECT_TRUE(grown.compare(0, kTenMiB, full1) == 0);
    ExpectLogLines(grown.substr(kTenMiB), {"one", "two", "three"});
    EXPECT_FALSE(qvplatform::FileExists(LogFile(temp, u"JNIWrapper0002.log")));
}

TEST(CLogStream, OpenFileThatReachesTenMiBIsClosedAndTheNextFlushGoesToJNIWrapper0001) {
    SharedFileReset reset;
    TempFolder temp;
    CLogStream stream;
    stream.SetFolder(temp.PathUtf8());
    stream << "before";
    stream.Flush();

    // Another writer fills the open file.
    const std::string filler(kTenMiB, 'z');
    {
        qvplatform::SharedFile other;
        ASSERT_TRUE(other.OpenOrCreate(LogFile(temp, u"JNIWrapper0000.log")));
        ASSERT_TRUE(other.AppendAtEnd(filler.data(), filler.size()));
    }

    stream << "after";
    stream.Flush();
    CLogStream::CloseSharedFile();

    const std::string first = ReadFileBytes(LogFile(temp, u"JNIWrapper0000.log"));
    ASSERT_GT(first.size(), kTenMiB);
    EXPECT_TRUE(IsLogLine(first.substr(0, first.size() - kTenMiB), "before\r\n"));
    EXPECT_TRUE(first.compare(first.size() - kTenMiB, kTenMiB, filler) == 0);
    EXPECT_TRUE(IsLogLine(ReadFileBytes(LogFile(temp, u"JNIWrapper0001.log")), "after\r\n"));
}

TEST(CLogStream, FlushWithEmptyTextWritesNothingAndOpensNoFile) {
    SharedFileReset reset;
    TempFolder empty;
    TempFolder used;
    CLogStream nothing;
    nothing.SetFolder(empty.PathUtf8());
    nothing.Flush();
    EXPECT_TRUE(qvplatform::ListFiles(empty.File(u"*")).empty());

    // Had the empty flush opened the shared file, this line would go into the first folder.
    CLogStream something;
    something.SetFolder(used.PathUtf8());
    something << "something";
    something.Flush();
    CLogStream::CloseSharedFile();
    EXPECT_TRUE(qvplatform::ListFiles(empty.File(u"*")).empty());
    EXPECT_TRUE(IsLogLine(ReadFileBytes(LogFile(used, u"JNIWrapper0000.log")), "something\r\n"));
}

TEST(CLogStream, TextEndingWithLineFeedGetsNoExtraLineEnd) {
    SharedFileReset reset;
    TempFolder temp;
    CLogStream stream;
    stream.SetFolder(temp.PathUtf8());
    stream << "unix end\n";
    stream.Flush();
    stream << "windows end\r\n";
    stream.Flush();
    CLogStream::CloseSharedFile();

    const std::string bytes = ReadFileBytes(LogFile(temp, u"JNIWrapper0000.log"));
    const size_t cut = bytes.find('\n') + 1;
    EXPECT_TRUE(IsLogLine(bytes.substr(0, cut), "unix end\n"));
    EXPECT_TRUE(IsLogLine(bytes.substr(cut), "windows end\r\n"));
}

TEST(CLogStream, TextNotEndingWithLineFeedGetsCarriageReturnAndLineFeed) {
    SharedFileReset reset;
    TempFolder temp;
    CLogStream stream;
    stream.SetFolder(temp.PathUtf8());
    stream << "plain";
    stream.Flush();
    stream << "ends with carriage return\r";
    stream.Flush();
    stream << "line feed\ninside";
    stream.Flush();
    CLogStream::CloseSharedFile();

    const std::string bytes = ReadFileBytes(LogFile(temp, u"JNIWrapper0000.log"));
    const size_t second = bytes.find("\r\n") + 2;
    const size_t third = bytes.find("\r\n", second) + 2;
    EXPECT_TRUE(IsLogLine(bytes.substr(0, second), "plain\r\n"));
    EXPECT_TRUE(IsLogLine(bytes.substr(second, third - second), "ends with carriage return\r\r\n"));
    EXPECT_TRUE(IsLogLine(bytes.substr(third), "line feed\ninside\r\n"));
}

TEST(CLogStream, WrittenLineHasTheTimeAndIdsPrefixByteForByte) {
    SharedFileReset reset;
    TempFolder temp;
    CLogStream stream;
    stream.SetFolder(temp.PathUtf8());
    const qvplatform::LocalTime before = qvplatform::GetLocalTimeNow();
    stream << "exact line " << 42;
    stream.Flush();
    const qvplatform::LocalTime after = qvplatform::GetLocalTimeNow();
    CLogStream::CloseSharedFile();

    const std::string bytes = ReadFileBytes(LogFile(temp, u"JNIWrapper0000.log"));
    // "[MM/DD hh:mm:ss] " + "[pid     ] " + "[tid     ]: " + text + "\r\n"
    EXPECT_EQ(bytes.size(), 17u + 11u + 12u + 13u + 2u);
    LineFields fields;
    ASSERT_TRUE(ParseLine(bytes, fields)) << bytes;
    EXPECT_EQ(fields.processId, qvplatform::CurrentProcessId());
    EXPECT_EQ(fields.threadId, qvplatform::CurrentThreadId());
    EXPECT_EQ(fields.text, "exact line 42\r\n");
    EXPECT_TRUE((fields.month == before.month && fields.day == before.day) ||
                (fields.month == after.month && fields.day == after.day));
    const unsigned written = fields.hour * 3600 + fields.minute * 60 + fields.second;
    const unsigned first = before.hour * 3600u + before.minute * 60u + before.second;
    const unsigned last = after.hour * 3600u + after.minute * 60u + after.second;
    if (first <= last) {
        EXPECT_TRUE(written >= first && written <= last) << bytes;
    } else {  // midnight passed
        EXPECT_TRUE(written >= first || written <= last) << bytes;
    }

    char expected[128];
    std::snprintf(expected, sizeof expected, "[%02u/%02u %02u:%02u:%02u] [%8x] [%8x]: exact line 42\r\n",
                  fields.month, fields.day, fields.hour, fields.minute, fields.second,
                  static_cast<unsigned>(qvplatform::CurrentProcessId()),
                  static_cast<unsigned>(qvplatform::CurrentThreadId()));
    EXPECT_EQ(bytes, expected);
}

TEST(CLogStream, FlushClearsTheTextAndLeavesTheStreamReadyForTheNextLine) {
    SharedFileReset reset;
    TempFolder temp;
    CLogStream stream;
    stream.SetFolder(temp.PathUtf8());
    stream << "first " << 1;
    stream.Flush();
    EXPECT_EQ(stream.Text(), "");
    stream << "second " << 2;
    EXPECT_EQ(stream.Text(), "second 2");
    stream.Flush();
    stream.Flush();  // nothing collected: no line
    CLogStream::CloseSharedFile();

    ExpectLogLines(ReadFileBytes(LogFile(temp, u"JNIWrapper0000.log")), {"first 1", "second 2"});
}

TEST(CLogStream, FlushClearsTheTextEvenWhenTheFileCannotBeOpened) {
    SharedFileReset reset;
    TempFolder temp;
    CLogStream stream;
    stream.SetFolder(qvplatform::ToUtf8(temp.File(u"missing")));
    stream << "lost line";
    stream.Flush();
    EXPECT_EQ(stream.Text(), "");
    EXPECT_TRUE(qvplatform::ListFiles(temp.File(u"*")).empty());
    EXPECT_FALSE(qvplatform::FileExists(temp.File(u"missing")));
}

TEST(CLogStream, LaterFlushesGoToTheOpenFileWhateverTheirStreamsFolder) {
    SharedFileReset reset;
    TempFolder first;
    TempFolder second;
    CLogStream opener;
    opener.SetFolder(first.PathUtf8());
    opener << "opens";
    opener.Flush();
    CLogStream other;
    other.SetFolder(second.PathUtf8());
    other << "follows";
    other.Flush();
    CLogStream::CloseSharedFile();

    ExpectLogLines(ReadFileBytes(LogFile(first, u"JNIWrapper0000.log")), {"opens", "follows"});
    EXPECT_TRUE(qvplatform::ListFiles(second.File(u"*")).empty());
}

TEST(CLogStream, CloseSharedFileMakesTheNextFlushOpenInItsStreamsFolder) {
    SharedFileReset reset;
    TempFolder first;
    TempFolder second;
    CLogStream opener;
    opener.SetFolder(first.PathUtf8());
    opener << "in first";
    opener.Flush();
    CLogStream::CloseSharedFile();
    CLogStream other;
    other.SetFolder(second.PathUtf8());
    other << "in second";
    other.Flush();
    CLogStream::CloseSharedFile();

    EXPECT_TRUE(IsLogLine(ReadFileBytes(LogFile(first, u"JNIWrapper0000.log")), "in first\r\n"));
    EXPECT_TRUE(IsLogLine(ReadFileBytes(LogFile(second, u"JNIWrapper0000.log")), "in second\r\n"));
}

TEST(CLogStream, LevelIsThreeAfterConstructionAndFiltersNothing) {
    SharedFileReset reset;
    TempFolder temp;
    CLogStream stream;
    EXPECT_EQ(stream.Level(), 3);
    stream.SetFolder(temp.PathUtf8());
    stream.SetLevel(0);
    EXPECT_EQ(stream.Level(), 0);
    stream << "level zero";
    stream.Flush();
    stream.SetLevel(-7);
    EXPECT_EQ(stream.Level(), -7);
    stream << "level minus seven";
    stream.Flush();
    CLogStream::CloseSharedFile();

    ExpectLogLines(ReadFileBytes(LogFile(temp, u"JNIWrapper0000.log")), {"level zero", "level minus seven"});
}

TEST(CLogStream, LongTextIsWrittenWhole) {
    SharedFileReset reset;
    TempFolder temp;
    std::string text(100000, 'q');
    text += "end";
    CLogStream stream;
    stream.SetFolder(temp.PathUtf8());
    stream << text;
    stream.Flush();
    CLogStream::CloseSharedFile();
    EXPECT_TRUE(IsLogLine(ReadFileBytes(LogFile(temp, u"JNIWrapper0000.log")), text + "\r\n"));
}

TEST(CLogStream, TextWithPercentSignsIsWrittenAsItIs) {
    SharedFileReset reset;
    TempFolder temp;
    CLogStream stream;
    stream.SetFolder(temp.PathUtf8());
    stream << "%s%n%d%%" << std::string(" %x%p");
    EXPECT_EQ(stream.Text(), "%s%n%d%% %x%p");
    stream.Flush();
    CLogStream::CloseSharedFile();
    EXPECT_TRUE(IsLogLine(ReadFileBytes(LogFile(temp, u"JNIWrapper0000.log")), "%s%n%d%% %x%p\r\n"));
}

TEST(CLogStream, ManyThreadsFlushingTheirOwnStreamsWriteEveryLineOnceAndWhole) {
    SharedFileReset reset;
    TempFolder temp;
    constexpr int kThreads = 4;
    constexpr int kLines = 500;
    const std::string folder = temp.PathUtf8();
    std::vector<uint32_t> threadIds(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&folder, &threadIds, t] {
            threadIds[static_cast<size_t>(t)] = qvplatform::CurrentThreadId();
            CLogStream stream;
            stream.SetFolder(folder);
            for (int i = 0; i < kLines; ++i) {
                stream << "thread " << t << " line " << i;
                stream.Flush();
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    CLogStream::CloseSharedFile();

    const std::string bytes = ReadFileBytes(LogFile(temp, u"JNIWrapper0000.log"));
    ASSERT_GE(bytes.size(), 2u);
    ASSERT_EQ(bytes.substr(bytes.size() - 2), "\r\n");
    const std::vector<std::string> lines = SplitLines(bytes);
    ASSERT_EQ(lines.size(), static_cast<size_t>(kThreads * kLines));
    std::map<std::string, int> seen;
    for (const std::string& line : lines) {
        LineFields fields;
        ASSERT_TRUE(ParseLine(line + "\r\n", fields)) << line;
        int thread = -1;
        int number = -1;
        ASSERT_EQ(std::sscanf(fields.text.c_str(), "thread %d line %d", &thread, &number), 2) << line;
        ASSERT_TRUE(thread >= 0 && thread < kThreads && number >= 0 && number < kLines) << line;
        const std::string text = fields.text.substr(0, fields.text.size() - 2);
        EXPECT_EQ(text, "thread " + std::to_string(thread) + " line " + std::to_string(number));
        EXPECT_TRUE(IsLogLine(line + "\r\n", text + "\r\n", threadIds[static_cast<size_t>(thread)]));
        ++seen[text];
    }
    for (int t = 0; t < kThreads; ++t) {
        for (int i = 0; i < kLines; ++i) {
            EXPECT_EQ(seen["thread " + std::to_string(t) + " line " + std::to_string(i)], 1) << t << " " << i;
        }
    }
}

// ---------------------------------------------------------------- appends

TEST(CLogStream, SixtyFourBitAppendsPrintTheirFullRange) {
    CLogStream stream;
    stream << ULLONG_MAX << " " << LLONG_MIN << " " << LLONG_MAX;
    EXPECT_EQ(stream.Text(), "18446744073709551615 -9223372036854775808 9223372036854775807");
}

TEST(CLogStream, LongAppendsPrintTheirValueWidenedTo64Bits) {
    CLogStream stream;
    stream << ULONG_MAX << " " << LONG_MIN << " " << LONG_MAX << " " << 0ul << " " << -1l;
    EXPECT_EQ(stream.Text(), std::to_string(ULONG_MAX) + " " + std::to_string(LONG_MIN) + " " +
                                 std::to_string(LONG_MAX) + " 0 -1");
}

TEST(CLogStream, FloatingAppendsPrintSixDecimals) {
    CLogStream stream;
    stream << 1.5 << " " << -0.000001 << " " << 0.25f << " " << 16777217.0f;
    // The float 16777217 is stored as 16777216.
    EXPECT_EQ(stream.Text(), "1.500000 -0.000001 0.250000 16777216.000000");
}

TEST(CLogStream, ThirtyTwoAndSixteenBitAppendsPrintTheirRange) {
    CLogStream stream;
    stream << UINT_MAX << " " << INT_MIN << " " << INT_MAX << " " << static_cast<unsigned short>(USHRT_MAX)
           << " " << static_cast<short>(SHRT_MIN) << " " << static_cast<short>(SHRT_MAX);
    EXPECT_EQ(stream.Text(), "4294967295 -2147483648 2147483647 65535 -32768 32767");
}

TEST(CLogStream, EightBitStringAppendsAddTheirText) {
    CLogStream stream;
    const unsigned char bytes[] = {'u', 'n', 's', 'i', 'g', 'n', 'e', 'd', 0};
    stream << "plain " << bytes << " " << std::string("object");
    EXPECT_EQ(stream.Text(), "plain unsigned object");
}

TEST(CLogStream, StringObjectIsAppendedWithItsZeroBytes) {
    CLogStream stream;
    stream << std::string("a\0b", 3);
    EXPECT_EQ(stream.Text(), std::string("a\0b", 3));
}

TEST(CLogStream, AppendRawAddsTextUnformatted) {
    CLogStream stream;
    stream.SetFormat("<%s>");
    stream.AppendRaw("raw %d");
    stream << "x";
    EXPECT_EQ(stream.Text(), "raw %d<x>");
}

TEST(CLogStream, Utf16AppendsConvertToUtf8) {
    const char16_t* text = u"Gr\u00FC\u00DFe \u20AC \U0001F600";
    const std::string utf8 = "Gr\xC3\xBC\xC3\x9F" "e \xE2\x82\xAC \xF0\x9F\x98\x80";
    CLogStream pointer;
    pointer << text;
    EXPECT_EQ(pointer.Text(), utf8);
    CLogStream object;
    object << std::u16string(text);
    EXPECT_EQ(object.Text(), utf8);
    CLogStream unpaired;
    unpaired << std::u16string(u"a") + static_cast<char16_t>(0xD800) + u"b";
    EXPECT_EQ(unpaired.Text(), "a\xEF\xBF\xBD" "b");
}

TEST(CLogStream, NullPointersAppendNullText) {
    CLogStream stream;
    stream << static_cast<const char*>(nullptr) << " " << static_cast<const unsigned char*>(nullptr) << " "
           << static_cast<const char16_t*>(nullptr);
    EXPECT_EQ(stream.Text(), "(null) (null) (null)");
    EXPECT_EQ(Formatted("[%s]", [](CLogStream& s) { s << static_cast<const char*>(nullptr); }), "[(null)]");
}

TEST(CLogStream, EveryAppendReturnsTheChainedStreamOnceThenItself) {
    const std::vector<std::function<CLogStream&(CLogStream&)>> appends = {
        [](CLogStream& s) -> CLogStream& { return s << std::string("s"); },
        [](CLogStream& s) -> CLogStream& { return s << 1ull; },
        [](CLogStream& s) -> CLogStream& { return s << 1ll; },
        [](CLogStream& s) -> CLogStream& { return s << 1ul; },
        [](CLogStream& s) -> CLogStream& { return s << 1l; },
        [](CLogStream& s) -> CLogStream& { return s << 1.0; },
        [](CLogStream& s) -> CLogStream& { return s << 1.0f; },
        [](CLogStream& s) -> CLogStream& { return s << 1u; },
        [](CLogStream& s) -> CLogStream& { return s << 1; },
        [](CLogStream& s) -> CLogStream& { return s << static_cast<unsigned short>(1); },
        [](CLogStream& s) -> CLogStream& { return s << static_cast<short>(1); },
        [](CLogStream& s) -> CLogStream& { return s << u"w"; },
        [](CLogStream& s) -> CLogStream& { return s << "c"; },
        [](CLogStream& s) -> CLogStream& { return s << std::u16string(u"W"); },
        [](CLogStream& s) -> CLogStream& { return s << reinterpret_cast<const unsigned char*>("u"); },
    };
    for (size_t i = 0; i < appends.size(); ++i) {
        CLogStream first;
        CLogStream second;
        first.Chain(&second);
        EXPECT_EQ(&appends[i](first), &second) << "append " << i;
        EXPECT_EQ(first.Chained(), nullptr) << "append " << i;
        EXPECT_EQ(&appends[i](first), &first) << "append " << i;
        EXPECT_FALSE(first.Text().empty()) << "append " << i;
        EXPECT_EQ(second.Text(), "") << "append " << i;
    }
}

TEST(CLogStream, ChainedExpressionContinuesInTheChainedStream) {
    CLogStream first;
    CLogStream second;
    first.Chain(&second);
    first << "a" << "b" << "c";
    EXPECT_EQ(first.Text(), "a");
    EXPECT_EQ(second.Text(), "bc");
    first << "d" << "e";
    EXPECT_EQ(first.Text(), "ade");
}

TEST(CLogStream, CopyCopiesAllFields) {
    CLogStream chained;
    CLogStream original;
    original.Chain(&chained);
    original.SetFormat("<%d>");
    original.AppendRaw("collected");
    original.SetLevel(9);
    original.SetFolder("some folder");

    CLogStream copy(original);
    EXPECT_EQ(copy.Chained(), &chained);
    EXPECT_EQ(copy.Format(), "<%d>");
    EXPECT_EQ(copy.Text(), "collected");
    EXPECT_EQ(copy.Level(), 9);
    EXPECT_EQ(copy.Folder(), "some folder");

    CLogStream assigned;
    assigned = original;
    EXPECT_EQ(assigned.Chained(), &chained);
    EXPECT_EQ(assigned.Format(), "<%d>");
    EXPECT_EQ(assigned.Text(), "collected");
    EXPECT_EQ(assigned.Level(), 9);
    EXPECT_EQ(assigned.Folder(), "some folder");

    original.AppendRaw(" more");
    EXPECT_EQ(copy.Text(), "collected");
}

TEST(CLogStream, NewStreamIsEmpty) {
    CLogStream stream;
    EXPECT_EQ(stream.Chained(), nullptr);
    EXPECT_EQ(stream.Format(), "");
    EXPECT_EQ(stream.Text(), "");
    EXPECT_EQ(stream.Level(), 3);
    EXPECT_EQ(stream.Folder(), "");
}

// ---------------------------------------------------------------- custom formats

TEST(CLogStream, CustomFormatOverridesTheDefaultOfEveryAppend) {
    EXPECT_EQ(Formatted("<%05d>", [](CLogStream& s) { s << 42; }), "<00042>");
    EXPECT_EQ(Formatted("<%05d>", [](CLogStream& s) { s << 7ull; }), "<00007>");
    EXPECT_EQ(Formatted("<%05d>", [](CLogStream& s) { s << -7ll; }), "<-0007>");
    EXPECT_EQ(Formatted("<%05d>", [](CLogStream& s) { s << 9ul; }), "<00009>");
    EXPECT_EQ(Formatted("<%05d>", [](CLogStream& s) { s << -9l; }), "<-0009>");
    EXPECT_EQ(Formatted("<%x>", [](CLogStream& s) { s << 255u; }), "<ff>");
    EXPECT_EQ(Formatted("<%+d>", [](CLogStream& s) { s << static_cast<short>(5); }), "<+5>");
    EXPECT_EQ(Formatted("<%o>", [](CLogStream& s) { s << static_cast<unsigned short>(8); }), "<10>");
    EXPECT_EQ(Formatted("<%.2f>", [](CLogStream& s) { s << 3.14159; }), "<3.14>");
    EXPECT_EQ(Formatted("<%.1e>", [](CLogStream& s) { s << 2.5f; }), "<2.5e+00>");
    EXPECT_EQ(Formatted("<%g>", [](CLogStream& s) { s << 0.5; }), "<0.5>");
    EXPECT_EQ(Formatted("<%s>", [](CLogStream& s) { s << "text"; }), "<text>");
    EXPECT_EQ(Formatted("<%-5s>", [](CLogStream& s) { s << std::string("ab"); }), "<ab   >");
    EXPECT_EQ(Formatted("<%.2s>", [](CLogStream& s) { s << reinterpret_cast<const unsigned char*>("xyz"); }),
              "<xy>");
    EXPECT_EQ(Formatted("<%s>", [](CLogStream& s) { s << u"\u00E9"; }), "<\xC3\xA9>");
    EXPECT_EQ(Formatted("<%s>", [](CLogStream& s) { s << std::u16string(u"\u00E9"); }), "<\xC3\xA9>");
    EXPECT_EQ(Formatted("%c", [](CLogStream& s) { s << 65; }), "A");
}

TEST(CLogStream, CustomFormatLengthModifierIsReplacedByTheAppendedValuesOwn) {
    EXPECT_EQ(Formatted("%hhx", [](CLogStream& s) { s << 0x1234; }), "1234");
    EXPECT_EQ(Formatted("%hd", [](CLogStream& s) { s << 100000; }), "100000");
    EXPECT_EQ(Formatted("%I64d", [](CLogStream& s) { s << -5; }), "-5");
    EXPECT_EQ(Formatted("%lld", [](CLogStream& s) { s << static_cast<short>(-5); }), "-5");
    EXPECT_EQ(Formatted("%hu", [](CLogStream& s) { s << ULLONG_MAX; }), "18446744073709551615");
    EXPECT_EQ(Formatted("%I32u", [](CLogStream& s) { s << ULLONG_MAX; }), "18446744073709551615");
    EXPECT_EQ(Formatted("%zu|%%", [](CLogStream& s) { s << 12u; }), "12|%");
    EXPECT_EQ(Formatted("%Lf", [](CLogStream& s) { s << 1.5; }), "1.500000");
    EXPECT_EQ(Formatted("%lf", [](CLogStream& s) { s << 1.5f; }), "1.500000");
    EXPECT_EQ(Formatted("%ls", [](CLogStream& s) { s << "narrow"; }), "narrow");
    EXPECT_EQ(Formatted("%hs", [](CLogStream& s) { s << u"wide"; }), "wide");
}

TEST(CLogStream, IntegerConversionsUseTheWidthOfTheAppendedType) {
    EXPECT_EQ(Formatted("%x", [](CLogStream& s) { s << static_cast<short>(-1); }), "ffff");
    EXPECT_EQ(Formatted("%x", [](CLogStream& s) { s << -1; }), "ffffffff");
    EXPECT_EQ(Formatted("%x", [](CLogStream& s) { s << -1ll; }), "ffffffffffffffff");
    EXPECT_EQ(Formatted("%x", [](CLogStream& s) { s << -1l; }), "ffffffffffffffff");
    EXPECT_EQ(Formatted("%d", [](CLogStream& s) { s << UINT_MAX; }), "-1");
    EXPECT_EQ(Formatted("%i", [](CLogStream& s) { s << static_cast<unsigned short>(USHRT_MAX); }), "-1");
    EXPECT_EQ(Formatted("%d", [](CLogStream& s) { s << ULLONG_MAX; }), "-1");
}

TEST(CLogStream, CustomFormatThatDoesNotFitTheValueFallsBackToTheDefault) {
    const std::vector<std::string> unfitForIntegers = {
        "%s", "%f", "%p", "%n", "%d %d", "%*d", "%.*d", "%", "%5", "no conversion", "%#d", "%0c", "%.2c",
        "%'d", "%I128d", "%wd", "%k", std::string("%d\0", 3), "%5000d", "%.5000d"};
    for (const std::string& format : unfitForIntegers) {
        EXPECT_EQ(Formatted(format, [](CLogStream& s) { s << 42; }), "42") << format;
        EXPECT_EQ(Formatted(format, [](CLogStream& s) { s << -42ll; }), "-42") << format;
        EXPECT_EQ(Formatted(format, [](CLogStream& s) { s << static_cast<unsigned short>(42); }), "42")
            << format;
    }
    const std::vector<std::string> unfitForFloating = {"%d", "%s", "%x", "%n", "%f%f", "%*f", "%c", "text"};
    for (const std::string& format : unfitForFloating) {
        EXPECT_EQ(Formatted(format, [](CLogStream& s) { s << 0.5; }), "0.500000") << format;
        EXPECT_EQ(Formatted(format, [](CLogStream& s) { s << 0.5f; }), "0.500000") << format;
    }
    const std::vector<std::string> unfitForText = {"%d",  "%f",   "%c", "%s %s", "%0s",
                                                   "%#s", "%.*s", "%p", "%S"};
    for (const std::string& format : unfitForText) {
        EXPECT_EQ(Formatted(format, [](CLogStream& s) { s << "50%s"; }), "50%s") << format;
        EXPECT_EQ(Formatted(format, [](CLogStream& s) { s << std::string("t"); }), "t") << format;
        EXPECT_EQ(Formatted(format, [](CLogStream& s) { s << u"u"; }), "u") << format;
    }
}

TEST(CLogStream, PercentEscapesInCustomFormatPrintPercentSigns) {
    EXPECT_EQ(Formatted("100%% of %d%%", [](CLogStream& s) { s << 5; }), "100% of 5%");
    EXPECT_EQ(Formatted("%%%d", [](CLogStream& s) { s << 5; }), "%5");
    EXPECT_EQ(Formatted("%%[%s]%%", [](CLogStream& s) { s << "t"; }), "%[t]%");
    EXPECT_EQ(Formatted("%.1f%%", [](CLogStream& s) { s << 99.5; }), "99.5%");
    // Without a conversion of its own the format does not fit.
    EXPECT_EQ(Formatted("%%d", [](CLogStream& s) { s << 5; }), "5");
    EXPECT_EQ(Formatted("%%s", [](CLogStream& s) { s << "t"; }), "t");
}

TEST(CLogStream, CustomFormatWidthsArePrintedInFull) {
    const std::string wide = Formatted("%4096d", [](CLogStream& s) { s << 1; });
    EXPECT_EQ(wide, std::string(4095, ' ') + "1");
    // 1e300 has 301 digits before the point.
    const std::string precise = Formatted("%.4000f", [](CLogStream& s) { s << 1e300; });
    ASSERT_EQ(precise.size(), 301u + 1u + 4000u);
    EXPECT_EQ(precise[0], '1');
    EXPECT_EQ(precise[301], '.');
    EXPECT_EQ(precise.substr(302), std::string(4000, '0'));
    const std::string text(50000, 'w');
    EXPECT_EQ(Formatted("[%s]", [&text](CLogStream& s) { s << text; }), "[" + text + "]");
}
