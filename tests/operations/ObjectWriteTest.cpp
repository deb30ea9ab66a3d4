// Object write and update (src/operations/ObjectWrite.cpp) against the real
// JVM and the Java test double: the plain WriteObject, WriteObject with
// metadata (with and without flag), WriteCachedObject, both UpdateObject
// forms and the two cached updates. Data is compared end to end with what
// Java received (TestDouble::ByteArgument) and, for the large round trip,
// with what the double's store hands back.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "OperationPaths.h"
#include "bridge/JNIBridge.h"
#include "support/BridgeFixture.h"
#include "support/TestData.h"

using jnitest::BridgeFixture;
using jnitest::kMiB;
using jnitest::SameBytes;
using jnitest::OperationPaths;
using jnitest::OperationPathsTest;
using jnitest::PathOutcome;
using jnitest::Shown;
using jnitest::StartedBridgeFixture;
using jnitest::TestDouble;

using jnitest::Pattern;

namespace {

constexpr const char* kPlainWriteSignature = "(Ljava/lang/String;[BJ)Lcom/qv/QVCloudPluginInterface/CErrorValue;";
constexpr const char* kWriteWithMetaDataSignature =
    "(Ljava/lang/String;[BJ[Lcom/qv/AzureLibrary/CPluginMetaData;)Lcom/qv/AzureLibrary/CWObjectHandleFnValue;";
constexpr const char* kUpdateObjectSignature =
    "(Ljava/lang/String;Ljava/lang/String;[BJ[Lcom/qv/AzureLibrary/CPluginMetaData;)"
    "Lcom/qv/AzureLibrary/CCreateFnValue;";


const uint8_t* Bytes(const std::string& bytes) { return reinterpret_cast<const uint8_t*>(bytes.data()); }

// ---- the paths every operation shares (OperationPaths.h)

std::vector<OperationPaths> ObjectWritePaths() {
    static const std::string data = "abc";
    static const ObjectMetaData metaData{{u"k", {u"v", 0}}};
    const uint8_t* const bytes = Bytes(data);
    const WideString kept = u"keep";
    // Runs a write that hands back a handle, on a handle that reads "keep".
    const auto withHandle = [kept](std::function<uint32_t(JNIBridge&, WideString&)> write) {
        return [kept, write](JNIBridge& bridge) {
            WideString handle = kept;
            const uint32_t code = write(bridge, handle);
            return PathOutcome{code, Shown(handle)};
        };
    };
    const char16_t* const writeException = u"WriteObject::Exception is occured...";
    const char16_t* const updateException = u"UpdateObject::Exception is occured...";
    const char* const flagSignature =
        "(Ljava/lang/String;[BJ[Lcom/qv/AzureLibrary/CPluginMetaData;J)Lcom/qv/AzureLibrary/CWObjectHandleFnValue;";
    const char* const updateWithFlagSignature =
        "(Ljava/lang/String;Ljava/lang/String;[BJ[Lcom/qv/AzureLibrary/CPluginMetaData;J)"
        "Lcom/qv/AzureLibrary/CCreateFnValue;";
    const std::vector<WideString> plainBefore = {u"WriteObject::memory copy started ...obj",
                                                 u"WriteObject::memory copy ended ...obj",
                                                 u"WriteObject::Java called ...obj"};
    std::vector<WideString> plainNull = plainBefore;
    plainNull.push_back(u"WriteObject::Java ended ...obj");
    return {
        // Only the plain write ends with 0 when its method is missing (nothing is copied then).
        OperationPaths(
            "WriteObject", "WriteObject", kPlainWriteSignature,
            [bytes](JNIBridge& bridge) { return PathOutcome{bridge.WriteObject(u"obj", bytes, 3), ""}; }, "",
            writeException)
            .OnMissingMethod(MissingMethodRule::ReturnSuccess)
            .BeforeCall(plainBefore)
            .OnNullResult(40, plainNull),
        // A Java exception behind the null result is described after "WriteObject::is return null...".
        OperationPaths("WriteObjectWithMetaData", "WriteObject", kWriteWithMetaDataSignature,
                       withHandle([bytes](JNIBridge& bridge, WideString& handle) {
                           return bridge.WriteObject(u"obj", bytes, 3, &metaData, handle);
                       }),
                       Shown(kept), writeException)
            .OnMissingMethod(MissingMethodRule::TakeNullResult)
            .BeforeCall({u"WriteObject::java called is occured...obj"})
            .OnNullResult(40, {u"WriteObject::java called is occured...obj", u"WriteObject::java ended is occured...obj",
                               u"WriteObject::is return null...obj"})
            .DescribingJavaExceptions(),
        OperationPaths("WriteObjectWithFlag", "WriteObject", flagSignature,
                       withHandle([bytes](JNIBridge& bridge, WideString& handle) {
                           return bridge.WriteObject(u"obj", bytes, 3, &metaData, handle, 0x10);
                       }),
                       Shown(kept), writeException)
            .OnMissingMethod(MissingMethodRule::TakeNullResult)
            .BeforeCall({u"WriteObject::java called is occured...obj objFlag:[0x0000000000000010]"})
            .OnNullResult(40, {u"WriteObject::java called is occured...obj objFlag:[0x0000000000000010]",
                               u"WriteObject::java ended is occured...obj", u"WriteObject::is return null...obj"})
            .DescribingJavaExceptions(),
        OperationPaths("WriteCachedObject", "WriteCachedObject", kWriteWithMetaDataSignature,
                       withHandle([bytes](JNIBridge& bridge, WideString& handle) {
                           return bridge.WriteCachedObject(u"obj", bytes, 3, &metaData, handle);
                       }),
                       Shown(kept), u"WriteCachedObject::Exception is occured...")
            .OnMissingMethod(MissingMethodRule::TakeNullResult)
            .BeforeCall({u"WriteCachedObject::java is called...obj"})
            .OnNullResult(40, {u"WriteCachedObject::java is called...obj", u"WriteCachedObject::java is ended...obj",
                               u"WriteCachedObject::java is returned NULL...obj"}),
        // A null result empties the handle.
        OperationPaths("UpdateObject", "UpdateObject", kUpdateObjectSignature,
                       withHandle([bytes](JNIBridge& bridge, WideString& handle) {
                           return bridge.UpdateObject(u"a", u"b", bytes, 3, &metaData, handle);
                       }),
                       Shown(kept), updateException)
            .OnMissingMethod(MissingMethodRule::TakeNullResult)
            .OnNullResult(40, {}, Shown(WideString())),
        OperationPaths("UpdateObjectWithFlag", "UpdateObject", updateWithFlagSignature,
                       withHandle([bytes](JNIBridge& bridge, WideString& handle) {
                           return bridge.UpdateObject(u"a", u"b", bytes, 3, &metaData, handle, 0x10);
                       }),
                       Shown(kept), updateException)
            .OnMissingMethod(MissingMethodRule::TakeNullResult)
            .BeforeCall({u"UpdateObject::java called is occured...a objFlag:[0x0000000000000010]"})
            .OnNullResult(40, {u"UpdateObject::java called is occured...a objFlag:[0x0000000000000010]"},
                          Shown(WideString())),
        OperationPaths("UpdateCachedObjectByHandle", "UpdateCachedObjectByHandle",
                       "(Ljava/lang/String;Ljava/lang/String;[BJ[Lcom/qv/AzureLibrary/CPluginMetaData;)"
                       "Lcom/qv/QVCloudPluginInterface/CErrorValue;",
                       [bytes](JNIBridge& bridge) {
                           return PathOutcome{bridge.UpdateCachedObjectByHandle(u"a", u"b", bytes, 3, &metaData), ""};
                       },
                       "", u"UpdateCachedObjectByHandle::Exception is occured...")
            .OnMissingMethod(MissingMethodRule::TakeNullResult)
            .BeforeCall({u"UpdateCachedObjectByHandle::java called is occured...a"})
            .OnNullResult(40, {u"UpdateCachedObjectByHandle::java called is occured...a",
                               u"UpdateCachedObjectByHandle::java ended is occured...a"}),
        OperationPaths(
            "UpdateCachedObjectByName", "UpdateCachedObjectByName",
            "(Ljava/lang/String;[BJ[Lcom/qv/AzureLibrary/CPluginMetaData;)Lcom/qv/QVCloudPluginInterface/CErrorValue;",
            [bytes](JNIBridge& bridge) {
                return PathOutcome{bridge.UpdateCachedObjectByName(u"obj", bytes, 3, &metaData), ""};
            },
            "", u"UpdateCachedObjectByName::Exception is occured...")
            .OnMissingMethod(MissingMethodRule::TakeNullResult)
            .OnNullResult(40, {}),
    };
}

}  // namespace

