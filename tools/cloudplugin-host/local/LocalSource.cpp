#include "local/LocalSource.h"

#include "local/LocalFiles.h"

namespace qvhost {

namespace {

class LocalReader : public repo::SourceReader {
public:
    explicit LocalReader(const std::string& path) : input_(path) {}
    size_t Read(void* buffer, size_t size) override { return input_.Read(buffer, size); }

private:
    InputFile input_;
};

}  // namespace

LocalSource::LocalSource(const std::string& root) : root_(root), path_(AbsolutePath(root)) {}

SourceTree LocalSource::Scan() { return ScanTree(root_); }

std::unique_ptr<repo::SourceReader> LocalSource::Open(const SourceEntry& file) {
    return std::make_unique<LocalReader>(JoinPath(root_, file.relativePath));
}

bool LocalSource::Unchanged(const SourceEntry& file) {
    const std::string path = JoinPath(root_, file.relativePath);
    return FileSize(path) == file.size && ModifiedNs(path) == file.modifiedNs;
}

}  // namespace qvhost
