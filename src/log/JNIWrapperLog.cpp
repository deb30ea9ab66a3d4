#include "log/JNIWrapperLog.h"

#include <algorithm>
#include <cstdio>
#include <mutex>
#include <vector>

#include "log/LogText.h"

using qvplatform::LocalTime;

JNIWrapperLog::JNIWrapperLog(const WideString& folder, bool pruneOldFiles, Clock clock)
    : m_pruneOldFiles(pruneOldFiles), m_folder(folder), m_clock(std::move(clock)) {
    SetFilePath(NewFilePath());
    // Each writer has a mutex of its own, named after a fresh UUID.
    m_mutex = qvplatform::NamedMutex::Create(u"AZURE_JNIWRAPPER_LOG_MUTEX_" + qvplatform::NewUuidText(),
                                             qvplatform::MutexScope::ThisProcessOnly);
    if (m_pruneOldFiles) PruneOldFiles();
}

WideString JNIWrapperLog::FileNameFor(const LocalTime& t) {
    char stamp[64];
    std::snprintf(stamp, sizeof stamp, "JNIWrapper_%u-%u-%u_%u-%u-%u-%u.log", t.day, t.month, t.year, t.hour,
                  t.minute, t.second, t.millisecond);
    return logtext::Widen(stamp);
}

namespace {

// Appends `value` in decimal, padded with zeros to `width` digits ("%0<width>d").
void AppendDecimal(WideString& out, unsigned value, size_t width) {
    char16_t digits[10];
    size_t n = 0;
    do {
        digits[n++] = static_cast<char16_t>(u'0' + value % 10);
        value /= 10;
    } while (value != 0);
    for (size_t i = n; i < width; ++i) out.push_back(u'0');
    while (n > 0) out.push_back(digits[--n]);
}

// Appends `value` in lower-case hexadecimal, right-aligned with blanks in
// eight places ("%8x"; the blank flag of "% 8x" has no effect on an unsigned
// conversion).
void AppendHex8(WideString& out, uint32_t value) {
    char16_t digits[8];
    size_t n = 0;
    do {
        digits[n++] = u"0123456789abcdef"[value & 0xF];
        value >>= 4;
    } while (value != 0);
    for (size_t i = n; i < 8; ++i) out.push_back(u' ');
    while (n > 0) out.push_back(digits[--n]);
}

// The prefix "%04d-%02d-%02d %02d:%02d:%02d.%03d  [% 8x] [% 8x]", formatted by
// hand: it is written for every record, and printf costs more than the rest
// of the record's formatting together.
void AppendPrefix(WideString& out, const LocalTime& t, uint32_t processId, uint32_t threadId) {
    AppendDecimal(out, t.year, 4);
    out.push_back(u'-');
    AppendDecimal(out, t.month, 2);
    out.push_back(u'-');
    AppendDecimal(out, t.day, 2);
    out.push_back(u' ');
    AppendDecimal(out, t.hour, 2);
    out.push_back(u':');
    AppendDecimal(out, t.minute, 2);
    out.push_back(u':');
    AppendDecimal(out, t.second, 2);
    out.push_back(u'.');
    AppendDecimal(out, t.millisecond, 3);
    out += u"  [";
    AppendHex8(out, processId);
    out += u"] [";
    AppendHex8(out, threadId);
    out.push_back(u']');
}

}  // namespace

WideString JNIWrapperLog::RecordPrefix(const LocalTime& t, uint32_t processId, uint32_t threadId) {
    WideString prefix;
    prefix.reserve(kPrefixLength);
    AppendPrefix(prefix, t, processId, threadId);
    return prefix;
}

WideString JNIWrapperLog::NewFilePath() const {
    return m_folder + qvplatform::kPathSeparator + FileNameFor(m_clock());
}

void JNIWrapperLog::SetFilePath(const WideString& path) {
    m_filePath = path;
    m_nativeFilePath = qvplatform::NativePath(path);
}

