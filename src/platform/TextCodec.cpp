// UTF-16 <-> UTF-8 conversion, kept apart from the rest of the platform
// layer so that programs beside the plug-in (the host tool) can use it
// without taking the plug-in's internals.
#include "TextCodec.h"

namespace qvplatform {

namespace {

constexpr char32_t kReplacement = 0xFFFD;

void AppendUtf8(std::string& out, char32_t cp) {
    if (cp < 0x80) {
        out.push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
}

void AppendUtf16(WideString& out, char32_t cp) {
    if (cp < 0x10000) {
        out.push_back(static_cast<char16_t>(cp));
    } else {
        cp -= 0x10000;
        out.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
        out.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
    }
}

bool IsHighSurrogate(char32_t u) { return u >= 0xD800 && u <= 0xDBFF; }
bool IsLowSurrogate(char32_t u) { return u >= 0xDC00 && u <= 0xDFFF; }

}  // namespace

std::string ToUtf8(const WideString& text) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        char32_t u = text[i];
        if (IsHighSurrogate(u) && i + 1 < text.size() && IsLowSurrogate(text[i + 1])) {
            u = 0x10000 + ((u - 0xD800) << 10) + (text[i + 1] - 0xDC00);
            ++i;
        } else if (IsHighSurrogate(u) || IsLowSurrogate(u)) {
            u = kReplacement;
        }
        AppendUtf8(out, u);
    }
    return out;
}

WideString FromUtf8(const std::string& text) {
    WideString out;
    out.reserve(text.size());
    const auto* s = reinterpret_cast<const unsigned char*>(text.data());
    const size_t n = text.size();
    size_t i = 0;
    while (i < n) {
        const unsigned char lead = s[i];
        size_t extra = 0;
        char32_t cp = 0;
        char32_t minimum = 0;
        if (lead < 0x80) {
            cp = lead;
        } else if ((lead & 0xE0) == 0xC0) {
            extra = 1, cp = lead & 0x1F, minimum = 0x80;
        } else if ((lead & 0xF0) == 0xE0) {
            extra = 2, cp = lead & 0x0F, minimum = 0x800;
        } else if ((lead & 0xF8) == 0xF0) {
            extra = 3, cp = lead & 0x07, minimum = 0x10000;
        } else {
            AppendUtf16(out, kReplacement);
            ++i;
            continue;
        }
        size_t k = 1;
        for (; k <= extra && i + k < n && (s[i + k] & 0xC0) == 0x80; ++k) {
            cp = (cp << 6) | (s[i + k] & 0x3F);
        }
        if (k <= extra || cp < minimum || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
            AppendUtf16(out, kReplacement);
            i += k;  // skip the lead and the continuation bytes that were read
            continue;
        }
        AppendUtf16(out, cp);
        i += extra + 1;
    }
    return out;
}

}  // namespace qvplatform
