// The key objects: every one tried (damaged and planted ones skipped), a
// missing key named as such, derivations bounded by the machine.
#include "repository/KeyAdmin.h"
#include "repository/KeyRing.h"
#include "repository/RepositoryFixture.h"

namespace repotest {
namespace {

class KeysTest : public RepositoryTest {
protected:
    std::string RealKey() { return Names("repo/keys/").at(0); }

    Json KeyJson(const std::string& name) {
        const Bytes& bytes = store_.objects()[name];
        return Json::parse(bytes.begin(), bytes.end());
    }
    void PutText(const std::string& name, const std::string& text) {
        store_.Write(name, reinterpret_cast<const uint8_t*>(text.data()), text.size());
    }

    // A well-formed key object of other master keys and another password,
    // named to sort before every real one.
    void PlantKey(int number) {
        KdfParameters kdf = NewKdfParameters(1u << 20);
        char name[40];
        std::snprintf(name, sizeof name, "%032d", number);
        PutText("repo/keys/" + std::string(name),
                EncodeKeyObject(MasterKeys::Random(), "someone else's", kdf, "2026-01-01T00:00:00Z", "attacker"));
    }

    std::string FailureOf(const std::function<void()>& call) {
        try {
            call();
        } catch (const Error& failure) {
            return failure.what();
        }
        return "";
    }
};

TEST_F(KeysTest, DamagedKeyObjectsAreSkippedWithAWarning) {
    const std::string real = RealKey();
    PutText("repo/keys/000", "{}x");  // three bytes
    PutText("repo/keys/001", "{\"format\":1,\"kdf\":\"scrypt\"}");
    PutText("repo/keys/002", std::string(kMaximumKeyObjectSize + 1, ' '));
    std::vector<std::string> warned;
    RepositoryOptions options;
    options.warn = [&warned](const std::string& text) { warned.push_back(text); };
    const Repository opened(store_, "repo", kPassword, options);
    EXPECT_EQ(opened.keyName(), real);
    ASSERT_EQ(warned.size(), 3u);
    EXPECT_NE(warned[0].find("repo/keys/000"), std::string::npos) << warned[0];
    EXPECT_NE(warned[0].find("skipped"), std::string::npos) << warned[0];
    EXPECT_EQ(opened.warnings(), warned);
}

TEST_F(KeysTest, TwentyPlantedKeysBeforeTheRealOneDoNotLockTheOwnerOut) {
    for (int i = 0; i < 20; ++i) PlantKey(i);
    EXPECT_EQ(Repository(store_, "repo", kPassword).config().id, repository_->config().id);
    EXPECT_EQ(KindOf([&] { Repository(store_, "repo", "wrong"); }), ErrorKind::WrongPassword);
    // Beyond the bound the failure says so rather than blaming the password alone.
    for (int i = 20; i < static_cast<int>(kMaximumKeysTried); ++i) PlantKey(i);
    const std::string failure = FailureOf([&] { Repository(store_, "repo", kPassword); });
    EXPECT_NE(failure.find("1 more key objects were not tried"), std::string::npos) << failure;
}

TEST_F(KeysTest, AMissingKeyObjectIsNamedAsSuchNotAsAMissingRepository) {
    store_.Delete(RealKey());
    const std::string failure = FailureOf([&] { Repository(store_, "repo", kPassword); });
    EXPECT_EQ(KindOf([&] { Repository(store_, "repo", kPassword); }), ErrorKind::Damaged);
    EXPECT_NE(failure.find("has no key object"), std::string::npos) << failure;
    EXPECT_EQ(failure.find("init"), std::string::npos) << failure;
    EXPECT_EQ(KindOf([&] { Repository(store_, "nothing here", kPassword); }), ErrorKind::NoRepository);
}

TEST_F(KeysTest, AKeyDerivationBeyondTheMachinesLimitsIsRefusedBeforeItRuns) {
    Json json = KeyJson(RealKey());
    json["n"] = 1u << 14;  // 16 MiB with r = 8
    PutText(RealKey(), json.dump());
    RepositoryOptions small;
    small.limits.memoryBytes = 8u << 20;
    const std::string memory = FailureOf([&] { Repository(store_, "repo", kPassword, small); });
    EXPECT_NE(memory.find("of memory, more than the 8.0 MiB this machine allows"), std::string::npos) << memory;
    EXPECT_EQ(KindOf([&] { Repository(store_, "repo", kPassword, small); }), ErrorKind::Unsupported);

    json["n"] = 1u << 17;  // 128 MiB: timed before it runs
    PutText(RealKey(), json.dump());
    RepositoryOptions quick;
    quick.limits.seconds = 0.001;
    const std::string time = FailureOf([&] { Repository(store_, "repo", kPassword, quick); });
    EXPECT_NE(time.find("s on this machine, more than the 0.001 s allowed"), std::string::npos) << time;
    EXPECT_EQ(WhyKeyDerivationIsUnaffordable(NewKdfParameters(64u << 20), quick.limits), "")
        << "init's default costs too little to be timed";
    EXPECT_NE(WhyKeyDerivationIsUnaffordable(NewKdfParameters(65u << 20), quick.limits), "")
        << "anything more is timed";
    EXPECT_LE(KeyDerivationLimits::OfThisMachine().memoryBytes, kKdfMaximumMemory);
    EXPECT_GT(KeyDerivationLimits::OfThisMachine().memoryBytes, 0u);
}

// ---- key list, add, passwd, remove

TEST_F(KeysTest, AnAddedPasswordOpensTheSameRepositoryAndTheOldOneStillDoes) {
    const std::string id = AddKey(*repository_, "second password", NewKdfParameters(4u << 20), "host-b");
    const Repository second(store_, "repo", "second password");
    EXPECT_EQ(second.config().id, repository_->config().id);
    EXPECT_EQ(second.keyName(), "repo/keys/" + id);
    EXPECT_EQ(second.keyKdf().n, 2 * repository_->keyKdf().n) << "the new key has its own derivation";
    EXPECT_EQ(Repository(store_, "repo", kPassword).keyName(), repository_->keyName());
    const std::vector<KeyInfo> keys = ListKeys(*repository_);
    ASSERT_EQ(keys.size(), 2u);
    size_t current = 0;
    for (const KeyInfo& key : keys) {
        current += key.current ? 1 : 0;
        EXPECT_TRUE(key.damage.empty()) << key.damage;
        if (key.id == id) {
            EXPECT_EQ(key.host, "host-b");
        }
    }
    EXPECT_EQ(current, 1u);
    EXPECT_EQ(KindOf([&] { AddKey(*repository_, "", NewKdfParameters(1u << 20), "h"); }), ErrorKind::WrongPassword);
}

TEST_F(KeysTest, APasswordChangeReplacesTheKeyInUseOnly) {
    AddKey(*repository_, "other", NewKdfParameters(1u << 20), "h");
    const std::string old = repository_->keyName();
    const std::string id = ChangePassword(*repository_, "new password", NewKdfParameters(1u << 20), "h");
    EXPECT_EQ(store_.objects().count(old), 0u);
    EXPECT_EQ(Repository(store_, "repo", "new password").keyName(), "repo/keys/" + id);
    EXPECT_EQ(KindOf([&] { Repository(store_, "repo", kPassword); }), ErrorKind::WrongPassword);
    EXPECT_EQ(Repository(store_, "repo", "other").config().id, repository_->config().id);
}

TEST_F(KeysTest, RemovalKeepsTheLastKeyAndTheOneInUseUnlessForced) {
    const std::string current = repository_->keyName().substr(std::string("repo/keys/").size());
    EXPECT_EQ(KindOf([&] { RemoveKey(*repository_, current, true); }), ErrorKind::Usage) << "the last key";
    PutText("repo/keys/0000damaged", "{}x");
    EXPECT_EQ(KindOf([&] { RemoveKey(*repository_, current, true); }), ErrorKind::Usage)
        << "a damaged object does not count as another key";
    const std::string other = AddKey(*repository_, "other", NewKdfParameters(1u << 20), "h");
    const std::string failure = FailureOf([&] { RemoveKey(*repository_, current, false); });
    EXPECT_NE(failure.find("--force"), std::string::npos) << failure;
    EXPECT_EQ(RemoveKey(*repository_, other.substr(0, 6), false), other);
    EXPECT_EQ(RemoveKey(*repository_, "0000damaged", false), "0000damaged");
    EXPECT_EQ(KindOf([&] { RemoveKey(*repository_, "ffffffff", false); }), ErrorKind::NotFound);
    EXPECT_EQ(KindOf([&] { RemoveKey(*repository_, "ab", false); }), ErrorKind::Usage);
    AddKey(*repository_, "other", NewKdfParameters(1u << 20), "h");
    EXPECT_EQ(RemoveKey(*repository_, current, true), current);
    EXPECT_EQ(Repository(store_, "repo", "other").config().id, repository_->config().id);
}

TEST_F(KeysTest, ListingNamesADamagedKeyObjectAndWhy) {
    PutText("repo/keys/0000damaged", "{}x");
    const std::vector<KeyInfo> keys = ListKeys(*repository_);
    ASSERT_EQ(keys.size(), 2u);
    EXPECT_EQ(keys[0].id, "0000damaged");
    EXPECT_FALSE(keys[0].damage.empty());
    EXPECT_TRUE(keys[1].current);
    EXPECT_EQ(keys[1].created.size(), 20u) << keys[1].created;
}

}  // namespace
}  // namespace repotest
