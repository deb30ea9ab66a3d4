// ---- object write and update
//
// The operations that carry object data from the host to the store: the
// plain WriteObject, WriteObject with metadata (with and without a flag
// word), WriteCachedObject, UpdateObject (with and without a flag word),
// UpdateCachedObjectByHandle and UpdateCachedObjectByName.
//
// Each copies the host's buffer once into a new Java byte[] of the low 32
// bits of the length (the Java method still receives the whole 64-bit
// length), adds the metadata as a CPluginMetaData[] where the method takes
// one (null for no map, empty for an empty map) and calls Java through the
// call frame (CallFrame.h). Every log line is its message followed directly
// by the first text argument; the flag text follows the name.
//
// Only the plain WriteObject ends with 0 when its method is missing. The
// others would once have called Java with the missing method regardless;
// they go on as if Java had returned null instead, with the same lines and
// codes (docs/deviations.md, "Operations whose missing method reads as a
// null result").
#include <cstdint>
#include <optional>
#include <utility>

#include "bridge/JNIBridge.h"
#include "marshal/MetaData.h"
#include "marshal/ResultConversions.h"

namespace {

constexpr const char* kPlainWriteSignature = "(Ljava/lang/String;[BJ)Lcom/qv/QVCloudPluginInterface/CErrorValue;";
constexpr const char* kWriteWithMetaDataSignature =
    "(Ljava/lang/String;[BJ[Lcom/qv/AzureLibrary/CPluginMetaData;)Lcom/qv/AzureLibrary/CWObjectHandleFnValue;";
constexpr const char* kWriteWithFlagSignature =
    "(Ljava/lang/String;[BJ[Lcom/qv/AzureLibrary/CPluginMetaData;J)Lcom/qv/AzureLibrary/CWObjectHandleFnValue;";
constexpr const char* kUpdateObjectSignature =
    "(Ljava/lang/String;Ljava/lang/String;[BJ[Lcom/qv/AzureLibrary/CPluginMetaData;)"
    "Lcom/qv/AzureLibrary/CCreateFnValue;";
constexpr const char* kUpdateObjectWithFlagSignature =
    "(Ljava/lang/String;Ljava/lang/String;[BJ[Lcom/qv/AzureLibrary/CPluginMetaData;J)"
    "Lcom/qv/AzureLibrary/CCreateFnValue;";
constexpr const char* kUpdateCachedByHandleSignature =
    "(Ljava/lang/String;Ljava/lang/String;[BJ[Lcom/qv/AzureLibrary/CPluginMetaData;)"
    "Lcom/qv/QVCloudPluginInterface/CErrorValue;";
constexpr const char* kUpdateCachedByNameSignature =
    "(Ljava/lang/String;[BJ[Lcom/qv/AzureLibrary/CPluginMetaData;)Lcom/qv/QVCloudPluginInterface/CErrorValue;";

constexpr const char16_t* kWriteObjectException = u"WriteObject::Exception is occured...";
constexpr const char16_t* kWriteCachedObjectException = u"WriteCachedObject::Exception is occured...";
constexpr const char16_t* kUpdateObjectException = u"UpdateObject::Exception is occured...";
constexpr const char16_t* kUpdateCachedByHandleException = u"UpdateCachedObjectByHandle::Exception is occured...";
constexpr const char16_t* kUpdateCachedByNameException = u"UpdateCachedObjectByName::Exception is occured...";

// The plain WriteObject: a missing method counts as success.
constexpr OperationTraits kPlainWrite =
    Operation("WriteObject", kPlainWriteSignature, MissingMethodRule::ReturnSuccess, kWriteObjectException)
        .CalledLine(u"WriteObject::Java called ...")
        .EndedLine(u"WriteObject::Java ended ...");

// WriteObject with metadata. The "called" line is written by the argument
// builder, since the flag form appends the flag text to it alone. A Java
// exception thrown by the method stays pending for the null-result path,
// which describes it after "WriteObject::is return null...".
constexpr OperationTraits kWriteWithMetaData =
    Operation("WriteObject", kWriteWithMetaDataSignature, MissingMethodRule::TakeNullResult, kWriteObjectException)
        .EndedLine(u"WriteObject::java ended is occured...")
        .DescribingJavaExceptions();
constexpr OperationTraits kWriteWithFlag =
    Operation("WriteObject", kWriteWithFlagSignature, MissingMethodRule::TakeNullResult, kWriteObjectException)
        .EndedLine(u"WriteObject::java ended is occured...")
        .DescribingJavaExceptions();

constexpr OperationTraits kWriteCached =
    Operation("WriteCachedObject", kWriteWithMetaDataSignature, MissingMethodRule::TakeNullResult,
              kWriteCachedObjectException)
        .CalledLine(u"WriteCachedObject::java is called...")
        .EndedLine(u"WriteCachedObject::java is ended...");

constexpr OperationTraits kUpdateObject =
    Operation("UpdateObject", kUpdateObjectSignature, MissingMethodRule::TakeNullResult, kUpdateObjectException);
constexpr OperationTraits kUpdateObjectWithFlag = Operation("UpdateObject", kUpdateObjectWithFlagSignature,
                                                            MissingMethodRule::TakeNullResult, kUpdateObjectException);

constexpr OperationTraits kUpdateCachedByHandle =
    Operation("UpdateCachedObjectByHandle", kUpdateCachedByHandleSignature, MissingMethodRule::TakeNullResult,
              kUpdateCachedByHandleException)
        .CalledLine(u"UpdateCachedObjectByHandle::java called is occured...")
        .EndedLine(u"UpdateCachedObjectByHandle::java ended is occured...");

constexpr OperationTraits kUpdateCachedByName =
    Operation("UpdateCachedObjectByName", kUpdateCachedByNameSignature, MissingMethodRule::TakeNullResult,
              kUpdateCachedByNameException);

// The size of the Java byte[]: the low 32 bits of the host's length.
uint32_t ArraySize(uint64_t length) { return static_cast<uint32_t>(length); }

// " objFlag:[0x%0.16x]" of the flag's low 32 bits, as the old component
// formatted it (a 32-bit conversion with precision 16): sixteen lowercase
// hexadecimal digits, the first eight always zero.
WideString FlagText(uint64_t flags) {
    static constexpr char16_t kDigits[] = u"0123456789abcdef";
    const uint32_t low = static_cast<uint32_t>(flags);
    WideString text = u" objFlag:[0x";
    for (int shift = 60; shift >= 0; shift -= 4) text.push_back(kDigits[(static_cast<uint64_t>(low) >> shift) & 0xF]);
    text += u"]";
    return text;
}

// The plain write's byte[]: made as CreateJByteArrayFromBuffer makes it, but
// a JVM failure (no room for references, no array, a failed copy) leaves its
// exception pending, so that the write's DescribeException reports it as the
// old component did. Null also for a null buffer with a non-zero length and
// for a size the JVM cannot take (2 GiB or more); nothing is pending then.
LocalRef<jbyteArray> MakePlainWriteArray(JNIEnv* env, const uint8_t* buffer, uint32_t size) {
    LocalRef<jbyteArray> none(env, nullptr);
    if (!buffer && size != 0) return none;
    if (size > 0x7FFFFFFFu) return none;
    if (env->EnsureLocalCapacity(2) < 0) return none;
    LocalRef<jbyteArray> array(env, env->NewByteArray(static_cast<jsize>(size)));
    if (!array || size == 0) return array;
    env->SetByteArrayRegion(array.get(), 0, static_cast<jsize>(size), reinterpret_cast<const jbyte*>(buffer));
    if (env->ExceptionCheck()) return none;
    return array;
}

// Adds the byte[] of a write with metadata (a failed array reaches Java as
// null; its exception is cleared) and the full 64-bit length; answers the
// array, which the arguments own.
jobject AddData(JavaArguments& arguments, const uint8_t* buffer, uint64_t length) {
    const jobject array = arguments.AddObject(CreateJByteArrayFromBuffer(arguments.Env(), buffer, ArraySize(length)));
    arguments.AddLong(static_cast<int64_t>(length));
    return array;
}

// Adds the CPluginMetaData[] of `metaData` (null for no map: `nullLine`,
// when there is one, is written first); answers the array, which the
// arguments own.
jobject AddMetaData(JavaArguments& arguments, const ObjectMetaData* metaData, JNIWrapperLog* log,
                    const char16_t* nullLine, const WideString& name) {
    if (!metaData) {
        if (nullLine) LogError(log, nullLine + name);
        arguments.AddNull();
        return nullptr;
    }
    return arguments.AddObject(MakePluginMetaDataArray(arguments.Env(), metaData));
}

// What the handle-returning writes need of their call after it is made: the
// arguments (for releasing the byte array early) and the Java objects made.
struct MadeArguments {
    JavaArguments* arguments = nullptr;
    jobject data = nullptr;
    jobject metaData = nullptr;
};

// Both forms of WriteObject with metadata; `flags` for the flag form.
uint32_t WriteWithHandle(const BridgeContext& bridge, const OperationTraits& op, const WideString& name,
                         const uint8_t* buffer, uint64_t length, const ObjectMetaData* metaData, WideString& handle,
                         std::optional<uint64_t> flags) {
    JNIWrapperLog* const log = bridge.log;
    MadeArguments made;
    return RunCallFrame(
        bridge, op, name,
        [&](JavaArguments& arguments) {
            made.arguments = &arguments;
            arguments.AddString(name);
            made.data = AddData(arguments, buffer, length);
            AddMetaData(arguments, metaData, log, u"WriteObject::is called wih null metadata...", name);
            if (flags) arguments.AddLong(static_cast<int64_t>(*flags));
            LogError(log, u"WriteObject::java called is occured..." + name + (flags ? FlagText(*flags) : WideString()));
        },
        [&](JNIEnv* env, jobject result) {
            if (!result) {
                // A Java exception thrown by the method is still pending here.
                LogError(log, u"WriteObject::is return null..." + name);
                DescribePendingException(env, log);
                return kResultBridgeFailure;
            }
            uint32_t ordinal = 0;
            WideString received;
            ConvertCWObjectHandleFnValue(env, result, &ordinal, &received);
            handle = std::move(received);
            made.arguments->ReleaseNow(made.data);
            return MapErrorOrdinal(static_cast<int32_t>(ordinal));
        });
}

// Both forms of UpdateObject; `flags` for the flag form.
uint32_t UpdateWithHandle(const BridgeContext& bridge, const OperationTraits& op, const WideString& first,
                          const WideString& second, const uint8_t* buffer, uint64_t length,
                          const ObjectMetaData* metaData, WideString& handle, std::optional<uint64_t> flags) {
    JNIWrapperLog* const log = bridge.log;
    MadeArguments made;
    return RunCallFrame(
        bridge, op,
        [&](JavaArguments& arguments) {
            made.arguments = &arguments;
            arguments.AddString(first);
            arguments.AddString(second);
            AddData(arguments, buffer, length);
            made.metaData = AddMetaData(arguments, metaData, log, nullptr, first);
            if (flags) {
                arguments.AddLong(static_cast<int64_t>(*flags));
                LogError(log, u"UpdateObject::java called is occured..." + first + FlagText(*flags));
            }
        },
        [&](JNIEnv* env, jobject result) {
            if (!result) {
                handle.clear();
                return kResultBridgeFailure;
            }
            uint32_t ordinal = 0;
            WideString received;
            ConvertCCreateFnValue(env, result, &ordinal, &received);
            handle = std::move(received);
            made.arguments->ReleaseNow(made.metaData);
            return MapErrorOrdinal(static_cast<int32_t>(ordinal));
        });
}

}  // namespace

