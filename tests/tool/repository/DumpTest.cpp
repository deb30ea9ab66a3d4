// Dumping what a snapshot holds: a file's content chunk by chunk, checked,
// stopping at a damaged chunk; a folder as a tar stream.
#include <cstdlib>

#include "repository/Dump.h"
#include "repository/RepositoryFixture.h"

namespace repotest {
namespace {

// A header of a tar stream, as far as these tests look.
struct TarHeader {
    std::string name;
    char type = 0;
    uint64_t size = 0;
    std::string linkName;
    std::string pax;  // the records of a pax header before it
    Bytes content;
};

uint64_t Octal(const uint8_t* field, size_t width) {
    return std::strtoull(std::string(reinterpret_cast<const char*>(field), width).c_str(), nullptr, 8);
}

std::vector<TarHeader> ReadTar(const Bytes& tar) {
    std::vector<TarHeader> headers;
    std::string pax;
    for (size_t at = 0; at + 512 <= tar.size(); at += 512) {
        const uint8_t* block = tar.data() + at;
        if (block[0] == 0) break;
        TarHeader header;
        header.name = std::string(reinterpret_cast<const char*>(block), strnlen(reinterpret_cast<const char*>(block), 100));
        header.type = static_cast<char>(block[156]);
        header.size = Octal(block + 124, 12);
        header.linkName = reinterpret_cast<const char*>(block + 157);
        header.content.assign(block + 512, block + 512 + header.size);
        at += (header.size + 511) / 512 * 512;
        if (header.type == 'x') {
            pax.assign(header.content.begin(), header.content.end());
            continue;
        }
        header.pax = std::move(pax);
        pax.clear();
        headers.push_back(std::move(header));
    }
    return headers;
}

class DumpTest : public RepositoryTest {
protected:
    Bytes Dumped(const std::string& id, const std::string& path, DumpReport* report = nullptr) {
        Bytes out;
        const MasterIndex index = repository_->LoadIndex();
        const DumpReport made = DumpPath(*repository_, index, repository_->LoadSnapshot(id), path,
                                         [&](const uint8_t* data, size_t size) { out.insert(out.end(), data, data + size); });
        if (report) *report = made;
        return out;
    }
};

TEST_F(DumpTest, AFileIsItsContent) {
    const Bytes content = RandomBytes(700000, 21);
    WriteFile(Folder("source/big.bin"), content);
    const std::string id = Backup(Folder("source")).snapshot.id;
    DumpReport report;
    EXPECT_TRUE(Dumped(id, "/big.bin", &report) == content);
    EXPECT_FALSE(report.tar);
    EXPECT_EQ(report.bytes, content.size());
    EXPECT_EQ(KindOf([&] { Dumped(id, "/none.bin"); }), ErrorKind::NotFound);
}

TEST_F(DumpTest, ADamagedChunkStopsTheDumpAfterTheGoodOnesBeforeIt) {
    const Bytes content = RandomBytes(900000, 22);
    WriteFile(Folder("source/big.bin"), content);
    const std::string id = Backup(Folder("source")).snapshot.id;
    const Node file = Files(id).front().second;
    ASSERT_GE(file.content.size(), 3u);
    const MasterIndex index = repository_->LoadIndex();
    const std::optional<BlobLocation> third = index.Find(file.content[2]);
    store_.objects()[repository_->layout().Pack(third->pack)][third->entry.offset + 40] ^= 0x10;
    uint64_t before = 0;
    for (size_t i = 0; i < 2; ++i) before += index.Find(file.content[i])->entry.plainLength;
    Bytes out;
    const std::optional<ErrorKind> kind = KindOf([&] {
        DumpFile(*repository_, index, file, "/big.bin",
                 [&](const uint8_t* data, size_t size) { out.insert(out.end(), data, data + size); });
    });
    EXPECT_EQ(kind, ErrorKind::Damaged);
    ASSERT_EQ(out.size(), before) << "the two good chunks, nothing of the damaged one or after it";
    EXPECT_TRUE(std::equal(out.begin(), out.end(), content.begin()));
}

TEST_F(DumpTest, AFileWhoseChunksDoNotAddUpWritesNothing) {
    WriteFile(Folder("source/a.bin"), RandomBytes(100000, 23));
    const std::string id = Backup(Folder("source")).snapshot.id;
    Node file = Files(id).front().second;
    file.size += 1;
    size_t written = 0;
    EXPECT_EQ(KindOf([&] {
                  DumpFile(*repository_, repository_->LoadIndex(), file, "/a.bin",
                           [&](const uint8_t*, size_t size) { written += size; });
              }),
              ErrorKind::Damaged);
    EXPECT_EQ(written, 0u);
}

TEST_F(DumpTest, AFolderIsATarStreamOfEverythingBelowIt) {
    const Bytes content = RandomBytes(5000, 24);
    WriteFile(Folder("source/docs/a.bin"), content);
    WriteFile(Folder("source/docs/sub/" + std::string(120, 'n')), Bytes(3, 'x'));
    fs::create_symlink("a.bin", fs::u8path(Folder("source/docs/link")));
    WriteFile(Folder("source/other.txt"), Bytes(10, 'o'));
    const std::string id = Backup(Folder("source")).snapshot.id;
    DumpReport report;
    const Bytes tar = Dumped(id, "/docs", &report);
    EXPECT_EQ(tar.size() % 512, 0u);
    const std::vector<TarHeader> headers = ReadTar(tar);
    ASSERT_EQ(headers.size(), 5u);
    EXPECT_EQ(headers[0].name, "docs/");
    EXPECT_EQ(headers[0].type, '5');
    EXPECT_EQ(headers[1].name, "docs/a.bin");
    EXPECT_TRUE(headers[1].content == content);
    EXPECT_EQ(headers[2].name, "docs/link");
    EXPECT_EQ(headers[2].type, '2');
    EXPECT_EQ(headers[2].linkName, "a.bin");
    EXPECT_EQ(headers[4].type, '0');
    EXPECT_NE(headers[4].pax.find(" path=docs/sub/" + std::string(120, 'n') + "\n"), std::string::npos);
    EXPECT_EQ(report.files, 2u);
    EXPECT_EQ(report.folders, 2u);
    EXPECT_EQ(report.links, 1u);
    EXPECT_TRUE(report.tar);
}

TEST_F(DumpTest, TheWholeSnapshotIsATarStreamWithoutARootEntry) {
    WriteFile(Folder("source/a.txt"), Bytes(10, 'a'));
    WriteFile(Folder("source/b/c.txt"), Bytes(10, 'c'));
    const std::string id = Backup(Folder("source")).snapshot.id;
    const std::vector<TarHeader> headers = ReadTar(Dumped(id, "/"));
    ASSERT_EQ(headers.size(), 3u);
    EXPECT_EQ(headers[0].name, "a.txt");
    EXPECT_EQ(headers[1].name, "b/");
    EXPECT_EQ(headers[2].name, "b/c.txt");
}

}  // namespace
}  // namespace repotest
