// Object read (src/operations/ObjectRead.cpp) against the real JVM and the
// Java test double: ReadObject, ReadObjectByName and ReadObjectByHandle. The
// bytes Java hands back are scripted with TestDouble::SetReadData (or come
// from the double's store) and compared end to end with the host's buffer;
// guard bytes after the buffer show that the bounded copy never writes past
// it.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
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
using jnitest::MetaEntry;
using jnitest::TestDouble;

using jnitest::Pattern;

namespace {

constexpr const char* kReadObjectSignature = "(Ljava/lang/String;[BJJ)Lcom/qv/AzureLibrary/CReadObjectFnValue;";
constexpr const char* kReadByNameSignature =
    "(Ljava/lang/String;[BJJ[Ljava/lang/String;)Lcom/qv/AzureLibrary/CRObjectByNameFnValue;";
const WideString kCopyFailureLine = u"ReadObject::Unable to create memory for copying the data...";

constexpr size_t kGuardSize = 64;
constexpr char kFill = '\xAA';
constexpr char kGuard = '\x5C';

// The host's buffer of `size` bytes, filled with kFill, followed by guard bytes that no read may touch.
class HostBuffer {
public:
    explicit HostBuffer(size_t size) : m_size(size), m_bytes(size + kGuardSize, kFill) {
        std::memset(&m_bytes[size], kGuard, kGuardSize);
    }
    uint8_t* Data() { return reinterpret_cast<uint8_t*>(&m_bytes[0]); }
    // The buffer's bytes (without the guard).
    std::string Bytes() const { return m_bytes.substr(0, m_size); }
    bool GuardIntact() const { return m_bytes.find_first_not_of(kGuard, m_size) == std::string::npos; }

private:
    size_t m_size;
    std::string m_bytes;
};

// ---- the paths every operation shares (OperationPaths.h)

// The outputs of a read: the host's 4-byte buffer (in hex), whether the guard bytes after it are intact,
// the length and the metadata.
std::string ReadOutputs(const HostBuffer& buffer, uint64_t length, const ObjectMetaData& metaData) {
    static const char digits[] = "0123456789abcdef";
    std::string hex;
    for (const char byte : buffer.Bytes()) {
        hex.push_back(digits[(static_cast<unsigned char>(byte) >> 4) & 0xF]);
        hex.push_back(digits[static_cast<unsigned char>(byte) & 0xF]);
    }
    return "buffer=" + hex + (buffer.GuardIntact() ? "" : " (guard overwritten)") + " " + Shown("length", length) +
           " metadata=" + Shown(metaData);
}

std::vector<OperationPaths> ObjectReadPaths() {
    const ObjectMetaData kept{{u"kept", {u"1", 0}}};
    // Runs a read of 4 bytes into a buffer filled with kFill, with metadata holding one entry.
    const auto read = [kept](int form) {
        return [kept, form](JNIBridge& bridge) {
            HostBuffer buffer(4);
            uint64_t length = 4;
            ObjectMetaData metaData = kept;
            const uint32_t code =
                form == 0   ? bridge.ReadObject(u"obj", buffer.Data(), 0, &length)
                : form == 1 ? bridge.ReadObjectByName(u"obj", buffer.Data(), 0, &length, nullptr, 0, &metaData)
                            : bridge.ReadObjectByHandle(u"obj", buffer.Data(), 0, &length, nullptr, 0, &metaData);
            return PathOutcome{code, ReadOutputs(buffer, length, metaData)};
        };
    };
    const std::string untouched = ReadOutputs(HostBuffer(4), 4, kept);
    std::string freshArray = "buffer=00000000 " + Shown("length", 4) + " metadata=" + Shown(kept);
    return {
        // A null result copies the fresh (zeroed) array with the length requested, and gives 0; a missing
        // method gives 0 and touches nothing.
        OperationPaths("ReadObject", "ReadObject", kReadObjectSignature, read(0), untouched,
                       u"ReadObject::Exception is occured...")
            .OnMissingMethod(MissingMethodRule::ReturnSuccess)
            .BeforeCall({u"ReadObject::is called...obj"})
            .OnNullResult(0,
                          {u"ReadObject::is called...obj", u"ReadObject::is ended...obj",
                           u"ReadObject::buffer copy started...obj", u"ReadObject::buffer copy ended...obj"},
                          freshArray),
        // ReadObjectByName alone tests the plug-in object's class (40 without a line).
        OperationPaths("ReadObjectByName", "ReadObjectByName", kReadByNameSignature, read(1), untouched,
                       u"ReadObjectByName::Exception is occured...")
            .WithoutClass(MissingClassRule::Fail)
            .OnMissingMethod(MissingMethodRule::TakeNullResult)
            .OnNullResult(40, {}),
        OperationPaths("ReadObjectByHandle", "ReadObjectByHandle", kReadByNameSignature, read(2), untouched,
                       u"ReadObjectByHandle::Exception is occured...")
            .OnMissingMethod(MissingMethodRule::TakeNullResult)
            .OnNullResult(40, {}),
    };
}

}  // namespace

