// Scripts the Java test double of the storage library from C++ tests.
//
// The double is a real Java class, com.qv.AzureLibrary.QVAzurePlugInLibrary,
// with every method of the contract. By default it behaves like a small
// in-memory object store (create, write, read, metadata, delete, ... work
// and agree with each other). A test can script what the *next* call of a
// method returns instead, and read back every call the double received with
// its arguments. The script and the record live in the static Java class
// com.qv.testdouble.DoubleControl; this class calls it through JNI (on the
// real JVM, not through the interposer, so test set-up never shows up in the
// interposer's record).
//
// Method names are the Java method names ("AzureInit", "CreateObject", ...);
// the constructor is "<init>". Overloads share their name: a script for
// "WriteObject" applies to the next call of any WriteObject.
// Each scripting call affects the next call of that method only (scripts
// queue up when a test sets several for the same method; the field setters
// below all modify the one reply at the end of the queue, making it first
// when the queue is empty). ReturnNull, ReturnErrorOrdinal,
// ReturnNullErrorValue, ReturnErrorValue, Throw and ReturnLong each add a new
// reply; the field setters and SetReadData change the last reply, or add one
// when the queue is empty or ends with a null or throwing reply. So
// ReturnErrorOrdinal("X", 3) followed by SetString("X", ...) is one reply.
//
// A reply that is neither null nor throwing keeps the double's own behaviour
// (its store is read and changed as usual) and only changes the result.
// Scripting mistakes (an unknown method, a field that the method's results do
// not have or have with another type) and any other failure of a control
// throw std::runtime_error with the reason.
//
// The double's own behaviour (see QVAzurePlugInLibrary.java): objects by name;
// a handle is "handle:" + name and is accepted wherever a name is; writes and
// updates replace the bytes (and the metadata when an array is passed); reads
// honour offset and length; unknown objects read as empty; every result
// carries a successful error value.
#pragma once

