// A pack verified before anything relies on it: its name is the SHA-256 of
// its bytes, its header opens and covers the pack, and every blob it lists
// opens to content whose keyed hash is the blob's id. Anyone who can write
// to the container can store an object under a pack's name, so a pack that
// no index names (one a backup would adopt) or a second copy of a blob
// (one prune would choose) counts only once it passes.
#pragma once

#include <string>
#include <vector>

#include "repository/Repository.h"

namespace qvhost::repo {

// The pack `pack` read whole into `bytes`: its bytes against its name and
// its header. Answers the header's entries. Throws Damaged (ObjectMissing
// when it is gone).
std::vector<PackEntry> ReadWholePack(Repository& repository, const Id& pack, Bytes& bytes);

// Empty when every blob of the header opens and matches its id; else the
// first that does not, and why.
std::string WhyBlobsDoNotOpen(Repository& repository, const Id& pack, const std::vector<PackEntry>& entries,
                              const Bytes& bytes);

// Both: the entries of a pack that passes every check. Throws Damaged
// naming what failed (ObjectMissing when the pack is gone).
std::vector<PackEntry> ReadVerifiedPack(Repository& repository, const Id& pack);

}  // namespace qvhost::repo
