// A backup gives back what was there: a tree with every kind of entry and
// metadata a Linux file system holds is backed up from disk, restored to
// disk, and every entry's status, attributes and link counts compared.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cstring>
#include <map>

#include "repository/RepositoryFixture.h"

namespace repotest {
namespace {

void Check(bool done, const char* what) { ASSERT_TRUE(done) << what << ": " << std::strerror(errno); }

void SetTimes(const std::string& path, int64_t seconds, long nanoseconds) {
    const timespec times[2] = {{seconds - 86400, nanoseconds / 2}, {seconds, nanoseconds}};
    Check(utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW) == 0, "utimensat");
}

// A POSIX access ACL as the kernel stores it: rw- for the owner, r-- for
// user 1234, the group and the mask, nothing for others.
std::string AccessAcl() {
    std::string acl;
    auto put = [&acl](uint32_t value, size_t bytes) {
        for (size_t i = 0; i < bytes; ++i) acl.push_back(static_cast<char>((value >> (8 * i)) & 0xff));
    };
    put(2, 4);
    const uint32_t none = 0xffffffff;
    const uint32_t entries[][3] = {{0x01, 6, none}, {0x02, 4, 1234}, {0x04, 4, none}, {0x10, 4, none}, {0x20, 0, none}};
    for (const auto& entry : entries) {
        put(entry[0], 2);
        put(entry[1], 2);
        put(entry[2], 4);
    }
    return acl;
}

std::map<std::string, std::string> Xattrs(const std::string& path) {
    std::map<std::string, std::string> all;
    std::string names(65536, '\0');
    const ssize_t length = llistxattr(path.c_str(), &names[0], names.size());
    for (ssize_t at = 0; at < length;) {
        const std::string name = names.c_str() + at;
        at += static_cast<ssize_t>(name.size()) + 1;
        std::string value(65536, '\0');
        const ssize_t size = lgetxattr(path.c_str(), name.c_str(), &value[0], value.size());
        all[name] = value.substr(0, static_cast<size_t>(std::max<ssize_t>(size, 0)));
    }
    return all;
}

// Every kind of entry, with metadata that differs from what a restore would
// make by default.
void MakeRichTree(const std::string& root) {
    fs::create_directories(root + "/private/deeper");
    WriteFile(root + "/private/key", RandomBytes(3000, 1));
    Check(chmod((root + "/private").c_str(), 0700) == 0, "chmod");
    WriteFile(root + "/setid", RandomBytes(100, 2));
    Check(chmod((root + "/setid").c_str(), 02755) == 0, "chmod");
    WriteFile(root + "/owned", RandomBytes(100, 3));
    Check(lchown((root + "/owned").c_str(), 4321, 8765) == 0, "lchown");
    WriteFile(root + "/attributed", RandomBytes(100, 4));
    Check(setxattr((root + "/attributed").c_str(), "user.comment", "kept", 4, 0) == 0, "setxattr");
    const std::string acl = AccessAcl();
    Check(setxattr((root + "/attributed").c_str(), "system.posix_acl_access", acl.data(), acl.size(), 0) == 0,
          "setxattr acl");
    WriteFile(root + "/linked-a", RandomBytes(200000, 5));
    Check(link((root + "/linked-a").c_str(), (root + "/private/linked-b").c_str()) == 0, "link");
    const int sparse = open((root + "/sparse").c_str(), O_CREAT | O_WRONLY, 0640);
    Check(sparse >= 0, "open");
    const Bytes middle = RandomBytes(65536, 6);
    Check(pwrite(sparse, middle.data(), middle.size(), 8 << 20) == static_cast<ssize_t>(middle.size()), "pwrite");
    Check(ftruncate(sparse, 16 << 20) == 0, "ftruncate");
    close(sparse);
    Check(mkfifo((root + "/fifo").c_str(), 0620) == 0, "mkfifo");
    Check(mknod((root + "/null").c_str(), S_IFCHR | 0666, makedev(1, 3)) == 0, "mknod");
    Check(symlink("private/key", (root + "/link").c_str()) == 0, "symlink");
    for (const char* entry : {"/private/key", "/setid", "/owned", "/attributed", "/linked-a", "/sparse", "/fifo",
                              "/null", "/link", "/private/deeper", "/private", ""}) {
        SetTimes(root + entry, 1600000000 + static_cast<int64_t>(std::strlen(entry)), 123456789);
    }
}

struct Status {
    struct stat info;
    std::map<std::string, std::string> xattrs;
    std::string target;
};

std::map<std::string, Status> StatusOfEvery(const std::string& root) {
    std::map<std::string, Status> every;
    every[""].xattrs = Xattrs(root);
    lstat(root.c_str(), &every[""].info);
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        const std::string path = entry.path().string();
        Status& status = every[path.substr(root.size())];
        lstat(path.c_str(), &status.info);
        status.xattrs = Xattrs(path);
        if (entry.is_symlink()) status.target = fs::read_symlink(entry.path()).string();
    }
    return every;
}

