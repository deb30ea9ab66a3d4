// UTF-16 text, as the plug-in and its host speak it, and its conversion to
// and from UTF-8.
#pragma once

#include <string>

namespace qvplatform {

using WideString = std::u16string;

// UTF-16 to UTF-8 and back. Unpaired surrogates and malformed bytes become
// U+FFFD, so that every input yields some text.
std::string ToUtf8(const WideString& text);
WideString FromUtf8(const std::string& text);

}  // namespace qvplatform
