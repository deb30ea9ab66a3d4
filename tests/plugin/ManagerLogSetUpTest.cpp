// Where the plug-in object logs: the folder it is given, or a folder it
// makes under the host's install folder, and the one log writer that all
// plug-in objects of a process share. Each test loads its own copy of the
// library, so each starts as the first of its process.
#include <gtest/gtest.h>

#include <filesystem>
#include <list>
#include <system_error>

#include "platform/Platform.h"
#include "support/LogFiles.h"
#include "support/PluginLibrary.h"
#include "support/TempFolder.h"

namespace {

using Texts = std::vector<std::u16string>;

bool FolderExists(const std::u16string& path) {
    std::error_code ignored;
    return std::filesystem::is_directory(std::filesystem::path(path), ignored);
}

std::u16string Join(std::initializer_list<std::u16string> parts) {
    std::u16string path;
    for (const auto& part : parts) {
        if (!path.empty()) path += qvplatform::kPathSeparator;
        path += part;
    }
    return path;
}

class ManagerLogSetUpTest : public ::testing::Test {
protected:
    ICloudPluginInterface* Create(const std::u16string& logFolder) {
        CloudPluginCreateInfo& info = m_infos.emplace_back();
        info.installFolder = m_install.Path();
        info.logFolder = logFolder;
        ICloudPluginInterface* object = m_library.CreateInstance()(&info);
        EXPECT_NE(object, nullptr);
        return object;
    }
    std::u16string DefaultLogFolder() const { return Join({m_install.Path(), u"Plugin", u"Azure", u"Log"}); }

    // Old log files, the first the oldest, each a day older than the next.
    void MakeOldLogFiles(const std::u16string& folder, int count) {
        for (int i = 0; i < count; ++i) {
            const std::u16string name = u"JNIWrapper_1-1-2000_0-0-0-" + qvplatform::FromUtf8(std::to_string(i)) + u".log";
            ASSERT_TRUE(testsupport::WriteFileBytes(Join({folder, name}), "x"));
            ASSERT_TRUE(qvplatform::SetLastWriteTimeSeconds(Join({folder, name}), 946684800 + 86400 * i));
        }
    }

    testsupport::PluginLibrary m_library;
    testsupport::TempFolder m_install;
    testsupport::TempFolder m_logs;
    std::list<CloudPluginCreateInfo> m_infos;  // the host keeps each record alive with its object
};

TEST_F(ManagerLogSetUpTest, EmptyLogFolderCreatesPluginAzureLogUnderTheInstallFolderAndLogsThere) {
    ICloudPluginInterface* object = Create(u"");
    EXPECT_TRUE(FolderExists(DefaultLogFolder()));
    EXPECT_EQ(testsupport::LogMessagesIn(DefaultLogFolder()),
              (Texts{u"QVAzureCommunicationMgr::Init is Called", u"JVM is NULL"}));
    object->Release();
}

TEST_F(ManagerLogSetUpTest, GivenLogFolderIsUsedUnchangedAndNothingIsCreated) {
    ICloudPluginInterface* object = Create(m_logs.Path());
    EXPECT_FALSE(FolderExists(Join({m_install.Path(), u"Plugin"})));
    EXPECT_EQ(testsupport::LogFilesIn(m_logs.Path()).size(), 1u);
    EXPECT_EQ(testsupport::LogMessagesIn(m_logs.Path()),
              (Texts{u"QVAzureCommunicationMgr::Init is Called", u"JVM is NULL"}));
    object->Release();
}

TEST_F(ManagerLogSetUpTest, AnExistingDefaultLogFolderIsNoError) {
    ASSERT_TRUE(qvplatform::CreateFolder(Join({m_install.Path(), u"Plugin"})));
    ASSERT_TRUE(qvplatform::CreateFolder(Join({m_install.Path(), u"Plugin", u"Azure"})));
    ASSERT_TRUE(qvplatform::CreateFolder(DefaultLogFolder()));
    ICloudPluginInterface* object = Create(u"");
    EXPECT_EQ(testsupport::LogMessagesIn(DefaultLogFolder()).size(), 2u);
    object->Release();
}

TEST_F(ManagerLogSetUpTest, ASecondManagerWritesToTheSameLogFileAsTheFirst) {
    testsupport::TempFolder otherLogs;
    ICloudPluginInterface* first = Create(m_logs.Path());
    ICloudPluginInterface* second = Create(otherLogs.Path());
    EXPECT_TRUE(testsupport::LogFilesIn(otherLogs.Path()).empty());
    EXPECT_EQ(testsupport::LogFilesIn(m_logs.Path()).size(), 1u);
    EXPECT_EQ(second->DeInit(), 2u);
    EXPECT_EQ(testsupport::LogMessagesIn(m_logs.Path()),
              (Texts{u"QVAzureCommunicationMgr::Init is Called", u"JVM is NULL",
                     u"QVAzureCommunicationMgr::Init is Called", u"JVM is NULL", u"jniObj is not instaialized"}));
    second->Release();
    first->Release();
}

TEST_F(ManagerLogSetUpTest, TheDefaultLogFolderIsPrunedToTheNewest30Files) {
    ASSERT_TRUE(qvplatform::CreateFolder(Join({m_install.Path(), u"Plugin"})));
    ASSERT_TRUE(qvplatform::CreateFolder(Join({m_install.Path(), u"Plugin", u"Azure"})));
    ASSERT_TRUE(qvplatform::CreateFolder(DefaultLogFolder()));
    MakeOldLogFiles(DefaultLogFolder(), 35);
    ICloudPluginInterface* object = Create(u"");
    // 30 old files kept, the five oldest deleted, then the new file.
    EXPECT_EQ(testsupport::LogFilesIn(DefaultLogFolder()).size(), 31u);
    EXPECT_FALSE(qvplatform::FileExists(Join({DefaultLogFolder(), u"JNIWrapper_1-1-2000_0-0-0-4.log"})));
    EXPECT_TRUE(qvplatform::FileExists(Join({DefaultLogFolder(), u"JNIWrapper_1-1-2000_0-0-0-5.log"})));
    object->Release();
}

TEST_F(ManagerLogSetUpTest, AGivenLogFolderIsNotPruned) {
    MakeOldLogFiles(m_logs.Path(), 35);
    ICloudPluginInterface* object = Create(m_logs.Path());
    EXPECT_EQ(testsupport::LogFilesIn(m_logs.Path()).size(), 36u);
    object->Release();
}

TEST_F(ManagerLogSetUpTest, TwoStringInitKeepsTheProcessWriterAndCreatesNoFolder) {
    ICloudPluginInterface* object = Create(m_logs.Path());
    testsupport::TempFolder otherInstall;
    EXPECT_EQ(object->Init(u"init", otherInstall.Path()), 2u);  // no bridge behind this object
    EXPECT_FALSE(FolderExists(Join({otherInstall.Path(), u"Plugin"})));
    const auto lines = testsupport::LogMessagesIn(m_logs.Path());
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[2], u"QVAzureCommunicationMgr::Init is Called");
    EXPECT_EQ(lines[3], u"jniObj is not instaialized");
    object->Release();
}

TEST_F(ManagerLogSetUpTest, CreateInstanceWithANullRecordStillGivesAnObject) {
    // No record: no JVM and no folder to log in.
    ICloudPluginInterface* object = m_library.CreateInstance()(nullptr);
    ASSERT_NE(object, nullptr);
    EXPECT_EQ(object->DeInit(), 2u);
    object->Release();
}

}  // namespace