uint32_t JNIBridge::WriteObject(const WideString& name, const uint8_t* buffer, uint64_t length) {
    JNIWrapperLog* const log = m_pLog;
    return RunCallFrame(
        Context(), kPlainWrite, name,
        [&](JavaArguments& arguments) -> std::optional<uint32_t> {
            LogError(log, u"WriteObject::memory copy started ..." + name);
            arguments.AddString(name);
            const jobject array = arguments.AddObject(MakePlainWriteArray(arguments.Env(), buffer, ArraySize(length)));
            LogError(log, u"WriteObject::memory copy ended ..." + name);
            if (!array) {
                DescribePendingException(arguments.Env(), log);
                return kResultByteArrayFailure;
            }
            arguments.AddLong(static_cast<int64_t>(length));
            return std::nullopt;
        },
        [log](JNIEnv* env, jobject result) { return GetErrorId(env, log, result); });
}

uint32_t JNIBridge::WriteObject(const WideString& name, const uint8_t* buffer, uint64_t length,
                                const ObjectMetaData* metaData, WideString& handle) {
    return WriteWithHandle(Context(), kWriteWithMetaData, name, buffer, length, metaData, handle, std::nullopt);
}

uint32_t JNIBridge::WriteObject(const WideString& name, const uint8_t* buffer, uint64_t length,
                                const ObjectMetaData* metaData, WideString& handle, uint64_t flags) {
    return WriteWithHandle(Context(), kWriteWithFlag, name, buffer, length, metaData, handle, flags);
}

