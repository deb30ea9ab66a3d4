// The local cache: a second command reads index, snapshot and tree objects
// from the disk; a file that does not match its name, or one of another
// repository, is never used; what the repository no longer has leaves the
// cache; trees are read a pack at a time with or without a cache.
#include <filesystem>
#include <fstream>

#include "repository/Forget.h"
#include "repository/LocalCache.h"
#include "repository/RepositoryFixture.h"

namespace repotest {
namespace {

class LocalCacheTest : public RepositoryTest {
protected:
    // A folder of `folders` sub-folders of a few small files each.
    std::string ManyFolders(const std::string& name, int folders, uint64_t seed) {
        const std::string root = Folder(name);
        for (int f = 0; f < folders; ++f) {
            for (int i = 0; i < 3; ++i) {
                WriteFile(root + "/d" + std::to_string(f) + "/f" + std::to_string(i),
                          RandomBytes(100 + static_cast<size_t>(f * 7 + i), seed + static_cast<uint64_t>(f * 3 + i)));
            }
        }
        return root;
    }

    std::string CacheRoot() const { return work_.PathUtf8() + "/cache"; }

    // The repository opened anew (as the next command would), with the cache under CacheRoot().
    std::unique_ptr<Repository> Reopened(MemoryStore& store, std::vector<std::string>* warnings = nullptr) {
        auto repository = std::make_unique<Repository>(store, "repo", kPassword);
        repository->UseCache(std::make_shared<LocalCache>(
            CacheRoot(), repository->config().id, [warnings](const std::string& text) {
                if (warnings) warnings->push_back(text);
            }));
        return repository;
    }

    // Every file of the latest snapshot with its chunks, as a text to compare.
    static std::string Listing(Repository& repository) {
        const MasterIndex index = repository.LoadIndex();
        TreeReader reader(repository, index);
        std::string text;
        WalkTree(reader, repository.LoadSnapshot(repository.FindSnapshot("latest")).tree,
                 [&](const std::string& path, const Node& node) {
                     text += path + " " + std::to_string(node.size) + " " + std::to_string(node.content.size()) + "\n";
                     return true;
                 });
        return text;
    }

    std::vector<fs::path> CachedFiles(const std::string& kind) const {
        std::vector<fs::path> files;
        for (const auto& entry : fs::directory_iterator(fs::path(CacheRoot()) / repository_->config().id / kind)) {
            files.push_back(entry.path());
        }
        return files;
    }
};

TEST_F(LocalCacheTest, ASecondCommandReadsIndexSnapshotAndTreesFromTheCache) {
    repository_ = Reopened(store_);
    Backup(ManyFolders("src", 40, 1));
    const std::string withoutCache = Listing(*std::make_unique<Repository>(store_, "repo", kPassword));

    auto next = Reopened(store_);
    store_.ForgetReads();
    EXPECT_EQ(Listing(*next), withoutCache);
    EXPECT_EQ(store_.ReadsUnder("repo/index/"), 0u);
    EXPECT_EQ(store_.ReadsUnder("repo/snapshots/"), 0u);
    EXPECT_EQ(store_.ReadsUnder("repo/data/"), 0u) << "the backup kept the tree packs it wrote";
    EXPECT_GT(next->cache()->counts().hits, 2u);
    EXPECT_EQ(next->cache()->counts().damaged, 0u);
}

TEST_F(LocalCacheTest, ADamagedCacheFileIsReplacedFromTheRepository) {
    repository_ = Reopened(store_);
    Backup(ManyFolders("src", 10, 2));
    const std::string expected = Listing(*repository_);
    std::vector<fs::path> damaged = CachedFiles("index");
    for (const fs::path& file : CachedFiles("trees")) damaged.push_back(file);
    for (const fs::path& file : CachedFiles("snapshots")) damaged.push_back(file);
    ASSERT_GE(damaged.size(), 3u);
    for (const fs::path& file : damaged) {
        Bytes bytes = ReadFile(file.string());
        bytes[5] ^= 0xff;
        WriteFile(file.string(), bytes);
    }
    fs::resize_file(damaged.front(), 10);  // and one cut short

    auto next = Reopened(store_);
    store_.ForgetReads();
    EXPECT_EQ(Listing(*next), expected);
    EXPECT_EQ(next->cache()->counts().damaged, damaged.size());
    EXPECT_GT(store_.ReadsUnder("repo/index/"), 0u);
    // Put right: the files hold the objects again, so a third command reads none.
    auto third = Reopened(store_);
    store_.ForgetReads();
    EXPECT_EQ(Listing(*third), expected);
    EXPECT_EQ(third->cache()->counts().damaged, 0u);
    EXPECT_EQ(store_.ReadsUnder("repo/index/") + store_.ReadsUnder("repo/data/"), 0u);
}

TEST_F(LocalCacheTest, ACacheFromAnotherRepositoryIsNeverUsed) {
    // Another repository's cache put where this one's belongs.
    MemoryStore other;
    Repository::Init(other, "repo", kPassword, SmallRepository(), "test-host");
    auto otherRepository = std::make_unique<Repository>(other, "repo", kPassword);
    otherRepository->UseCache(std::make_shared<LocalCache>(CacheRoot(), "other", WarningSink()));
    BackupFolder(*otherRepository, ManyFolders("other", 5, 3), BackupOptions{});

    Backup(ManyFolders("src", 5, 4));
    const std::string expected = Listing(*repository_);
    const fs::path mine = fs::path(CacheRoot()) / repository_->config().id;
    // The other repository's files in place of this one's (file by file: MinGW's recursive copy refuses
    // folders that exist).
    const fs::path theirs = fs::path(CacheRoot()) / "other";
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(theirs)) {
        const fs::path target = mine / entry.path().lexically_relative(theirs);
        if (entry.is_directory()) {
            fs::create_directories(target);
        } else {
            fs::copy_file(entry.path(), target, fs::copy_options::overwrite_existing);
        }
    }

