// Progress of long work. On a terminal: one line redrawn in place with the
// bytes done, the rate and the time left. Otherwise: a plain line per file
// (and per part of a file of several parts).
// Silent with --quiet (and under --json, whose output is for programs).
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

namespace qvhost {

enum class ProgressStyle { Bar, Lines, Silent };

// Bar when standard error is a terminal, else Lines.
ProgressStyle DefaultProgressStyle();

// "12.3 MiB" and the like.
std::string FormatBytes(double bytes);
// "1:02:03" or "2:03".
std::string FormatDuration(double seconds);

class Progress {
public:
    Progress(std::string verb, uint64_t totalBytes, uint64_t totalFiles, ProgressStyle style);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    // A part of a file done: the bar moves on, and a file of several parts
    // gets a line per part (index counted from 0) besides its own line.
    void PartDone(const std::string& relativePath, uint64_t part, uint64_t parts, uint64_t bytes);
    void FileDone(const std::string& relativePath, uint64_t size);
    // Bytes of a file done where the work has no parts (chunks): the bar
    // moves on, no line.
    void BytesDone(uint64_t bytes) { doneBytes_ += bytes; }
    // A file given up on (reported elsewhere): counted, no line of its own.
    void FileFailed() { ++doneFiles_; }
    // Ends the bar (a last redraw and a line end).
    void Finish();

    double Seconds() const;

private:
    std::string StatusText() const;
    void Redraw();

    const std::string verb_;
    const uint64_t totalBytes_;
    const uint64_t totalFiles_;
    const ProgressStyle style_;
    const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
    std::atomic<uint64_t> doneBytes_{0};
    std::atomic<uint64_t> doneFiles_{0};
    std::mutex mutex_;
    std::condition_variable wake_;
    bool finished_ = false;
    std::thread painter_;
};

}  // namespace qvhost
