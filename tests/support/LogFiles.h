// Reading back what the process-wide log writer wrote.
#pragma once

#include <string>
#include <vector>

namespace testsupport {

// The messages of a log file in order: the text after the 46-character
// prefix and " :" of each record (a message may itself hold line breaks).
std::vector<std::u16string> LogMessages(const std::u16string& path);

// The log files ("JNIWrapper_*.log", the error file excluded) directly in `folder`.
std::vector<std::u16string> LogFilesIn(const std::u16string& folder);

// The messages of every log file in `folder`, file after file.
std::vector<std::u16string> LogMessagesIn(const std::u16string& folder);

}  // namespace testsupport
