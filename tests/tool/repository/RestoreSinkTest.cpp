// The restore sink both layouts write through: every path checked before
// the first write, pieces in any order, a damaged file removed and named
// (and its other names with it), set-ID bits reported, then hard links,
// links and special files, and folders last, deepest first.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <mutex>

#include "repository/RestoreSink.h"
#include "util/Error.h"

using namespace qvhost;
using namespace qvhost::repo;

namespace {

Node Of(NodeType type, uint32_t mode, uint64_t size = 0) {
    Node node;
    node.type = type;
    node.mode = mode;
    node.size = size;
    return node;
}

// A target that keeps what is made, in memory, and the order of events.
class RecordingTarget : public RestoreTarget {
public:
    struct File : RestoredFile {
        File(RecordingTarget& target, std::string path) : target(target), path(std::move(path)) {}
        ~File() override {
            if (!committed) target.Event("removed " + path);
        }
        void WriteAt(uint64_t offset, const void* data, size_t size) override {
            if (content.size() < offset + size) content.resize(offset + size);
            content.replace(offset, size, static_cast<const char*>(data), size);
        }
        void Commit(const Node& node) override {
            committed = true;
            target.files[path] = content;
            target.Event("file " + path + " " + std::to_string(node.mode));
        }
        RecordingTarget& target;
        std::string path;
        std::string content;
        bool committed = false;
    };

    void Check(const std::string& path, EntryKind) const override {
        checked.push_back(path);
        if (path == refuse) throw Error(ErrorKind::LocalFile, "refusing " + path);
    }
    std::unique_ptr<RestoredFile> MakeFile(const std::string& path, const Node&) override {
        return std::make_unique<File>(*this, path);
    }
    void MakeFolder(const std::string& path, const Node&) override { Event("folder " + path); }
    void MakeLink(const std::string& path, const Node&) override { Event("link " + path); }
    void MakeSpecial(const std::string& path, const Node&) override { Event("special " + path); }
    void MakeHardLink(const std::string& path, const std::string& existing) override {
        Event("hard link " + path + " -> " + existing);
    }
    std::vector<std::string> TakeNotes() override { return {"a note"}; }
    std::optional<ExistingEntry> Existing(const std::string&) const override { return std::nullopt; }
    std::unique_ptr<ExistingFile> OpenExisting(const std::string&) const override { return nullptr; }
    std::vector<std::string> RemoveAllBut(const std::set<std::string>&) override { return {}; }

    void Event(const std::string& event) {
        std::lock_guard<std::mutex> lock(mutex);
        events.push_back(event);
    }