uint32_t JNIBridge::WriteCachedObject(const WideString& name, const uint8_t* buffer, uint64_t length,
                                      const ObjectMetaData* metaData, WideString& handle) {
    JNIWrapperLog* const log = m_pLog;
    MadeArguments made;
    return RunCallFrame(
        Context(), kWriteCached, name,
        [&](JavaArguments& arguments) {
            made.arguments = &arguments;
            arguments.AddString(name);
            made.data = AddData(arguments, buffer, length);
            AddMetaData(arguments, metaData, log, u"WriteCachedObject::is called wih null metadata...", name);
        },
        [&](JNIEnv* env, jobject result) {
            if (!result) {
                LogError(log, u"WriteCachedObject::java is returned NULL..." + name);
                return kResultBridgeFailure;
            }
            uint32_t ordinal = 0;
            WideString received;
            ConvertCWObjectHandleFnValue(env, result, &ordinal, &received);
            handle = std::move(received);
            made.arguments->ReleaseNow(made.data);
            return MapErrorOrdinal(static_cast<int32_t>(ordinal));
        });
}

uint32_t JNIBridge::UpdateObject(const WideString& first, const WideString& second, const uint8_t* buffer,
                                 uint64_t length, const ObjectMetaData* metaData, WideString& handle) {
    return UpdateWithHandle(Context(), kUpdateObject, first, second, buffer, length, metaData, handle, std::nullopt);
}

