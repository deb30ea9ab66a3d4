// A folder of the local file system as the tree a backup reads.
#pragma once

#include <memory>
#include <string>

#include "repository/Source.h"

namespace qvhost {

class LocalSource : public repo::Source {
public:
    explicit LocalSource(const std::string& root);

    std::string Path() const override { return path_; }
    SourceTree Scan() override;
    std::unique_ptr<repo::SourceReader> Open(const SourceEntry& file) override;
    bool Unchanged(const SourceEntry& file) override;

private:
    std::string root_;  // as given
    std::string path_;  // absolute
};

}  // namespace qvhost
