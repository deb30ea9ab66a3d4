#include "cli/Progress.h"

#include <cstdio>

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

std::string FormatBytes(double bytes) {
    static const char* const kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB"};
    int unit = 0;
    while (bytes >= 1024 && unit < 4) bytes /= 1024, ++unit;
    char text[32];
    std::snprintf(text, sizeof text, unit == 0 ? "%.0f %s" : "%.1f %s", bytes, kUnits[unit]);
    return text;
}

std::string FormatDuration(double seconds) {
    if (!(seconds >= 0) || seconds > 359999) return "--:--";
    const long total = static_cast<long>(seconds + 0.5);
    char text[32];
    if (total >= 3600) {
        std::snprintf(text, sizeof text, "%ld:%02ld:%02ld", total / 3600, total / 60 % 60, total % 60);
    } else {
        std::snprintf(text, sizeof text, "%ld:%02ld", total / 60, total % 60);
    }
    return text;
}

Progress::Progress(std::string verb, uint64_t totalBytes, uint64_t totalFiles, ProgressStyle style)
    : verb_(std::move(verb)), totalBytes_(totalBytes), totalFiles_(totalFiles), style_(style) {
    if (style_ != ProgressStyle::Bar) return;
    painter_ = std::thread([this] {
        std::unique_lock<std::mutex> lock(mutex_);
        while (!wake_.wait_for(lock, std::chrono::milliseconds(200), [this] { return finished_; })) Redraw();
    });
}

Progress::~Progress() { Finish(); }

double Progress::Seconds() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
}

std::string Progress::StatusText() const {
    const double seconds = Seconds();
    const double done = static_cast<double>(doneBytes_.load());
    const double rate = seconds > 0 ? done / seconds : 0;
    const double left = rate > 0 ? (static_cast<double>(totalBytes_) - done) / rate : -1;
    const int percent = totalBytes_ ? static_cast<int>(100.0 * done / static_cast<double>(totalBytes_)) : 100;
    char text[160];
    std::snprintf(text, sizeof text, "%3d%% %s / %s  %s/s  %s left  %llu/%llu files", percent,
                  FormatBytes(done).c_str(), FormatBytes(static_cast<double>(totalBytes_)).c_str(),
                  FormatBytes(rate).c_str(), FormatDuration(left).c_str(),
                  static_cast<unsigned long long>(doneFiles_.load()), static_cast<unsigned long long>(totalFiles_));
    return text;
}

void Progress::Redraw() {
    constexpr int kWidth = 24;
    const double fraction =
        totalBytes_ ? static_cast<double>(doneBytes_.load()) / static_cast<double>(totalBytes_) : 1.0;
    const int filled = static_cast<int>(fraction * kWidth);
    std::string bar(static_cast<size_t>(kWidth), ' ');
    for (int i = 0; i < filled && i < kWidth; ++i) bar[static_cast<size_t>(i)] = '#';
    std::fprintf(stderr, "\r%s [%s] %s\033[K", verb_.c_str(), bar.c_str(), StatusText().c_str());
    std::fflush(stderr);
}

void Progress::PartDone(const std::string& relativePath, uint64_t part, uint64_t parts, uint64_t bytes) {
    doneBytes_ += bytes;
    if (style_ != ProgressStyle::Lines || parts < 2) return;
    std::lock_guard<std::mutex> lock(mutex_);
    std::fprintf(stderr, "%s %s part %llu/%llu (%s)  [%s]\n", verb_.c_str(), relativePath.c_str(),
                 static_cast<unsigned long long>(part + 1), static_cast<unsigned long long>(parts),
                 FormatBytes(static_cast<double>(bytes)).c_str(), StatusText().c_str());
}

void Progress::FileDone(const std::string& relativePath, uint64_t size) {
    ++doneFiles_;
    if (style_ != ProgressStyle::Lines) return;
    std::lock_guard<std::mutex> lock(mutex_);
    std::fprintf(stderr, "%s %s (%s)  [%s]\n", verb_.c_str(), relativePath.c_str(),
                 FormatBytes(static_cast<double>(size)).c_str(), StatusText().c_str());
}

void Progress::Finish() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (finished_) return;
        finished_ = true;
    }
    wake_.notify_all();
    if (painter_.joinable()) {
        painter_.join();
        Redraw();
        std::fputc('\n', stderr);
    }
}

}  // namespace qvhost
