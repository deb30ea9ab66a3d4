// SHA-256 against the published test vectors, and across every way of
// splitting a message into updates.
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "Sha256.h"

using qvhost::Sha256;
using qvhost::Sha256Of;
using qvhost::ToHex;

namespace {
std::string HexOf(const std::string& text) { return ToHex(Sha256Of(text.data(), text.size())); }
}  // namespace

TEST(Sha256, MatchesThePublishedVectors) {
    EXPECT_EQ(HexOf(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    EXPECT_EQ(HexOf("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(HexOf("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
              "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
    EXPECT_EQ(HexOf("abcdefghbcdefghicdefghijdefghijkefghijklfghijklmghijklmnhijklmnoijklmnopjklmnopqklmnopqrlmnopqrs"
                    "mnopqrstnopqrstu"),
              "cf5b16a778af8380036ce59e7b0492370b249b11e8f07a51afac45037afee9d1");
    EXPECT_EQ(HexOf(std::string(1000000, 'a')), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

TEST(Sha256, AnySplitIntoUpdatesGivesTheSameDigest) {
    std::mt19937 random(7);
    for (size_t length : {0, 1, 55, 56, 63, 64, 65, 119, 120, 127, 128, 129, 1000, 70000}) {
        std::string message(length, '\0');
        for (char& c : message) c = static_cast<char>(random());
        const std::string whole = HexOf(message);
        for (int trial = 0; trial < 20; ++trial) {
            Sha256 hash;
            size_t at = 0;
            while (at < length) {
                const size_t piece = std::min<size_t>(length - at, random() % 150);
                hash.Update(message.data() + at, piece);
                at += piece;
            }
            EXPECT_EQ(ToHex(hash.Final()), whole) << "length " << length;
        }
    }
}

TEST(Sha256, FinalStartsTheNextMessageFresh) {
    Sha256 hash;
    hash.Update("abc", 3);
    const std::string first = ToHex(hash.Final());
    hash.Update("abc", 3);
    EXPECT_EQ(ToHex(hash.Final()), first);
    EXPECT_EQ(ToHex(hash.Final()), HexOf(""));
}
