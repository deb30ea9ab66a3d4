// The road of a backup and a restore, as a host drives the loaded plug-in:
// create an object with metadata, write it, close it, open it again, read
// it back by name and by handle with its metadata, delete it, end the Java
// side and release the plug-in object. The bytes and the metadata go
// through the real JVM into the test double's store and back.
#include <cstring>

#include "LoadedPluginFixture.h"
#include "support/TestData.h"

namespace {

using jnitest::TestDouble;

class HostRoadTest : public plugintest::LoadedPluginFixture {};

std::vector<uint8_t> Bytes(const std::string& text) { return std::vector<uint8_t>(text.begin(), text.end()); }

TEST_F(HostRoadTest, BackupAndRestoreOfOneObjectKeepBytesAndMetaData) {
    const std::vector<uint8_t> data = Bytes(jnitest::Pattern((1 << 20) + 17, 5));
    ObjectMetaData metaData{{u"path", {u"docs/r\u00e9sum\u00e9.txt", 1}}, {u"size", {u"1048593", 2}}};

    ASSERT_EQ(m_object->Init(u"account=test"), 0u);

    // Backup: create, write with metadata, close.
    WideString handle;
    ASSERT_EQ(m_object->CreateObject(u"backup/file-1", &metaData, handle), 0u);
    EXPECT_EQ(handle, u"handle:backup/file-1");
    WideString written;
    ASSERT_EQ(m_object->WriteObject(u"backup/file-1", data.data(), data.size(), &metaData, written), 0u);
    EXPECT_EQ(written, u"handle:backup/file-1");
    ASSERT_EQ(m_object->CloseObject(handle), 0u);

    // Restore: open, read by name with the metadata, read by handle, plain read.
    WideString opened;
    ASSERT_EQ(m_object->OpenObject(u"backup/file-1", opened), 0u);
    EXPECT_EQ(opened, u"handle:backup/file-1");

    const WideString names[] = {u"path", u"size"};
    std::vector<uint8_t> byName(data.size() + 16, 0xEE);
    uint64_t length = data.size();
    ObjectMetaData readMetaData;
    ASSERT_EQ(m_object->ReadObjectByName(u"backup/file-1", byName.data(), 0, &length, names, 2, &readMetaData), 0u);
    EXPECT_EQ(length, data.size());
    EXPECT_TRUE(std::equal(data.begin(), data.end(), byName.begin()));
    EXPECT_EQ(byName[data.size()], 0xEE);  // nothing past the object's bytes
    ASSERT_EQ(readMetaData.size(), 2u);
    EXPECT_EQ(readMetaData[u"path"].szProperty, u"docs/r\u00e9sum\u00e9.txt");
    EXPECT_EQ(readMetaData[u"size"].szProperty, u"1048593");

    std::vector<uint8_t> tail(1000, 0);
    length = tail.size();
    ObjectMetaData sizeOnly;
    ASSERT_EQ(m_object->ReadObjectByHandle(opened, tail.data(), data.size() - 1000, &length, names + 1, 1, &sizeOnly),
              0u);
    EXPECT_EQ(length, 1000u);
    EXPECT_TRUE(std::equal(tail.begin(), tail.end(), data.end() - 1000));
    ASSERT_EQ(sizeOnly.size(), 1u);
    EXPECT_EQ(sizeOnly.begin()->first, u"size");

    std::vector<uint8_t> middle(4096, 0);
    length = middle.size();
    ASSERT_EQ(m_object->ReadObject(u"backup/file-1", middle.data(), 12345, &length), 0u);
    EXPECT_EQ(length, middle.size());
    EXPECT_EQ(std::memcmp(middle.data(), data.data() + 12345, middle.size()), 0);
    ASSERT_EQ(m_object->CloseObject(opened), 0u);

    // Clean-up: delete, check it is gone, end the Java side.
    ASSERT_EQ(m_object->DeleteObjectByName(u"backup/file-1"), 0u);
    uint32_t exists = 1;
    ASSERT_EQ(m_object->IsObjectExist(u"backup/file-1", &exists), 0u);
    EXPECT_EQ(exists, 0u);
    ASSERT_EQ(m_object->DeInit(), 0u);
    m_object->Release();
    m_object = nullptr;

    EXPECT_EQ(TestDouble::Calls(),
              (std::vector<std::string>{
                  "AzureInit(\"account=test\", \"" + m_install.PathUtf8() + "\")",
                  "CreateObject(\"backup/file-1\", {\"path\"=\"docs/r\\u00e9sum\\u00e9.txt\", \"size\"=\"1048593\"})",
                  "WriteObject(\"backup/file-1\", byte[1048593], 1048593, {\"path\"=\"docs/r\\u00e9sum\\u00e9.txt\", "
                  "\"size\"=\"1048593\"})",
                  "CloseObject(\"handle:backup/file-1\")",
                  "OpenObject(\"backup/file-1\")",
                  "ReadObjectByName(\"backup/file-1\", byte[1048593], 0, 1048593, [\"path\", \"size\"])",
                  "ReadObjectByHandle(\"handle:backup/file-1\", byte[1000], 1047593, 1000, [\"size\"])",
                  "ReadObject(\"backup/file-1\", byte[4096], 4096, 12345)",
                  "CloseObject(\"handle:backup/file-1\")",
                  "DeleteObjectByName(\"backup/file-1\")",
                  "IsObjectExist(\"backup/file-1\")",
                  "AzureDeInit()",
              }));
}

TEST_F(HostRoadTest, ManyObjectsWrittenAndReadBackInTurn) {
    ASSERT_EQ(m_object->Init(u"account=test"), 0u);
    for (int i = 0; i < 20; ++i) {
        const std::vector<uint8_t> data = Bytes(jnitest::Pattern(static_cast<size_t>(1000 * i), i));
        const WideString name = u"obj-" + WideString(1, static_cast<char16_t>(u'a' + i));
        ASSERT_EQ(m_object->WriteObject(name, data.data(), data.size()), 0u);
        std::vector<uint8_t> back(data.size() + 1, 0);
        uint64_t length = back.size();
        ASSERT_EQ(m_object->ReadObject(name, back.data(), 0, &length), 0u);
        EXPECT_EQ(length, data.size());
        EXPECT_TRUE(std::equal(data.begin(), data.end(), back.begin()));
    }
    ASSERT_EQ(m_object->DeInit(), 0u);
}

}  // namespace