uint32_t JNIBridge::UpdateObject(const WideString& first, const WideString& second, const uint8_t* buffer,
                                 uint64_t length, const ObjectMetaData* metaData, WideString& handle, uint64_t flags) {
    return UpdateWithHandle(Context(), kUpdateObjectWithFlag, first, second, buffer, length, metaData, handle, flags);
}

uint32_t JNIBridge::UpdateCachedObjectByHandle(const WideString& first, const WideString& second, const uint8_t* buffer,
                                               uint64_t length, const ObjectMetaData* metaData) {
    JNIWrapperLog* const log = m_pLog;
    MadeArguments made;
    return RunCallFrame(
        Context(), kUpdateCachedByHandle, first,
        [&](JavaArguments& arguments) {
            made.arguments = &arguments;
            arguments.AddString(first);
            arguments.AddString(second);
            AddData(arguments, buffer, length);
            made.metaData = AddMetaData(arguments, metaData, log,
                                        u"UpdateCachedObjectByHandle::is called with NULL metadata...", first);
        },
        [&](JNIEnv* env, jobject result) {
            if (!result) return kResultBridgeFailure;
            uint32_t ordinal = 0;
            ReadErrorOrdinal(env, result, &ordinal);
            made.arguments->ReleaseNow(made.metaData);
            return MapErrorOrdinal(static_cast<int32_t>(ordinal));
        });
}

uint32_t JNIBridge::UpdateCachedObjectByName(const WideString& name, const uint8_t* buffer, uint64_t length,
                                             const ObjectMetaData* metaData) {
    JNIWrapperLog* const log = m_pLog;
    return RunCallFrame(
        Context(), kUpdateCachedByName,
        [&](JavaArguments& arguments) {
            arguments.AddString(name);
            AddData(arguments, buffer, length);
            AddMetaData(arguments, metaData, log, nullptr, name);
        },
        [](JNIEnv* env, jobject result) {
            if (!result) return kResultBridgeFailure;
            uint32_t ordinal = 0;
            ReadErrorOrdinal(env, result, &ordinal);
            return MapErrorOrdinal(static_cast<int32_t>(ordinal));
        });
}
