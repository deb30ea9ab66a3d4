// Immutability: a repository whose packs and snapshots the storage keeps
// for a number of days from when each is written, and forget and prune that
// leave what the storage still holds and free it once the hold is over.
#include <ctime>

#include "repository/Forget.h"
#include "repository/Keys.h"
#include "repository/RepositoryFixture.h"

namespace repotest {
namespace {

constexpr int64_t kDay = 86400;

int64_t Now() { return static_cast<int64_t>(std::time(nullptr)); }

class ImmutabilityTest : public RepositoryTest {
protected:
    void SetUp() override {
        InitOptions options = SmallRepository();
        options.immutableDays = 7;
        Repository::Init(store_, "repo", kPassword, options, "test-host");
        repository_ = std::make_unique<Repository>(store_, "repo", kPassword);
    }

    // A snapshot of two files, then one of the first alone: the second
    // file's data is used by the first snapshot only.
    std::pair<std::string, std::string> TwoSnapshots() {
        WriteFile(Folder("source/kept.bin"), RandomBytes(300000, 90));
        WriteFile(Folder("source/gone.bin"), RandomBytes(1500000, 91));
        const std::string first = Backup(Folder("source")).snapshot.id;
        fs::remove(Folder("source/gone.bin"));
        const std::string second = Backup(Folder("source")).snapshot.id;
        return {first, second};
    }