INSTANTIATE_TEST_SUITE_P(ObjectRead, OperationPathsTest, ::testing::ValuesIn(ObjectReadPaths()),
                         jnitest::OperationName);

class ObjectReadTest : public StartedBridgeFixture {
protected:
    // The four lines of a ReadObject of `name` that copied its data.
    static std::vector<WideString> ReadObjectLines(const WideString& name) {
        return {u"ReadObject::is called..." + name, u"ReadObject::is ended..." + name,
                u"ReadObject::buffer copy started..." + name, u"ReadObject::buffer copy ended..." + name};
    }
    // Stores `data` as object `name` in the double (through the plug-in's plain write), then forgets the call.
    void Store(const WideString& name, const std::string& data) {
        ASSERT_EQ(m_bridge->WriteObject(name, reinterpret_cast<const uint8_t*>(data.data()), data.size()), 0u);
        MarkLines();
        Interposer().Reset();
    }
    // A read of every form with `size` bytes scripted, compared end to end.
    void ExpectEveryReadCopiesTheBytes(size_t size);

};

// ---- ReadObject

TEST_F(ObjectReadTest, ReadObjectPassesLengthBeforeOffsetCopiesTheDataAndLogsEachStep) {
    const std::string data = "hello";
    TestDouble::SetReadData("ReadObject", data);
    HostBuffer buffer(8);
    uint64_t length = 8;
    EXPECT_EQ(m_bridge->ReadObject(u"obj", buffer.Data(), 3, &length), 0u);
    EXPECT_EQ(length, 5u);
    EXPECT_EQ(TestDouble::DescribeCall("ReadObject", 0), "ReadObject(\"obj\", byte[8], 8, 3)");
    EXPECT_TRUE(SameBytes(data + std::string(3, kFill), buffer.Bytes()));
    EXPECT_TRUE(buffer.GuardIntact());
    EXPECT_EQ(NewLines(), ReadObjectLines(u"obj"));
}

TEST_F(ObjectReadTest, ReadObjectCopiesWithOneRegionCopyAndNoElementAccess) {
    TestDouble::SetReadData("ReadObject", "abcd");
    HostBuffer buffer(4);
    uint64_t length = 4;
    EXPECT_EQ(m_bridge->ReadObject(u"obj", buffer.Data(), 0, &length), 0u);
    EXPECT_EQ(Interposer().CountOf("GetByteArrayRegion"), 1u);
    EXPECT_EQ(Interposer().CountOf("GetByteArrayElements"), 0u);
    EXPECT_EQ(Interposer().CountOf("ReleaseByteArrayElements"), 0u);
}

TEST_F(ObjectReadTest, ReadObjectReadsTheStoreFromTheOffset) {
    Store(u"obj", "0123456789");
    HostBuffer buffer(4);
    uint64_t length = 4;
    EXPECT_EQ(m_bridge->ReadObject(u"obj", buffer.Data(), 3, &length), 0u);
    EXPECT_EQ(length, 4u);
    EXPECT_EQ(buffer.Bytes(), "3456");
    EXPECT_TRUE(buffer.GuardIntact());
}

TEST_F(ObjectReadTest, ReadObjectReportingMoreThanTheArrayCopiesOnlyTheArrayAndKeepsTheReportedCount) {
    const std::string data = Pattern(16, 3);
    TestDouble::SetReadData("ReadObject", data, 1000);
    HostBuffer buffer(16);
    uint64_t length = 16;
    EXPECT_EQ(m_bridge->ReadObject(u"obj", buffer.Data(), 0, &length), 0u);
    EXPECT_EQ(length, 1000u);
    EXPECT_TRUE(SameBytes(data, buffer.Bytes()));
    EXPECT_TRUE(buffer.GuardIntact());
    EXPECT_EQ(NewLines(), ReadObjectLines(u"obj"));
}

