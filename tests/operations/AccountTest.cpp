// The account and storage-key operations of the bridge against the Java test
// double: GetAccountInfo, GetAllObjectsSize, GetUniqueAccountName,
// GetOwnerName, IsSameAccount, GetQVCloudStorageKey, updateStorageKey,
// getServerNameList, GetObjectActualSize and CanBackup.
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "bridge/BridgeLog.h"
#include "bridge/JNIBridge.h"
#include "support/BridgeFixture.h"

using jnitest::BridgeFixture;
using jnitest::StartedBridgeFixture;
using jnitest::TestDouble;

namespace {

constexpr const char16_t* kCreateObjectException = u"CreateObject::Exception is occured...";
constexpr const char16_t* kUniqueAccountException = u"GetUniqueAccountName::Exception is occured...";


}  // namespace

class AccountTest : public StartedBridgeFixture {
protected:


    // Everything written to every log file of the folder, as text.
    WideString AllLogText() const {
        WideString text;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(m_folder.PathUtf8())) {
            if (!entry.is_regular_file()) continue;
            text += testsupport::DecodeUtf16Le(testsupport::ReadFileBytes(qvplatform::FromUtf8(entry.path().string())));
        }
        return text;
    }

};

// ---------------------------------------------------------------- GetAccountInfo

constexpr const char* kAccountInfoSignature = "()Lcom/qv/AzureLibrary/CGetAccountInfoFnValue;";

TEST_F(AccountTest, GetAccountInfoFillsTheRecordFromJava) {
    AccountInfoRecord info;
    info.reserved = 77;
    TestDouble::SetLong("GetAccountInfo", "usedSizeInByteTotal", 4096);
    TestDouble::SetLong("GetAccountInfo", "remainedSizeInByteTotal", 8192);
    EXPECT_EQ(m_bridge->GetAccountInfo(&info), 0u);
    EXPECT_EQ(info.reserved, 77u);
    EXPECT_EQ(info.accountIndentity, u"qvstorageaccount");
    EXPECT_EQ(info.accountType, u"StorageV2");
    EXPECT_EQ(info.displayName, u"QV Backup");
    EXPECT_EQ(info.emailAddress, u"backup@example.com");
    EXPECT_EQ(info.usedSizeInByteTotal, 4096);
    EXPECT_EQ(info.remainedSizeInByteTotal, 8192);
    ASSERT_EQ(TestDouble::CallCount("GetAccountInfo"), 1u);
    EXPECT_EQ(TestDouble::DescribeCall("GetAccountInfo", 0), "GetAccountInfo()");
    EXPECT_TRUE(NewLines().empty());
}

TEST_F(AccountTest, GetAccountInfoMapsTheJavaErrorAndStillFillsTheRecord) {
    AccountInfoRecord info;
    TestDouble::ReturnErrorOrdinal("GetAccountInfo", 3);
    TestDouble::SetString("GetAccountInfo", "displayName", u"Owner \u00e9");
    EXPECT_EQ(m_bridge->GetAccountInfo(&info), 7u);
    EXPECT_EQ(info.accountIndentity, u"qvstorageaccount");
    EXPECT_EQ(info.displayName, u"Owner \u00e9");
}

TEST_F(AccountTest, GetAccountInfoWithANullErrorValueGives47) {
    AccountInfoRecord info;
    TestDouble::ReturnNullErrorValue("GetAccountInfo");
    EXPECT_EQ(m_bridge->GetAccountInfo(&info), 47u);
    EXPECT_EQ(info.accountType, u"StorageV2");
}

TEST_F(AccountTest, GetAccountInfoWithANullResultGives0AndLeavesTheRecord) {
    AccountInfoRecord info;
    info.displayName = u"before";
    info.usedSizeInByteTotal = 5;
    TestDouble::ReturnNull("GetAccountInfo");
    EXPECT_EQ(m_bridge->GetAccountInfo(&info), 0u);
    EXPECT_EQ(info.displayName, u"before");
    EXPECT_EQ(info.usedSizeInByteTotal, 5);
    EXPECT_EQ(TestDouble::CallCount("GetAccountInfo"), 1u);
}

TEST_F(AccountTest, GetAccountInfoWithTheMethodMissingWritesItsLineAndGives0) {
    AccountInfoRecord info;
    info.displayName = u"before";
    Interposer().FailGetMethodID("GetAccountInfo");
    EXPECT_EQ(m_bridge->GetAccountInfo(&info), 0u);
    EXPECT_EQ(info.displayName, u"before");
    EXPECT_EQ(TestDouble::CallCount("GetAccountInfo"), 0u);
    ExpectLookupFailureLines("GetAccountInfo", kAccountInfoSignature,
                             {u"GET_ACCOUNT_INFO_NAME::method is not found..."});
}

TEST_F(AccountTest, GetAccountInfoWithTheMethodMissingAndAnExceptionPendingGives40) {
    AccountInfoRecord info;
    info.displayName = u"before";
    FailLookupLeavingTheExceptionPending("GetAccountInfo");
    EXPECT_EQ(m_bridge->GetAccountInfo(&info), 40u);
    EXPECT_EQ(info.displayName, u"before");
    ExpectPendingExceptionLines("GetAccountInfo", kAccountInfoSignature,
                                {u"GET_ACCOUNT_INFO_NAME::method is not found..."});
}

TEST_F(AccountTest, GetAccountInfoExceptionWritesTheCreateObjectLineAndGives40) {
    AccountInfoRecord info;
    Interposer().ThrowCppExceptionIn("GetObjectClass");
    EXPECT_EQ(m_bridge->GetAccountInfo(&info), 40u);
    EXPECT_EQ(NewLines(), std::vector<WideString>{kCreateObjectException});
    EXPECT_EQ(TestDouble::CallCount("GetAccountInfo"), 0u);
}

