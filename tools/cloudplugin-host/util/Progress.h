// How long work tells how it goes. The work (a backup, a restore, a check)
// reports bytes and items done to a sink; the command line decides what
// to show of it (cli/ProgressDisplay.h). A sink is called from every job
// thread at once.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace qvhost {

class ProgressSink {
public:
    virtual ~ProgressSink() = default;

    // A stage of work begins: its name ("backup", "restore", "check") and how
    // much it has to do.
    virtual void Begin(const std::string& stage, uint64_t totalBytes, uint64_t totalItems) = 0;
    // More work found after the stage began (a walk that finds its work as it goes).
    virtual void Grow(uint64_t bytes, uint64_t items) = 0;
    // Bytes done that finish no item.
    virtual void BytesDone(uint64_t bytes) = 0;
    // A part of an item of several parts done (index counted from 0), with its bytes.
    virtual void PartDone(const std::string& item, uint64_t part, uint64_t parts, uint64_t bytes) = 0;
    // An item done; its bytes were reported already.
    virtual void ItemDone(const std::string& item, uint64_t bytes) = 0;
    // An item given up on (reported elsewhere).
    virtual void ItemFailed() = 0;
    // The stage is over (also when it failed).
    virtual void End() = 0;
};

// One stage of work on a sink (none: nothing is shown): begun when made,
// ended when finished or destroyed, so that a stage that fails ends too.
class Progress {
public:
    Progress(ProgressSink* sink, const std::string& stage, uint64_t totalBytes, uint64_t totalItems)
        : sink_(sink) {
        if (sink_) sink_->Begin(stage, totalBytes, totalItems);
    }
    ~Progress() { Finish(); }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void Grow(uint64_t bytes, uint64_t items) {
        if (sink_) sink_->Grow(bytes, items);
    }
    void BytesDone(uint64_t bytes) {
        if (sink_) sink_->BytesDone(bytes);
    }
    void PartDone(const std::string& item, uint64_t part, uint64_t parts, uint64_t bytes) {
        if (sink_) sink_->PartDone(item, part, parts, bytes);
    }
    void FileDone(const std::string& item, uint64_t bytes) {
        if (sink_) sink_->ItemDone(item, bytes);
    }
    void FileFailed() {
        if (sink_) sink_->ItemFailed();
    }
    void Finish() {
        if (sink_) sink_->End();
        sink_ = nullptr;
    }
    // Since the stage began.
    double Seconds() const {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
    }

private:
    ProgressSink* sink_;
    const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

}  // namespace qvhost
