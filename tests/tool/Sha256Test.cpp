// SHA-256 against the published FIPS 180-4 / NIST test vectors with each
// engine, the engines against each other on random messages split into
// updates at random, and the hexadecimal form of a digest.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "Sha256.h"

using qvhost::Sha256;
using qvhost::Sha256Digest;
using qvhost::Sha256Of;
using qvhost::ToHex;

namespace {

std::string EngineName(Sha256::Engine engine) { return engine == Sha256::Engine::Portable ? "Portable" : "Hardware"; }

std::vector<uint8_t> RandomBytes(size_t size, std::mt19937& random) {
    std::vector<uint8_t> bytes(size);
    for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(random() >> 24);
    return bytes;
}

// The message fed in pieces of random sizes: mostly small, so that pieces
// start and end anywhere within a block, with the odd large one.
Sha256Digest HashInRandomPieces(Sha256::Engine engine, const std::vector<uint8_t>& message, std::mt19937& random) {
    Sha256 hash(engine);
    size_t at = 0;
    while (at < message.size()) {
        const size_t limit = random() % 8 == 0 ? 300000 : 150;
        const size_t piece = std::min<size_t>(message.size() - at, random() % (limit + 1));
        hash.Update(message.data() + at, piece);
        at += piece;
    }
    return hash.Final();
}

// Each test runs once per engine: Portable, and Best, which is the SHA
// extensions engine on processors that have them (and is skipped elsewhere,
// where it would only repeat the portable one).
class Sha256EngineTest : public ::testing::TestWithParam<Sha256::Engine> {
protected:
    void SetUp() override {
        if (GetParam() == Sha256::Engine::Best && !Sha256::HardwareAvailable()) {
            GTEST_SKIP() << "no SHA extensions on this processor or in this build";
        }
    }

