// Nothing is relied on before it is verified: a pack no index names is
// adopted only when it verifies, prune keeps a copy it verified (or every
// copy when none does), and check tells a damaged copy from lost data and
// names what repairs each.
#include "repository/PackVerify.h"
#include "repository/RepositoryFixture.h"

namespace repotest {
namespace {

class VerificationTest : public RepositoryTest {
protected:
    void SetUp() override {
        RepositoryTest::SetUp();
        WriteFile(Folder("source") + "/a.bin", RandomBytes(300000, 70));
        first_ = Backup(Folder("source")).snapshot.id;
        const std::vector<std::string> data = DataPacks();
        ASSERT_EQ(data.size(), 1u);
        intact_ = data[0];
    }

    // The intact pack's bytes with one bit of its first blob flipped.
    Bytes Flipped(size_t bit) {
        Bytes bytes = store_.objects().at(intact_);
        bytes.at(20 + bit / 8) ^= static_cast<uint8_t>(1u << (bit % 8));
        return bytes;
    }
    // A damaged copy under the SHA-256 of its own bytes: the name checks out,
    // only opening its blobs tells.
    std::string PlantCopyNamedByItsHash(size_t bit) {
        const Bytes bytes = Flipped(bit);
        const std::string name = "repo/data/" + IdHex(Sha256Id(bytes.data(), bytes.size()));
        store_.Write(name, bytes.data(), bytes.size());
        return name;
    }
    Id IdOf(const std::string& pack) {
        Id id;
        EXPECT_TRUE(IdFromHex(pack.substr(std::string("repo/data/").size()), id));
        return id;
    }
    void DeleteIndex() {
        for (const std::string& name : Names("repo/index/")) store_.Delete(name);
    }
    // One index object naming `first` before every pack indexed now.
    void IndexCopyFirst(const std::string& copy) {
        std::vector<IndexedPack> packs;
        const MasterIndex index = repository_->LoadIndex();
        for (const IndexedPack& pack : index.all()) {
            if (repository_->layout().Pack(pack.pack) == intact_) packs.insert(packs.begin(), {IdOf(copy), pack.blobs});
        }
        for (const IndexedPack& pack : index.all()) packs.push_back(pack);
        DeleteIndex();
        repository_->SaveIndex(packs);
    }
    void ExpectRestores(const std::string& snapshot) {
        const std::string target = Folder("restored-" + std::to_string(++restores_));
        Restore(snapshot, target);
        EXPECT_EQ(ReadFile(target + "/a.bin"), ReadFile(Folder("source") + "/a.bin"));
    }