    std::vector<std::string> Held(const std::string& prefix) {
        std::vector<std::string> held;
        for (const auto& [name, until] : store_.retention()) {
            if (name.compare(0, prefix.size(), prefix) == 0) held.push_back(name);
        }
        return held;
    }
};

TEST_F(ImmutabilityTest, InitRecordsTheDaysAndHoldsTheKeyObjectItWrites) {
    EXPECT_EQ(repository_->config().immutableDays, 7u);
    EXPECT_EQ(Repository(store_, "repo", kPassword).config().immutableDays, 7u) << "kept in the config";
    const std::vector<std::string> keys = Names("repo/keys/");
    ASSERT_EQ(keys.size(), 1u);
    ASSERT_EQ(store_.retention().count(keys[0]), 1u);
    EXPECT_NEAR(static_cast<double>(store_.retention().at(keys[0])), static_cast<double>(Now() + 7 * kDay), 60);
    EXPECT_EQ(store_.retention().count("repo/config"), 0u) << "the config changes with data-tier";
}

TEST_F(ImmutabilityTest, PacksAndSnapshotsAreWrittenHeldForTheDaysAndIndexObjectsAreNot) {
    const auto [first, second] = TwoSnapshots();
    const std::vector<std::string> packs = Names("repo/data/");
    ASSERT_FALSE(packs.empty());
    EXPECT_EQ(Held("repo/data/"), packs) << "every pack, of data and of trees";
    EXPECT_EQ(Held("repo/snapshots/"), Names("repo/snapshots/"));
    EXPECT_TRUE(Held("repo/index/").empty()) << "an index is rewritten by every prune and rebuilt from the packs";
    for (const auto& [name, until] : store_.retention()) {
        EXPECT_NEAR(static_cast<double>(until), static_cast<double>(Now() + 7 * kDay), 60) << name;
    }
}

TEST_F(ImmutabilityTest, ARepositoryWithoutRetentionSetsNone) {
    MemoryStore plain;
    Repository::Init(plain, "repo", kPassword, SmallRepository(), "test-host");
    Repository repository(plain, "repo", kPassword);
    EXPECT_EQ(repository.config().immutableDays, 0u);
    WriteFile(Folder("plain/a.bin"), RandomBytes(1000, 92));
    BackupFolder(repository, Folder("plain"), BackupOptions{});
    EXPECT_TRUE(plain.retentions().empty());
}

TEST_F(ImmutabilityTest, InitFailsAtOnceWhereTheStorageRefusesARetentionAndLeavesNoKey) {
    MemoryStore refusing;
    refusing.refuseRetention = true;
    InitOptions options = SmallRepository();
    options.immutableDays = 30;
    std::string message;
    try {
        Repository::Init(refusing, "repo", kPassword, options, "test-host");
    } catch (const Error& failure) {
        message = failure.what();
    }
    EXPECT_NE(message.find("version-level immutability"), std::string::npos) << message;
    EXPECT_TRUE(refusing.List("repo/").empty()) << "no key object left to make the next init refuse";
}

TEST_F(ImmutabilityTest, TooLongARetentionIsRefused) {
    MemoryStore other;
    InitOptions options = SmallRepository();
    options.immutableDays = kMaximumImmutableDays + 1;
    EXPECT_EQ(KindOf([&] { Repository::Init(other, "repo", kPassword, options, "test-host"); }), ErrorKind::Usage);
}

TEST_F(ImmutabilityTest, ForgetLeavesAHeldSnapshotAndNamesTheEndOfItsHold) {
    const auto [first, second] = TwoSnapshots();
    const std::map<std::string, int64_t> held = HeldSnapshots(*repository_, {first}, Now());
    ASSERT_EQ(held.size(), 1u);
    EXPECT_NEAR(static_cast<double>(held.at(first)), static_cast<double>(Now() + 7 * kDay), 60);
    // Eight days on, nothing holds it and forget takes it.
    store_.now = Now() + 8 * kDay;
    EXPECT_TRUE(HeldSnapshots(*repository_, {first}, store_.now).empty());
    EXPECT_TRUE(ApplyForget(*repository_, {first}).empty());
    EXPECT_EQ(Names("repo/snapshots/").size(), 1u);
}

TEST_F(ImmutabilityTest, ForgetAnswersASnapshotTheStorageRefusedToDeleteAsHeld) {
    const auto [first, second] = TwoSnapshots();
    // A hold the listing does not show (a legal hold set since): the delete
    // is refused, and forget says so rather than fail.
    store_.retention().clear();
    store_.legalHolds().insert("repo/snapshots/" + first);
    EXPECT_EQ(HeldSnapshots(*repository_, {first}, Now()).at(first), kHeldIndefinitely);
    store_.legalHolds().clear();
    store_.retention()["repo/snapshots/" + first] = Now() + kDay;
    EXPECT_EQ(ApplyForget(*repository_, {first, second}), std::vector<std::string>{first});
    EXPECT_EQ(Names("repo/snapshots/"), std::vector<std::string>{"repo/snapshots/" + first});
}

TEST_F(ImmutabilityTest, PruneKeepsHeldPacksWholeAndFreesThemOnceTheHoldIsOver) {
    const auto [first, second] = TwoSnapshots();
    store_.now = Now() + 8 * kDay;  // the snapshot goes, its packs are still held a week from now
    ASSERT_TRUE(ApplyForget(*repository_, {first}).empty());
    store_.now = 0;
    for (auto& [name, until] : store_.retention()) until = Now() + 7 * kDay;
    const size_t packs = Names("repo/data/").size();
    const PrunePlan plan = PlanPrune(*repository_, Now());
    EXPECT_GE(plan.report.packsHeld, 1u);
    EXPECT_TRUE(plan.remove.empty());
    EXPECT_TRUE(plan.rewrite.empty());
    EXPECT_NEAR(static_cast<double>(plan.report.heldUntil), static_cast<double>(Now() + 7 * kDay), 60);
    const PruneReport report = ExecutePrune(*repository_, plan, PruneOptions{2, nullptr});
    EXPECT_EQ(report.packsDeleted + report.packsRewritten, 0u);
    EXPECT_EQ(Names("repo/data/").size(), packs) << "nothing held deleted";
    // Every blob of a held pack stays indexed: once the hold is over, a
    // prune sees what it holds unused and frees it.
    store_.now = Now() + 8 * kDay;
    const PrunePlan later = PlanPrune(*repository_, store_.now);
    EXPECT_EQ(later.report.packsHeld, 0u);
    EXPECT_GE(later.report.packsDeleted + later.report.packsRewritten, 1u);
    ExecutePrune(*repository_, later, PruneOptions{2, nullptr});
    EXPECT_LT(Names("repo/data/").size(), packs + later.report.packsWritten);
    const RestoreReport restored = Restore(second, Folder("restored"));
    EXPECT_TRUE(restored.damaged.empty());
    EXPECT_TRUE(ReadFile(Folder("restored/kept.bin")) == ReadFile(Folder("source/kept.bin")));
    CheckReport check = RunCheck(*repository_, CheckOptions{});
    EXPECT_TRUE(check.errors.empty()) << (check.errors.empty() ? "" : check.errors[0]);
}

TEST_F(ImmutabilityTest, AnOldIndexObjectTheStorageHoldsKeepsEveryPackItNames) {
    const auto [first, second] = TwoSnapshots();
    store_.now = Now() + 8 * kDay;  // packs and snapshots no longer held
    ASSERT_TRUE(ApplyForget(*repository_, {first}).empty());
    // An index object held (a legal hold, or a retention set by other means).
    for (const std::string& index : Names("repo/index/")) store_.legalHolds().insert(index);
    const size_t packs = Names("repo/data/").size();
    const PruneReport report = ExecutePrune(*repository_, PlanPrune(*repository_, store_.now), PruneOptions{2, nullptr});
    EXPECT_GE(report.indexObjectsHeld, 1u);
    EXPECT_GE(report.packsHeld, 1u) << "the packs it would have deleted, left";
    EXPECT_GE(Names("repo/data/").size(), packs) << "every pack the held index names is still there";
    CheckReport check = RunCheck(*repository_, CheckOptions{});
    EXPECT_TRUE(check.errors.empty()) << (check.errors.empty() ? "" : check.errors[0]);
}

}  // namespace
}  // namespace repotest
