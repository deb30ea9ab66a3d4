#include "log/CLogStream.h"

#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <type_traits>
#include <vector>

#include "platform/Platform.h"

namespace {

// The text appended for a null string pointer.
constexpr const char* kNullText = "(null)";

// The mutex that orders the line writes of all processes sharing the log file.
constexpr const char16_t* kFileMutexName = u"MUTEX_AZURELog_LOG";

// ---------------------------------------------------------------- formats

enum class ValueKind { Integer, Floating, Text };

// A format split around its one conversion: `head` runs from the start of the format to the end of the
// conversion's precision (the length modifier is left out), `tail` from after the conversion character to the
// end. The caller puts the length modifier of the value it passes between them.
struct FormatParts {
    std::string head;
    char conversion = 0;
    std::string tail;
};

bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

bool ConversionFits(char conversion, ValueKind kind) {
    const char* allowed = kind == ValueKind::Integer    ? "diuxXoc"
                          : kind == ValueKind::Floating ? "fFeEgGaA"
                                                        : "s";
    return conversion != '\0' && std::strchr(allowed, conversion) != nullptr;
}

// Skips a run of digits (a width or a precision); false when its value exceeds the limit.
bool SkipField(const std::string& format, size_t& i) {
    unsigned long value = 0;
    for (; i < format.size() && IsDigit(format[i]); ++i) {
        value = value * 10 + static_cast<unsigned long>(format[i] - '0');
        if (value > CLogStream::kMaxFieldWidth) return false;
    }
    return true;
}

// The length of the length modifier at `i`, 0 when there is none. The Windows spellings (I, I32, I64) are
// accepted beside the C ones.
size_t LengthModifierSize(const std::string& format, size_t i) {
    static const char* const kModifiers[] = {"I64", "I32", "hh", "ll", "h", "l",
                                             "L",   "q",   "j",  "z",  "t", "I"};
    for (const char* modifier : kModifiers) {
        const size_t size = std::strlen(modifier);
        if (format.compare(i, size, modifier) == 0) return size;
    }
    return 0;
}

// Checks that `format` holds exactly one conversion fit for a value of `kind` (besides "%%" escapes) and
// splits it. Formats with '*', a zero byte, an unknown conversion, or a flag or precision that printf leaves
// undefined for the conversion are refused.
bool SplitFormat(const std::string& format, ValueKind kind, FormatParts& parts) {
    bool found = false;
    size_t i = 0;
    while (i < format.size()) {
        if (format[i] == '\0') return false;
        if (format[i] != '%') {
            ++i;
            continue;
        }
        if (i + 1 < format.size() && format[i + 1] == '%') {
            i += 2;
            continue;
        }
        if (found) return false;
        found = true;
        ++i;
        bool alternateForm = false;
        bool zeroPadding = false;
        for (; i < format.size() && format[i] != '\0' && std::strchr("-+ #0", format[i]) != nullptr; ++i) {
            alternateForm = alternateForm || format[i] == '#';
            zeroPadding = zeroPadding || format[i] == '0';
        }
        if (!SkipField(format, i)) return false;
        bool precision = false;
        if (i < format.size() && format[i] == '.') {
            precision = true;
            ++i;
            if (!SkipField(format, i)) return false;
        }
        const size_t headEnd = i;
        i += LengthModifierSize(format, i);
        if (i >= format.size() || !ConversionFits(format[i], kind)) return false;
        const char conversion = format[i];
        if (alternateForm && std::strchr("oxXfFeEgGaA", conversion) == nullptr) return false;
        if (zeroPadding && (conversion == 'c' || conversion == 's')) return false;
        if (precision && conversion == 'c') return false;
        parts.head = format.substr(0, headEnd);
        parts.conversion = conversion;
        parts.tail = format.substr(i + 1);
        ++i;
    }
    return found;
}

// The custom format when it fits a value of `kind`, else the default one (which always fits).
FormatParts ChooseFormat(const std::string& custom, const char* defaultFormat, ValueKind kind) {
    FormatParts parts;
    if (!custom.empty() && SplitFormat(custom, kind, parts)) return parts;
    SplitFormat(defaultFormat, kind, parts);
    return parts;
}

// Appends the printf output of `format` to `out`, in a buffer grown to whatever size the output needs. Only
// formats built by this file (whose conversions match `args`) come here. False, with nothing appended, when
// printf reports an error.
template <typename... Args>
bool AppendPrintf(std::string& out, const char* format, Args... args) {
    std::vector<char> buffer(256);
    int written = std::snprintf(buffer.data(), buffer.size(), format, args...);
    if (written < 0) return false;
    if (static_cast<size_t>(written) >= buffer.size()) {
        buffer.resize(static_cast<size_t>(written) + 1);
        written = std::snprintf(buffer.data(), buffer.size(), format, args...);
        if (written < 0 || static_cast<size_t>(written) >= buffer.size()) return false;
    }
    out.append(buffer.data(), static_cast<size_t>(written));
    return true;
}

// The printf length modifier of the integer types that the appends pass.
template <typename T>
const char* LengthModifierOf() {
    static_assert(std::is_same_v<T, short> || std::is_same_v<T, unsigned short> || std::is_same_v<T, int> ||
                      std::is_same_v<T, unsigned int> || std::is_same_v<T, long long> ||
                      std::is_same_v<T, unsigned long long>,
                  "an integer type the appends pass");
    if constexpr (std::is_same_v<T, long long> || std::is_same_v<T, unsigned long long>) return "ll";
    if constexpr (std::is_same_v<T, short> || std::is_same_v<T, unsigned short>) return "h";
    return "";
}

// ---------------------------------------------------------------- shared log file

struct SharedLog {
    // Taken for the whole of a flush after its line is built: one thread at a time opens or rotates the
    // file, and no thread closes or replaces it while another one writes to it.
    std::mutex lock;
    qvplatform::SharedFile file;
    // Orders the line writes of every process that shares the file.
    std::unique_ptr<qvplatform::NamedMutex> fileMutex;
};

SharedLog& Shared() {
    static SharedLog shared;
    return shared;
}

std::string UpperCaseAscii(std::string text) {
    for (char& c : text) {
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    }
    return text;
}

std::string LogFileName(unsigned number) {
    std::string name;
    AppendPrintf(name, "JNIWrapper%04u.log", number);
    return name;
}

// Opens the log file in the folder `base` (which ends with a separator) and the file mutex. False, with the
// file closed, when no file could be opened.
bool OpenSharedFile(SharedLog& shared, const std::string& base) {
    unsigned number = 0;
    for (const qvplatform::FoundFile& found : qvplatform::ListFiles(base + "JNIWrapper*.log")) {
        // The name is upper-cased before it is matched, case-sensitively, against "JNIWrapper": the match
        // therefore always stops at the second letter, no number is read and the file number stays 0. This
        // is intended and kept as it is: existing installations, and the tools that read their logs, rely on
        // the lines going to JNIWrapper0000.log (and to JNIWrapper0001.log once that is full).
        const std::string name = UpperCaseAscii(qvplatform::ToUtf8(found.name));
        unsigned value = 0;
        if (std::sscanf(name.c_str(), "JNIWrapper%u.log", &value) == 1 && value > number) number = value;
    }
    if (!shared.file.OpenOrCreate(base + LogFileName(number))) return false;
    if (shared.file.Size() >= CLogStream::kRotationSize) {
        shared.file.Close();
        if (!shared.file.OpenOrCreate(base + LogFileName(number + 1))) return false;
    }
    shared.file.SeekToEnd();
    shared.fileMutex.reset();
    // Without the mutex (the system refused it) lines are still written, ordered within this process only.
    shared.fileMutex =
        qvplatform::NamedMutex::Create(kFileMutexName, qvplatform::MutexScope::SharedBetweenProcesses);
    return true;
}

// "[MM/DD hh:mm:ss] [pid] [tid]: " + text, ended by "\r\n" unless the text already ends with a line feed.
std::string BuildLine(const std::string& text) {
    const qvplatform::LocalTime now = qvplatform::GetLocalTimeNow();
    std::string line;
    // The ids are lower-case hexadecimal right-aligned in eight places ("%8x"; a blank flag, as in "% 8x",
    // would change nothing for an unsigned conversion).
    AppendPrintf(line, "[%02u/%02u %02u:%02u:%02u] [%8x] [%8x]: ", static_cast<unsigned>(now.month),
                 static_cast<unsigned>(now.day), static_cast<unsigned>(now.hour),
                 static_cast<unsigned>(now.minute), static_cast<unsigned>(now.second),
                 static_cast<unsigned>(qvplatform::CurrentProcessId()),
                 static_cast<unsigned>(qvplatform::CurrentThreadId()));
    line += text;
    if (text.empty() || text.back() != '\n') line += "\r\n";
    return line;
}

}  // namespace

