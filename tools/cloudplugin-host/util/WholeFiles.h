// Small files read and written whole: the local cache's objects and the
// objects of a repository kept in a local folder.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <vector>

namespace qvhost {

// The whole file into `bytes`; false when it cannot be read, is larger than
// `limit` bytes, or changes size while read.
bool ReadWholeFile(const std::filesystem::path& path, std::vector<uint8_t>& bytes, uint64_t limit);

// Writes a file whole under a temporary name (the name, ".tmp-" and a
// random number), then renames it into place: a reader sees the old file,
// the new one, or none, never a part. False when it cannot.
bool WriteWholeFile(const std::filesystem::path& path, const uint8_t* data, size_t size);

// Whether a file name is one WriteWholeFile writes before the rename.
bool IsTemporaryName(const std::string& name);

}  // namespace qvhost