// ---------------------------------------------------------------- GetAllObjectsSize

constexpr const char* kAllObjectsSizeSignature = "()Lcom/qv/AzureLibrary/CGetAccountSizeValue;";

TEST_F(AccountTest, GetAllObjectsSizeGivesTheSizeJavaReports) {
    int64_t size = -1;
    TestDouble::SetLong("GetAllObjectsSize", "size", int64_t{3} << 40);
    EXPECT_EQ(m_bridge->GetAllObjectsSize(&size), 0u);
    EXPECT_EQ(size, int64_t{3} << 40);
    ASSERT_EQ(TestDouble::CallCount("GetAllObjectsSize"), 1u);
    EXPECT_EQ(TestDouble::DescribeCall("GetAllObjectsSize", 0), "GetAllObjectsSize()");
    EXPECT_TRUE(NewLines().empty());
}

TEST_F(AccountTest, GetAllObjectsSizeCountsTheBytesTheDoubleStores) {
    ASSERT_EQ(m_bridge->GetAllObjectsSize(nullptr), 0u);
    int64_t size = -1;
    EXPECT_EQ(m_bridge->GetAllObjectsSize(&size), 0u);
    EXPECT_EQ(size, 0);
}

TEST_F(AccountTest, GetAllObjectsSizeMapsTheJavaErrorAndStillGivesTheSize) {
    int64_t size = -1;
    TestDouble::ReturnErrorOrdinal("GetAllObjectsSize", 27);
    TestDouble::SetLong("GetAllObjectsSize", "size", 9);
    EXPECT_EQ(m_bridge->GetAllObjectsSize(&size), 30u);
    EXPECT_EQ(size, 9);
}

TEST_F(AccountTest, GetAllObjectsSizeWithANullErrorValueGives47) {
    int64_t size = -1;
    TestDouble::ReturnNullErrorValue("GetAllObjectsSize");
    EXPECT_EQ(m_bridge->GetAllObjectsSize(&size), 47u);
}

TEST_F(AccountTest, GetAllObjectsSizeWithANullResultGives40AndLeavesTheSize) {
    int64_t size = 123;
    TestDouble::ReturnNull("GetAllObjectsSize");
    EXPECT_EQ(m_bridge->GetAllObjectsSize(&size), 40u);
    EXPECT_EQ(size, 123);
    EXPECT_TRUE(NewLines().empty());
}

TEST_F(AccountTest, GetAllObjectsSizeWithTheMethodMissingTakesTheNullResultPath) {
    int64_t size = 123;
    Interposer().FailGetMethodID("GetAllObjectsSize");
    EXPECT_EQ(m_bridge->GetAllObjectsSize(&size), 40u);
    EXPECT_EQ(size, 123);
    EXPECT_EQ(TestDouble::CallCount("GetAllObjectsSize"), 0u);
    EXPECT_EQ(Interposer().CountOf("CallObjectMethodA"), 0u);
    ExpectLookupFailureLines("GetAllObjectsSize", kAllObjectsSizeSignature, {});
}

TEST_F(AccountTest, GetAllObjectsSizeWithTheMethodMissingAndAnExceptionPendingGives40) {
    int64_t size = 123;
    FailLookupLeavingTheExceptionPending("GetAllObjectsSize");
    EXPECT_EQ(m_bridge->GetAllObjectsSize(&size), 40u);
    EXPECT_EQ(size, 123);
    ExpectPendingExceptionLines("GetAllObjectsSize", kAllObjectsSizeSignature, {});
}

TEST_F(AccountTest, GetAllObjectsSizeExceptionWritesItsLineAndGives40) {
    int64_t size = 123;
    Interposer().ThrowCppExceptionIn("CallObjectMethodA");
    EXPECT_EQ(m_bridge->GetAllObjectsSize(&size), 40u);
    EXPECT_EQ(size, 123);
    EXPECT_EQ(NewLines(), std::vector<WideString>{u"GetAllObjectsSize::Exception is occured..."});
}

// ---------------------------------------------------------------- GetUniqueAccountName and GetOwnerName

constexpr const char* kUniqueAccountSignature = "()Lcom/qv/AzureLibrary/CUniqueAccountValue;";

TEST_F(AccountTest, GetUniqueAccountNameGivesTheAccountName) {
    WideString name = u"before";
    EXPECT_EQ(m_bridge->GetUniqueAccountName(name), 0u);
    EXPECT_EQ(name, u"qvstorageaccount");
    ASSERT_EQ(TestDouble::CallCount("GetUniqueAccountName"), 1u);
    EXPECT_EQ(TestDouble::DescribeCall("GetUniqueAccountName", 0), "GetUniqueAccountName()");
    EXPECT_TRUE(NewLines().empty());
}

TEST_F(AccountTest, GetOwnerNameGivesTheOwnerName) {
    WideString name = u"before";
    EXPECT_EQ(m_bridge->GetOwnerName(name), 0u);
    EXPECT_EQ(name, u"QV Backup");
    ASSERT_EQ(TestDouble::CallCount("GetOwnerName"), 1u);
    EXPECT_EQ(TestDouble::DescribeCall("GetOwnerName", 0), "GetOwnerName()");
    EXPECT_EQ(TestDouble::CallCount("GetUniqueAccountName"), 0u);
}

TEST_F(AccountTest, GetUniqueAccountNameAssignsTheNameEvenWhenJavaReportsAnError) {
    WideString name = u"before";
    TestDouble::ReturnErrorOrdinal("GetUniqueAccountName", 12);
    TestDouble::SetString("GetUniqueAccountName", "accountName", u"partial-account");
    EXPECT_EQ(m_bridge->GetUniqueAccountName(name), 13u);
    EXPECT_EQ(name, u"partial-account");
}

