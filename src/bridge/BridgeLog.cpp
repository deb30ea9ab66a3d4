#include "bridge/BridgeLog.h"

#include <cstdio>
#include <cstring>
#include <mutex>

namespace {
std::mutex g_sinkMutex;
std::function<void(const std::string&)> g_sink;
}  // namespace

void TraceToStdout(const std::string& text) {
    std::lock_guard<std::mutex> lock(g_sinkMutex);
    if (g_sink) {
        g_sink(text);
        return;
    }
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
}

void SetStdoutTraceSink(std::function<void(const std::string&)> sink) {
    std::lock_guard<std::mutex> lock(g_sinkMutex);
    g_sink = std::move(sink);
}

WideString NarrowBytesAsWide(const char* text) {
    WideString out;
    if (!text) return out;
    const size_t bytes = std::strlen(text);
    for (size_t k = 0; 2 * k < bytes; ++k) {
        const unsigned low = static_cast<unsigned char>(text[2 * k]);
        const unsigned high = 2 * k + 1 < bytes ? static_cast<unsigned char>(text[2 * k + 1]) : 0u;
        const char16_t unit = static_cast<char16_t>(low | (high << 8));
        if (unit == 0) break;
        out.push_back(unit);
    }
    return out;
}