WideString JNIWrapperLog::BuildRecord(const WideString& message) const {
    WideString record;
    record.reserve(2 + kPrefixLength + 2 + message.size());
    record += u"\r\n";
    AppendPrefix(record, m_clock(), qvplatform::CurrentProcessId(), qvplatform::CurrentThreadId());
    record += u" :";
    record += message;
    return record;
}

void JNIWrapperLog::Write(const WideString& message) {
    qvplatform::NamedMutexLock lock(m_mutex.get());
    try {
        const std::string bytes = logtext::Utf16LeBytes(BuildRecord(message));
        // An open failure loses the record: the write and the size query
        // then fail, and the size reads as unknown (no rotation).
        m_file.OpenOrCreate(m_nativeFilePath);
        m_file.AppendAtEnd(bytes.data(), bytes.size());
        m_fileSize = m_file.Size();
        RotateIfFull();
    } catch (...) {
        // The writer never reports failures; the record is lost.
    }
    m_file.Close();
}

void JNIWrapperLog::WriteDetail(const WideString& message) {
    if (m_level >= 3) Write(message);
}

void JNIWrapperLog::WriteWarning(const WideString& message) {
    if (m_level >= 2) Write(message);
}

void JNIWrapperLog::Write(int32_t level, const WideString& message) {
    if (level <= m_level) Write(message);
}

void JNIWrapperLog::Write(int32_t level, const WideString& message, uint32_t /*value*/) {
    Write(level, message);
}

void JNIWrapperLog::WriteError(const WideString& message) {
    qvplatform::NamedMutexLock lock(m_mutex.get());
    try {
        const std::string bytes = logtext::Utf16LeBytes(BuildRecord(message));
        qvplatform::SharedFile companion;
        if (companion.OpenOrCreate(m_filePath + u"_error")) companion.AppendAtEnd(bytes.data(), bytes.size());
    } catch (...) {
        // As for Write: failures lose the record.
    }
}

WideString JNIWrapperLog::CurrentFilePath() const {
    qvplatform::NamedMutexLock lock(m_mutex.get());
    return m_filePath;
}

// Called with the mutex held and the current file open. The record that
// crossed the limit stays in the old file; the new file is created empty and
// left open for Write to close.
void JNIWrapperLog::RotateIfFull() {
    if (m_fileSize < kRotationSize) return;
    m_file.Close();
    if (m_pruneOldFiles) PruneOldFiles();
    SetFilePath(NewFilePath());
    m_file.OpenOrCreate(m_nativeFilePath);
    m_file.SeekToEnd();
    m_fileSize = 0;
}

// Deletes the oldest "JNIWrapper*.log" files of the folder until 30 remain.
// Files with equal last-write times count separately (ties go by name), so
// the folder never keeps more than 30. Deletion failures are ignored.
void JNIWrapperLog::PruneOldFiles() const {
    std::vector<qvplatform::FoundFile> files =
        qvplatform::ListFiles(m_folder + qvplatform::kPathSeparator + u"JNIWrapper*.log");
    if (files.size() <= kKeptFiles) return;
    std::sort(files.begin(), files.end(), [](const qvplatform::FoundFile& a, const qvplatform::FoundFile& b) {
        return a.lastWriteTime != b.lastWriteTime ? a.lastWriteTime < b.lastWriteTime : a.name < b.name;
    });
    const size_t excess = files.size() - kKeptFiles;
    for (size_t i = 0; i < excess; ++i) {
        qvplatform::DeleteFileAt(m_folder + qvplatform::kPathSeparator + files[i].name);
    }
}

JNIWrapperLog* GetJNIWrapperLog(const WideString& folder, bool pruneOldFiles) {
    static std::mutex creation;
    static JNIWrapperLog* writer = nullptr;  // lives until the process ends
    std::lock_guard<std::mutex> lock(creation);
    if (!writer) {
        try {
            writer = new JNIWrapperLog(folder, pruneOldFiles);
        } catch (...) {
            writer = nullptr;  // out of memory: the next call tries again
        }
    }
    return writer;
}