TEST_F(AccountTest, GetUniqueAccountNameAssignsAnEmptyNameWhenJavaGivesNoneWithAnError) {
    WideString name = u"before";
    TestDouble::ReturnErrorOrdinal("GetUniqueAccountName", 46);
    TestDouble::SetNullField("GetUniqueAccountName", "accountName");
    EXPECT_EQ(m_bridge->GetUniqueAccountName(name), 49u);
    EXPECT_EQ(name, u"");
}

TEST_F(AccountTest, GetOwnerNameAssignsTheNameEvenWhenJavaReportsAnError) {
    WideString name = u"before";
    TestDouble::ReturnErrorOrdinal("GetOwnerName", 47);
    EXPECT_EQ(m_bridge->GetOwnerName(name), 45u);
    EXPECT_EQ(name, u"QV Backup");
}

TEST_F(AccountTest, GetUniqueAccountNameWithANullErrorValueGives47) {
    WideString name = u"before";
    TestDouble::ReturnNullErrorValue("GetUniqueAccountName");
    EXPECT_EQ(m_bridge->GetUniqueAccountName(name), 47u);
    EXPECT_EQ(name, u"qvstorageaccount");
}

TEST_F(AccountTest, GetUniqueAccountNameWithANullResultGives40AndLeavesTheName) {
    WideString name = u"before";
    TestDouble::ReturnNull("GetUniqueAccountName");
    EXPECT_EQ(m_bridge->GetUniqueAccountName(name), 40u);
    EXPECT_EQ(name, u"before");
}

TEST_F(AccountTest, GetOwnerNameWithANullResultGives40AndLeavesTheName) {
    WideString name = u"before";
    TestDouble::ReturnNull("GetOwnerName");
    EXPECT_EQ(m_bridge->GetOwnerName(name), 40u);
    EXPECT_EQ(name, u"before");
}

TEST_F(AccountTest, GetUniqueAccountNameWithTheMethodMissingTakesTheNullResultPath) {
    WideString name = u"before";
    Interposer().FailGetMethodID("GetUniqueAccountName");
    EXPECT_EQ(m_bridge->GetUniqueAccountName(name), 40u);
    EXPECT_EQ(name, u"before");
    EXPECT_EQ(TestDouble::CallCount("GetUniqueAccountName"), 0u);
    ExpectLookupFailureLines("GetUniqueAccountName", kUniqueAccountSignature, {});
}

TEST_F(AccountTest, GetOwnerNameWithTheMethodMissingTakesTheNullResultPath) {
    WideString name = u"before";
    Interposer().FailGetMethodID("GetOwnerName");
    EXPECT_EQ(m_bridge->GetOwnerName(name), 40u);
    EXPECT_EQ(name, u"before");
    EXPECT_EQ(TestDouble::CallCount("GetOwnerName"), 0u);
    ExpectLookupFailureLines("GetOwnerName", kUniqueAccountSignature, {});
}

TEST_F(AccountTest, GetUniqueAccountNameWithTheMethodMissingAndAnExceptionPendingGives40) {
    WideString name = u"before";
    FailLookupLeavingTheExceptionPending("GetUniqueAccountName");
    EXPECT_EQ(m_bridge->GetUniqueAccountName(name), 40u);
    EXPECT_EQ(name, u"before");
    ExpectPendingExceptionLines("GetUniqueAccountName", kUniqueAccountSignature, {});
}

TEST_F(AccountTest, GetOwnerNameWithTheMethodMissingAndAnExceptionPendingGives40) {
    WideString name = u"before";
    FailLookupLeavingTheExceptionPending("GetOwnerName");
    EXPECT_EQ(m_bridge->GetOwnerName(name), 40u);
    ExpectPendingExceptionLines("GetOwnerName", kUniqueAccountSignature, {});
}

TEST_F(AccountTest, GetUniqueAccountNameExceptionWritesItsLineAndGives40) {
    WideString name = u"before";
    Interposer().ThrowCppExceptionIn("GetObjectClass");
    EXPECT_EQ(m_bridge->GetUniqueAccountName(name), 40u);
    EXPECT_EQ(name, u"before");
    EXPECT_EQ(NewLines(), std::vector<WideString>{kUniqueAccountException});
}

TEST_F(AccountTest, GetOwnerNameFailingWithAnExceptionWritesTheUniqueAccountNameLine) {
    WideString name = u"before";
    Interposer().ThrowCppExceptionIn("CallObjectMethodA");
    EXPECT_EQ(m_bridge->GetOwnerName(name), 40u);
    EXPECT_EQ(name, u"before");
    EXPECT_EQ(NewLines(), std::vector<WideString>{kUniqueAccountException});
}

// ---------------------------------------------------------------- IsSameAccount

constexpr const char* kIsSameAccountSignature =
    "(Ljava/lang/String;Ljava/lang/String;)Lcom/qv/AzureLibrary/CIsObjectExistFnValue;";

TEST_F(AccountTest, IsSameAccountPassesBothTextsInOrderAndGivesTheFlag) {
    uint32_t same = 7;
    EXPECT_EQ(m_bridge->IsSameAccount(u"account-a", u"account-\u00e9", &same), 0u);
    EXPECT_EQ(same, 0u);
    ASSERT_EQ(TestDouble::CallCount("IsSameAccount"), 1u);
    EXPECT_EQ(TestDouble::DescribeCall("IsSameAccount", 0), "IsSameAccount(\"account-a\", \"account-\\u00e9\")");
    EXPECT_EQ(m_bridge->IsSameAccount(u"account-a", u"account-a", &same), 0u);
    EXPECT_EQ(same, 1u);
    EXPECT_TRUE(NewLines().empty());
}