TEST_F(ObjectReadTest, ReadObjectReportingFewerBytesCopiesOnlyThose) {
    TestDouble::SetReadData("ReadObject", "abcdef", 2);
    HostBuffer buffer(6);
    uint64_t length = 6;
    EXPECT_EQ(m_bridge->ReadObject(u"obj", buffer.Data(), 0, &length), 0u);
    EXPECT_EQ(length, 2u);
    EXPECT_EQ(buffer.Bytes(), "ab" + std::string(4, kFill));
}

TEST_F(ObjectReadTest, ReadObjectReportingANegativeCountCopiesNothingAndPassesTheCountOn) {
    TestDouble::SetReadData("ReadObject", "abcdef", -1);
    HostBuffer buffer(6);
    uint64_t length = 6;
    EXPECT_EQ(m_bridge->ReadObject(u"obj", buffer.Data(), 0, &length), 0u);
    EXPECT_EQ(length, UINT64_MAX);
    EXPECT_EQ(buffer.Bytes(), std::string(6, kFill));
    EXPECT_TRUE(buffer.GuardIntact());
    EXPECT_EQ(Interposer().CountOf("GetByteArrayRegion"), 0u);
}

TEST_F(ObjectReadTest, ReadObjectOfZeroBytesMakesAnEmptyArrayAndPassesTheReportedCountOn) {
    TestDouble::SetReadData("ReadObject", "", 5);
    HostBuffer buffer(0);
    uint64_t length = 0;
    EXPECT_EQ(m_bridge->ReadObject(u"obj", buffer.Data(), 0, &length), 0u);
    EXPECT_EQ(TestDouble::DescribeCall("ReadObject", 0), "ReadObject(\"obj\", byte[0], 0, 0)");
    EXPECT_EQ(length, 5u);
    EXPECT_TRUE(buffer.GuardIntact());
}



TEST_F(ObjectReadTest, ReadObjectWithAJavaErrorStillCopiesTheDataAndReportsTheCount) {
    TestDouble::ReturnErrorOrdinal("ReadObject", 4);
    TestDouble::SetReadData("ReadObject", "xyz");
    HostBuffer buffer(5);
    uint64_t length = 5;
    EXPECT_EQ(m_bridge->ReadObject(u"obj", buffer.Data(), 0, &length), MapErrorOrdinal(4));
    EXPECT_EQ(length, 3u);
    EXPECT_EQ(buffer.Bytes(), "xyz" + std::string(2, kFill));
}

TEST_F(ObjectReadTest, ReadObjectWhoseCopyFailsGives14AndItsLineWithTheCountWritten) {
    TestDouble::SetReadData("ReadObject", "abcd");
    Interposer().FailElementAccess();
    HostBuffer buffer(4);
    uint64_t length = 4;
    EXPECT_EQ(m_bridge->ReadObject(u"obj", buffer.Data(), 0, &length), 14u);
    EXPECT_EQ(length, 4u);
    EXPECT_EQ(buffer.Bytes(), std::string(4, kFill));
    EXPECT_EQ(NewLines(), (std::vector<WideString>{u"ReadObject::is called...obj", u"ReadObject::is ended...obj",
                                                   u"ReadObject::buffer copy started...obj", kCopyFailureLine}));
}

TEST_F(ObjectReadTest, ReadObjectWhoseArrayCannotBeMadePassesNullToJavaAndGives14) {
    Interposer().FailNewByteArray();
    HostBuffer buffer(4);
    uint64_t length = 4;
    EXPECT_EQ(m_bridge->ReadObject(u"obj", buffer.Data(), 0, &length), 14u);
    EXPECT_EQ(TestDouble::DescribeCall("ReadObject", 0), "ReadObject(\"obj\", null, 4, 0)");
    EXPECT_EQ(NewLines().back(), kCopyFailureLine);
    EXPECT_EQ(buffer.Bytes(), std::string(4, kFill));
}

