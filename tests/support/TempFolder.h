// A fresh, empty folder for one test, removed with its files afterwards.
#pragma once

#include <chrono>
#include <string>

#include "platform/Platform.h"

namespace testsupport {

// Seconds since a moment of the steady clock.
inline double SecondsSince(std::chrono::steady_clock::time_point since) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

// Writes `text` to the file at `path` (UTF-8), making the folders on its way.
void WriteText(const std::string& path, const std::string& text);

class TempFolder {
public:
    TempFolder();
    ~TempFolder();
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    // The folder, without a trailing separator.
    const std::u16string& Path() const { return m_path; }
    std::string PathUtf8() const { return qvplatform::ToUtf8(m_path); }
    // The folder followed by the separator and `name`.
    std::u16string File(const std::u16string& name) const;

private:
    std::u16string m_path;
};

// The whole content of a file as bytes; empty when it cannot be read.
std::string ReadFileBytes(const std::u16string& path);
// Writes `bytes` to a new file (replacing an old one).
bool WriteFileBytes(const std::u16string& path, const std::string& bytes);
// UTF-16LE bytes decoded to UTF-16 text.
std::u16string DecodeUtf16Le(const std::string& bytes);

}  // namespace testsupport