    auto next = Reopened(store_);
    EXPECT_EQ(Listing(*next), expected);
    EXPECT_EQ(next->cache()->counts().hits, 0u) << "none of its objects is this repository's";
    EXPECT_GE(next->cache()->counts().removed, 3u) << "the other's index, snapshot and tree pack";
}

TEST_F(LocalCacheTest, WhatTheRepositoryNoLongerHasLeavesTheCache) {
    repository_ = Reopened(store_);
    const std::string source = ManyFolders("src", 5, 5);
    const std::string first = Backup(source).snapshot.id;
    WriteFile(source + "/d0/new", RandomBytes(5000, 6));
    Backup(source);
    const size_t snapshotsBefore = CachedFiles("snapshots").size();
    ASSERT_EQ(snapshotsBefore, 2u);

    ApplyForget(*repository_, {first});
    Prune(*repository_);
    auto next = Reopened(store_);
    next->LoadSnapshots();
    next->LoadIndex();
    EXPECT_EQ(CachedFiles("snapshots").size(), 1u);
    EXPECT_EQ(CachedFiles("index").size(), Names("repo/index/").size());
    for (const fs::path& file : CachedFiles("trees")) {
        EXPECT_TRUE(store_.objects().count("repo/data/" + file.filename().string())) << file;
    }
}

TEST_F(LocalCacheTest, TreesAreReadAPackAtATimeWithoutACache) {
    Backup(ManyFolders("src", 60, 7));
    const MasterIndex index = repository_->LoadIndex();
    std::set<Id> treePacks;
    size_t trees = 0;
    for (const IndexedPack& pack : index.all()) {
        for (const PackEntry& blob : pack.blobs) {
            if (blob.type == BlobType::Tree) {
                treePacks.insert(pack.pack);
                ++trees;
            }
        }
    }
    ASSERT_GT(trees, 60u);
    store_.ForgetReads();
    TreeReader reader(*repository_, index);
    size_t files = 0;
    WalkTree(reader, repository_->LoadSnapshot(repository_->FindSnapshot("latest")).tree,
             [&](const std::string&, const Node& node) {
                 files += node.type == NodeType::File;
                 return true;
             });
    EXPECT_EQ(files, 180u);
    EXPECT_EQ(store_.ReadsUnder("repo/data/"), treePacks.size());
}

TEST_F(LocalCacheTest, ACacheThatCannotBeWrittenWarnsOnceAndTheCommandGoesOn) {
    WriteFile(CacheRoot(), RandomBytes(10, 8));  // a file where the folder would be
    std::vector<std::string> warnings;
    repository_ = Reopened(store_, &warnings);
    Backup(ManyFolders("src", 3, 9));
    EXPECT_EQ(Listing(*repository_).empty(), false);
    ASSERT_EQ(warnings.size(), 1u);
    EXPECT_NE(warnings[0].find("--no-cache"), std::string::npos) << warnings[0];
}

TEST_F(LocalCacheTest, TheCachesAreListedWithTheirSizeAndRemoved) {
    repository_ = Reopened(store_);
    Backup(ManyFolders("src", 3, 10));
    fs::create_directories(fs::path(CacheRoot()) / "not-a-repository");
    std::vector<CacheFolder> caches = ListCaches(CacheRoot());
    ASSERT_EQ(caches.size(), 1u);
    EXPECT_EQ(caches[0].repositoryId, repository_->config().id);
    EXPECT_GT(caches[0].bytes, 1000u);
    EXPECT_LE(std::abs(caches[0].lastUsed - static_cast<int64_t>(std::time(nullptr))), 60);
    EXPECT_TRUE(fs::exists(fs::path(CacheRoot()) / "CACHEDIR.TAG"));
    RemoveCache(caches[0]);
    EXPECT_TRUE(ListCaches(CacheRoot()).empty());
    EXPECT_TRUE(ListCaches(CacheRoot() + "/missing").empty());
}

}  // namespace
}  // namespace repotest
