// The restore sink both layouts write through: every path checked before
// the first write, pieces in any order, a damaged file removed and named,
// set-ID bits reported, folders and links made after every file.
#include <gtest/gtest.h>

#include <map>
#include <mutex>

#include "repository/RestoreSink.h"
#include "util/Error.h"

using namespace qvhost;
using namespace qvhost::repo;

namespace {

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
        void Commit(std::optional<uint32_t> mode, int64_t) override {
            committed = true;
            target.files[path] = content;
            target.Event("file " + path + " " + std::to_string(mode.value_or(0)));
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
    std::unique_ptr<RestoredFile> MakeFile(const std::string& path) override {
        return std::make_unique<File>(*this, path);
    }
    void MakeFolder(const FolderRecord& folder) override { Event("folder " + folder.relativePath); }
    void MakeLink(const LinkRecord& link) override { Event("link " + link.relativePath); }

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

RestoreSink TwoFiles(RecordingTarget* target) {
    return RestoreSink(target, {{"a", 6, 0644, 0}, {"s", 2, 04755, 0}}, {{"dir", 0, 0700}}, {{"link", "a", 0}});
}

TEST(RestoreSink, PiecesInAnyOrderMakeTheFileAndFoldersAndLinksComeLast) {
    RecordingTarget target;
    RestoreSink sink = TwoFiles(&target);
    sink.CheckPaths();
    EXPECT_EQ(target.checked, (std::vector<std::string>{"a", "s", "dir", "link"}));
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
    sink.MakeFoldersAndLinks();
    EXPECT_EQ(target.files["a"], "abcdef");
    EXPECT_EQ(target.events, (std::vector<std::string>{"file a 420", "file s 2541", "folder dir", "link link"}));
    EXPECT_EQ(sink.SetIdDropped(), (std::vector<std::string>{"s"}));
    EXPECT_TRUE(sink.Damaged().empty());
}

TEST(RestoreSink, AFailedPieceRemovesTheFileAndNamesItOnce) {
    RecordingTarget target;
    RestoreSink sink = TwoFiles(&target);
    Progress progress(nullptr, "restore", sink.TotalBytes(), 2);
    sink.Expect(0, 2);
    sink.Write(0, 0, "abc", 3);
    sink.Fail(0, "pack-1", "a chunk does not match its id");
    sink.PieceDone(0, progress);
    sink.Fail(0, "pack-2", "a second reason");
    sink.PieceDone(0, progress);
    sink.FinishIdle(progress);  // the empty-handed second file is made empty
    EXPECT_EQ(target.files.count("a"), 0u);
    ASSERT_EQ(sink.Damaged().size(), 1u);
    EXPECT_EQ(sink.Damaged()[0].object, "pack-1");
    EXPECT_EQ(sink.Damaged()[0].file, "a");
    EXPECT_NE(std::find(target.events.begin(), target.events.end(), "removed a"), target.events.end());
    EXPECT_EQ(target.files["s"], "");
}

TEST(RestoreSink, ARefusedPathStopsEverythingBeforeAnyWrite) {
    RecordingTarget target;
    target.refuse = "link";
    RestoreSink sink = TwoFiles(&target);
    EXPECT_THROW(sink.CheckPaths(), Error);
    EXPECT_TRUE(target.events.empty());
}

TEST(RestoreSink, WithoutATargetItOnlyChecks) {
    RestoreSink sink(nullptr, {{"a", 3, 0644, 0}}, {}, {});
    sink.CheckPaths();
    Progress progress(nullptr, "verify", 3, 1);
    sink.Expect(0, 1);
    sink.Write(0, 0, "abc", 3);
    sink.PieceDone(0, progress);
    sink.MakeFoldersAndLinks();
    EXPECT_TRUE(sink.Damaged().empty());
}

}  // namespace