TEST_F(AccountTest, IsSameAccountPassesEmptyTextsAsEmptyStrings) {
    uint32_t same = 7;
    EXPECT_EQ(m_bridge->IsSameAccount(u"", u"", &same), 0u);
    EXPECT_EQ(TestDouble::DescribeCall("IsSameAccount", 0), "IsSameAccount(\"\", \"\")");
    EXPECT_EQ(same, 1u);
}

TEST_F(AccountTest, IsSameAccountMapsTheJavaErrorAndStillGivesTheFlag) {
    uint32_t same = 7;
    TestDouble::ReturnErrorOrdinal("IsSameAccount", 4);
    TestDouble::SetBoolean("IsSameAccount", "isExist", true);
    EXPECT_EQ(m_bridge->IsSameAccount(u"a", u"b", &same), 4u);
    EXPECT_EQ(same, 1u);
}

TEST_F(AccountTest, IsSameAccountWithANullErrorValueGives47) {
    uint32_t same = 7;
    TestDouble::ReturnNullErrorValue("IsSameAccount");
    EXPECT_EQ(m_bridge->IsSameAccount(u"a", u"a", &same), 47u);
    EXPECT_EQ(same, 1u);
}

TEST_F(AccountTest, IsSameAccountWithANullResultGives0AndAFlagOf0) {
    uint32_t same = 7;
    TestDouble::ReturnNull("IsSameAccount");
    EXPECT_EQ(m_bridge->IsSameAccount(u"a", u"a", &same), 0u);
    EXPECT_EQ(same, 0u);
}

TEST_F(AccountTest, IsSameAccountWithTheMethodMissingTakesTheNullResultPath) {
    uint32_t same = 7;
    Interposer().FailGetMethodID("IsSameAccount");
    EXPECT_EQ(m_bridge->IsSameAccount(u"a", u"a", &same), 0u);
    EXPECT_EQ(same, 0u);
    EXPECT_EQ(TestDouble::CallCount("IsSameAccount"), 0u);
    ExpectLookupFailureLines("IsSameAccount", kIsSameAccountSignature, {});
}

TEST_F(AccountTest, IsSameAccountWithTheMethodMissingAndAnExceptionPendingGives40) {
    uint32_t same = 7;
    FailLookupLeavingTheExceptionPending("IsSameAccount");
    EXPECT_EQ(m_bridge->IsSameAccount(u"a", u"a", &same), 40u);
    EXPECT_EQ(same, 7u);
    ExpectPendingExceptionLines("IsSameAccount", kIsSameAccountSignature, {});
}

TEST_F(AccountTest, IsSameAccountExceptionWritesItsLineAndGives40) {
    uint32_t same = 7;
    Interposer().ThrowCppExceptionIn("CallObjectMethodA");
    EXPECT_EQ(m_bridge->IsSameAccount(u"a", u"a", &same), 40u);
    EXPECT_EQ(same, 7u);
    EXPECT_EQ(NewLines(), std::vector<WideString>{u"IsSameAccount::Exception is occured..."});
}

// ---------------------------------------------------------------- GetQVCloudStorageKey

constexpr const char* kStorageKeySignature = "(Ljava/lang/String;Ljava/lang/String;)Lcom/qv/plugin/model/CString;";

TEST_F(AccountTest, GetQVCloudStorageKeyGivesTheKeyAndLogsTheFirstTextAroundTheCall) {
    WideString key = u"before";
    EXPECT_EQ(m_bridge->GetQVCloudStorageKey(u"account-1", u"container-1", key), 0u);
    EXPECT_EQ(key, u"key-1");
    ASSERT_EQ(TestDouble::CallCount("getStorageKey"), 1u);
    EXPECT_EQ(TestDouble::DescribeCall("getStorageKey", 0), "getStorageKey(\"account-1\", \"container-1\")");
    EXPECT_EQ(NewLines(), (std::vector<WideString>{u"GetQVCloudStorageKey::Java called ...account-1",
                                                   u"GetQVCloudStorageKey::Java ended ...account-1"}));
}

TEST_F(AccountTest, GetQVCloudStorageKeyMapsTheJavaErrorAndStillGivesTheKey) {
    WideString key = u"before";
    TestDouble::ReturnErrorOrdinal("getStorageKey", 29);
    TestDouble::SetString("getStorageKey", "value", u"stale-key");
    EXPECT_EQ(m_bridge->GetQVCloudStorageKey(u"a", u"b", key), 30u);
    EXPECT_EQ(key, u"stale-key");
}

TEST_F(AccountTest, GetQVCloudStorageKeyWithANullErrorValueGives47) {
    WideString key = u"before";
    TestDouble::ReturnNullErrorValue("getStorageKey");
    EXPECT_EQ(m_bridge->GetQVCloudStorageKey(u"a", u"b", key), 47u);
    EXPECT_EQ(key, u"key-1");
}

TEST_F(AccountTest, GetQVCloudStorageKeyWithANullKeyTextKeepsTheKey) {
    WideString key = u"before";
    TestDouble::SetNullField("getStorageKey", "value");
    EXPECT_EQ(m_bridge->GetQVCloudStorageKey(u"a", u"b", key), 0u);
    EXPECT_EQ(key, u"before");
}

TEST_F(AccountTest, GetQVCloudStorageKeyWithJavaReturningNullEmptiesTheKeyAndGives40) {
    WideString key = u"before";
    TestDouble::ReturnNull("getStorageKey");
    EXPECT_EQ(m_bridge->GetQVCloudStorageKey(u"first-text", u"second-text", key), 40u);
    EXPECT_EQ(key, u"");
    EXPECT_EQ(NewLines(), (std::vector<WideString>{u"GetQVCloudStorageKey::Java called ...first-text",
                                                   u"GetQVCloudStorageKey::Java ended ...first-text"}));
}