TEST_F(ObjectReadTest, ReadObjectWithoutRoomForReferencesPassesNullToJavaAndGives14) {
    Interposer().FailEnsureLocalCapacity();
    uint64_t length = 4;
    HostBuffer buffer(4);
    EXPECT_EQ(m_bridge->ReadObject(u"obj", buffer.Data(), 0, &length), 14u);
    EXPECT_EQ(Interposer().CountOf("NewByteArray"), 0u);
    EXPECT_EQ(TestDouble::DescribeCall("ReadObject", 0), "ReadObject(\"obj\", null, 4, 0)");
}

TEST_F(ObjectReadTest, ReadObjectWhoseMethodIsMissingGives0AndTouchesNothing) {
    Interposer().FailGetMethodID("ReadObject", kReadObjectSignature);
    HostBuffer buffer(4);
    uint64_t length = 4;
    EXPECT_EQ(m_bridge->ReadObject(u"obj", buffer.Data(), 0, &length), 0u);
    EXPECT_EQ(length, 4u);
    EXPECT_EQ(buffer.Bytes(), std::string(4, kFill));
    EXPECT_EQ(TestDouble::CallCount("ReadObject"), 0u);
    EXPECT_EQ(Interposer().CountOf("NewByteArray"), 0u);
}


TEST_F(ObjectReadTest, ReadsOf2GiBOrMoreAskForNoArrayAndTakeTheirMissingArrayPaths) {
    // Only the low 32 bits size the array; from 2^31 on they are no Java array size. The host's buffer is
    // never written: ReadObject passes Java a null array and gives 14, the metadata reads give 40 without
    // calling Java.
    HostBuffer buffer(4);
    ObjectMetaData meta;
    uint64_t length = uint64_t{1} << 31;
    EXPECT_EQ(m_bridge->ReadObject(u"obj", buffer.Data(), 0, &length), 14u);
    EXPECT_EQ(TestDouble::DescribeCall("ReadObject", 0), "ReadObject(\"obj\", null, 2147483648, 0)");
    EXPECT_EQ(NewLines().back(), kCopyFailureLine);
    length = uint64_t{1} << 31;
    EXPECT_EQ(m_bridge->ReadObjectByName(u"obj", buffer.Data(), 0, &length, nullptr, 0, &meta), 40u);
    EXPECT_EQ(m_bridge->ReadObjectByHandle(u"obj", buffer.Data(), 0, &length, nullptr, 0, &meta), 40u);
    EXPECT_EQ(length, uint64_t{1} << 31);
    EXPECT_EQ(TestDouble::CallCount("ReadObjectByName") + TestDouble::CallCount("ReadObjectByHandle"), 0u);
    EXPECT_EQ(Interposer().CountOf("NewByteArray"), 0u);
    EXPECT_EQ(buffer.Bytes(), std::string(4, kFill));
    EXPECT_TRUE(buffer.GuardIntact());
}

TEST_F(ObjectReadTest, ReadObjectWithoutLengthOrBufferStillRunsAndWritesNothingThroughThem) {
    TestDouble::SetReadData("ReadObject", "abc");
    EXPECT_EQ(m_bridge->ReadObject(u"obj", nullptr, 0, nullptr), 0u);
    EXPECT_EQ(TestDouble::DescribeCall("ReadObject", 0), "ReadObject(\"obj\", byte[0], 0, 0)");
    uint64_t length = 3;
    TestDouble::SetReadData("ReadObject", "abc");
    EXPECT_EQ(m_bridge->ReadObject(u"obj", nullptr, 0, &length), 0u);
    EXPECT_EQ(length, 3u);
}


// ---- ReadObjectByName and ReadObjectByHandle

TEST_F(ObjectReadTest, ReadObjectByNamePassesOffsetBeforeLengthAndTheNamesAndFillsTheMetaData) {
    TestDouble::SetReadData("ReadObjectByName", "data!");
    TestDouble::SetMetaData("ReadObjectByName", "values", {MetaEntry{u"size", u"5"}, MetaEntry{u"kind", u"blob"}});
    const std::vector<WideString> names{u"size", u"kind"};
    HostBuffer buffer(8);
    uint64_t length = 8;
    ObjectMetaData meta;
    EXPECT_EQ(m_bridge->ReadObjectByName(u"obj", buffer.Data(), 2, &length, names.data(), 2, &meta), 0u);
    EXPECT_EQ(TestDouble::DescribeCall("ReadObjectByName", 0),
              "ReadObjectByName(\"obj\", byte[8], 2, 8, [\"size\", \"kind\"])");
    EXPECT_EQ(length, 5u);
    EXPECT_EQ(buffer.Bytes(), "data!" + std::string(3, kFill));
    EXPECT_TRUE(buffer.GuardIntact());
    ASSERT_EQ(meta.size(), 2u);
    EXPECT_EQ(meta[u"size"].szProperty, u"5");
    EXPECT_EQ(meta[u"kind"].szProperty, u"blob");
    EXPECT_TRUE(NewLines().empty());
    EXPECT_EQ(Interposer().CountOf("GetByteArrayRegion"), 1u);
    EXPECT_EQ(Interposer().CountOf("GetByteArrayElements"), 0u);
}