INSTANTIATE_TEST_SUITE_P(ObjectWrite, OperationPathsTest, ::testing::ValuesIn(ObjectWritePaths()),
                         jnitest::OperationName);

class ObjectWriteTest : public StartedBridgeFixture {
protected:
    // The three lines of a method lookup that failed, as the frame writes them.
    static std::vector<WideString> LookupFailureLines(const char* name, const char* signature) {
        return {u"GetAzurePlugInObjectMethod::Method is not got... Method Name:- ", NarrowBytesAsWide(name),
                NarrowBytesAsWide(signature)};
    }

    void ExpectEveryWriteHandsJavaTheBytes(size_t size);

    const std::string m_data = "abc";
    const ObjectMetaData m_meta{{u"k", {u"v", 0}}};
};

// ---- the plain WriteObject

TEST_F(ObjectWriteTest, PlainWriteSendsTheBytesAndFullLengthAndLogsAroundTheCopyAndTheCall) {
    EXPECT_EQ(m_bridge->WriteObject(u"obj", Bytes(m_data), m_data.size()), 0u);
    ASSERT_EQ(TestDouble::CallCount("WriteObject"), 1u);
    EXPECT_EQ(TestDouble::DescribeCall("WriteObject", 0), "WriteObject(\"obj\", byte[3], 3)");
    EXPECT_TRUE(SameBytes(m_data, TestDouble::ByteArgument("WriteObject", 0)));
    EXPECT_EQ(NewLines(), (std::vector<WideString>{
                              u"WriteObject::memory copy started ...obj", u"WriteObject::memory copy ended ...obj",
                              u"WriteObject::Java called ...obj", u"WriteObject::Java ended ...obj"}));
}