int64_t Ns(const timespec& time) { return static_cast<int64_t>(time.tv_sec) * 1000000000 + time.tv_nsec; }

}  // namespace

TEST_F(RepositoryTest, EveryEntryComesBackWithItsKindModeTimesOwnerAttributesAndLinks) {
    if (geteuid() != 0) GTEST_SKIP() << "owners, device nodes and another owner's files need root";
    MakeRichTree(Folder("source"));
    // The folder backed up is private and old, as a home folder may be.
    ASSERT_EQ(chmod(Folder("source").c_str(), 0750), 0);
    SetModifiedNs(Folder("source"), 978307200123456789);
    const std::map<std::string, Status> before = StatusOfEvery(Folder("source"));
    ASSERT_EQ(before.count(""), 1u);
    const BackupReport backup = Backup(Folder("source"));
    ASSERT_TRUE(backup.skipped.empty()) << backup.skipped.front().relativePath << ": " << backup.skipped.front().reason;
    const RestoreReport restore = Restore(backup.snapshot.id, Folder("restored"));
    ASSERT_TRUE(restore.damaged.empty());
    EXPECT_TRUE(restore.notes.empty()) << restore.notes.front();
    EXPECT_TRUE(restore.setIdDropped.empty());
    const std::map<std::string, Status> after = StatusOfEvery(Folder("restored"));

    ASSERT_EQ(after.size(), before.size());
    for (const auto& [path, source] : before) {
        // "" is the folder backed up, which DEST_DIR becomes.
        SCOPED_TRACE("entry '" + path + "'");
        const auto found = after.find(path);
        ASSERT_NE(found, after.end());
        const struct stat& a = source.info;
        const struct stat& b = found->second.info;
        EXPECT_EQ(b.st_mode, a.st_mode);
        EXPECT_EQ(b.st_uid, a.st_uid);
        EXPECT_EQ(b.st_gid, a.st_gid);
        EXPECT_EQ(b.st_nlink, a.st_nlink);
        EXPECT_EQ(Ns(b.st_mtim), Ns(a.st_mtim));
        if (S_ISREG(a.st_mode)) {
            EXPECT_EQ(b.st_size, a.st_size);
            EXPECT_EQ(Ns(b.st_atim), Ns(a.st_atim)) << "the backup read without touching it";
        }
        if (S_ISCHR(a.st_mode)) {
            EXPECT_EQ(b.st_rdev, a.st_rdev);
        }
        EXPECT_EQ(found->second.xattrs, source.xattrs);
        EXPECT_EQ(found->second.target, source.target);
    }
    EXPECT_EQ(after.at("/linked-a").info.st_ino, after.at("/private/linked-b").info.st_ino)
        << "one file under two names, as in the source";
    const auto& sparse = after.at("/sparse").info;
    EXPECT_LE(static_cast<uint64_t>(sparse.st_blocks) * 512, 1u << 20) << "the holes stay holes";
    EXPECT_TRUE(ReadFile(Folder("restored/sparse")) == ReadFile(Folder("source/sparse")));
}

TEST_F(RepositoryTest, ASecondBackupOfARichTreeReadsNothingAndKeepsEveryEntry) {
    if (geteuid() != 0) GTEST_SKIP() << "owners and device nodes need root";
    MakeRichTree(Folder("source"));
    Backup(Folder("source"));
    const BackupReport again = Backup(Folder("source"));
    EXPECT_EQ(again.toRead.size(), 0u);
    EXPECT_EQ(again.filesNew + again.filesChanged, 0u);
    EXPECT_EQ(again.treesNew, 0u) << "no folder changed";
}

}  // namespace repotest