TEST_F(AccountTest, GetQVCloudStorageKeyWithTheMethodMissingTakesTheNullResultPath) {
    WideString key = u"before";
    Interposer().FailGetMethodID("getStorageKey");
    EXPECT_EQ(m_bridge->GetQVCloudStorageKey(u"first-text", u"second-text", key), 40u);
    EXPECT_EQ(key, u"");
    EXPECT_EQ(TestDouble::CallCount("getStorageKey"), 0u);
    ExpectLookupFailureLines("getStorageKey", kStorageKeySignature,
                             {u"GetQVCloudStorageKey::Java called ...first-text",
                              u"GetQVCloudStorageKey::Java ended ...first-text"});
}

TEST_F(AccountTest, GetQVCloudStorageKeyWithTheMethodMissingAndAnExceptionPendingGives40) {
    WideString key = u"before";
    FailLookupLeavingTheExceptionPending("getStorageKey");
    EXPECT_EQ(m_bridge->GetQVCloudStorageKey(u"first-text", u"second-text", key), 40u);
    EXPECT_EQ(key, u"before");
    ExpectPendingExceptionLines("getStorageKey", kStorageKeySignature, {});
}

TEST_F(AccountTest, GetQVCloudStorageKeyExceptionWritesItsLineAndGives40) {
    WideString key = u"before";
    Interposer().ThrowCppExceptionIn("CallObjectMethodA");
    EXPECT_EQ(m_bridge->GetQVCloudStorageKey(u"first-text", u"second-text", key), 40u);
    EXPECT_EQ(key, u"before");
    EXPECT_EQ(NewLines(), (std::vector<WideString>{u"GetQVCloudStorageKey::Java called ...first-text",
                                                   u"GetQVCloudStorageKey::Exception is occured..."}));
}

TEST_F(AccountTest, StorageKeysNeverReachAnyLogFile) {
    const WideString secret = u"SECRET-STORAGE-KEY-4f9a";
    const WideString renewed = u"RENEWED-STORAGE-KEY-7c21";
    WideString key;
    TestDouble::SetString("getStorageKey", "value", secret);
    ASSERT_EQ(m_bridge->GetQVCloudStorageKey(u"visible-first", u"hidden-second", key), 0u);
    EXPECT_EQ(key, secret);
    TestDouble::ReturnErrorOrdinal("getStorageKey", 5);
    TestDouble::SetString("getStorageKey", "value", secret);
    ASSERT_EQ(m_bridge->GetQVCloudStorageKey(u"visible-first", u"hidden-second", key), 5u);
    TestDouble::SetString("updateStorageKey", "value", renewed);
    ASSERT_EQ(m_bridge->updateStorageKey(key), 0u);
    EXPECT_EQ(key, renewed);
    const WideString logText = AllLogText();
    EXPECT_NE(logText.find(u"visible-first"), WideString::npos);  // the log files were read
    EXPECT_EQ(logText.find(secret), WideString::npos);
    EXPECT_EQ(logText.find(renewed), WideString::npos);
    EXPECT_EQ(logText.find(u"hidden-second"), WideString::npos);
}

// ---------------------------------------------------------------- updateStorageKey

constexpr const char* kUpdateStorageKeySignature = "()Lcom/qv/plugin/model/CString;";

TEST_F(AccountTest, UpdateStorageKeyGivesTheNewKeyThatGetQVCloudStorageKeyThenAgreesWith) {
    WideString before;
    ASSERT_EQ(m_bridge->GetQVCloudStorageKey(u"a", u"b", before), 0u);
    WideString renewed;
    EXPECT_EQ(m_bridge->updateStorageKey(renewed), 0u);
    EXPECT_FALSE(renewed.empty());
    EXPECT_NE(renewed, before);
    WideString after;
    ASSERT_EQ(m_bridge->GetQVCloudStorageKey(u"a", u"b", after), 0u);
    EXPECT_EQ(after, renewed);
    ASSERT_EQ(TestDouble::CallCount("updateStorageKey"), 1u);
    EXPECT_EQ(TestDouble::DescribeCall("updateStorageKey", 0), "updateStorageKey()");
}

TEST_F(AccountTest, UpdateStorageKeyWritesNoLine) {
    WideString key;
    TestDouble::SetString("updateStorageKey", "value", u"renewed");
    EXPECT_EQ(m_bridge->updateStorageKey(key), 0u);
    EXPECT_EQ(key, u"renewed");
    EXPECT_TRUE(NewLines().empty());
}

TEST_F(AccountTest, UpdateStorageKeyMapsTheJavaErrorAndStillGivesTheKey) {
    WideString key = u"before";
    TestDouble::ReturnErrorOrdinal("updateStorageKey", 5);
    TestDouble::SetString("updateStorageKey", "value", u"half-renewed");
    EXPECT_EQ(m_bridge->updateStorageKey(key), 5u);
    EXPECT_EQ(key, u"half-renewed");
}

TEST_F(AccountTest, UpdateStorageKeyWithANullErrorValueGives47) {
    WideString key = u"before";
    TestDouble::ReturnNullErrorValue("updateStorageKey");
    EXPECT_EQ(m_bridge->updateStorageKey(key), 47u);
}

TEST_F(AccountTest, UpdateStorageKeyWithANullResultGives0AndLeavesTheKey) {
    WideString key = u"before";
    TestDouble::ReturnNull("updateStorageKey");
    EXPECT_EQ(m_bridge->updateStorageKey(key), 0u);
    EXPECT_EQ(key, u"before");
}

