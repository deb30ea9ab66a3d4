// Containers and regions: listing the account's containers, its archive set
// and its regions, testing whether a container exists, naming and deleting
// the container the Java side works on, and a container's region. Each
// operation is one call of the Java plug-in object through the call frame
// (CallFrame.h); what differs between them is declared here. Some lines
// carry another operation's name ("GetContainersList", "CreateObject"):
// hosts' log readers know them so.
#include <utility>

#include "bridge/JNIBridge.h"
#include "marshal/ResultConversions.h"

namespace {

// GetListContainers and GetArchiveSet share their result class and lines; a
// missing method counts as success.
constexpr OperationTraits kGetListContainers =
    Operation("GetListContainers", "()Lcom/qv/AzureLibrary/QVListContainers;", MissingMethodRule::ReturnSuccess,
              u"GetContainersList::Exception is occured...");
constexpr OperationTraits kGetArchiveSet =
    Operation("GetArchiveSet", "()Lcom/qv/AzureLibrary/QVListContainers;", MissingMethodRule::ReturnSuccess,
              u"GetContainersList::Exception is occured...");

// GetRegions: a missing method writes its own line first, then counts as success.
constexpr OperationTraits kGetRegions =
    Operation("GetRegions", "()Lcom/qv/AzureLibrary/QVListRegions;", MissingMethodRule::ReturnSuccess,
              u"CreateObject::Exception is occured...")
        .MissingMethodLine(u"GET_LIST_REGIONS_NAME::method is not found...");

// The existence tests check the plug-in object's class; a missing method
// with an exception pending writes the operation's line, one without reads
// as a null result.
constexpr OperationTraits kIsValidContainer =
    Operation("IsValidContainer", "(Ljava/lang/String;)Lcom/qv/AzureLibrary/CIsObjectExistFnValue;",
              MissingMethodRule::TakeNullResult, u"IsValidContainer::Exception is occured...")
        .FailingWithoutClass(kMissingPluginClassLine)
        .PendingExceptionLine(u"IS_VALIDCONTAINER_NAME is failed...");
// Java declares this result in the AmazonLibrary package; that class extends
// the AzureLibrary one, whose converter reads it.
constexpr OperationTraits kIsContainerExists =
    Operation("IsContainerExists", "(Ljava/lang/String;)Lcom/qv/AmazonLibrary/CIsObjectExistFnValue;",
              MissingMethodRule::TakeNullResult, u"IsContainerExists::Exception is occured...")
        .FailingWithoutClass(kMissingPluginClassLine)
        .PendingExceptionLine(u"IS_ISCONTAINEREXISTS_NAME is failed...");

// DeleteContainer and GetContainerName: a missing method reads as a null
// result; error lines are written around the call.
constexpr OperationTraits kDeleteContainer =
    Operation("DeleteContainer", "()Lcom/qv/QVCloudPluginInterface/CErrorValue;", MissingMethodRule::TakeNullResult,
              u"DeleteContainerFromQVCloud::Exception is occured...")
        .CalledLine(u"DeleteContainerFromQVCloud::Java called ...")
        .EndedLine(u"DeleteContainerFromQVCloud::Java ended ...");
constexpr OperationTraits kGetContainerName =
    Operation("GetContainerName", "()Lcom/qv/AzureLibrary/CUniqueAccountValue;", MissingMethodRule::TakeNullResult,
              u"GetContainerName::Exception is occured...")
        .CalledLine(u"GetContainerName::Java called ...")
        .EndedLine(u"GetContainerName::Java ended ...");

// GetBucketRegion: a missing method counts as success.
constexpr OperationTraits kGetBucketRegion =
    Operation("GetBucketRegion", "(Ljava/lang/String;)Lcom/qv/AzureLibrary/CCreateFnValue;",
              MissingMethodRule::ReturnSuccess, u"CreateObject::Exception is occured...");

// The conversion of both container lists.
uint32_t ContainerNames(JNIEnv* env, jobject result, StringList* containers) {
    uint32_t ordinal = 0;
    ConvertQVListContainers(env, result, &ordinal, containers);
    return MapErrorOrdinal(static_cast<int32_t>(ordinal));
}

// The conversion of both existence tests: the flag starts at 0 and is
// handed to the host once the conversion ran.
uint32_t ExistenceFlag(JNIEnv* env, jobject result, uint32_t* exists) {
    uint32_t ordinal = 0;
    uint32_t flag = 0;
    ConvertCIsObjectExistFnValue(env, result, &ordinal, &flag);
    if (exists) *exists = flag;
    return MapErrorOrdinal(static_cast<int32_t>(ordinal));
}

}  // namespace

