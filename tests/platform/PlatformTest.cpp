// The operating-system layer, checked the same way on Linux and on Windows.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <set>
#include <thread>
#include <vector>

#include "platform/Platform.h"
#include "support/TempFolder.h"

using namespace qvplatform;
using testsupport::ReadFileBytes;
using testsupport::TempFolder;

TEST(Platform, LocalTimeFieldsAreInRange) {
    const LocalTime t = GetLocalTimeNow();
    EXPECT_GE(t.year, 2024);
    EXPECT_GE(t.month, 1);
    EXPECT_LE(t.month, 12);
    EXPECT_GE(t.day, 1);
    EXPECT_LE(t.day, 31);
    EXPECT_LE(t.hour, 23);
    EXPECT_LE(t.minute, 59);
    EXPECT_LE(t.second, 60);
    EXPECT_LE(t.millisecond, 999);
}

TEST(Platform, LocalTimeMillisecondsAdvance) {
    const LocalTime a = GetLocalTimeNow();
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    const LocalTime b = GetLocalTimeNow();
    auto ms = [](const LocalTime& t) { return ((t.hour * 60 + t.minute) * 60 + t.second) * 1000 + t.millisecond; };
    const int elapsed = (ms(b) - ms(a) + 86400000) % 86400000;
    EXPECT_GE(elapsed, 20);
    EXPECT_LT(elapsed, 5000);
}

TEST(Platform, ThreadIdsDifferBetweenThreadsAndProcessIdIsShared) {
    const uint32_t mainThread = CurrentThreadId();
    const uint32_t process = CurrentProcessId();
    uint32_t otherThread = 0;
    uint32_t otherProcess = 0;
    std::thread([&] {
        otherThread = CurrentThreadId();
        otherProcess = CurrentProcessId();
    }).join();
    EXPECT_NE(process, 0u);
    EXPECT_NE(mainThread, 0u);
    EXPECT_NE(otherThread, 0u);
    EXPECT_NE(mainThread, otherThread);
    EXPECT_EQ(process, otherProcess);
    EXPECT_EQ(mainThread, CurrentThreadId());
}

TEST(Platform, UuidTextIsLowerCaseHexInFiveGroupsAndUnique) {
    std::set<WideString> seen;
    for (int i = 0; i < 200; ++i) {
        const WideString id = NewUuidText();
        ASSERT_EQ(id.size(), 36u);
        for (size_t k = 0; k < id.size(); ++k) {
            if (k == 8 || k == 13 || k == 18 || k == 23) {
                EXPECT_EQ(id[k], u'-');
            } else {
                EXPECT_TRUE((id[k] >= u'0' && id[k] <= u'9') || (id[k] >= u'a' && id[k] <= u'f')) << k;
            }
        }
        seen.insert(id);
    }
    EXPECT_EQ(seen.size(), 200u);
}

TEST(Platform, Utf8ConversionRoundTripsEveryPlane) {
    const WideString text = u"A\u00e9\u4e2d\U0001F600z";
    const std::string utf8 = ToUtf8(text);
    EXPECT_EQ(utf8, "A\xC3\xA9\xE4\xB8\xAD\xF0\x9F\x98\x80z");
    EXPECT_EQ(FromUtf8(utf8), text);
}

TEST(Platform, Utf8ConversionReplacesUnpairedSurrogatesAndBadBytes) {
    WideString lone;
    lone.push_back(u'a');
    lone.push_back(static_cast<char16_t>(0xD800));
    lone.push_back(u'b');
    EXPECT_EQ(ToUtf8(lone), "a\xEF\xBF\xBD" "b");
    EXPECT_EQ(FromUtf8("x\xFFy"), u"x\uFFFDy");
    EXPECT_EQ(FromUtf8("x\xE4\xB8"), u"x\uFFFD");  // cut short at the end
    EXPECT_EQ(FromUtf8("\xC0\xAF"), u"\uFFFD");    // overlong form
}