TEST_F(AccountTest, UpdateStorageKeyWithTheMethodMissingWritesItsLineAndGives0) {
    WideString key = u"before";
    Interposer().FailGetMethodID("updateStorageKey");
    EXPECT_EQ(m_bridge->updateStorageKey(key), 0u);
    EXPECT_EQ(key, u"before");
    EXPECT_EQ(TestDouble::CallCount("updateStorageKey"), 0u);
    ExpectLookupFailureLines("updateStorageKey", kUpdateStorageKeySignature,
                             {u"UPDATE_STORAGE_KEY_NAME::method is not found..."});
}

TEST_F(AccountTest, UpdateStorageKeyWithTheMethodMissingAndAnExceptionPendingGives40) {
    WideString key = u"before";
    FailLookupLeavingTheExceptionPending("updateStorageKey");
    EXPECT_EQ(m_bridge->updateStorageKey(key), 40u);
    EXPECT_EQ(key, u"before");
    ExpectPendingExceptionLines("updateStorageKey", kUpdateStorageKeySignature,
                                {u"UPDATE_STORAGE_KEY_NAME::method is not found..."});
}

TEST_F(AccountTest, UpdateStorageKeyExceptionWritesTheCreateObjectLineAndGives40) {
    WideString key = u"before";
    Interposer().ThrowCppExceptionIn("CallObjectMethodA");
    EXPECT_EQ(m_bridge->updateStorageKey(key), 40u);
    EXPECT_EQ(key, u"before");
    EXPECT_EQ(NewLines(), std::vector<WideString>{kCreateObjectException});
}

// ---------------------------------------------------------------- getServerNameList

constexpr const char* kServerNameListSignature = "()Lcom/qv/plugin/model/CArrayOfString;";

TEST_F(AccountTest, GetServerNameListAppendsTheNamesInJavaOrder) {
    StringList names{u"already-there"};
    EXPECT_EQ(m_bridge->getServerNameList(&names), 0u);
    EXPECT_EQ(names, (StringList{u"already-there", u"server-1", u"server-2"}));
    ASSERT_EQ(TestDouble::CallCount("getServerNameList"), 1u);
    EXPECT_EQ(TestDouble::DescribeCall("getServerNameList", 0), "getServerNameList()");
    EXPECT_TRUE(NewLines().empty());
}

TEST_F(AccountTest, GetServerNameListSkipsNullNames) {
    StringList names;
    TestDouble::SetStringArray("getServerNameList", "arrayOfString", {std::nullopt, u"server-9", std::nullopt});
    EXPECT_EQ(m_bridge->getServerNameList(&names), 0u);
    EXPECT_EQ(names, StringList{u"server-9"});
}

TEST_F(AccountTest, GetServerNameListMapsTheJavaErrorAndStillAppendsTheNames) {
    StringList names;
    TestDouble::ReturnErrorOrdinal("getServerNameList", 8);
    EXPECT_EQ(m_bridge->getServerNameList(&names), 9u);
    EXPECT_EQ(names, (StringList{u"server-1", u"server-2"}));
}

TEST_F(AccountTest, GetServerNameListWithANullErrorValueGives47) {
    StringList names;
    TestDouble::ReturnNullErrorValue("getServerNameList");
    EXPECT_EQ(m_bridge->getServerNameList(&names), 47u);
}

TEST_F(AccountTest, GetServerNameListWithANullResultGives0AndLeavesTheList) {
    StringList names{u"already-there"};
    TestDouble::ReturnNull("getServerNameList");
    EXPECT_EQ(m_bridge->getServerNameList(&names), 0u);
    EXPECT_EQ(names, StringList{u"already-there"});
}

TEST_F(AccountTest, GetServerNameListWithTheMethodMissingWritesItsLineAndGives0) {
    StringList names{u"already-there"};
    Interposer().FailGetMethodID("getServerNameList");
    EXPECT_EQ(m_bridge->getServerNameList(&names), 0u);
    EXPECT_EQ(names, StringList{u"already-there"});
    EXPECT_EQ(TestDouble::CallCount("getServerNameList"), 0u);
    ExpectLookupFailureLines("getServerNameList", kServerNameListSignature,
                             {u"GET_MACHINE_NAME_LIST_NAME::method is not found..."});
}

TEST_F(AccountTest, GetServerNameListWithTheMethodMissingAndAnExceptionPendingGives40) {
    StringList names;
    FailLookupLeavingTheExceptionPending("getServerNameList");
    EXPECT_EQ(m_bridge->getServerNameList(&names), 40u);
    EXPECT_TRUE(names.empty());
    ExpectPendingExceptionLines("getServerNameList", kServerNameListSignature,
                                {u"GET_MACHINE_NAME_LIST_NAME::method is not found..."});
}

TEST_F(AccountTest, GetServerNameListExceptionWritesTheCreateObjectLineAndGives40) {
    StringList names;
    Interposer().ThrowCppExceptionIn("GetObjectClass");
    EXPECT_EQ(m_bridge->getServerNameList(&names), 40u);
    EXPECT_EQ(NewLines(), std::vector<WideString>{kCreateObjectException});
}

// ---------------------------------------------------------------- GetObjectActualSize

constexpr const char* kObjectActualSizeSignature = "(JJ)J";