TEST_F(ObjectWriteTest, PlainWriteOfZeroBytesSendsAnEmptyArrayEvenWithoutABuffer) {
    EXPECT_EQ(m_bridge->WriteObject(u"obj", Bytes(m_data), 0), 0u);
    EXPECT_EQ(m_bridge->WriteObject(u"obj", nullptr, 0), 0u);
    ASSERT_EQ(TestDouble::CallCount("WriteObject"), 2u);
    EXPECT_EQ(TestDouble::DescribeCall("WriteObject", 0), "WriteObject(\"obj\", byte[0], 0)");
    EXPECT_EQ(TestDouble::DescribeCall("WriteObject", 1), "WriteObject(\"obj\", byte[0], 0)");
}

TEST_F(ObjectWriteTest, PlainWriteSizesTheArrayByTheLow32BitsAndPassesTheFull64BitLength) {
    const uint64_t length = (uint64_t{1} << 32) + 3;
    EXPECT_EQ(m_bridge->WriteObject(u"obj", Bytes(m_data), length), 0u);
    EXPECT_EQ(TestDouble::DescribeCall("WriteObject", 0), "WriteObject(\"obj\", byte[3], 4294967299)");
    EXPECT_TRUE(SameBytes(m_data, TestDouble::ByteArgument("WriteObject", 0)));
}