TEST(Platform, CriticalSectionMayBeReenteredByItsOwner) {
    CriticalSection section;
    section.Enter();
    section.Enter();
    std::atomic<bool> otherEntered{false};
    std::thread other([&] {
        section.Enter();
        otherEntered = true;
        section.Leave();
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(otherEntered);
    section.Leave();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(otherEntered);  // still held once
    section.Leave();
    other.join();
    EXPECT_TRUE(otherEntered);
}

// Two objects of the same shared name exclude each other, as two processes do.
TEST(Platform, SharedNamedMutexExcludesAnotherOpenerOfTheSameName) {
    const WideString name = u"QVTEST_MUTEX_" + NewUuidText();
    auto first = NamedMutex::Create(name, MutexScope::SharedBetweenProcesses);
    auto second = NamedMutex::Create(name, MutexScope::SharedBetweenProcesses);
    ASSERT_TRUE(first);
    ASSERT_TRUE(second);
    first->Lock();
    std::atomic<bool> secondLocked{false};
    std::thread other([&] {
        second->Lock();
        secondLocked = true;
        second->Unlock();
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(80));
    EXPECT_FALSE(secondLocked);
    first->Unlock();
    other.join();
    EXPECT_TRUE(secondLocked);
}

TEST(Platform, ProcessLocalNamedMutexOrdersThreads) {
    auto mutex = NamedMutex::Create(u"QVTEST_LOCAL_" + NewUuidText(), MutexScope::ThisProcessOnly);
    ASSERT_TRUE(mutex);
    int counter = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 10000; ++i) {
                NamedMutexLock lock(mutex.get());
                ++counter;
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(counter, 40000);
}

TEST(Platform, SharedFileIsCreatedWhenMissingAndOpenedWhenPresent) {
    TempFolder folder;
    const WideString path = folder.File(u"a.bin");
    EXPECT_FALSE(FileExists(path));
    {
        SharedFile file;
        ASSERT_TRUE(file.OpenOrCreate(path));
        EXPECT_EQ(file.Size(), 0);
        ASSERT_TRUE(file.Write("abc", 3));
        EXPECT_EQ(file.Size(), 3);
    }
    EXPECT_TRUE(FileExists(path));
    SharedFile again;
    ASSERT_TRUE(again.OpenOrCreate(path));
    EXPECT_EQ(again.Size(), 3);
    ASSERT_TRUE(again.SeekToEnd());
    ASSERT_TRUE(again.Write("de", 2));
    again.Close();
    EXPECT_FALSE(again.IsOpen());
    EXPECT_EQ(again.Size(), -1);
    EXPECT_EQ(ReadFileBytes(path), "abcde");
}

TEST(Platform, SharedFileWritesFromTheStartUnlessMovedToTheEnd) {
    TempFolder folder;
    const WideString path = folder.File(u"b.bin");
    ASSERT_TRUE(testsupport::WriteFileBytes(path, "12345"));
    SharedFile file;
    ASSERT_TRUE(file.OpenOrCreate(path));
    ASSERT_TRUE(file.Write("ab", 2));
    file.Close();
    EXPECT_EQ(ReadFileBytes(path), "ab345");
}

TEST(Platform, TwoOpenersShareAFileAndAppendWithoutOverwriting) {
    TempFolder folder;
    const WideString path = folder.File(u"shared.bin");
    SharedFile first;
    SharedFile second;
    ASSERT_TRUE(first.OpenOrCreate(path));
    ASSERT_TRUE(second.OpenOrCreate(path));
    ASSERT_TRUE(first.AppendAtEnd("one", 3));
    ASSERT_TRUE(second.AppendAtEnd("two", 3));
    ASSERT_TRUE(first.AppendAtEnd("three", 5));
    EXPECT_EQ(second.Size(), 11);
    first.Close();
    second.Close();
    EXPECT_EQ(ReadFileBytes(path), "onetwothree");
}

TEST(Platform, OpeningAFileInAMissingFolderFails) {
    TempFolder folder;
    SharedFile file;
    EXPECT_FALSE(file.OpenOrCreate(folder.File(u"missing") + kPathSeparator + u"x.log"));
    EXPECT_FALSE(file.IsOpen());
    EXPECT_FALSE(file.Write("x", 1));
    EXPECT_FALSE(file.AppendAtEnd("x", 1));
}

TEST(Platform, CreateFolderAcceptsAnExistingFolder) {
    TempFolder folder;
    const WideString sub = folder.File(u"sub");
    EXPECT_TRUE(CreateFolder(sub));
    EXPECT_TRUE(CreateFolder(sub));
    EXPECT_FALSE(CreateFolder(folder.File(u"no") + kPathSeparator + u"such"));
    EXPECT_TRUE(RemoveEmptyFolder(sub));
}

TEST(Platform, CreateFolderPathMakesEveryMissingLevel) {
    TempFolder folder;
    const WideString deep = folder.File(u"a") + kPathSeparator + u"b" + kPathSeparator + u"c";
    EXPECT_TRUE(CreateFolderPath(deep));
    EXPECT_TRUE(CreateFolderPath(deep));  // all there already
    ASSERT_TRUE(testsupport::WriteFileBytes(deep + kPathSeparator + u"x.txt", "x"));
    EXPECT_EQ(testsupport::ReadFileBytes(deep + kPathSeparator + u"x.txt"), "x");
}

TEST(Platform, ListFilesMatchesTheWildcardAndReportsLastWriteTimes) {
    TempFolder folder;
    for (const WideString name : {u"JNIWrapper_1.log", u"JNIWrapper_2.log", u"JNIWrapper_2.log_error",
                                   u"Other.log", u"JNIWrapper.txt"}) {
        ASSERT_TRUE(testsupport::WriteFileBytes(folder.File(name), "x"));
    }
    ASSERT_TRUE(CreateFolder(folder.File(u"JNIWrapper_dir.log")));  // folders are not listed
    ASSERT_TRUE(SetLastWriteTimeSeconds(folder.File(u"JNIWrapper_1.log"), 1700000000));
    ASSERT_TRUE(SetLastWriteTimeSeconds(folder.File(u"JNIWrapper_2.log"), 1600000000));

    auto found = ListFiles(folder.Path() + kPathSeparator + u"JNIWrapper*.log");
    ASSERT_EQ(found.size(), 2u);
    std::sort(found.begin(), found.end(), [](auto& a, auto& b) { return a.lastWriteTime < b.lastWriteTime; });
    EXPECT_EQ(found[0].name, u"JNIWrapper_2.log");
    EXPECT_EQ(found[1].name, u"JNIWrapper_1.log");
    EXPECT_LT(found[0].lastWriteTime, found[1].lastWriteTime);

    EXPECT_EQ(ListFiles(qvplatform::ToUtf8(folder.Path()) + static_cast<char>(kPathSeparator) + "Other*").size(),
              1u);
    EXPECT_TRUE(RemoveEmptyFolder(folder.File(u"JNIWrapper_dir.log")));
}

TEST(Platform, ListingAMissingFolderFindsNothing) {
    TempFolder folder;
    EXPECT_TRUE(ListFiles(folder.File(u"missing") + kPathSeparator + u"*").empty());
}

TEST(Platform, DeleteFileRemovesOnlyExistingFiles) {
    TempFolder folder;
    const WideString path = folder.File(u"gone.txt");
    ASSERT_TRUE(testsupport::WriteFileBytes(path, "x"));
    EXPECT_TRUE(DeleteFileAt(path));
    EXPECT_FALSE(FileExists(path));
    EXPECT_FALSE(DeleteFileAt(path));
}

TEST(Platform, PageSizeIsAPowerOfTwo) {
    const size_t page = PageSize();
    EXPECT_GE(page, 4096u);
    EXPECT_EQ(page & (page - 1), 0u);
}

TEST(Platform, AddressSpaceCanBeReservedAndReleased) {
    const size_t bytes = PageSize() * 512 * 64;
    void* p = ReserveAddressSpace(bytes);
    ASSERT_NE(p, nullptr);
    ReleaseAddressSpace(p, bytes);
    EXPECT_EQ(ReserveAddressSpace(0), nullptr);
}