uint32_t JNIBridge::GetListContainers(StringList* containers) {
    return RunCallFrame(
        Context(), kGetListContainers, [](JavaArguments&) {},
        [containers](JNIEnv* env, jobject result) { return ContainerNames(env, result, containers); });
}

uint32_t JNIBridge::GetArchiveSet(StringList* containers) {
    return RunCallFrame(
        Context(), kGetArchiveSet, [](JavaArguments&) {},
        [containers](JNIEnv* env, jobject result) { return ContainerNames(env, result, containers); });
}

uint32_t JNIBridge::GetRegions(StringList* regions) {
    return RunCallFrame(
        Context(), kGetRegions, [](JavaArguments&) {},
        [regions](JNIEnv* env, jobject result) {
            uint32_t ordinal = 0;
            ConvertQVListRegions(env, result, &ordinal, regions);
            return MapErrorOrdinal(static_cast<int32_t>(ordinal));
        });
}

uint32_t JNIBridge::IsValidContainer(const WideString& container, uint32_t* valid) {
    return RunCallFrame(
        Context(), kIsValidContainer, [&](JavaArguments& args) { args.AddString(container); },
        [valid](JNIEnv* env, jobject result) { return ExistenceFlag(env, result, valid); });
}

uint32_t JNIBridge::IsContainerExists(const WideString& container, uint32_t* exists) {
    return RunCallFrame(
        Context(), kIsContainerExists, [&](JavaArguments& args) { args.AddString(container); },
        [exists](JNIEnv* env, jobject result) { return ExistenceFlag(env, result, exists); });
}

uint32_t JNIBridge::DeleteContainer() {
    JNIWrapperLog* const log = m_pLog;
    return RunCallFrame(
        Context(), kDeleteContainer, [](JavaArguments&) {},
        [log](JNIEnv* env, jobject result) { return GetErrorId(env, log, result); });
}

uint32_t JNIBridge::GetContainerName(WideString& name) {
    return RunCallFrame(
        Context(), kGetContainerName, [](JavaArguments&) {},
        [&name](JNIEnv* env, jobject result) {
            // Without a result the name is left as it was.
            if (!result) return kResultBridgeFailure;
            uint32_t ordinal = 0;
            ConvertCUniqueAccountValue(env, result, &ordinal, &name);
            return MapErrorOrdinal(static_cast<int32_t>(ordinal));
        });
}

uint32_t JNIBridge::GetBucketRegion(const WideString& container, WideString& region) {
    JNIWrapperLog* const log = m_pLog;
    return RunCallFrame(
        Context(), kGetBucketRegion,
        [&](JavaArguments& args) {
            args.AddString(container);
            LogDetail(log, container);
        },
        [&region, log](JNIEnv* env, jobject result) {
            // The region is read into a fresh string that always replaces the
            // caller's, also when the result carries no text.
            WideString text;
            uint32_t ordinal = 0;
            ConvertCCreateFnValue(env, result, &ordinal, &text);
            region = std::move(text);
            LogDetail(log, region);
            LogDetail(log, u"CreateObject::is ended...");
            return MapErrorOrdinal(static_cast<int32_t>(ordinal));
        });
}
