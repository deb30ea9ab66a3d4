// The process-wide log writer of the plug-in.
//
// Every diagnostic line of the manager, the JNI bridge and the storage
// operations goes through one `JNIWrapperLog`. It appends UTF-16LE records
// (no byte-order mark) to "<folder>/JNIWrapper_<d-m-yyyy_h-m-s-ms>.log",
// opening and closing the file for every record so that nothing is lost when
// the host ends abruptly and other readers can follow the file. A record is
// "\r\n" + a 46-character prefix + " :" + the message. When a write brings the
// file to 10 MiB the next record goes to a new file; with pruning on, only the
// newest 30 log files are kept whenever a file is started.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "platform/Platform.h"

using WideString = std::u16string;

class JNIWrapperLog {
public:
    // A file whose size reaches this many bytes is followed by a new one.
    static constexpr int64_t kRotationSize = 10485760;
    // Pruning keeps this many of the newest log files.
    static constexpr size_t kKeptFiles = 30;
    // The level of the writer; level-filtered writes pass at or below it.
    static constexpr int32_t kLevel = 3;
    // Characters of a record's prefix.
    static constexpr size_t kPrefixLength = 46;

    using Clock = std::function<qvplatform::LocalTime()>;

    // Nothing is created on disk until the first write, but pruning (when on)
    // runs at once. `clock` supplies the local time of records and file
    // names; tests give a fixed one.
    JNIWrapperLog(const WideString& folder, bool pruneOldFiles, Clock clock = qvplatform::GetLocalTimeNow);
    JNIWrapperLog(const JNIWrapperLog&) = delete;
    JNIWrapperLog& operator=(const JNIWrapperLog&) = delete;

    // Appends one record whatever the level (the error log).
    void Write(const WideString& message);
    // Appends when the writer's level is 3 or more (the detail log).
    void WriteDetail(const WideString& message);
    // Appends when the writer's level is 2 or more.
    void WriteWarning(const WideString& message);
    // Appends when `level` is at most the writer's level.
    void Write(int32_t level, const WideString& message);
    // As above; `value` is accepted and ignored.
    void Write(int32_t level, const WideString& message, uint32_t value);
    // Appends one record to the companion file "<current file>_error", which
    // is never size-checked, rotated or pruned.
    void WriteError(const WideString& message);

    // The file the next record goes to.
    WideString CurrentFilePath() const;

    // "JNIWrapper_" + the time stamp of `time` + ".log".
    static WideString FileNameFor(const qvplatform::LocalTime& time);
    // The 46-character prefix of a record written at `time` by the thread
    // `threadId` of process `processId`.
    static WideString RecordPrefix(const qvplatform::LocalTime& time, uint32_t processId, uint32_t threadId);

private:
    WideString NewFilePath() const;
    void SetFilePath(const WideString& path);
    WideString BuildRecord(const WideString& message) const;
    void RotateIfFull();
    void PruneOldFiles() const;

    bool m_pruneOldFiles;
    int32_t m_level = kLevel;
    WideString m_folder;
    WideString m_filePath;
    qvplatform::NativePath m_nativeFilePath;  // m_filePath as the file calls take it
    qvplatform::SharedFile m_file;
    std::unique_ptr<qvplatform::NamedMutex> m_mutex;
    int64_t m_fileSize = 0;
    Clock m_clock;
};

// The process-wide writer. The first call creates it for `folder` and
// `pruneOldFiles`; later calls return the same writer and ignore their
// arguments. Null only when it could not be allocated (the next call tries
// again).
JNIWrapperLog* GetJNIWrapperLog(const WideString& folder, bool pruneOldFiles);
