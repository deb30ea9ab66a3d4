// The parts of the platform layer that do not depend on the operating system.
#include "Platform.h"

namespace qvplatform {

bool SharedFile::OpenOrCreate(const WideString& path) { return OpenOrCreate(NativePath(path)); }

bool SharedFile::AppendAtEnd(const void* data, size_t bytes) { return SeekToEnd() && Write(data, bytes); }

bool CreateFolderPath(const WideString& path) {
    // Each level from the top down; levels that exist (a drive, the root,
    // folders made before) are simply passed.
    for (size_t at = path.find(kPathSeparator, 1); at != WideString::npos; at = path.find(kPathSeparator, at + 1)) {
        CreateFolder(path.substr(0, at));
    }
    return CreateFolder(path);
}

}  // namespace qvplatform