    std::string HexOf(const std::string& text) const {
        Sha256 hash(GetParam());
        hash.Update(text.data(), text.size());
        return ToHex(hash.Final());
    }
};

std::vector<uint8_t> FromHex(const std::string& hex) {
    std::vector<uint8_t> bytes;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) {
        bytes.push_back(static_cast<uint8_t>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

const std::string k448BitMessage = "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq";
const std::string k896BitMessage =
    "abcdefghbcdefghicdefghijdefghijkefghijklfghijklmghijklmnhijklmnoijklmnopjklmnopqklmnopqrlmnopqrsmnopqrstnopqrstu";

}  // namespace

TEST_P(Sha256EngineTest, UsesTheEngineAskedFor) {
    EXPECT_EQ(Sha256(GetParam()).UsesHardware(), GetParam() == Sha256::Engine::Best);
}

TEST_P(Sha256EngineTest, MatchesTheEmptyMessageVector) {
    EXPECT_EQ(HexOf(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    Sha256 hash(GetParam());
    hash.Update(nullptr, 0);
    EXPECT_EQ(ToHex(hash.Final()), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
}

TEST_P(Sha256EngineTest, MatchesTheOneBlockVector) {
    EXPECT_EQ(HexOf("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

TEST_P(Sha256EngineTest, MatchesTheTwoBlock448BitVector) {
    EXPECT_EQ(HexOf(k448BitMessage), "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
}

TEST_P(Sha256EngineTest, MatchesThe896BitVector) {
    EXPECT_EQ(HexOf(k896BitMessage), "cf5b16a778af8380036ce59e7b0492370b249b11e8f07a51afac45037afee9d1");
}

TEST_P(Sha256EngineTest, MatchesTheMillionAVectorInOneUpdate) {
    EXPECT_EQ(HexOf(std::string(1000000, 'a')), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

TEST_P(Sha256EngineTest, MatchesTheMillionAVectorOneByteAtATime) {
    Sha256 hash(GetParam());
    const char a = 'a';
    for (int i = 0; i < 1000000; ++i) hash.Update(&a, 1);
    EXPECT_EQ(ToHex(hash.Final()), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

// NIST CAVS byte-oriented short messages (SHA256ShortMsg) of 55, 56, 63 and
// 64 bytes: the lengths where the padding just fits in the last block, just
// does not, or needs a block of its own.
TEST_P(Sha256EngineTest, MatchesTheCavsVectorsAroundTheBlockBoundary) {
    const struct {
        const char* message;
        const char* digest;
    } kVectors[] = {
        {"177df9f1768f798c8ec59a1f36ed02856a62b090403090511e794d932b1867a9"
         "0383856aaff60c79d4cef0ca2a33cb6130f92c5d1fc831",
         "34416b20eef5474b6602ef98fb0b5f018086805b7b2df3ef1d4635502f631642"},
        {"08f645ff0f9a765593bd419ff60a308d3b4e70e816388577455d3c1f237ee14d"
         "7b0eb3999aef95a3a87d064138cd53dd1d360b187f11b4b3",
         "76f082a9a8e45c02a376ee1b42629cfb5db30e0ba1632f19cd28c96363f9da66"},
        {"c3e81f34b716b165addda4fce195ba39e3a496ccf44f3746b3d0c0cef9a87a15"
         "01361b8ccc8949d4c3735a759fde5ed486635f5f7619e70be7abc300acae07",
         "2775a3f9bb46a4fda00eef650b45db52a8e8c948b6eff3b7a8206544de4f3ba0"},
        {"3d007ab1483de3511ce9a7edc7a9610bcacac0ec6f3d7cb45de08fcc6a00a185"
         "b01bc4fee3ea6147e29e72c68b6bf2dad44392bf17e4aeb2ae147f55c02b9254",
         "b9e850d487a74e6b8e07330b7648b6c1aa84cdcc16b238c96d47613de313e2f9"},
    };
    for (const auto& vector : kVectors) {
        const std::vector<uint8_t> message = FromHex(vector.message);
        Sha256 hash(GetParam());
        hash.Update(message.data(), message.size());
        EXPECT_EQ(ToHex(hash.Final()), vector.digest) << message.size() << " bytes";
    }
}

TEST_P(Sha256EngineTest, AgreesWithThePortableEngineOnRandomMessagesSplitAtRandom) {
    std::mt19937 random(20240611);
    std::vector<size_t> lengths;
    for (size_t length = 0; length <= 1000; ++length) lengths.push_back(length);
    for (size_t blocks : {1, 2, 3, 16, 17}) {
        for (int delta = -10; delta <= 10; ++delta) lengths.push_back(64 * blocks + 55 + delta);
    }
    for (size_t length : {size_t(3) << 20, (size_t(5) << 20) + 55, (size_t(8) << 20) + 63}) lengths.push_back(length);

    for (size_t length : lengths) {
        const std::vector<uint8_t> message = RandomBytes(length, random);
        Sha256 portable(Sha256::Engine::Portable);
        portable.Update(message.data(), message.size());
        const std::string expected = ToHex(portable.Final());

        Sha256 whole(GetParam());
        whole.Update(message.data(), message.size());
        EXPECT_EQ(ToHex(whole.Final()), expected) << "length " << length << ", one update";
        const int splits = length > 100000 ? 3 : 2;
        for (int split = 0; split < splits; ++split) {
            EXPECT_EQ(ToHex(HashInRandomPieces(GetParam(), message, random)), expected) << "length " << length;
        }
    }
}

TEST_P(Sha256EngineTest, FinalStartsTheNextMessageFresh) {
    std::mt19937 random(99);
    const std::vector<uint8_t> message = RandomBytes(200, random);
    Sha256 hash(GetParam());
    hash.Update(message.data(), message.size());
    const Sha256Digest first = hash.Final();
    hash.Update(message.data(), message.size());
    EXPECT_EQ(hash.Final(), first);
    // Nothing given since the last Final: the empty message.
    EXPECT_EQ(ToHex(hash.Final()), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    hash.Update("abc", 3);
    EXPECT_EQ(ToHex(hash.Final()), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

INSTANTIATE_TEST_SUITE_P(Engines, Sha256EngineTest,
                         ::testing::Values(Sha256::Engine::Portable, Sha256::Engine::Best),
                         [](const ::testing::TestParamInfo<Sha256::Engine>& info) { return EngineName(info.param); });

TEST(Sha256, OneShotMatchesTheIncrementalHash) {
    EXPECT_EQ(ToHex(Sha256Of("abc", 3)), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(ToHex(Sha256Of(k448BitMessage.data(), k448BitMessage.size())),
              "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
}

TEST(Sha256, DefaultEngineIsTheHardwareOneWhenAvailable) {
    EXPECT_EQ(Sha256().UsesHardware(), Sha256::HardwareAvailable());
    EXPECT_FALSE(Sha256(Sha256::Engine::Portable).UsesHardware());
}

// The NIST long message: 2^24 repetitions of a 64-byte pattern, 1 GiB, whose
// length in bits needs more than 32 bits. The padding is the same code for
// both engines, so this runs once, with the default (fastest) one.
TEST(Sha256, MatchesTheGibibyteVector) {
    const std::string pattern = "abcdefghbcdefghicdefghijdefghijkefghijklfghijklmghijklmnhijklmno";
    ASSERT_EQ(pattern.size(), 64u);
    std::string chunk;
    for (int i = 0; i < 16384; ++i) chunk += pattern;  // 1 MiB
    Sha256 hash;
    for (int i = 0; i < 1024; ++i) hash.Update(chunk.data(), chunk.size());
    EXPECT_EQ(ToHex(hash.Final()), "50e72a0e26442fe2552dc3938ac58658228c0cbfb1d2ca872ae435266fcd055e");
}

TEST(Sha256, ToHexGivesSixtyFourLowerCaseDigitsInByteOrder) {
    const Sha256Digest digest = {0x00, 0x01, 0x09, 0x0a, 0x0f, 0x10, 0x7f, 0x80, 0x9a, 0xab, 0xbc,
                                 0xcd, 0xde, 0xef, 0xf0, 0xff, 0x12, 0x34, 0x56, 0x78, 0x9a, 0xbc,
                                 0xde, 0xf0, 0x0f, 0xed, 0xcb, 0xa9, 0x87, 0x65, 0x43, 0x21};
    EXPECT_EQ(ToHex(digest), "0001090a0f107f809aabbccddeeff0ff123456789abcdef00fedcba987654321");
    EXPECT_EQ(ToHex(Sha256Digest{}), std::string(64, '0'));
}