    std::string first_;
    std::string intact_;
    int restores_ = 0;
};

TEST_F(VerificationTest, APackIsVerifiedWholeAgainstItsNameAndItsBlobs) {
    EXPECT_FALSE(ReadVerifiedPack(*repository_, IdOf(intact_)).empty());
    const std::string named = PlantCopyNamedByItsHash(3);
    const std::string failure = [&] {
        try {
            ReadVerifiedPack(*repository_, IdOf(named));
        } catch (const Error& error) {
            return std::string(error.what());
        }
        return std::string();
    }();
    EXPECT_NE(failure.find("the blob"), std::string::npos) << failure;
    const Bytes bytes = Flipped(5);
    store_.Write("repo/data/" + std::string(64, '0'), bytes.data(), bytes.size());
    EXPECT_EQ(KindOf([&] { ReadVerifiedPack(*repository_, IdOf("repo/data/" + std::string(64, '0'))); }),
              ErrorKind::Damaged);
}

TEST_F(VerificationTest, BackupAdoptsOnlyTheIntactPackAndPruneRemovesTheDamagedCopies) {
    const std::string named = PlantCopyNamedByItsHash(9);
    const Bytes bytes = Flipped(11);
    const std::string unnamed = "repo/data/" + std::string(64, '0');  // sorts before every real pack
    store_.Write(unnamed, bytes.data(), bytes.size());
    const size_t packs = Names("repo/data/").size() - 2;
    DeleteIndex();
    const BackupReport second = Backup(Folder("source"));
    EXPECT_EQ(second.packsAdopted, packs);
    EXPECT_EQ(second.packsRefused, 2u);
    EXPECT_EQ(second.blobsNew, 0u) << "the intact pack's chunks are reused, not uploaded again";
    const MasterIndex index = repository_->LoadIndex();
    EXPECT_FALSE(index.HasPack(IdOf(named)));
    EXPECT_FALSE(index.HasPack(IdOf(unnamed)));
    ExpectRestores(first_);
    ExpectRestores(second.snapshot.id);
    Prune(*repository_);
    EXPECT_EQ(store_.objects().count(intact_), 1u);
    EXPECT_EQ(store_.objects().count(named), 0u);
    EXPECT_EQ(store_.objects().count(unnamed), 0u);
    ExpectRestores(first_);
    EXPECT_TRUE(RunCheck(*repository_, CheckOptions{true, 2, nullptr}).errors.empty());
}

TEST_F(VerificationTest, PruneKeepsTheVerifiedCopyWhenADamagedOneIsIndexedFirst) {
    const std::string damaged = PlantCopyNamedByItsHash(13);
    IndexCopyFirst(damaged);
    ASSERT_EQ(repository_->LoadIndex().Find(repository_->LoadIndex().all()[0].blobs[0].id)->pack, IdOf(damaged));
    Prune(*repository_);
    EXPECT_EQ(store_.objects().count(intact_), 1u) << "the only good copy stays";
    EXPECT_EQ(store_.objects().count(damaged), 0u);
    ExpectRestores(first_);
}

TEST_F(VerificationTest, PruneKeepsEveryCopyWhenNoneVerifies) {
    const std::string damaged = PlantCopyNamedByItsHash(13);
    IndexCopyFirst(damaged);
    store_.objects()[intact_].back() ^= 0x01;  // the intact one no longer matches its name either
    Prune(*repository_);
    EXPECT_EQ(store_.objects().count(intact_), 1u);
    EXPECT_EQ(store_.objects().count(damaged), 1u);
}

TEST_F(VerificationTest, CheckTellsADamagedCopyFromLostData) {
    const std::string damaged = PlantCopyNamedByItsHash(13);
    IndexCopyFirst(damaged);
    CheckReport report = RunCheck(*repository_, CheckOptions{true, 2, nullptr});
    ASSERT_EQ(report.errors.size(), 1u);
    EXPECT_NE(report.errors[0].find("a good copy of each of its blobs exists"), std::string::npos) << report.errors[0];
    EXPECT_EQ(report.damagedCopies, std::vector<std::string>{damaged});
    EXPECT_EQ(report.blobsLost, 0u);
    EXPECT_TRUE(report.affected.empty());
    ASSERT_EQ(report.repairs.size(), 1u);
    EXPECT_EQ(report.repairs[0].find("'cloudplugin-host prune'"), 0u) << report.repairs[0];

    store_.objects()[intact_][30] ^= 0x01;  // now no copy is good
    report = RunCheck(*repository_, CheckOptions{true, 2, nullptr});
    EXPECT_TRUE(report.damagedCopies.empty());
    EXPECT_GT(report.blobsLost, 0u);
    ASSERT_FALSE(report.affected.empty());
    EXPECT_NE(report.affected[0].find("a.bin"), std::string::npos);
    bool saysLost = false;
    for (const std::string& error : report.errors) saysLost |= error.find("data lost") != std::string::npos;
    EXPECT_TRUE(saysLost);
    // The damaged packs leave the index first; then the snapshots lose the files.
    ASSERT_EQ(report.repairs.size(), 2u);
    EXPECT_EQ(report.repairs[0].find("'cloudplugin-host repair index'"), 0u) << report.repairs[0];
    EXPECT_EQ(report.repairs[1].find("'cloudplugin-host repair snapshots'"), 0u) << report.repairs[1];
    EXPECT_NE(report.repairs[1].find("after 'repair index'"), std::string::npos) << report.repairs[1];
}

}  // namespace
}  // namespace repotest