TEST_F(ObjectWriteTest, PlainWriteWhoseArrayCannotBeMadeDescribesTheJvmFailureAndGives41WithoutCallingJava) {
    Interposer().FailNewByteArray();
    EXPECT_EQ(m_bridge->WriteObject(u"obj", Bytes(m_data), m_data.size()), 41u);
    EXPECT_EQ(TestDouble::CallCount("WriteObject"), 0u);
    EXPECT_EQ(Interposer().CountOf("CallObjectMethodA"), 0u);
    const auto lines = NewLines();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[0], u"WriteObject::memory copy started ...obj");
    EXPECT_EQ(lines[1], u"WriteObject::memory copy ended ...obj");
    // DescribeException's detail lines: the OutOfMemoryError stayed pending for it.
    EXPECT_EQ(lines[2], u"Descrption is failed");
    EXPECT_EQ(lines[3].rfind(u"java.lang.OutOfMemoryError", 0), 0u);
}

TEST_F(ObjectWriteTest, PlainWriteWithoutRoomForReferencesGives41WithoutCallingJava) {
    Interposer().FailEnsureLocalCapacity();
    EXPECT_EQ(m_bridge->WriteObject(u"obj", Bytes(m_data), m_data.size()), 41u);
    EXPECT_EQ(TestDouble::CallCount("WriteObject"), 0u);
    EXPECT_EQ(Interposer().CountOf("NewByteArray"), 0u);
    const auto lines = NewLines();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[2], u"Descrption is failed");
}

TEST_F(ObjectWriteTest, PlainWriteWhoseCopyIntoTheArrayFailsGives41WithoutCallingJava) {
    Interposer().FailElementAccess();
    EXPECT_EQ(m_bridge->WriteObject(u"obj", Bytes(m_data), m_data.size()), 41u);
    EXPECT_EQ(TestDouble::CallCount("WriteObject"), 0u);
    EXPECT_EQ(NewLines().size(), 4u);
}

TEST_F(ObjectWriteTest, PlainWriteOfANullBufferWithALengthGives41WithoutTouchingJava) {
    EXPECT_EQ(m_bridge->WriteObject(u"obj", nullptr, 5), 41u);
    EXPECT_EQ(TestDouble::CallCount("WriteObject"), 0u);
    EXPECT_EQ(Interposer().CountOf("NewByteArray"), 0u);
    // Nothing was pending, so DescribeException writes nothing.
    EXPECT_EQ(NewLines(), (std::vector<WideString>{u"WriteObject::memory copy started ...obj",
                                                   u"WriteObject::memory copy ended ...obj"}));
}

TEST_F(ObjectWriteTest, PlainWriteOf2GiBOrMoreCannotBeCarriedAndGives41) {
    // Only the low 32 bits size the array: from 2^31 on they are no Java array size. The JVM is not asked
    // for a negative array (nothing is described) and the buffer is never read.
    const uint8_t one = 1;
    for (const uint64_t length : {uint64_t{1} << 31, uint64_t{0xFFFFFFFF}, (uint64_t{1} << 32) + (uint64_t{1} << 31)}) {
        MarkLines();
        EXPECT_EQ(m_bridge->WriteObject(u"obj", &one, length), 41u) << length;
        EXPECT_EQ(NewLines(), (std::vector<WideString>{u"WriteObject::memory copy started ...obj",
                                                       u"WriteObject::memory copy ended ...obj"}))
            << length;
    }
    EXPECT_EQ(Interposer().CountOf("NewByteArray"), 0u);
    EXPECT_EQ(TestDouble::CallCount("WriteObject"), 0u);
}

TEST_F(ObjectWriteTest, PlainWriteMapsTheJavaErrorOrdinal) {
    TestDouble::ReturnErrorOrdinal("WriteObject", 3);
    EXPECT_EQ(m_bridge->WriteObject(u"obj", Bytes(m_data), m_data.size()), MapErrorOrdinal(3));
}


