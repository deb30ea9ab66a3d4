// The account and storage-key operations of the bridge against the Java test
// double: GetAccountInfo, GetAllObjectsSize, GetUniqueAccountName,
// GetOwnerName, IsSameAccount, GetQVCloudStorageKey, updateStorageKey,
// getServerNameList, GetObjectActualSize and CanBackup.
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "bridge/BridgeLog.h"
#include "OperationPaths.h"
#include "bridge/JNIBridge.h"
#include "support/BridgeFixture.h"

using jnitest::BridgeFixture;
using jnitest::OperationPaths;
using jnitest::OperationPathsTest;
using jnitest::PathOutcome;
using jnitest::Shown;
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

TEST_F(AccountTest, GetObjectActualSizeWithoutThePluginObjectsClassWritesItsLineAndGives40) {
    // With or without an exception pending (which is cleared without a trace).
    for (const bool withException : {false, true}) {
        MarkLines();
        int64_t actual = 55;
        if (withException) {
            Interposer().FailGetObjectClassWithException();
        } else {
            Interposer().FailGetObjectClass();
        }
        EXPECT_EQ(m_bridge->GetObjectActualSize(100, 64, &actual), 40u);
        EXPECT_EQ(actual, 55);
        EXPECT_EQ(NewLines(), std::vector<WideString>{u"m_ObjQVAzurePlugInLibrary is failed..."});
        EXPECT_EQ(Interposer().CountOf("GetMethodID", "GetObjectActualSize"), 0u);
    }
    EXPECT_EQ(TestDouble::CallCount("GetObjectActualSize"), 0u);
}