TEST_F(ObjectReadTest, ReadObjectByNameWithoutNamesOrWithACountOf0PassesANullArray) {
    HostBuffer buffer(4);
    uint64_t length = 4;
    ObjectMetaData meta;
    const WideString name = u"size";
    EXPECT_EQ(m_bridge->ReadObjectByName(u"obj", buffer.Data(), 0, &length, nullptr, 3, &meta), 0u);
    length = 4;
    EXPECT_EQ(m_bridge->ReadObjectByName(u"obj", buffer.Data(), 0, &length, &name, 0, &meta), 0u);
    EXPECT_EQ(TestDouble::DescribeCall("ReadObjectByName", 0), "ReadObjectByName(\"obj\", byte[4], 0, 4, null)");
    EXPECT_EQ(TestDouble::DescribeCall("ReadObjectByName", 1), "ReadObjectByName(\"obj\", byte[4], 0, 4, null)");
}

TEST_F(ObjectReadTest, ReadObjectByHandleReadsTheStoredObjectAndItsMetaData) {
    // The metadata through an update, then the bytes through a plain write (which keeps the metadata).
    WideString handle;
    const ObjectMetaData stored{{u"owner", {u"me", 0}}};
    ASSERT_EQ(m_bridge->UpdateObject(u"obj", u"", nullptr, 0, &stored, handle), 0u);
    Store(u"obj", "0123456789");
    HostBuffer buffer(5);
    uint64_t length = 5;
    ObjectMetaData meta;
    EXPECT_EQ(m_bridge->ReadObjectByHandle(handle, buffer.Data(), 4, &length, nullptr, 0, &meta), 0u);
    EXPECT_EQ(TestDouble::DescribeCall("ReadObjectByHandle", 0),
              "ReadObjectByHandle(\"handle:obj\", byte[5], 4, 5, null)");
    EXPECT_EQ(length, 5u);
    EXPECT_EQ(buffer.Bytes(), "45678");
    EXPECT_EQ(meta[u"owner"].szProperty, u"me");
}

TEST_F(ObjectReadTest, ReadsWithMetaDataReportingMoreThanTheArrayCopyOnlyTheArray) {
    for (const char* method : {"ReadObjectByName", "ReadObjectByHandle"}) {
        SCOPED_TRACE(method);
        const std::string data = Pattern(32, 5);
        TestDouble::SetReadData(method, data, int64_t{1} << 40);
        HostBuffer buffer(32);
        uint64_t length = 32;
        ObjectMetaData meta;
        const uint32_t code = std::string(method) == "ReadObjectByName"
                                  ? m_bridge->ReadObjectByName(u"o", buffer.Data(), 0, &length, nullptr, 0, &meta)
                                  : m_bridge->ReadObjectByHandle(u"o", buffer.Data(), 0, &length, nullptr, 0, &meta);
        EXPECT_EQ(code, 0u);
        EXPECT_EQ(length, uint64_t{1} << 40);
        EXPECT_TRUE(SameBytes(data, buffer.Bytes()));
        EXPECT_TRUE(buffer.GuardIntact());
    }
}

TEST_F(ObjectReadTest, ReadsWithMetaDataAndAJavaErrorStillCopyTheDataAndTheMetaData) {
    TestDouble::ReturnErrorOrdinal("ReadObjectByHandle", 6);
    TestDouble::SetReadData("ReadObjectByHandle", "ab");
    TestDouble::SetMetaData("ReadObjectByHandle", "values", {MetaEntry{u"k", u"v"}});
    HostBuffer buffer(4);
    uint64_t length = 4;
    ObjectMetaData meta;
    EXPECT_EQ(m_bridge->ReadObjectByHandle(u"h", buffer.Data(), 0, &length, nullptr, 0, &meta), MapErrorOrdinal(6));
    EXPECT_EQ(length, 2u);
    EXPECT_EQ(buffer.Bytes(), "ab" + std::string(2, kFill));
    EXPECT_EQ(meta[u"k"].szProperty, u"v");
}


