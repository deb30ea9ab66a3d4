// Looking into snapshots: ls's entries and modes, find's patterns and time
// bounds, over backups in the store in memory.
#include <sys/stat.h>

#include "local/LocalFiles.h"
#include "repository/Listing.h"
#include "repository/RepositoryFixture.h"

namespace repotest {
namespace {

Node NodeOf(NodeType type, uint32_t mode) {
    Node node;
    node.type = type;
    node.mode = mode;
    return node;
}

TEST(ModeText, ShowsTheTypeAndEveryBitAsLsDoes) {
    EXPECT_EQ(ModeText(NodeOf(NodeType::Folder, 0700)), "drwx------");
    EXPECT_EQ(ModeText(NodeOf(NodeType::File, 0644)), "-rw-r--r--");
    EXPECT_EQ(ModeText(NodeOf(NodeType::Link, 0777)), "lrwxrwxrwx");
    EXPECT_EQ(ModeText(NodeOf(NodeType::File, 04755)), "-rwsr-xr-x");
    EXPECT_EQ(ModeText(NodeOf(NodeType::File, 02640)), "-rw-r-S---");
    EXPECT_EQ(ModeText(NodeOf(NodeType::Folder, 01777)), "drwxrwxrwt");
    EXPECT_EQ(ModeText(NodeOf(NodeType::Folder, 01776)), "drwxrwxrwT");
    EXPECT_EQ(ModeText(NodeOf(NodeType::Fifo, 0600)), "prw-------");
    EXPECT_EQ(ModeText(NodeOf(NodeType::CharDevice, 0666)), "crw-rw-rw-");
}

TEST(RootedPath, GivesEveryFormOneLeadingSlash) {
    EXPECT_EQ(RootedPath(""), "/");
    EXPECT_EQ(RootedPath("/"), "/");
    EXPECT_EQ(RootedPath("a/b/"), "/a/b");
    EXPECT_EQ(RootedPath("//a//b"), "/a/b");
}

class ListingTest : public RepositoryTest {
protected:
    // docs/a.txt, docs/notes/b.md, src/main.cpp, src/link -> ../docs
    std::string MakeSource() {
        const std::string source = Folder("source");
        WriteFile(source + "/docs/a.txt", Bytes(100, 'a'));
        WriteFile(source + "/docs/notes/b.md", Bytes(2000, 'b'));
        WriteFile(source + "/src/main.cpp", Bytes(30, 'm'));
        fs::create_symlink("../docs", fs::u8path(source + "/src/link"));
        ::chmod((source + "/src/main.cpp").c_str(), 0751);
        return source;
    }

    std::vector<std::string> Paths(const std::string& id, const std::string& path) {
        const MasterIndex index = repository_->LoadIndex();
        TreeReader reader(*repository_, index);
        std::vector<std::string> paths;
        ListSnapshot(reader, repository_->LoadSnapshot(id), path,
                     [&](const ListedEntry& entry) { paths.push_back(entry.path); });
        return paths;
    }

    std::vector<std::string> Found(const std::string& id, const FindQuery& query) {
        const MasterIndex index = repository_->LoadIndex();
        TreeReader reader(*repository_, index);
        std::vector<std::string> paths;
        for (const ListedEntry& entry : FindInSnapshot(reader, repository_->LoadSnapshot(id), query)) {
            paths.push_back(entry.path);
        }
        return paths;
    }
};

TEST_F(ListingTest, ListsEveryEntryDepthFirstInNameOrder) {
    const std::string id = Backup(MakeSource()).snapshot.id;
    const std::vector<std::string> expected = {"/docs",     "/docs/a.txt", "/docs/notes", "/docs/notes/b.md",
                                               "/src",      "/src/link",   "/src/main.cpp"};
    EXPECT_EQ(Paths(id, "/"), expected);
    EXPECT_EQ(Paths(id, ""), expected);
}

TEST_F(ListingTest, AFolderIsListedWithItselfFirstAndAFileAlone) {
    const std::string id = Backup(MakeSource()).snapshot.id;
    EXPECT_EQ(Paths(id, "docs/"), (std::vector<std::string>{"/docs", "/docs/a.txt", "/docs/notes", "/docs/notes/b.md"}));
    EXPECT_EQ(Paths(id, "/src/main.cpp"), (std::vector<std::string>{"/src/main.cpp"}));
    EXPECT_EQ(KindOf([&] { Paths(id, "/nothing"); }), ErrorKind::NotFound);
}

TEST_F(ListingTest, EntriesCarryWhatLsLongShows) {
    const std::string id = Backup(MakeSource()).snapshot.id;
    const MasterIndex index = repository_->LoadIndex();
    TreeReader reader(*repository_, index);
    std::map<std::string, Node> nodes;
    ListSnapshot(reader, repository_->LoadSnapshot(id), "/src", [&](const ListedEntry& e) { nodes[e.path] = e.node; });
    EXPECT_EQ(ModeText(nodes["/src/main.cpp"]), "-rwxr-x--x");
    EXPECT_EQ(nodes["/src/main.cpp"].size, 30u);
    EXPECT_EQ(nodes["/src/main.cpp"].uid, ::getuid());
    EXPECT_EQ(nodes["/src/link"].linkTarget, "../docs");
    EXPECT_EQ(NodeTypeName(nodes["/src/link"].type), "symlink");
    EXPECT_EQ(NodeTypeName(nodes["/src"].type), "dir");
}

TEST_F(ListingTest, FindMatchesNamesAndPathsNotTheFoldersAbove) {
    const std::string id = Backup(MakeSource()).snapshot.id;
    FindQuery query;
    query.patterns.emplace_back("*.md");
    EXPECT_EQ(Found(id, query), (std::vector<std::string>{"/docs/notes/b.md"}));
    query.patterns = {PathPattern("notes")};
    EXPECT_EQ(Found(id, query), (std::vector<std::string>{"/docs/notes"})) << "not what the folder holds";
    query.patterns = {PathPattern("docs/*"), PathPattern("main.CPP", true)};
    EXPECT_EQ(Found(id, query), (std::vector<std::string>{"/docs/a.txt", "/docs/notes", "/src/main.cpp"}));
    query.patterns = {PathPattern("/notes")};
    EXPECT_TRUE(Found(id, query).empty()) << "anchored at the root";
}

TEST_F(ListingTest, FindKeepsEntriesModifiedWithinTheBounds) {
    const std::string source = MakeSource();
    SetModifiedNs(JoinPath(source, "docs/a.txt"), 1000 * 1000000000ll);
    SetModifiedNs(JoinPath(source, "src/main.cpp"), 2000 * 1000000000ll);
    const std::string id = Backup(source).snapshot.id;
    FindQuery query;
    query.patterns.emplace_back("*.*");
    query.newestNs = 1500 * 1000000000ll;
    EXPECT_EQ(Found(id, query), (std::vector<std::string>{"/docs/a.txt"}));
    query.newestNs = std::numeric_limits<int64_t>::max();
    query.oldestNs = 1500 * 1000000000ll;
    EXPECT_EQ(Found(id, query), (std::vector<std::string>{"/docs/notes/b.md", "/src/main.cpp"}));
    query.oldestNs = 2000 * 1000000000ll;
    query.newestNs = 2000 * 1000000000ll;
    EXPECT_EQ(Found(id, query), (std::vector<std::string>{"/src/main.cpp"})) << "the bounds are inclusive";
}

}  // namespace
}  // namespace repotest
