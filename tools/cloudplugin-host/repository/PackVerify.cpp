#include "repository/PackVerify.h"

#include "util/Error.h"

namespace qvhost::repo {

std::vector<PackEntry> ReadWholePack(Repository& repository, const Id& pack, Bytes& bytes) {
    const std::string name = repository.layout().Pack(pack);
    bytes = repository.store().ReadAll(name, kMaximumPackSize);
    if (Sha256Id(bytes.data(), bytes.size()) != pack) Damaged("the pack " + name + " does not match its name");
    if (bytes.size() < 4) Damaged("the pack " + name + " is too short");
    const uint32_t length = PackHeaderLength(bytes.data() + bytes.size() - 4, bytes.size(), name);
    return DecodePackHeader(repository.keys(), bytes.data() + bytes.size() - 4 - length, length, bytes.size(), name);
}

std::string WhyBlobsDoNotOpen(Repository& repository, const Id& pack, const std::vector<PackEntry>& entries,
                              const Bytes& bytes) {
    Bytes plain;
    for (const PackEntry& entry : entries) {
        std::string why;
        if (uint64_t{entry.offset} + entry.length > bytes.size()) why = "lies past the pack's end";
        if (why.empty() &&
            OpenBlob(repository.keys(), entry, bytes.data() + entry.offset, entry.length, plain, why)) {
            continue;
        }
        return "the pack " + repository.layout().Pack(pack) + ": the blob " + IdHex(entry.id).substr(0, 16) + " " +
               why;
    }
    return "";
}

std::vector<PackEntry> ReadVerifiedPack(Repository& repository, const Id& pack) {
    Bytes bytes;
    std::vector<PackEntry> entries = ReadWholePack(repository, pack, bytes);
    if (const std::string why = WhyBlobsDoNotOpen(repository, pack, entries, bytes); !why.empty()) Damaged(why);
    return entries;
}

}  // namespace qvhost::repo