TEST_F(ObjectWriteTest, PlainWriteWhoseMethodIsMissingReportsSuccessWithoutCopying) {
    Interposer().FailGetMethodID("WriteObject", kPlainWriteSignature);
    EXPECT_EQ(m_bridge->WriteObject(u"obj", Bytes(m_data), m_data.size()), 0u);
    EXPECT_EQ(TestDouble::CallCount("WriteObject"), 0u);
    EXPECT_EQ(Interposer().CountOf("NewByteArray"), 0u);
    const auto lines = NewLines();
    ASSERT_EQ(lines.size(), 5u);  // DescribeException's two lines, then the lookup's three
    EXPECT_EQ(std::vector<WideString>(lines.begin() + 2, lines.end()),
              LookupFailureLines("WriteObject", kPlainWriteSignature));
}



// ---- WriteObject with metadata, with and without flag

TEST_F(ObjectWriteTest, WriteWithMetaDataPassesTheArrayAndHandsBackTheHandle) {
    WideString handle = u"old";
    EXPECT_EQ(m_bridge->WriteObject(u"obj", Bytes(m_data), m_data.size(), &m_meta, handle), 0u);
    EXPECT_EQ(handle, u"handle:obj");
    EXPECT_EQ(TestDouble::DescribeCall("WriteObject", 0), "WriteObject(\"obj\", byte[3], 3, {\"k\"=\"v\"})");
    EXPECT_TRUE(SameBytes(m_data, TestDouble::ByteArgument("WriteObject", 0)));
    EXPECT_EQ(NewLines(), (std::vector<WideString>{u"WriteObject::java called is occured...obj",
                                                   u"WriteObject::java ended is occured...obj"}));
}

TEST_F(ObjectWriteTest, WriteWithNullMetaDataLogsItAndPassesANullArray) {
    WideString handle;
    EXPECT_EQ(m_bridge->WriteObject(u"obj", Bytes(m_data), m_data.size(), nullptr, handle), 0u);
    EXPECT_EQ(TestDouble::DescribeCall("WriteObject", 0), "WriteObject(\"obj\", byte[3], 3, null)");
    EXPECT_EQ(NewLines(), (std::vector<WideString>{u"WriteObject::is called wih null metadata...obj",
                                                   u"WriteObject::java called is occured...obj",
                                                   u"WriteObject::java ended is occured...obj"}));
}

TEST_F(ObjectWriteTest, WriteWithEmptyMetaDataPassesAnEmptyArrayAndLogsNothingAboutIt) {
    WideString handle;
    const ObjectMetaData empty;
    EXPECT_EQ(m_bridge->WriteObject(u"obj", Bytes(m_data), m_data.size(), &empty, handle), 0u);
    EXPECT_EQ(TestDouble::DescribeCall("WriteObject", 0), "WriteObject(\"obj\", byte[3], 3, {})");
    EXPECT_EQ(NewLines().size(), 2u);
}

TEST_F(ObjectWriteTest, WriteWithFlagLogsItsLow32BitsAsSixteenDigitsAndPassesAllSixtyFour) {
    WideString handle;
    const uint64_t flags = 0x123456789ABCDEF0ull;
    EXPECT_EQ(m_bridge->WriteObject(u"obj", Bytes(m_data), m_data.size(), &m_meta, handle, flags), 0u);
    EXPECT_EQ(handle, u"handle:obj");
    EXPECT_EQ(TestDouble::DescribeCall("WriteObject", 0),
              "WriteObject(\"obj\", byte[3], 3, {\"k\"=\"v\"}, 1311768467463790320)");
    EXPECT_EQ(NewLines(),
              (std::vector<WideString>{u"WriteObject::java called is occured...obj objFlag:[0x000000009abcdef0]",
                                       u"WriteObject::java ended is occured...obj"}));
}

TEST_F(ObjectWriteTest, WriteWithFlagZeroStillShowsSixteenDigits) {
    WideString handle;
    EXPECT_EQ(m_bridge->WriteObject(u"obj", Bytes(m_data), m_data.size(), nullptr, handle, 0), 0u);
    EXPECT_EQ(NewLines()[1], u"WriteObject::java called is occured...obj objFlag:[0x0000000000000000]");
}




