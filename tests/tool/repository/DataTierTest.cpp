// The data tier: data packs go to it as they are written, everything the
// repository reads to find its data stays online, and check and prune plan
// around packs they cannot read.
#include <ctime>

#include "repository/Keys.h"
#include "repository/Rehydrate.h"
#include "repository/RepositoryFixture.h"

namespace repotest {
namespace {

class DataTierTest : public RepositoryTest {
protected:
    void SetUp() override {
        InitOptions options = SmallRepository();
        options.dataTier = "Archive";
        Repository::Init(store_, "repo", kPassword, options, "test-host");
        repository_ = std::make_unique<Repository>(store_, "repo", kPassword);
    }

    std::string TierOf(const std::string& name) {
        const auto found = store_.tiers().find(name);
        return found == store_.tiers().end() ? "" : found->second;
    }
};

TEST_F(DataTierTest, DataPacksGoToTheDataTierAndEverythingElseStaysOnline) {
    EXPECT_EQ(repository_->config().dataTier, "Archive");
    WriteFile(Folder("source/a.bin"), RandomBytes(300000, 80));
    WriteFile(Folder("source/sub/b.bin"), RandomBytes(200000, 81));
    const BackupReport backup = Backup(Folder("source"));
    const std::vector<std::string> data = DataPacks();
    ASSERT_FALSE(data.empty());
    for (const std::string& pack : data) EXPECT_EQ(TierOf(pack), "Archive") << pack;
    size_t online = 0;
    for (const std::string& name : Names("repo/")) {
        if (std::find(data.begin(), data.end(), name) != data.end()) continue;
        EXPECT_EQ(TierOf(name), "") << name << " stays where the storage puts it";
        ++online;
    }
    EXPECT_GE(online, 5u) << "config, key, index, snapshot, a tree pack";
    // What needs no data still works: listing, the trees, a second backup.
    EXPECT_EQ(Files(backup.snapshot.id).size(), 2u);
    WriteFile(Folder("source/c.bin"), RandomBytes(1000, 82));
    EXPECT_EQ(Backup(Folder("source")).filesNew, 1u);
    // The data itself waits for a rehydration.
    EXPECT_EQ(KindOf([&] { Restore(backup.snapshot.id, Folder("restored")); }), ErrorKind::Archived);
}

TEST_F(DataTierTest, TheTierIsKeptInTheConfigAndChangedForPacksWrittenAfter) {
    WriteFile(Folder("source/a.bin"), RandomBytes(100000, 83));
    Backup(Folder("source"));
    const std::vector<std::string> before = DataPacks();
    repository_->SetDataTier("Cool");
    // Another process opening the repository sees the change.
    Repository reopened(store_, "repo", kPassword);
    EXPECT_EQ(reopened.config().dataTier, "Cool");
    WriteFile(Folder("source/b.bin"), RandomBytes(100000, 84));
    BackupFolder(reopened, Folder("source"), BackupOptions{});
    const std::vector<std::string> after = DataPacks();
    ASSERT_GT(after.size(), before.size());
    for (const std::string& pack : after) {
        const bool old = std::find(before.begin(), before.end(), pack) != before.end();
        EXPECT_EQ(TierOf(pack), old ? "Archive" : "Cool") << pack;
    }
    repository_->SetDataTier("");
    EXPECT_EQ(Repository(store_, "repo", kPassword).config().dataTier, "");
    EXPECT_EQ(KindOf([&] { repository_->SetDataTier("Frozen"); }), ErrorKind::Usage);
}

TEST(DataTierConfig, AConfigWithoutATierReadsAndAnUnknownTierIsRefused) {
    const MasterKeys keys = MasterKeys::Random();
    RepositoryConfig config;
    config.id = std::string(64, 'a');
    EXPECT_EQ(DecodeConfig(keys, EncodeConfig(keys, config)).dataTier, "");
    config.dataTier = "Cold";
    EXPECT_EQ(DecodeConfig(keys, EncodeConfig(keys, config)).dataTier, "Cold");
    config.dataTier = "Frozen";
    EXPECT_EQ(KindOf([&] { DecodeConfig(keys, EncodeConfig(keys, config)); }), ErrorKind::Damaged);
}

TEST_F(DataTierTest, MovingTheDataTierMovesTheDataPacksWrittenAndLeavesTheTreesOnline) {
    WriteFile(Folder("source/a.bin"), RandomBytes(300000, 83));
    WriteFile(Folder("source/b.bin"), RandomBytes(300000, 84));
    Backup(Folder("source"));
    const std::vector<std::string> data = DataPacks();
    ASSERT_FALSE(data.empty());
    const MasterIndex index = repository_->LoadIndex();
    const TierMove out = MoveDataPacks(*repository_, index, "Cool", "High");
    EXPECT_EQ(out.rehydrating, data.size()) << "out of the Archive tier: a rehydration";
    EXPECT_EQ(out.moved, 0u);
    EXPECT_GE(out.treePacks, 1u);
    EXPECT_EQ(store_.rehydrations().size(), data.size());
    EXPECT_NE(store_.rehydrations()[0].find(" High"), std::string::npos);
    for (const std::string& pack : data) EXPECT_EQ(TierOf(pack), "Cool") << pack;
    const TierMove back = MoveDataPacks(*repository_, index, "Archive", "Standard");
    EXPECT_EQ(back.moved, data.size());
    EXPECT_EQ(MoveDataPacks(*repository_, index, "Archive", "Standard").already, data.size());
    for (const auto& [name, tier] : store_.tiers()) {
        if (std::find(data.begin(), data.end(), name) == data.end()) {
            EXPECT_NE(tier, "Archive") << name;
        }
    }
}

TEST_F(DataTierTest, CheckReadDataSkipsArchivedPacksAndSaysHowMany) {
    WriteFile(Folder("source/a.bin"), RandomBytes(300000, 85));
    Backup(Folder("source"));
    const CheckReport check = RunCheck(*repository_, CheckOptions{true, 1, nullptr});
    EXPECT_TRUE(check.errors.empty()) << check.errors[0];
    EXPECT_EQ(check.packsArchived, DataPacks().size());
    // What check --read-data --rehydrate asks for: every indexed pack (the
    // archived among them; the rest are counted online).
    Rehydration state;
    RehydrateObjects(store_, IndexedPacks(*repository_, repository_->LoadIndex()), RehydrateRequest{}, state);
    EXPECT_EQ(state.requested.size(), check.packsArchived);
    EXPECT_GE(state.online, 1u) << "the tree pack";
    ASSERT_FALSE(check.warnings.empty());
    EXPECT_NE(check.warnings.back().find("rehydrate"), std::string::npos) << check.warnings.back();
}

TEST_F(DataTierTest, PruneKeepsPartlyUsedArchivedPacksWholeAndCountsEarlyDeletions) {
    // One pack holds a kept and a forgotten file; another only the forgotten.
    WriteFile(Folder("source/kept.bin"), RandomBytes(200000, 86));
    WriteFile(Folder("source/gone.bin"), RandomBytes(200000, 87));
    const BackupReport first = Backup(Folder("source"));
    fs::remove(Folder("source/gone.bin"));
    WriteFile(Folder("source/big-gone.bin"), RandomBytes(1500000, 88));
    const BackupReport second = Backup(Folder("source"));
    fs::remove(Folder("source/big-gone.bin"));
    const BackupReport third = Backup(Folder("source"));
    for (const std::string& id : {first.snapshot.id, second.snapshot.id}) {
        store_.Delete(repository_->layout().SnapshotsPrefix() + id);
    }
    const PrunePlan plan = PlanPrune(*repository_);
    EXPECT_EQ(plan.report.packsRewritten, 0u) << "an archived pack cannot be read to be rewritten";
    EXPECT_GE(plan.report.packsArchivedKept, 1u);
    EXPECT_EQ(plan.archivedKept.size(), plan.report.packsArchivedKept);
    // What prune --rehydrate asks for: those packs, listed as archived.
    const std::vector<StoredObject> asked = StoredPacks(*repository_, plan.archivedKept);
    ASSERT_EQ(asked.size(), plan.archivedKept.size());
    for (const StoredObject& pack : asked) EXPECT_EQ(pack.tier, "Archive") << pack.name;
    EXPECT_GE(plan.report.packsDeleted, 1u);
    // The two packs of big-gone.bin; the forgotten snapshots' tree packs
    // are online and cost nothing to delete.
    EXPECT_EQ(plan.report.earlyDeletionTiers.at("Archive"), 2u);
    EXPECT_EQ(plan.report.packsDeleted, 4u);
    Prune(*repository_);
    // Everything the kept snapshot needs is still there, once rehydrated;
    // and what the archived pack holds unused is still indexed, so that a
    // prune then rewrites it.
    for (const std::string& pack : DataPacks()) store_.SetTier(pack, "Hot", "Standard");
    const PrunePlan after = PlanPrune(*repository_);
    EXPECT_EQ(after.report.packsRewritten, plan.report.packsArchivedKept);
    EXPECT_EQ(after.report.packsArchivedKept, 0u);
    Prune(*repository_);
    for (const std::string& pack : DataPacks()) store_.SetTier(pack, "Hot", "Standard");  // the rewritten ones
    const RestoreReport restored = Restore(third.snapshot.id, Folder("restored"));
    EXPECT_TRUE(restored.damaged.empty());
    EXPECT_TRUE(ReadFile(Folder("restored/kept.bin")) == ReadFile(Folder("source/kept.bin")));
}

TEST_F(DataTierTest, AnEarlyDeletionIsCountedOnlyForPacksWhoseDaysInTheTierAreNotOverWithTheMonthsLeft) {
    // gone.bin alone in the first backup, so that its packs hold nothing else (the chunker's key, and with
    // it where chunks end and which pack they share, differs from run to run) and go whole.
    WriteFile(Folder("source/gone.bin"), RandomBytes(1500000, 96));
    const BackupReport first = Backup(Folder("source"));
    fs::remove(Folder("source/gone.bin"));
    WriteFile(Folder("source/kept.bin"), RandomBytes(200000, 95));
    Backup(Folder("source"));
    store_.Delete(repository_->layout().SnapshotsPrefix() + first.snapshot.id);
    const int64_t now = static_cast<int64_t>(std::time(nullptr));
    const auto plan = [&](int64_t daysAgo) {
        for (auto& [name, since] : store_.tierSince()) since = now - daysAgo * 86400;
        return PlanPrune(*repository_, now);
    };
    const PrunePlan fresh = plan(0);
    ASSERT_EQ(fresh.report.earlyDeletionTiers.count("Archive"), 1u);
    const size_t early = fresh.report.earlyDeletionTiers.at("Archive");
    EXPECT_GE(early, 1u);
    // What goes from Archive: its GiB times the six months left.
    double gib = 0;
    for (const Id& pack : fresh.remove) {
        if (fresh.tiers.count(pack)) gib += static_cast<double>(fresh.stored.at(pack)) / (1 << 30);
    }
    EXPECT_NEAR(fresh.report.earlyDeletionGiBMonths.at("Archive"), gib * 6, gib * 0.01);
    const PrunePlan halfway = plan(90);
    EXPECT_EQ(halfway.report.earlyDeletionTiers.at("Archive"), early);
    EXPECT_NEAR(halfway.report.earlyDeletionGiBMonths.at("Archive"), gib * 3, gib * 0.01);
    const PrunePlan over = plan(181);
    EXPECT_EQ(over.report.earlyDeletionTiers.count("Archive"), 0u) << "180 days spent: nothing more to pay";
    EXPECT_EQ(over.remove, fresh.remove) << "the same packs go either way";
}

}  // namespace
}  // namespace repotest
