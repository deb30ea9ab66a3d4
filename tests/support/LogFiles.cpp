#include "support/LogFiles.h"

#include <algorithm>

#include "log/JNIWrapperLog.h"
#include "platform/Platform.h"
#include "support/TempFolder.h"

namespace testsupport {

std::vector<std::u16string> LogMessages(const std::u16string& path) {
    std::vector<std::u16string> lines;
    const std::u16string text = DecodeUtf16Le(ReadFileBytes(path));
    const size_t prefix = 2 + JNIWrapperLog::kPrefixLength;  // "\r\n" and the prefix
    // Records are "\r\n" + prefix + " :" + message.
    size_t start = 0;
    while ((start = text.find(u"\r\n", start)) != std::u16string::npos) {
        const size_t body = start + prefix + 2;
        size_t next = text.find(u"\r\n", body);
        // A record ends only where the next one's prefix begins.
        while (next != std::u16string::npos && next + prefix + 2 <= text.size() &&
               text.compare(next + prefix, 2, u" :") != 0) {
            next = text.find(u"\r\n", next + 2);
        }
        lines.push_back(text.substr(body, (next == std::u16string::npos ? text.size() : next) - body));
        start = next == std::u16string::npos ? text.size() : next;
    }
    return lines;
}

std::vector<std::u16string> LogFilesIn(const std::u16string& folder) {
    std::vector<std::u16string> files;
    for (const auto& found : qvplatform::ListFiles(folder + qvplatform::kPathSeparator + u"JNIWrapper_*.log")) {
        files.push_back(folder + qvplatform::kPathSeparator + found.name);
    }
    std::sort(files.begin(), files.end());
    return files;
}

std::vector<std::u16string> LogMessagesIn(const std::u16string& folder) {
    std::vector<std::u16string> lines;
    for (const auto& file : LogFilesIn(folder)) {
        const auto more = LogMessages(file);
        lines.insert(lines.end(), more.begin(), more.end());
    }
    return lines;
}

}  // namespace testsupport