TEST_F(ObjectWriteTest, WriteWithMetaDataMapsTheOrdinalAndStillHandsBackTheHandle) {
    WideString handle;
    TestDouble::ReturnErrorOrdinal("WriteObject", 5);
    TestDouble::SetString("WriteObject", "objHandle", u"h-5");
    EXPECT_EQ(m_bridge->WriteObject(u"obj", Bytes(m_data), m_data.size(), &m_meta, handle, 7), MapErrorOrdinal(5));
    EXPECT_EQ(handle, u"h-5");
}

TEST_F(ObjectWriteTest, WriteWithMetaDataWhoseArrayCannotBeMadeStillCallsJavaWithANullArray) {
    WideString handle;
    Interposer().FailNewByteArray();
    EXPECT_EQ(m_bridge->WriteObject(u"obj", Bytes(m_data), m_data.size(), &m_meta, handle), 0u);
    EXPECT_EQ(TestDouble::DescribeCall("WriteObject", 0), "WriteObject(\"obj\", null, 3, {\"k\"=\"v\"})");
}


TEST_F(ObjectWriteTest, WriteWithMetaDataReleasesItsByteArrayOnceOnly) {
    WideString handle;
    EXPECT_EQ(m_bridge->WriteObject(u"obj", Bytes(m_data), m_data.size(), &m_meta, handle, 1), 0u);
    // Released right after the conversion and not again with the other arguments.
    EXPECT_EQ(Interposer().LocalRefsLeft(), 0);
    EXPECT_EQ(Interposer().CountOf("DeleteLocalRef"), static_cast<size_t>(Interposer().LocalRefsDeleted()));
}


// ---- WriteCachedObject

TEST_F(ObjectWriteTest, WriteCachedObjectPassesTheDataAndHandsBackTheHandle) {
    WideString handle;
    EXPECT_EQ(m_bridge->WriteCachedObject(u"obj", Bytes(m_data), m_data.size(), &m_meta, handle), 0u);
    EXPECT_EQ(handle, u"handle:obj");
    EXPECT_EQ(TestDouble::DescribeCall("WriteCachedObject", 0),
              "WriteCachedObject(\"obj\", byte[3], 3, {\"k\"=\"v\"})");
    EXPECT_EQ(NewLines(), (std::vector<WideString>{u"WriteCachedObject::java is called...obj",
                                                   u"WriteCachedObject::java is ended...obj"}));
}

TEST_F(ObjectWriteTest, WriteCachedObjectWithNullMetaDataAndANullResultWritesItsOwnLines) {
    WideString handle = u"keep";
    TestDouble::ReturnNull("WriteCachedObject");
    EXPECT_EQ(m_bridge->WriteCachedObject(u"obj", Bytes(m_data), m_data.size(), nullptr, handle), 40u);
    EXPECT_EQ(handle, u"keep");
    EXPECT_EQ(NewLines(),
              (std::vector<WideString>{
                  u"WriteCachedObject::is called wih null metadata...obj", u"WriteCachedObject::java is called...obj",
                  u"WriteCachedObject::java is ended...obj", u"WriteCachedObject::java is returned NULL...obj"}));
}


// ---- UpdateObject

TEST_F(ObjectWriteTest, UpdateObjectPassesBothTextsInOrderWritesNoLinesAndHandsBackTheHandle) {
    WideString handle;
    EXPECT_EQ(m_bridge->UpdateObject(u"obj", u"other", Bytes(m_data), m_data.size(), &m_meta, handle), 0u);
    EXPECT_EQ(handle, u"handle:obj");
    EXPECT_EQ(TestDouble::DescribeCall("UpdateObject", 0),
              "UpdateObject(\"obj\", \"other\", byte[3], 3, {\"k\"=\"v\"})");
    EXPECT_TRUE(SameBytes(m_data, TestDouble::ByteArgument("UpdateObject", 0)));
    EXPECT_TRUE(NewLines().empty());
}

