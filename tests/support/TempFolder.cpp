#include "support/TempFolder.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

namespace testsupport {

TempFolder::TempFolder() {
    m_path = qvplatform::TempFolderPath() + qvplatform::kPathSeparator + u"qvtest-" + qvplatform::NewUuidText();
    qvplatform::CreateFolder(m_path);
}

// Removes the folder with everything below it (tests may make sub-folders,
// such as a host's Plugin/Azure/Log).
TempFolder::~TempFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(std::filesystem::path(m_path), ignored);
}

namespace {
// std::fstream takes 8-bit names; test folders are ASCII.
std::string Narrow(const std::u16string& path) {
    std::string out;
    for (char16_t c : path) out.push_back(static_cast<char>(c));
    return out;
}
}  // namespace
std::u16string TempFolder::File(const std::u16string& name) const {
    return m_path + qvplatform::kPathSeparator + name;
}

std::string ReadFileBytes(const std::u16string& path) {
    std::ifstream in(Narrow(path), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

bool WriteFileBytes(const std::u16string& path, const std::string& bytes) {
    std::ofstream out(Narrow(path), std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return static_cast<bool>(out);
}

std::u16string DecodeUtf16Le(const std::string& bytes) {
    std::u16string text(bytes.size() / 2, u'\0');
    for (size_t i = 0; i < text.size(); ++i) {
        text[i] = static_cast<char16_t>(static_cast<unsigned char>(bytes[2 * i]) |
                                        (static_cast<unsigned char>(bytes[2 * i + 1]) << 8));
    }
    return text;
}

void WriteText(const std::string& path, const std::string& text) {
    const std::filesystem::path file = std::filesystem::u8path(path);
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << text;
}

}  // namespace testsupport
