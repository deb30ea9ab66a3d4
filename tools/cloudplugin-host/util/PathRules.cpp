#include "util/PathRules.h"

#include <algorithm>
#include <cctype>
#include <set>
#include <vector>

#include "platform/TextCodec.h"
#include "util/Text.h"

namespace qvhost {

namespace {

// What the rules of every platform refuse in the path as a whole.
std::string WhyTextIsRefused(const std::string& path) {
    if (path.empty()) return "is empty";
    if (path.size() > kMaximumPathLength) return "is longer than " + std::to_string(kMaximumPathLength) + " bytes";
    if (path[0] == '/') return "is absolute";
    for (const unsigned char c : path) {
        if (c < 0x20 || c == 0x7F) return "holds a control character";
        if (c == '\\') return "holds a backslash";
        if (c == ':') return "holds a colon (a drive letter or a stream name)";
    }
    return {};
}

// Windows answers for these names, with any extension and trailing blanks,
// with a device instead of a file.
bool IsWindowsDeviceName(const std::string& component) {
    std::string base = component.substr(0, component.find('.'));
    while (!base.empty() && base.back() == ' ') base.pop_back();
    std::transform(base.begin(), base.end(), base.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    static const char* const kDevices[] = {"CON", "PRN", "AUX", "NUL", "CONIN$", "CONOUT$"};
    for (const char* device : kDevices) {
        if (base == device) return true;
    }
    if (base.size() < 4 || (base.compare(0, 3, "COM") != 0 && base.compare(0, 3, "LPT") != 0)) return false;
    const std::string number = base.substr(3);
    // COM1..COM9, LPT1..LPT9 and the superscript digits ¹ ² ³ that Windows
    // also takes for them.
    return (number.size() == 1 && number[0] >= '1' && number[0] <= '9') || number == "\xC2\xB9" ||
           number == "\xC2\xB2" || number == "\xC2\xB3";
}

std::string WhyWindowsComponentIsRefused(const std::string& component) {
    if (component.find_first_of("<>\"|?*") != std::string::npos) return "holds a character Windows reserves";
    if (component.back() == '.' || component.back() == ' ') return "has a component ending in a dot or a blank";
    if (IsWindowsDeviceName(component)) return "names a Windows device (" + component + ")";
    return {};
}

size_t ComponentLength(const std::string& component, PathRules rules) {
    return rules == PathRules::Windows ? qvplatform::FromUtf8(component).size() : component.size();
}

}  // namespace

std::string WhyPathIsRefused(const std::string& path, PathRules rules) {
    if (std::string why = WhyTextIsRefused(path); !why.empty()) return why;
    if (rules == PathRules::Windows && qvplatform::ToUtf8(qvplatform::FromUtf8(path)) != path) {
        return "is not valid UTF-8";
    }
    for (const std::string& component : Split(path, '/')) {
        if (component.empty()) return "has an empty component";
        if (component == "." || component == "..") return "has a '" + component + "' component";
        if (ComponentLength(component, rules) > kMaximumComponentLength) {
            return "has a component longer than " + std::to_string(kMaximumComponentLength);
        }
        if (rules == PathRules::Windows) {
            if (std::string why = WhyWindowsComponentIsRefused(component); !why.empty()) return why;
        }
    }
    return {};
}

std::string FolderOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "" : path.substr(0, slash);
}

std::string NameOf(const std::string& path) { return path.substr(path.rfind('/') + 1); }

std::string WhyLinkTargetIsRefused(const std::string& target) {
    if (target.empty()) return "has an empty link target";
    if (target.size() > 4095) return "has a link target longer than 4095 bytes";
    if (target.find('\0') != std::string::npos) return "has a link target holding NUL";
    return {};
}

std::pair<std::string, std::string> FirstTreeProblem(const std::vector<TreePath>& entries, PathRules rules) {
    std::set<std::string> all;
    std::set<std::string> notFolders;
    for (const TreePath& entry : entries) {
        if (std::string why = WhyPathIsRefused(entry.path, rules); !why.empty()) return {entry.path, why};
        if (!all.insert(entry.path).second) return {entry.path, "is named twice"};
        if (!entry.folder) notFolders.insert(entry.path);
    }
    for (const std::string& path : all) {
        for (size_t slash = path.find('/'); slash != std::string::npos; slash = path.find('/', slash + 1)) {
            const std::string above = path.substr(0, slash);
            if (notFolders.count(above)) return {path, "lies beneath the file or link '" + above + "'"};
        }
    }
    return {};
}

}  // namespace qvhost
