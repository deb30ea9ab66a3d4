// What the user sees of long work. On a terminal: one line redrawn in place
// with the bytes done, the rate and the time left. Otherwise: a plain line
// per item (and per part of an item of several parts). Nothing with
// --quiet or --json, whose output is for programs.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

#include "util/Progress.h"

namespace qvhost {

enum class ProgressStyle { Bar, Lines, Silent };

// Bar when standard error is a terminal, else Lines.
ProgressStyle DefaultProgressStyle();

class ProgressDisplay : public ProgressSink {
public:
    explicit ProgressDisplay(ProgressStyle style) : style_(style) {}
    ~ProgressDisplay() override { End(); }
    ProgressDisplay(const ProgressDisplay&) = delete;
    ProgressDisplay& operator=(const ProgressDisplay&) = delete;

    // The sink to give work: none when silent.
    ProgressSink* sink() { return style_ == ProgressStyle::Silent ? nullptr : this; }

    void Begin(const std::string& stage, uint64_t totalBytes, uint64_t totalItems) override;
    void Grow(uint64_t bytes, uint64_t items) override {
        totalBytes_ += bytes;
        totalItems_ += items;
    }
    void BytesDone(uint64_t bytes) override { doneBytes_ += bytes; }
    void PartDone(const std::string& item, uint64_t part, uint64_t parts, uint64_t bytes) override;
    void ItemDone(const std::string& item, uint64_t bytes) override;
    void ItemFailed() override { ++doneItems_; }
    // Ends the bar (a last redraw and a line end).
    void End() override;

private:
    double Seconds() const;
    std::string StatusText() const;
    void Redraw();

    const ProgressStyle style_;
    std::string stage_;
    std::atomic<uint64_t> totalBytes_{0};
    std::atomic<uint64_t> totalItems_{0};
    std::chrono::steady_clock::time_point start_;
    std::atomic<uint64_t> doneBytes_{0};
    std::atomic<uint64_t> doneItems_{0};
    std::mutex mutex_;
    std::condition_variable wake_;
    bool running_ = false;
    std::thread painter_;
};

}  // namespace qvhost