TEST_F(AccountTest, GetObjectActualSizePassesBothValuesInOrderAndGivesTheLong) {
    int64_t actual = -1;
    EXPECT_EQ(m_bridge->GetObjectActualSize(100, 64, &actual), 0u);
    EXPECT_EQ(actual, 128);
    ASSERT_EQ(TestDouble::CallCount("GetObjectActualSize"), 1u);
    EXPECT_EQ(TestDouble::DescribeCall("GetObjectActualSize", 0), "GetObjectActualSize(100, 64)");
    EXPECT_EQ(Interposer().CountOf("CallLongMethodA"), 1u);
    EXPECT_EQ(Interposer().CountOf("CallObjectMethodA"), 0u);
    EXPECT_TRUE(NewLines().empty());
}

TEST_F(AccountTest, GetObjectActualSizeReturns0WhateverValueJavaGives) {
    for (const int64_t value : {int64_t{0}, int64_t{-5}, std::numeric_limits<int64_t>::max(),
                                std::numeric_limits<int64_t>::min()}) {
        int64_t actual = 1;
        TestDouble::ReturnLong("GetObjectActualSize", value);
        EXPECT_EQ(m_bridge->GetObjectActualSize(10, 20, &actual), 0u);
        EXPECT_EQ(actual, value);
    }
}

TEST_F(AccountTest, GetObjectActualSizePassesTheValuesBitForBitAsJavaLongs) {
    int64_t actual = 0;
    EXPECT_EQ(m_bridge->GetObjectActualSize(std::numeric_limits<uint64_t>::max(), uint64_t{1} << 63, &actual), 0u);
    EXPECT_EQ(TestDouble::DescribeCall("GetObjectActualSize", 0),
              "GetObjectActualSize(-1, " + std::to_string(std::numeric_limits<int64_t>::min()) + ")");
    EXPECT_EQ(actual, -1);
}

TEST_F(AccountTest, GetObjectActualSizeWithJavaThrowingGives40AndLeavesTheValue) {
    int64_t actual = 55;
    TestDouble::Throw("GetObjectActualSize", "size service down");
    EXPECT_EQ(m_bridge->GetObjectActualSize(100, 64, &actual), 40u);
    EXPECT_EQ(actual, 55);
    EXPECT_EQ(NewLines(), std::vector<WideString>{kCreateObjectException});
}

TEST_F(AccountTest, GetObjectActualSizeWithTheMethodMissingWritesItsLineAndGives0) {
    int64_t actual = 55;
    Interposer().FailGetMethodID("GetObjectActualSize");
    EXPECT_EQ(m_bridge->GetObjectActualSize(100, 64, &actual), 0u);
    EXPECT_EQ(actual, 55);
    EXPECT_EQ(TestDouble::CallCount("GetObjectActualSize"), 0u);
    ExpectLookupFailureLines("GetObjectActualSize", kObjectActualSizeSignature,
                             {u"GET_OBJECT_ACTUAL_SIZE_NAME::method is not found..."});
}

TEST_F(AccountTest, GetObjectActualSizeWithTheMethodMissingAndAnExceptionPendingGives40) {
    int64_t actual = 55;
    FailLookupLeavingTheExceptionPending("GetObjectActualSize");
    EXPECT_EQ(m_bridge->GetObjectActualSize(100, 64, &actual), 40u);
    EXPECT_EQ(actual, 55);
    ExpectPendingExceptionLines("GetObjectActualSize", kObjectActualSizeSignature,
                                {u"GET_OBJECT_ACTUAL_SIZE_NAME::method is not found..."});
}

TEST_F(AccountTest, GetObjectActualSizeExceptionWritesTheCreateObjectLineAndGives40) {
    int64_t actual = 55;
    Interposer().ThrowCppExceptionIn("CallLongMethodA");
    EXPECT_EQ(m_bridge->GetObjectActualSize(100, 64, &actual), 40u);
    EXPECT_EQ(actual, 55);
    EXPECT_EQ(NewLines(), std::vector<WideString>{kCreateObjectException});
}

TEST_F(AccountTest, GetObjectActualSizeOnAFreshThreadAttachesAndDetachesIt) {
    int64_t actual = 0;
    uint32_t code = 99;
    std::thread([&] { code = m_bridge->GetObjectActualSize(100, 64, &actual); }).join();
    EXPECT_EQ(code, 0u);
    EXPECT_EQ(actual, 128);
    EXPECT_EQ(Interposer().Attaches(), 1);
    EXPECT_EQ(Interposer().Detaches(), 1);
}

// ---------------------------------------------------------------- CanBackup

constexpr const char* kCanBackupSignature = "()Lcom/qv/plugin/model/CInt;";

TEST_F(AccountTest, CanBackupGivesTheIntegerJavaAnswers) {
    int32_t value = -1;
    EXPECT_EQ(m_bridge->CanBackup(&value), 0u);
    EXPECT_EQ(value, 1);
    ASSERT_EQ(TestDouble::CallCount("canBackup"), 1u);
    EXPECT_EQ(TestDouble::DescribeCall("canBackup", 0), "canBackup()");
    EXPECT_TRUE(NewLines().empty());
}

TEST_F(AccountTest, CanBackupPassesOnWhateverIntegerJavaGives) {
    for (const int32_t answer : {0, -7, 123456, std::numeric_limits<int32_t>::min()}) {
        int32_t value = 99;
        TestDouble::SetInt("canBackup", "value", answer);
        EXPECT_EQ(m_bridge->CanBackup(&value), 0u);
        EXPECT_EQ(value, answer);
    }
}

TEST_F(AccountTest, CanBackupMapsTheJavaErrorAndStillGivesTheValue) {
    int32_t value = 99;
    TestDouble::ReturnErrorOrdinal("canBackup", 10);
    TestDouble::SetInt("canBackup", "value", 3);
    EXPECT_EQ(m_bridge->CanBackup(&value), 11u);
    EXPECT_EQ(value, 3);
}

