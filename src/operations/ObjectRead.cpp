// ---- object read
//
// The operations that read object data into a buffer that the host owns:
// ReadObject (by name, data only), ReadObjectByName and ReadObjectByHandle
// (data plus the object's metadata, for an optional list of property names).
//
// Each makes one Java byte[] of the low 32 bits of the requested length,
// hands it to Java to fill and copies it back into the host's buffer with one
// GetByteArrayRegion. The copy is bounded: it takes min(reported count,
// array length) bytes, never a negative count, so a Java library that reports
// more than the array holds cannot make the bridge write past the host's
// buffer; the length output still receives the reported count (see
// docs/deviations.md). A missing array or a failed copy gives 14.
//
// The two Java long arguments come in opposite orders: ReadObject passes the
// length before the offset, the two metadata-reading forms the offset before
// the length, as the Java methods are declared.
#include <algorithm>
#include <cstdint>
#include <optional>

#include "bridge/JNIBridge.h"
#include "marshal/ResultConversions.h"

namespace {

constexpr const char16_t* kCopyFailureLine = u"ReadObject::Unable to create memory for copying the data...";

// ReadObject: a missing method counts as success (buffer and length untouched).
constexpr OperationTraits kReadObject =
    Operation("ReadObject", "(Ljava/lang/String;[BJJ)Lcom/qv/AzureLibrary/CReadObjectFnValue;",
              MissingMethodRule::ReturnSuccess, u"ReadObject::Exception is occured...")
        .CalledLine(u"ReadObject::is called...")
        .EndedLine(u"ReadObject::is ended...");

// ReadObjectByName: a null class of the plug-in object gives 40 without a
// line; a missing method goes on as if Java had returned null (40).
constexpr OperationTraits kReadObjectByName =
    Operation("ReadObjectByName",
              "(Ljava/lang/String;[BJJ[Ljava/lang/String;)Lcom/qv/AzureLibrary/CRObjectByNameFnValue;",
              MissingMethodRule::TakeNullResult, u"ReadObjectByName::Exception is occured...")
        .FailingWithoutClass();

constexpr OperationTraits kReadObjectByHandle =
    Operation("ReadObjectByHandle",
              "(Ljava/lang/String;[BJJ[Ljava/lang/String;)Lcom/qv/AzureLibrary/CRObjectByNameFnValue;",
              MissingMethodRule::TakeNullResult, u"ReadObjectByHandle::Exception is occured...");

// The requested length (0 without a length), and the size of the Java array:
// its low 32 bits.
uint64_t Requested(const uint64_t* length) { return length ? *length : 0; }
uint32_t ArraySize(uint64_t requested) { return static_cast<uint32_t>(requested); }

// Copies Java's bytes into the host's buffer: min(reported, array length)
// bytes (a negative count, read as Java's signed long, copies nothing) in
// one GetByteArrayRegion. False, with the copy-failure line written, for a
// null array or a failed copy. A null buffer receives nothing.
bool CopyToHost(JNIEnv* env, JNIWrapperLog* log, jbyteArray array, uint64_t reported, uint8_t* buffer) {
    if (!array) {
        LogError(log, kCopyFailureLine);
        return false;
    }
    const int64_t count = static_cast<int64_t>(reported);
    const jsize size = env->GetArrayLength(array);
    const jsize copied = count <= 0 ? 0 : static_cast<jsize>(std::min<int64_t>(count, size));
    if (copied == 0 || !buffer) return true;
    env->GetByteArrayRegion(array, 0, copied, reinterpret_cast<jbyte*>(buffer));
    if (ClearPendingException(env)) {
        LogError(log, kCopyFailureLine);
        return false;
    }
    return true;
}

// Both metadata-reading forms: they differ only in their Java method and
// its class test.
uint32_t ReadWithMetaData(const BridgeContext& bridge, const OperationTraits& op, const WideString& object,
                          uint8_t* buffer, uint64_t offset, uint64_t* length, const WideString* names,
                          uint32_t nameCount, ObjectMetaData* metaData) {
    const uint64_t requested = Requested(length);
    jbyteArray array = nullptr;
    return RunCallFrame(
        bridge, op,
        [&](JavaArguments& arguments) -> std::optional<uint32_t> {
            arguments.AddString(object);
            array = static_cast<jbyteArray>(
                arguments.AddObject(CreateJByteArray(arguments.Env(), ArraySize(requested))));
            arguments.AddLong(static_cast<int64_t>(offset));
            arguments.AddLong(static_cast<int64_t>(requested));
            // No names, or a count below 1 (as a Java int), give a null array.
            if (names) {
                arguments.AddObject(CreateJStringArray(arguments.Env(), static_cast<int32_t>(nameCount), names));
            } else {
                arguments.AddNull();
            }
            if (!array) return kResultBridgeFailure;
            return std::nullopt;
        },
        [&](JNIEnv* env, jobject result) {
            if (!result) return kResultBridgeFailure;
            uint32_t ordinal = 0;
            uint64_t reported = requested;
            ConvertCRObjectByNameFnValue(env, result, &ordinal, &reported, metaData);
            if (length) *length = reported;
            const uint32_t code = MapErrorOrdinal(static_cast<int32_t>(ordinal));
            // The data is copied whatever Java reported as its error.
            if (!CopyToHost(env, bridge.log, array, reported, buffer)) return kResultCopyFailure;
            return code;
        });
}

}  // namespace

uint32_t JNIBridge::ReadObject(const WideString& name, uint8_t* buffer, uint64_t offset, uint64_t* length) {
    JNIWrapperLog* const log = m_pLog;
    const uint64_t requested = Requested(length);
    jbyteArray array = nullptr;
    return RunCallFrame(
        Context(), kReadObject, name,
        [&](JavaArguments& arguments) {
            arguments.AddString(name);
            // A null array (no room for references, no array) is passed to Java as it is.
            array = static_cast<jbyteArray>(
                arguments.AddObject(CreateJByteArray(arguments.Env(), ArraySize(requested))));
            arguments.AddLong(static_cast<int64_t>(requested));
            arguments.AddLong(static_cast<int64_t>(offset));
        },
        [&](JNIEnv* env, jobject result) {
            // A null result leaves the ordinal at 0 and the length as requested.
            uint32_t ordinal = 0;
            uint64_t reported = requested;
            ConvertCReadObjectFnValue(env, result, &ordinal, &reported);
            if (length) *length = reported;
            LogError(log, u"ReadObject::buffer copy started..." + name);
            if (!CopyToHost(env, log, array, reported, buffer)) return kResultCopyFailure;
            LogError(log, u"ReadObject::buffer copy ended..." + name);
            return MapErrorOrdinal(static_cast<int32_t>(ordinal));
        });
}

uint32_t JNIBridge::ReadObjectByName(const WideString& name, uint8_t* buffer, uint64_t offset, uint64_t* length,
                                     const WideString* names, uint32_t nameCount, ObjectMetaData* metaData) {
    return ReadWithMetaData(Context(), kReadObjectByName, name, buffer, offset, length, names, nameCount, metaData);
}

uint32_t JNIBridge::ReadObjectByHandle(const WideString& handle, uint8_t* buffer, uint64_t offset, uint64_t* length,
                                       const WideString* names, uint32_t nameCount, ObjectMetaData* metaData) {
    return ReadWithMetaData(Context(), kReadObjectByHandle, handle, buffer, offset, length, names, nameCount, metaData);
}