// ---------------------------------------------------------------- CLogStream

CLogStream::~CLogStream() = default;

void CLogStream::Flush() {
    if (m_text.empty()) return;
    try {
        const std::string line = BuildLine(m_text);
        SharedLog& shared = Shared();
        std::lock_guard<std::mutex> guard(shared.lock);
        if (shared.file.IsOpen() && shared.file.Size() >= kRotationSize) shared.file.Close();
        const std::string base =
            m_folder.empty() ? DefaultFolderBase() : m_folder + static_cast<char>(qvplatform::kPathSeparator);
        if (shared.file.IsOpen() || OpenSharedFile(shared, base)) {
            qvplatform::NamedMutexLock fileLock(shared.fileMutex.get());
            shared.file.AppendAtEnd(line.data(), line.size());
        }
    } catch (...) {
        // A logger never fails its caller; the line is lost.
    }
    m_text.clear();
}

std::string CLogStream::DefaultFolderBase() {
    const char separator = static_cast<char>(qvplatform::kPathSeparator);
    std::string base = qvplatform::kPathSeparator == u'\\' ? "D:\\log" : "/var/log";
    base += separator;
    base += "Vexa";
    base += separator;
    base += "Log";
    base += separator;
    return base;
}

void CLogStream::CloseSharedFile() {
    try {
        SharedLog& shared = Shared();
        std::lock_guard<std::mutex> guard(shared.lock);
        shared.file.Close();
        shared.fileMutex.reset();
    } catch (...) {
        // Locking failed; the file stays open.
    }
}