TEST_F(AccountTest, CanBackupWithANullErrorValueStillGivesTheValueAnd0) {
    int32_t value = 99;
    TestDouble::ReturnNullErrorValue("canBackup");
    TestDouble::SetInt("canBackup", "value", 4);
    EXPECT_EQ(m_bridge->CanBackup(&value), 0u);
    EXPECT_EQ(value, 4);
}

TEST_F(AccountTest, CanBackupWithANullResultGives0AndAValueOf0) {
    int32_t value = 99;
    TestDouble::ReturnNull("canBackup");
    EXPECT_EQ(m_bridge->CanBackup(&value), 0u);
    EXPECT_EQ(value, 0);
}

TEST_F(AccountTest, CanBackupWithTheMethodMissingWritesItsLineAndGives0) {
    int32_t value = 99;
    Interposer().FailGetMethodID("canBackup");
    EXPECT_EQ(m_bridge->CanBackup(&value), 0u);
    EXPECT_EQ(value, 99);
    EXPECT_EQ(TestDouble::CallCount("canBackup"), 0u);
    ExpectLookupFailureLines("canBackup", kCanBackupSignature, {u"CANBACKUP_NAME::method is not found..."});
}

TEST_F(AccountTest, CanBackupWithTheMethodMissingAndAnExceptionPendingGives40) {
    int32_t value = 99;
    FailLookupLeavingTheExceptionPending("canBackup");
    EXPECT_EQ(m_bridge->CanBackup(&value), 40u);
    EXPECT_EQ(value, 99);
    ExpectPendingExceptionLines("canBackup", kCanBackupSignature, {u"CANBACKUP_NAME::method is not found..."});
}

TEST_F(AccountTest, CanBackupExceptionWritesTheCreateObjectLineAndGives40) {
    int32_t value = 99;
    Interposer().ThrowCppExceptionIn("CallObjectMethodA");
    EXPECT_EQ(m_bridge->CanBackup(&value), 40u);
    EXPECT_EQ(value, 99);
    EXPECT_EQ(NewLines(), std::vector<WideString>{kCreateObjectException});
}

// ---------------------------------------------------------------- the whole family

TEST_F(AccountTest, NullOutputPointersAreNotWrittenThroughAndJavaIsStillCalled) {
    EXPECT_EQ(m_bridge->GetAccountInfo(nullptr), 0u);
    EXPECT_EQ(m_bridge->GetAllObjectsSize(nullptr), 0u);
    EXPECT_EQ(m_bridge->IsSameAccount(u"a", u"a", nullptr), 0u);
    EXPECT_EQ(m_bridge->getServerNameList(nullptr), 0u);
    EXPECT_EQ(m_bridge->GetObjectActualSize(1, 2, nullptr), 0u);
    EXPECT_EQ(m_bridge->CanBackup(nullptr), 0u);
    for (const char* method : {"GetAccountInfo", "GetAllObjectsSize", "IsSameAccount", "getServerNameList",
                               "GetObjectActualSize", "canBackup"}) {
        EXPECT_EQ(TestDouble::CallCount(method), 1u) << method;
    }
}

TEST_F(AccountTest, EveryOperationGives40WithoutALineOnceThePluginObjectIsGone) {
    ASSERT_EQ(m_bridge->DeInit(), 0u);
    TestDouble::Reset();
    MarkLines();
    AccountInfoRecord info;
    int64_t size = 5;
    WideString text = u"before";
    uint32_t flag = 7;
    StringList names;
    int32_t value = 9;
    EXPECT_EQ(m_bridge->GetAccountInfo(&info), 40u);
    EXPECT_EQ(m_bridge->GetAllObjectsSize(&size), 40u);
    EXPECT_EQ(m_bridge->GetUniqueAccountName(text), 40u);
    EXPECT_EQ(m_bridge->GetOwnerName(text), 40u);
    EXPECT_EQ(m_bridge->IsSameAccount(u"a", u"b", &flag), 40u);
    EXPECT_EQ(m_bridge->GetQVCloudStorageKey(u"a", u"b", text), 40u);
    EXPECT_EQ(m_bridge->updateStorageKey(text), 40u);
    EXPECT_EQ(m_bridge->getServerNameList(&names), 40u);
    EXPECT_EQ(m_bridge->GetObjectActualSize(1, 2, &size), 40u);
    EXPECT_EQ(m_bridge->CanBackup(&value), 40u);
    EXPECT_EQ(size, 5);
    EXPECT_EQ(text, u"before");
    EXPECT_EQ(flag, 7u);
    EXPECT_EQ(value, 9);
    EXPECT_TRUE(names.empty());
    EXPECT_TRUE(TestDouble::Calls().empty());
    EXPECT_TRUE(NewLines().empty());
}

TEST_F(AccountTest, RepeatedCallsLeaveNoLocalReferenceBehind) {
    AccountInfoRecord info;
    int64_t size = 0;
    WideString text;
    uint32_t flag = 0;
    StringList names;
    int32_t value = 0;
    for (int i = 0; i < 3; ++i) {
        m_bridge->GetAccountInfo(&info);
        m_bridge->GetAllObjectsSize(&size);
        m_bridge->GetUniqueAccountName(text);
        m_bridge->GetOwnerName(text);
        m_bridge->IsSameAccount(u"a", u"b", &flag);
        m_bridge->GetQVCloudStorageKey(u"a", u"b", text);
        m_bridge->updateStorageKey(text);
        m_bridge->getServerNameList(&names);
        m_bridge->GetObjectActualSize(1, 2, &size);
        m_bridge->CanBackup(&value);
        EXPECT_EQ(Interposer().LocalRefsLeft(), 0);
    }
    EXPECT_GT(Interposer().LocalRefsMade(), 0);
}
