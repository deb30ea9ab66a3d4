// The tool's SHA-256 wrapper around the platform's library: the published
// vectors, any split of a message into updates, Final starting over, and
// the hexadecimal form of a digest.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "util/Sha256.h"

using qvhost::Sha256;
using qvhost::Sha256Digest;
using qvhost::Sha256Of;
using qvhost::ToHex;

namespace {

constexpr const char* kEmpty = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";
constexpr const char* kAbc = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";

std::string HexOf(const std::string& text) { return ToHex(Sha256Of(text.data(), text.size())); }

}  // namespace

TEST(Sha256, MatchesThePublishedVectors) {
    EXPECT_EQ(HexOf(""), kEmpty);
    EXPECT_EQ(HexOf("abc"), kAbc);
    EXPECT_EQ(HexOf("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
              "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
    EXPECT_EQ(HexOf(std::string(1000000, 'a')), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

TEST(Sha256, AnySplitIntoUpdatesGivesTheSameDigest) {
    std::mt19937 random(20240611);
    std::vector<uint8_t> message((5u << 20) + 55);
    for (uint8_t& byte : message) byte = static_cast<uint8_t>(random() >> 24);
    const Sha256Digest whole = Sha256Of(message.data(), message.size());
    for (int split = 0; split < 3; ++split) {
        Sha256 hash;
        for (size_t at = 0; at < message.size();) {
            const size_t piece = std::min<size_t>(message.size() - at, random() % (split == 0 ? 100 : 300000));
            hash.Update(message.data() + at, piece);
            at += piece;
        }
        EXPECT_EQ(hash.Final(), whole) << "split " << split;
    }
}

TEST(Sha256, FinalStartsTheNextMessageFresh) {
    Sha256 hash;
    hash.Update("abc", 3);
    EXPECT_EQ(ToHex(hash.Final()), kAbc);
    hash.Update("abc", 3);
    EXPECT_EQ(ToHex(hash.Final()), kAbc);
    // Nothing given since the last Final: the empty message.
    EXPECT_EQ(ToHex(hash.Final()), kEmpty);
    hash.Update(nullptr, 0);
    EXPECT_EQ(ToHex(hash.Final()), kEmpty);
}

TEST(Sha256, ToHexGivesSixtyFourLowerCaseDigitsInByteOrder) {
    const Sha256Digest digest = {0x00, 0x01, 0x09, 0x0a, 0x0f, 0x10, 0x7f, 0x80, 0x9a, 0xab, 0xbc,
                                 0xcd, 0xde, 0xef, 0xf0, 0xff, 0x12, 0x34, 0x56, 0x78, 0x9a, 0xbc,
                                 0xde, 0xf0, 0x0f, 0xed, 0xcb, 0xa9, 0x87, 0x65, 0x43, 0x21};
    EXPECT_EQ(ToHex(digest), "0001090a0f107f809aabbccddeeff0ff123456789abcdef00fedcba987654321");
    EXPECT_EQ(ToHex(Sha256Digest{}), std::string(64, '0'));
}