TEST_F(AccountTest, GetObjectActualSizeWithoutAPluginObjectGives40WithoutALine) {
    ASSERT_EQ(m_bridge->DeInit(), 0u);
    TestDouble::Reset();
    MarkLines();
    int64_t actual = 55;
    EXPECT_EQ(m_bridge->GetObjectActualSize(1, 2, &actual), 40u);
    EXPECT_EQ(actual, 55);
    EXPECT_TRUE(TestDouble::Calls().empty());
    EXPECT_TRUE(NewLines().empty());
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

// ---------------------------------------------------------------- the paths every operation shares

namespace {

// GetObjectActualSize answers a Java long, not a value object: it has no null result and its own tests above.
std::vector<OperationPaths> AccountPaths() {
    const auto text = [](std::function<uint32_t(JNIBridge&, WideString&)> operation) {
        return [operation](JNIBridge& bridge) {
            WideString value = u"kept";
            const uint32_t code = operation(bridge, value);
            return PathOutcome{code, Shown(value)};
        };
    };
    const WideString kept = u"kept";
    const char16_t* const missingClassLine = u"m_ObjQVAzurePlugInLibrary is failed...";
    return {
        OperationPaths(
            "GetAccountInfo", "GetAccountInfo", kAccountInfoSignature,
            [](JNIBridge& bridge) {
                AccountInfoRecord info;
                info.displayName = u"kept";
                info.usedSizeInByteTotal = 5;
                const uint32_t code = bridge.GetAccountInfo(&info);
                return PathOutcome{code, Shown(info.displayName) + " " + Shown("used", info.usedSizeInByteTotal)};
            },
            Shown(kept) + " " + Shown("used", 5), kCreateObjectException)
            .WithoutClass(MissingClassRule::Fail, missingClassLine)
            .OnMissingMethod(MissingMethodRule::ReturnSuccess, u"GET_ACCOUNT_INFO_NAME::method is not found...")
            .OnNullResult(0, {}),
        OperationPaths(
            "GetAllObjectsSize", "GetAllObjectsSize", kAllObjectsSizeSignature,
            [](JNIBridge& bridge) {
                int64_t size = 5;
                const uint32_t code = bridge.GetAllObjectsSize(&size);
                return PathOutcome{code, Shown("size", size)};
            },
            Shown("size", 5), u"GetAllObjectsSize::Exception is occured...")
            .OnMissingMethod(MissingMethodRule::TakeNullResult)
            .OnNullResult(40, {}),
        // Both account names give 40 without a line when the class is missing, and write
        // GetUniqueAccountName's exception line.
        OperationPaths("GetUniqueAccountName", "GetUniqueAccountName", kUniqueAccountSignature,
                       text([](JNIBridge& bridge, WideString& name) { return bridge.GetUniqueAccountName(name); }),
                       Shown(kept), kUniqueAccountException)
            .WithoutClass(MissingClassRule::Fail)
            .OnMissingMethod(MissingMethodRule::TakeNullResult)
            .OnNullResult(40, {}),
        OperationPaths("GetOwnerName", "GetOwnerName", kUniqueAccountSignature,
                       text([](JNIBridge& bridge, WideString& name) { return bridge.GetOwnerName(name); }),
                       Shown(kept), kUniqueAccountException)
            .WithoutClass(MissingClassRule::Fail)
            .OnMissingMethod(MissingMethodRule::TakeNullResult)
            .OnNullResult(40, {}),
        // The flag starts at 0: a null result answers "not the same".
        OperationPaths(
            "IsSameAccount", "IsSameAccount", kIsSameAccountSignature,
            [](JNIBridge& bridge) {
                uint32_t flag = 7;
                const uint32_t code = bridge.IsSameAccount(u"a", u"b", &flag);
                return PathOutcome{code, Shown("flag", flag)};
            },
            Shown("flag", 7), u"IsSameAccount::Exception is occured...")
            .OnMissingMethod(MissingMethodRule::TakeNullResult)
            .OnNullResult(0, {}, Shown("flag", 0)),
        // The lines around the call name the first text only; a null result empties the key.
        OperationPaths("GetQVCloudStorageKey", "getStorageKey", kStorageKeySignature,
                       text([](JNIBridge& bridge, WideString& key) {
                           return bridge.GetQVCloudStorageKey(u"first", u"second", key);
                       }),
                       Shown(kept), u"GetQVCloudStorageKey::Exception is occured...")
            .OnMissingMethod(MissingMethodRule::TakeNullResult)
            .BeforeCall({u"GetQVCloudStorageKey::Java called ...first"})
            .OnNullResult(40,
                          {u"GetQVCloudStorageKey::Java called ...first", u"GetQVCloudStorageKey::Java ended ...first"},
                          Shown(WideString())),
        OperationPaths("updateStorageKey", "updateStorageKey", kUpdateStorageKeySignature,
                       text([](JNIBridge& bridge, WideString& key) { return bridge.updateStorageKey(key); }),
                       Shown(kept), kCreateObjectException)
            .OnMissingMethod(MissingMethodRule::ReturnSuccess, u"UPDATE_STORAGE_KEY_NAME::method is not found...")
            .OnNullResult(0, {}),
        OperationPaths(
            "getServerNameList", "getServerNameList", kServerNameListSignature,
            [](JNIBridge& bridge) {
                StringList names{u"kept"};
                const uint32_t code = bridge.getServerNameList(&names);
                return PathOutcome{code, Shown(names)};
            },
            Shown(StringList{u"kept"}), kCreateObjectException)
            .OnMissingMethod(MissingMethodRule::ReturnSuccess, u"GET_MACHINE_NAME_LIST_NAME::method is not found...")
            .OnNullResult(0, {}),
        // The value starts at 0: a null result answers 0.
        OperationPaths(
            "CanBackup", "canBackup", kCanBackupSignature,
            [](JNIBridge& bridge) {
                int32_t value = 9;
                const uint32_t code = bridge.CanBackup(&value);
                return PathOutcome{code, Shown("value", value)};
            },
            Shown("value", 9), kCreateObjectException)
            .OnMissingMethod(MissingMethodRule::ReturnSuccess, u"CANBACKUP_NAME::method is not found...")
            .OnNullResult(0, {}, Shown("value", 0)),
    };
}

}  // namespace

INSTANTIATE_TEST_SUITE_P(Account, OperationPathsTest, ::testing::ValuesIn(AccountPaths()), jnitest::OperationName);