TEST_F(ObjectWriteTest, UpdateObjectWithFlagLogsTheCallWithTheFlagText) {
    WideString handle;
    EXPECT_EQ(
        m_bridge->UpdateObject(u"obj", u"other", Bytes(m_data), m_data.size(), nullptr, handle, 0xFFFFFFFF00000010ull),
        0u);
    EXPECT_EQ(TestDouble::DescribeCall("UpdateObject", 0),
              "UpdateObject(\"obj\", \"other\", byte[3], 3, null, -4294967280)");
    EXPECT_EQ(NewLines(),
              (std::vector<WideString>{u"UpdateObject::java called is occured...obj objFlag:[0x0000000000000010]"}));
}



TEST_F(ObjectWriteTest, UpdateObjectMapsTheOrdinalAndReleasesItsMetaDataArrayOnceOnly) {
    WideString handle;
    TestDouble::ReturnErrorOrdinal("UpdateObject", 12);
    EXPECT_EQ(m_bridge->UpdateObject(u"obj", u"other", Bytes(m_data), m_data.size(), &m_meta, handle, 2),
              MapErrorOrdinal(12));
    EXPECT_EQ(handle, u"handle:obj");
    EXPECT_EQ(Interposer().LocalRefsLeft(), 0);
    EXPECT_EQ(Interposer().CountOf("DeleteLocalRef"), static_cast<size_t>(Interposer().LocalRefsDeleted()));
}


// ---- the cached updates

TEST_F(ObjectWriteTest, UpdateCachedObjectByHandleWritesItsLinesAndMapsTheOrdinal) {
    TestDouble::ReturnErrorOrdinal("UpdateCachedObjectByHandle", 9);
    EXPECT_EQ(m_bridge->UpdateCachedObjectByHandle(u"h", u"other", Bytes(m_data), m_data.size(), &m_meta),
              MapErrorOrdinal(9));
    EXPECT_EQ(TestDouble::DescribeCall("UpdateCachedObjectByHandle", 0),
              "UpdateCachedObjectByHandle(\"h\", \"other\", byte[3], 3, {\"k\"=\"v\"})");
    EXPECT_EQ(NewLines(), (std::vector<WideString>{u"UpdateCachedObjectByHandle::java called is occured...h",
                                                   u"UpdateCachedObjectByHandle::java ended is occured...h"}));
    EXPECT_EQ(Interposer().LocalRefsLeft(), 0);
    EXPECT_EQ(Interposer().CountOf("DeleteLocalRef"), static_cast<size_t>(Interposer().LocalRefsDeleted()));
}

TEST_F(ObjectWriteTest, UpdateCachedObjectByHandleWithNullMetaDataAndANullResult) {
    TestDouble::ReturnNull("UpdateCachedObjectByHandle");
    EXPECT_EQ(m_bridge->UpdateCachedObjectByHandle(u"h", u"other", Bytes(m_data), m_data.size(), nullptr), 40u);
    EXPECT_EQ(TestDouble::DescribeCall("UpdateCachedObjectByHandle", 0),
              "UpdateCachedObjectByHandle(\"h\", \"other\", byte[3], 3, null)");
    EXPECT_EQ(NewLines(), (std::vector<WideString>{u"UpdateCachedObjectByHandle::is called with NULL metadata...h",
                                                   u"UpdateCachedObjectByHandle::java called is occured...h",
                                                   u"UpdateCachedObjectByHandle::java ended is occured...h"}));
}

TEST_F(ObjectWriteTest, UpdateCachedObjectByNameWritesNoLinesAndMapsTheOrdinal) {
    EXPECT_EQ(m_bridge->UpdateCachedObjectByName(u"obj", Bytes(m_data), m_data.size(), nullptr), 0u);
    EXPECT_EQ(TestDouble::DescribeCall("UpdateCachedObjectByName", 0),
              "UpdateCachedObjectByName(\"obj\", byte[3], 3, null)");
    TestDouble::ReturnErrorOrdinal("UpdateCachedObjectByName", 2);
    EXPECT_EQ(m_bridge->UpdateCachedObjectByName(u"obj", Bytes(m_data), m_data.size(), &m_meta), MapErrorOrdinal(2));
    TestDouble::ReturnNull("UpdateCachedObjectByName");
    EXPECT_EQ(m_bridge->UpdateCachedObjectByName(u"obj", Bytes(m_data), m_data.size(), &m_meta), 40u);
    EXPECT_TRUE(NewLines().empty());
}


