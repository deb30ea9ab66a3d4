#include "cli/ProgressDisplay.h"

#include <cstdio>

#include "util/Text.h"

#ifdef _WIN32
#include <io.h>
#define QV_ISATTY _isatty
#define QV_FILENO _fileno
#else
#include <unistd.h>
#define QV_ISATTY isatty
#define QV_FILENO fileno
#endif

namespace qvhost {

ProgressStyle DefaultProgressStyle() {
    return QV_ISATTY(QV_FILENO(stderr)) ? ProgressStyle::Bar : ProgressStyle::Lines;
}

void ProgressDisplay::Begin(const std::string& stage, uint64_t totalBytes, uint64_t totalItems) {
    End();
    stage_ = stage;
    totalBytes_ = totalBytes;
    totalItems_ = totalItems;
    doneBytes_ = 0;
    doneItems_ = 0;
    start_ = std::chrono::steady_clock::now();
    running_ = true;
    if (style_ != ProgressStyle::Bar) return;
    painter_ = std::thread([this] {
        std::unique_lock<std::mutex> lock(mutex_);
        while (!wake_.wait_for(lock, std::chrono::milliseconds(200), [this] { return !running_; })) Redraw();
    });
}

double ProgressDisplay::Seconds() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
}

std::string ProgressDisplay::StatusText() const {
    const uint64_t totalBytes = totalBytes_, totalItems = totalItems_;
    const double seconds = Seconds();
    const double done = static_cast<double>(doneBytes_.load());
    const double rate = seconds > 0 ? done / seconds : 0;
    const double left = rate > 0 ? (static_cast<double>(totalBytes) - done) / rate : -1;
    const int percent = totalBytes ? static_cast<int>(100.0 * done / static_cast<double>(totalBytes)) : 100;
    char text[160];
    std::snprintf(text, sizeof text, "%3d%% %s / %s  %s/s  %s left  %llu/%llu files", percent,
                  FormatBytes(done).c_str(), FormatBytes(static_cast<double>(totalBytes)).c_str(),
                  FormatBytes(rate).c_str(), FormatDuration(left).c_str(),
                  static_cast<unsigned long long>(doneItems_.load()), static_cast<unsigned long long>(totalItems));
    return text;
}

void ProgressDisplay::Redraw() {
    constexpr int kWidth = 24;
    const uint64_t totalBytes = totalBytes_;
    const double fraction = totalBytes ? static_cast<double>(doneBytes_.load()) / static_cast<double>(totalBytes) : 1.0;
    const int filled = static_cast<int>(fraction * kWidth);
    std::string bar(static_cast<size_t>(kWidth), ' ');
    for (int i = 0; i < filled && i < kWidth; ++i) bar[static_cast<size_t>(i)] = '#';
    std::fprintf(stderr, "\r%s [%s] %s\033[K", stage_.c_str(), bar.c_str(), StatusText().c_str());
    std::fflush(stderr);
}

void ProgressDisplay::PartDone(const std::string& item, uint64_t part, uint64_t parts, uint64_t bytes) {
    doneBytes_ += bytes;
    if (style_ != ProgressStyle::Lines || parts < 2) return;
    std::lock_guard<std::mutex> lock(mutex_);
    std::fprintf(stderr, "%s %s part %llu/%llu (%s)  [%s]\n", stage_.c_str(), item.c_str(),
                 static_cast<unsigned long long>(part + 1), static_cast<unsigned long long>(parts),
                 FormatBytes(static_cast<double>(bytes)).c_str(), StatusText().c_str());
}

void ProgressDisplay::ItemDone(const std::string& item, uint64_t size) {
    ++doneItems_;
    if (style_ != ProgressStyle::Lines) return;
    std::lock_guard<std::mutex> lock(mutex_);
    std::fprintf(stderr, "%s %s (%s)  [%s]\n", stage_.c_str(), item.c_str(),
                 FormatBytes(static_cast<double>(size)).c_str(), StatusText().c_str());
}

void ProgressDisplay::End() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!running_) return;
        running_ = false;
    }
    wake_.notify_all();
    if (painter_.joinable()) {
        painter_.join();
        Redraw();
        std::fputc('\n', stderr);
    }
}

}  // namespace qvhost