TEST_F(ObjectReadTest, ReadsWithMetaDataWhoseArrayCannotBeMadeGive40WithoutCallingJava) {
    Interposer().FailNewByteArray(2);
    HostBuffer buffer(4);
    uint64_t length = 4;
    ObjectMetaData meta;
    EXPECT_EQ(m_bridge->ReadObjectByName(u"o", buffer.Data(), 0, &length, nullptr, 0, &meta), 40u);
    EXPECT_EQ(m_bridge->ReadObjectByHandle(u"h", buffer.Data(), 0, &length, nullptr, 0, &meta), 40u);
    EXPECT_TRUE(TestDouble::Calls().empty());
    EXPECT_EQ(length, 4u);
    EXPECT_TRUE(NewLines().empty());
}

TEST_F(ObjectReadTest, ReadsWithMetaDataWhoseCopyFailsGive14AndTheReadObjectLine) {
    Interposer().FailElementAccess(2);
    HostBuffer buffer(4);
    ObjectMetaData meta;
    uint64_t length = 4;
    TestDouble::SetReadData("ReadObjectByName", "abcd");
    EXPECT_EQ(m_bridge->ReadObjectByName(u"o", buffer.Data(), 0, &length, nullptr, 0, &meta), 14u);
    length = 4;
    TestDouble::SetReadData("ReadObjectByHandle", "abcd");
    EXPECT_EQ(m_bridge->ReadObjectByHandle(u"h", buffer.Data(), 0, &length, nullptr, 0, &meta), 14u);
    EXPECT_EQ(buffer.Bytes(), std::string(4, kFill));
    EXPECT_EQ(NewLines(), (std::vector<WideString>{kCopyFailureLine, kCopyFailureLine}));
}



// ---- data end to end

void ObjectReadTest::ExpectEveryReadCopiesTheBytes(size_t size) {
    const std::string data = Pattern(size, 9);
    for (const char* method : {"ReadObject", "ReadObjectByName", "ReadObjectByHandle"}) {
        SCOPED_TRACE(method);
        TestDouble::SetReadData(method, data);
        HostBuffer buffer(size);
        uint64_t length = size;
        ObjectMetaData meta;
        const std::string which = method;
        const uint32_t code = which == "ReadObject" ? m_bridge->ReadObject(u"o", buffer.Data(), 0, &length)
                              : which == "ReadObjectByName"
                                  ? m_bridge->ReadObjectByName(u"o", buffer.Data(), 0, &length, nullptr, 0, &meta)
                                  : m_bridge->ReadObjectByHandle(u"o", buffer.Data(), 0, &length, nullptr, 0, &meta);
        EXPECT_EQ(code, 0u);
        EXPECT_EQ(length, size);
        EXPECT_TRUE(SameBytes(data, buffer.Bytes()));
        EXPECT_TRUE(buffer.GuardIntact());
        EXPECT_TRUE(SameBytes(data, TestDouble::ByteArgument(method, 0)));
    }
}

TEST_F(ObjectReadTest, EveryReadOf0BytesCopiesNothing) { ExpectEveryReadCopiesTheBytes(0); }
TEST_F(ObjectReadTest, EveryReadOf1ByteCopiesThatByte) { ExpectEveryReadCopiesTheBytes(1); }
TEST_F(ObjectReadTest, EveryReadOf1MiBCopiesExactlyJavasBytes) { ExpectEveryReadCopiesTheBytes(kMiB); }

TEST_F(ObjectReadTest, ReadObjectOf256MiBCopiesExactlyJavasBytes) {
    const size_t size = 256 * kMiB;
    const std::string data = Pattern(size, 13);
    TestDouble::SetReadData("ReadObject", data);
    HostBuffer buffer(size);
    uint64_t length = size;
    EXPECT_EQ(m_bridge->ReadObject(u"big", buffer.Data(), 0, &length), 0u);
    EXPECT_EQ(length, size);
    EXPECT_TRUE(SameBytes(data, buffer.Bytes()));
    EXPECT_TRUE(buffer.GuardIntact());
    EXPECT_EQ(Interposer().CountOf("GetByteArrayRegion"), 1u);
}