#include <jni.h>

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace jnitest {

using OptText = std::optional<std::u16string>;  // std::nullopt stands for a Java null

// One CPluginMetaData element of a scripted metadata array.
struct MetaEntry {
    OptText name;              // szPropertyName
    OptText value;             // val.szProperty
    bool nullElement = false;  // the array slot itself is null
    bool nullVal = false;      // val is null
};

// One CObjectSubListElement of a scripted sub-list.
struct SubListEntry {
    OptText fileName;                // szFileName
    std::vector<MetaEntry> metaData;  // metaDat
    bool nullMetaData = false;        // metaDat is null
    bool nullElement = false;         // the array slot itself is null
};

class TestDouble {
public:
    // Forgets every script, every recorded call and every stored object (and turns pass-through off).
    static void Reset();
    // With pass-through on, the data methods do no work on the bytes: writes keep nothing, reads report the
    // requested length without filling the array (for benchmarks of the plug-in's own cost).
    static void SetDataPassThrough(bool on);

    // ---- replies of the next call of `method`
    // The method returns null.
    static void ReturnNull(const std::string& method);
    // The method's usual result, with errorValue carrying ERRORID.values()[ordinal] (for methods returning a
    // bare CErrorValue, that CErrorValue). An ordinal outside 0..48 gives an error value whose getErrorID
    // answers null and whose getOrdinalValue answers that ordinal.
    static void ReturnErrorOrdinal(const std::string& method, int ordinal);
    // The method's usual result whose errorValue field is null (for methods returning a bare CErrorValue: null).
    static void ReturnNullErrorValue(const std::string& method);
    // The method's usual result with an error value whose getErrorID answers ERRORID.values()[*errorId] (null
    // for nullopt) and whose getOrdinalValue answers `ordinalValue`, whether or not the two agree.
    static void ReturnErrorValue(const std::string& method, std::optional<int> errorId, int ordinalValue);
    // The method throws a java.lang.RuntimeException with this message.
    static void Throw(const std::string& method, const std::string& message);
    // The long that a method returning a bare long (GetObjectActualSize) answers.
    static void ReturnLong(const std::string& method, int64_t value);
    // Result fields, set on the next reply by field name (reflection on the result class).
    static void SetString(const std::string& method, const std::string& field, const OptText& value);
    static void SetLong(const std::string& method, const std::string& field, int64_t value);
    static void SetInt(const std::string& method, const std::string& field, int32_t value);
    static void SetBoolean(const std::string& method, const std::string& field, bool value);
    static void SetNullField(const std::string& method, const std::string& field);
    static void SetStringArray(const std::string& method, const std::string& field,
                               const std::vector<OptText>& values);
    // A CPluginMetaData[] field.
    static void SetMetaData(const std::string& method, const std::string& field,
                            const std::vector<MetaEntry>& entries);
    // The metaDat field of GetObjectSubList's result.
    static void SetSubList(const std::string& method, const std::vector<SubListEntry>& entries);
    // The containers field (QVAzureContainer[]) of GetListContainers/GetArchiveSet; nullopt = a null name,
    // `nullElements` lists indexes whose element is null.
    static void SetContainers(const std::string& method, const std::vector<OptText>& names,
                              const std::vector<int>& nullElements = {});
    // The pluginCapabilities map of GetCloudPluginCapabilities (a java.util.HashMap). `nonStringValueKeys`
    // get a java.lang.Integer value instead of a string: the entry's value text read as a decimal number (0
    // when it is null or not a number).
    static void SetCapabilities(const std::vector<std::pair<OptText, OptText>>& entries,
                                const std::vector<std::u16string>& nonStringValueKeys = {});
    // The bytes that the next read of `method` puts into the Java array it hands back (or fills), and the
    // count it reports (bytesRead / sizeRead); by default the reported count is the number of bytes. The
    // bytes go to the start of the array, as many as it holds.
    static void SetReadData(const std::string& method, const std::string& bytes,
                            std::optional<int64_t> reportedCount = std::nullopt);

    // ---- what the double received
    static size_t CallCount(const std::string& method);
    // The canonical text of call `index` (0-based) of `method`, e.g.
    //   AzureInit("init string", "C:\\folder")
    // Strings are in double quotes with \\, \" and non-printable or non-ASCII units as \uXXXX (four
    // lower-case hex digits, e.g. \u00e9, \u0000); null is null; numbers in decimal; booleans true/false;
    // byte[] as byte[N]; String[] as ["a", null]; CPluginMetaData[] as {name=value, ...} in array order, name
    // and value being quoted strings like any other ({"size"="12", null="x", "k"=null, null}: a null name,
    // a null val or szProperty, a null element). Arguments are separated by ", ". The constructor's
    // CPluginInitData shows as its two strings: <init>("install folder", "log folder").
    static std::string DescribeCall(const std::string& method, size_t index);
    // Every call received since Reset, in order, as "Method(args)" texts as above.
    static std::vector<std::string> Calls();
    // The bytes of the byte[] argument of call `index` of `method` (empty when there was none). For reads:
    // the bytes the double put into the array. Records keep at most 1 GiB of bytes; asking for bytes that
    // were dropped for that throws.
    static std::string ByteArgument(const std::string& method, size_t index);

    // ---- for conversion tests: the result object that `method` would return now (consuming its script,
    // recording no call), as a new local reference of `env` (null when the script says null; a Throw script
    // throws std::runtime_error). Methods without parameters give their usual answer; the others their
    // result class with a successful errorValue and every other field at its Java default; the script is
    // applied to either. Where overloads return different classes, WriteObject gives its metadata form's
    // CWObjectHandleFnValue and GetObjectMetaData its one-property form's CGetObjectMetaData.
    static jobject NextResult(JNIEnv* env, const std::string& method);
    // The same for the overload with this JNI signature, e.g. GetObjectMetaData "(Ljava/lang/String;)L...;".
    static jobject NextResult(JNIEnv* env, const std::string& method, const std::string& signature);
};

}  // namespace jnitest