// ---- data end to end

// Runs every write with `size` bytes and compares what Java received with the host's bytes.
void ObjectWriteTest::ExpectEveryWriteHandsJavaTheBytes(size_t size) {
    const std::string data = Pattern(size, 7);
    WideString handle;
    ASSERT_EQ(m_bridge->WriteObject(u"a", Bytes(data), data.size()), 0u);
    ASSERT_EQ(m_bridge->WriteObject(u"b", Bytes(data), data.size(), &m_meta, handle), 0u);
    ASSERT_EQ(m_bridge->WriteObject(u"c", Bytes(data), data.size(), &m_meta, handle, 1), 0u);
    ASSERT_EQ(m_bridge->WriteCachedObject(u"d", Bytes(data), data.size(), &m_meta, handle), 0u);
    ASSERT_EQ(m_bridge->UpdateObject(u"e", u"x", Bytes(data), data.size(), &m_meta, handle), 0u);
    ASSERT_EQ(m_bridge->UpdateObject(u"f", u"x", Bytes(data), data.size(), &m_meta, handle, 1), 0u);
    ASSERT_EQ(m_bridge->UpdateCachedObjectByHandle(u"g", u"x", Bytes(data), data.size(), &m_meta), 0u);
    ASSERT_EQ(m_bridge->UpdateCachedObjectByName(u"h", Bytes(data), data.size(), &m_meta), 0u);
    for (size_t i = 0; i < 3; ++i) EXPECT_TRUE(SameBytes(data, TestDouble::ByteArgument("WriteObject", i))) << i;
    for (size_t i = 0; i < 2; ++i) EXPECT_TRUE(SameBytes(data, TestDouble::ByteArgument("UpdateObject", i))) << i;
    for (const char* method : {"WriteCachedObject", "UpdateCachedObjectByHandle", "UpdateCachedObjectByName"}) {
        EXPECT_TRUE(SameBytes(data, TestDouble::ByteArgument(method, 0))) << method;
    }
    const std::string size_text = std::to_string(size);
    EXPECT_EQ(TestDouble::DescribeCall("WriteObject", 0),
              "WriteObject(\"a\", byte[" + size_text + "], " + size_text + ")");
}

TEST_F(ObjectWriteTest, EveryWriteOf0BytesHandsJavaAnEmptyArray) { ExpectEveryWriteHandsJavaTheBytes(0); }
TEST_F(ObjectWriteTest, EveryWriteOf1ByteHandsJavaThatByte) { ExpectEveryWriteHandsJavaTheBytes(1); }
TEST_F(ObjectWriteTest, EveryWriteOf1MiBHandsJavaExactlyTheHostsBytes) { ExpectEveryWriteHandsJavaTheBytes(kMiB); }

TEST_F(ObjectWriteTest, Write256MiBReachesJavaWholeAndReadsBackFromTheStore) {
    const std::string data = Pattern(256 * kMiB, 11);
    ASSERT_EQ(m_bridge->WriteObject(u"big", Bytes(data), data.size()), 0u);
    EXPECT_TRUE(SameBytes(data, TestDouble::ByteArgument("WriteObject", 0)));
    // What the double stored, read back through the plug-in.
    std::string back(data.size(), '\0');
    uint64_t length = back.size();
    ASSERT_EQ(m_bridge->ReadObject(u"big", reinterpret_cast<uint8_t*>(&back[0]), 0, &length), 0u);
    EXPECT_EQ(length, data.size());
    EXPECT_TRUE(SameBytes(data, back));
}
