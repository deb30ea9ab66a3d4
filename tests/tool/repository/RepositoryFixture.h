// What the repository's unit tests share: an object store in memory, a
// repository with small chunks and packs and a cheap key derivation, trees
// of random files, and helpers that run backups, restores and prunes.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "local/Destination.h"
#include "local/LocalSource.h"
#include "repository/Backup.h"
#include "repository/Check.h"
#include "repository/MemoryStore.h"
#include "repository/Prune.h"
#include "repository/Restore.h"
#include "repository/TreeReader.h"
#include "support/TempFolder.h"
#include "util/Error.h"

namespace repotest {

using namespace qvhost;
using namespace qvhost::repo;
namespace fs = std::filesystem;

constexpr char kPassword[] = "correct horse";

inline Bytes RandomBytes(size_t size, uint64_t seed) {
    std::mt19937_64 random(seed);
    Bytes bytes(size);
    for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(random());
    return bytes;
}

inline void WriteFile(const std::string& path, const Bytes& bytes) {
    fs::create_directories(fs::u8path(path).parent_path());
    std::ofstream(fs::u8path(path), std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()),
                                                             static_cast<std::streamsize>(bytes.size()));
}

inline Bytes ReadFile(const std::string& path) {
    std::ifstream in(fs::u8path(path), std::ios::binary);
    return Bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

// The kind of the failure of `call`; none when it succeeds.
inline std::optional<ErrorKind> KindOf(const std::function<void()>& call) {
    try {
        call();
    } catch (const Error& failure) {
        return failure.kind();
    }
    return std::nullopt;
}

// Small chunks and packs, a cheap key derivation: the tests stay quick.
inline InitOptions SmallRepository() {
    InitOptions options;
    options.kdfMemory = 1u << 20;
    options.packSize = 1u << 20;
    options.chunker = {16 * 1024, 64 * 1024, 256 * 1024};
    return options;
}

// A backup of a local folder.
inline BackupReport BackupFolder(Repository& repository, const std::string& folder, const BackupOptions& options) {
    LocalSource source({folder});
    return RunBackup(repository, source, options);
}

// Plans and executes a prune.
inline PruneReport Prune(Repository& repository) {
    return ExecutePrune(repository, PlanPrune(repository), PruneOptions{2, nullptr});
}

class RepositoryTest : public ::testing::Test {
protected:
    void SetUp() override {
        Repository::Init(store_, "repo", kPassword, SmallRepository(), "test-host");
        repository_ = std::make_unique<Repository>(store_, "repo", kPassword);
    }

    std::string Folder(const std::string& name) const { return work_.PathUtf8() + "/" + name; }

    BackupReport Backup(const std::string& source, bool ignoreParent = false) {
        BackupOptions options;
        options.jobs = 2;
        options.host = "test-host";
        options.ignoreParent = ignoreParent;
        options.listReads = true;
        return BackupFolder(*repository_, source, options);
    }

    RestoreReport Restore(const std::string& id, const std::string& destination, const std::string& subPath = "") {
        const Snapshot snapshot = repository_->LoadSnapshot(id);
        Destination target(destination, DestinationOptions{});
        RestoreOptions options;
        options.jobs = 2;
        options.subPath = subPath;
        return RunRestore(*repository_, repository_->LoadIndex(), snapshot, &target, options);
    }

    // Every file of a snapshot, by path.
    std::vector<std::pair<std::string, Node>> Files(const std::string& snapshotId) {
        const MasterIndex index = repository_->LoadIndex();
        TreeReader reader(*repository_, index);
        std::vector<std::pair<std::string, Node>> files;
        WalkTree(reader, repository_->LoadSnapshot(snapshotId).tree, [&](const std::string& path, const Node& node) {
            if (node.type == NodeType::File) files.push_back({path, node});
            return true;
        });
        return files;
    }

    // The packs that hold chunks of files (not trees).
    std::vector<std::string> DataPacks() {
        std::vector<std::string> packs;
        const MasterIndex index = repository_->LoadIndex();
        for (const IndexedPack& pack : index.all()) {
            if (!pack.blobs.empty() && pack.blobs[0].type == BlobType::Data) {
                packs.push_back(repository_->layout().Pack(pack.pack));
            }
        }
        return packs;
    }

    std::vector<std::string> Names(const std::string& prefix) {
        std::vector<std::string> names;
        for (const StoredObject& object : store_.List(prefix)) names.push_back(object.name);
        return names;
    }

    MemoryStore store_;
    std::unique_ptr<Repository> repository_;
    testsupport::TempFolder work_;
};

}  // namespace repotest