void CLogStream::AppendRaw(const std::string& text) {
    try {
        m_text += text;
    } catch (...) {
        // Out of memory: the text is not added.
    }
}

CLogStream& CLogStream::Next() {
    CLogStream* next = m_chained;
    m_chained = nullptr;
    return next ? *next : *this;
}

template <typename T>
void CLogStream::AppendInteger(const char* defaultFormat, T value) {
    try {
        const FormatParts parts = ChooseFormat(m_format, defaultFormat, ValueKind::Integer);
        const char conversion = parts.conversion;
        if (conversion == 'c') {
            const std::string format = parts.head + conversion + parts.tail;
            AppendPrintf(m_text, format.c_str(), static_cast<int>(static_cast<unsigned char>(value)));
        } else if (conversion == 'd' || conversion == 'i') {
            const std::string format = parts.head + LengthModifierOf<T>() + conversion + parts.tail;
            AppendPrintf(m_text, format.c_str(), static_cast<std::make_signed_t<T>>(value));
        } else {
            const std::string format = parts.head + LengthModifierOf<T>() + conversion + parts.tail;
            AppendPrintf(m_text, format.c_str(), static_cast<std::make_unsigned_t<T>>(value));
        }
    } catch (...) {
        // Out of memory: the value is not added.
    }
}

void CLogStream::AppendFloating(double value) {
    try {
        const FormatParts parts = ChooseFormat(m_format, "%f", ValueKind::Floating);
        const std::string format = parts.head + parts.conversion + parts.tail;
        AppendPrintf(m_text, format.c_str(), value);
    } catch (...) {
        // Out of memory: the value is not added.
    }
}

void CLogStream::AppendText(const std::string& text) {
    try {
        FormatParts parts;
        if (!m_format.empty() && SplitFormat(m_format, ValueKind::Text, parts)) {
            const std::string format = parts.head + parts.conversion + parts.tail;
            AppendPrintf(m_text, format.c_str(), text.c_str());
        } else {
            // The default "%s" adds the text unchanged.
            m_text += text;
        }
    } catch (...) {
        // Out of memory: the text is not added.
    }
}

CLogStream& CLogStream::operator<<(const std::string& text) {
    AppendText(text);
    return Next();
}

CLogStream& CLogStream::operator<<(unsigned long long value) {
    AppendInteger("%I64u", value);
    return Next();
}

CLogStream& CLogStream::operator<<(long long value) {
    AppendInteger("%I64d", value);
    return Next();
}

CLogStream& CLogStream::operator<<(unsigned long value) {
    AppendInteger("%I64u", static_cast<unsigned long long>(value));
    return Next();
}

CLogStream& CLogStream::operator<<(long value) {
    AppendInteger("%I64d", static_cast<long long>(value));
    return Next();
}

CLogStream& CLogStream::operator<<(double value) {
    AppendFloating(value);
    return Next();
}

CLogStream& CLogStream::operator<<(float value) {
    AppendFloating(static_cast<double>(value));
    return Next();
}

CLogStream& CLogStream::operator<<(unsigned int value) {
    AppendInteger("%u", value);
    return Next();
}

CLogStream& CLogStream::operator<<(int value) {
    AppendInteger("%d", value);
    return Next();
}

CLogStream& CLogStream::operator<<(unsigned short value) {
    AppendInteger("%hu", value);
    return Next();
}

CLogStream& CLogStream::operator<<(short value) {
    AppendInteger("%hd", value);
    return Next();
}

CLogStream& CLogStream::operator<<(const char16_t* text) {
    try {
        AppendText(text ? qvplatform::ToUtf8(text) : std::string(kNullText));
    } catch (...) {
        // Out of memory: the text is not added.
    }
    return Next();
}

CLogStream& CLogStream::operator<<(const char* text) {
    try {
        AppendText(text ? std::string(text) : std::string(kNullText));
    } catch (...) {
        // Out of memory: the text is not added.
    }
    return Next();
}

CLogStream& CLogStream::operator<<(const std::u16string& text) {
    try {
        // The text is converted from a copy taken first.
        const std::u16string copy(text);
        AppendText(qvplatform::ToUtf8(copy));
    } catch (...) {
        // Out of memory: the text is not added.
    }
    return Next();
}

CLogStream& CLogStream::operator<<(const unsigned char* text) {
    try {
        AppendText(text ? std::string(reinterpret_cast<const char*>(text)) : std::string(kNullText));
    } catch (...) {
        // Out of memory: the text is not added.
    }
    return Next();
}
