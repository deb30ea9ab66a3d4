// The local side of a backup: walking a source tree, reading files in
// slices, writing restored files, modification times in nanoseconds since
// 1970 (UTC). Paths are UTF-8 text; relative paths use '/'.
#pragma once

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

namespace qvhost {

// The path of UTF-8 text, in the platform's own form.
std::filesystem::path PathOf(const std::string& utf8);

struct SourceFile {
    std::string relativePath;  // '/'-separated, UTF-8
    uint64_t size = 0;
    int64_t modifiedNs = 0;
};

// Every regular file under root (links are not followed), sorted by
// relative path. Throws ToolError (local file) when root is not a folder.
std::vector<SourceFile> ListTree(const std::string& root);

// root + relative path, with the platform's separators.
std::string JoinPath(const std::string& root, const std::string& relativePath);

int64_t ModifiedNs(const std::string& path);
void SetModifiedNs(const std::string& path, int64_t modifiedNs);

// A file open for reading; throws ToolError (local file) on failure.
class InputFile {
public:
    explicit InputFile(const std::string& path);
    ~InputFile();
    InputFile(const InputFile&) = delete;
    InputFile& operator=(const InputFile&) = delete;

    // Reads exactly `size` bytes at the current position unless the file
    // ends first; answers the bytes read.
    size_t Read(void* buffer, size_t size);
    void Rewind();

private:
    std::string path_;
    std::FILE* file_ = nullptr;
};

// A new file written from the start; made (with its folders) by the
// constructor, which refuses to replace an existing file unless told to.
class OutputFile {
public:
    OutputFile(const std::string& path, bool replace);
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    void Write(const void* data, size_t size);
    void Close();  // flushes; throws on failure

private:
    std::string path_;
    std::FILE* file_ = nullptr;
};

bool PathExists(const std::string& path);
void RemoveFile(const std::string& path);
void RenameFile(const std::string& from, const std::string& to);
void MakeFolders(const std::string& path);

}  // namespace qvhost
