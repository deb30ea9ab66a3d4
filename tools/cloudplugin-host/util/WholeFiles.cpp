#include "util/WholeFiles.h"

#include <fstream>
#include <random>
#include <string>

namespace qvhost {

namespace fs = std::filesystem;

namespace {
constexpr const char* kTemporaryMark = ".tmp-";
}  // namespace

bool ReadWholeFile(const fs::path& path, std::vector<uint8_t>& bytes, uint64_t limit) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    std::error_code error;
    const uintmax_t size = fs::file_size(path, error);
    if (error || size > limit) return false;
    bytes.resize(static_cast<size_t>(size));
    in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    return in.gcount() == static_cast<std::streamsize>(bytes.size()) && in.peek() == EOF;
}

bool WriteWholeFile(const fs::path& path, const uint8_t* data, size_t size) {
    static thread_local std::mt19937_64 random{std::random_device{}()};
    const fs::path temporary = path.string() + kTemporaryMark + std::to_string(random());
    {
        std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
        if (!out) return false;
        out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
        out.close();
        if (!out) {
            std::error_code ignored;
            fs::remove(temporary, ignored);
            return false;
        }
    }
    std::error_code error;
    fs::rename(temporary, path, error);
    if (error) fs::remove(temporary, error);
    return !error;
}

bool IsTemporaryName(const std::string& name) { return name.find(kTemporaryMark) != std::string::npos; }

}  // namespace qvhost