    mutable std::vector<std::string> checked;
    std::string refuse;
    std::map<std::string, std::string> files;
    std::vector<std::string> events;
    std::mutex mutex;
};

RestorePlan Plan() {
    RestorePlan plan;
    plan.AddFile("a", Of(NodeType::File, 0644, 6));
    plan.AddFile("d/s", Of(NodeType::File, 04755, 2));
    plan.folders = {{"d", Of(NodeType::Folder, 0700)}, {"d/e", Of(NodeType::Folder, 0755)}};
    plan.links = {{"link", Of(NodeType::Link, 0777)}};
    plan.specials = {{"d/pipe", Of(NodeType::Fifo, 0600)}};
    plan.hardLinks = {{"d/also-a", "a"}};
    return plan;
}

TEST(RestoreSink, PiecesInAnyOrderThenLinksAndSpecialsAndFoldersDeepestLast) {
    RecordingTarget target;
    RestoreSink sink(&target, Plan());
    sink.CheckPaths();
    EXPECT_EQ(target.checked, (std::vector<std::string>{"a", "d/s", "d/also-a", "d/pipe", "d", "d/e", "link"}));
    Progress progress(nullptr, "restore", sink.TotalBytes(), 2);
    sink.Expect(0, 2);
    sink.Expect(1, 1);
    sink.Write(0, 3, "def", 3);
    sink.PieceDone(0, progress);
    EXPECT_TRUE(target.files.empty()) << "not before its last piece";
    sink.Write(0, 0, "abc", 3);
    sink.PieceDone(0, progress);
    sink.Write(1, 0, "xy", 2);
    sink.PieceDone(1, progress);
    sink.MakeTheRest();
    EXPECT_EQ(target.files["a"], "abcdef");
    EXPECT_EQ(target.events, (std::vector<std::string>{"file a 420", "file d/s 2541", "hard link d/also-a -> a",
                                                       "link link", "special d/pipe", "folder d/e", "folder d"}));
    EXPECT_EQ(sink.SetIdDropped(), (std::vector<std::string>{"d/s"}));
    EXPECT_TRUE(sink.Damaged().empty());
    EXPECT_EQ(sink.Notes(), (std::vector<std::string>{"a note"}));
}

TEST(RestoreSink, AFailedPieceRemovesTheFileAndNamesItAndItsOtherNames) {
    RecordingTarget target;
    RestoreSink sink(&target, Plan());
    Progress progress(nullptr, "restore", sink.TotalBytes(), 2);
    sink.Expect(0, 2);
    sink.Write(0, 0, "abc", 3);
    sink.Fail(0, "pack-1", "a chunk does not match its id");
    sink.PieceDone(0, progress);
    sink.Fail(0, "pack-2", "a second reason");
    sink.PieceDone(0, progress);
    sink.FinishIdle(progress);  // the empty-handed second file is made empty
    sink.MakeTheRest();
    EXPECT_EQ(target.files.count("a"), 0u);
    const std::vector<RestoreProblem> damaged = sink.Damaged();
    ASSERT_EQ(damaged.size(), 2u);
    EXPECT_EQ(damaged[0].file, "a");
    EXPECT_EQ(damaged[0].object, "pack-1");
    EXPECT_EQ(damaged[1].file, "d/also-a");
    EXPECT_NE(std::find(target.events.begin(), target.events.end(), "removed a"), target.events.end());
    EXPECT_EQ(std::count_if(target.events.begin(), target.events.end(),
                            [](const std::string& e) { return e.rfind("hard link", 0) == 0; }),
              0);
    EXPECT_EQ(target.files["d/s"], "");
}

TEST(RestoreSink, ARefusedPathStopsEverythingBeforeAnyWrite) {
    RecordingTarget target;
    target.refuse = "link";
    RestoreSink sink(&target, Plan());
    EXPECT_THROW(sink.CheckPaths(), Error);
    EXPECT_TRUE(target.events.empty());
}

TEST(RestoreSink, WithoutATargetItOnlyChecks) {
    RestorePlan plan;
    plan.AddFile("a", Of(NodeType::File, 0644, 3));
    RestoreSink sink(nullptr, plan);
    sink.CheckPaths();
    Progress progress(nullptr, "verify", 3, 1);
    sink.Expect(0, 1);
    sink.Write(0, 0, "abc", 3);
    sink.PieceDone(0, progress);
    sink.MakeTheRest();
    EXPECT_TRUE(sink.Damaged().empty());
    EXPECT_TRUE(sink.Notes().empty());
}

TEST(RestorePlan, AFilesNodeComesBackWithEverythingARestoreSetsAndOwnerNamesAreKeptOnce) {
    Node node = Of(NodeType::File, 04750, 12);
    node.name = "f";
    node.modifiedNs = 1700000000123456789;
    node.accessedNs = 1700000001000000000;
    node.hasOwner = true;
    node.uid = 1000;
    node.gid = 100;
    node.user = "a-rather-long-user-name";
    node.group = "users";
    node.sparse = true;
    node.xattrs = {{"user.k", "v"}};
    node.content = {Id{}, Id{}};
    node.content[1][0] = 7;
    RestorePlan plan;
    plan.AddFile("one", node);
    plan.AddFile("two", node);
    Node other = node;
    other.group = "staff";
    plan.AddFile("three", other);
    ASSERT_EQ(plan.files.size(), 3u);
    EXPECT_EQ(plan.ownerNames.size(), 2u);
    const Node back = plan.NodeOf(plan.files[1]);
    EXPECT_EQ(back.type, NodeType::File);
    EXPECT_EQ(back.mode, node.mode);
    EXPECT_EQ(back.size, node.size);
    EXPECT_EQ(back.modifiedNs, node.modifiedNs);
    EXPECT_EQ(back.accessedNs, node.accessedNs);
    EXPECT_TRUE(back.hasOwner);
    EXPECT_EQ(back.uid, node.uid);
    EXPECT_EQ(back.gid, node.gid);
    EXPECT_EQ(back.user, node.user);
    EXPECT_EQ(back.group, node.group);
    EXPECT_TRUE(back.sparse);
    EXPECT_EQ(back.xattrs.size(), 1u);
    EXPECT_EQ(back.content, node.content);
    EXPECT_EQ(plan.NodeOf(plan.files[2]).group, "staff");
    EXPECT_EQ(plan.files[2].relativePath, "three");
}

}  // namespace
