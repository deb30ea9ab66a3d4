#include "repository/Dump.h"


#include <map>
#include <memory>
#include <optional>
#include <utility>

#include "repository/Listing.h"
#include "util/Error.h"

namespace qvhost::repo {

namespace {

// The chunks' places, checked against the file's size before any is read.
std::vector<BlobLocation> Locate(const MasterIndex& index, const Node& file, const std::string& path) {
    std::vector<BlobLocation> locations;
    uint64_t total = 0;
    for (const Id& chunk : file.content) {
        const std::optional<BlobLocation> location = index.Find(chunk);
        if (!location) Damaged(path + ": its chunk " + IdHex(chunk).substr(0, 16) + " is in no index");
        locations.push_back(*location);
        total += location->entry.plainLength;
    }
    if (total != file.size) {
        Damaged(path + ": its chunks hold " + std::to_string(total) + " bytes, not " + std::to_string(file.size));
    }
    return locations;
}

void ReadChunk(Repository& repository, const BlobLocation& location, const std::string& path, Bytes& sealed,
               Bytes& plain) {
    const std::string pack = repository.layout().Pack(location.pack);
    try {
        repository.store().ReadRange(pack, location.entry.offset, location.entry.length, sealed);
    } catch (const ObjectMissing&) {
        throw Error(ErrorKind::Damaged, path + ": its pack " + pack + " is missing", pack);
    }
    std::string why = sealed.size() == location.entry.length ? "" : "its pack ends early";
    if (why.empty() && !OpenBlob(repository.keys(), location.entry, sealed.data(), sealed.size(), plain, why)) {
        why = "a chunk " + why;
    }
    if (!why.empty()) throw Error(ErrorKind::Damaged, path + ": " + why + " (in " + pack + ")", pack);
}

std::optional<TarType> TarTypeOf(NodeType type) {
    switch (type) {
    case NodeType::File: return TarType::File;
    case NodeType::Folder: return TarType::Folder;
    case NodeType::Link: return TarType::Symlink;
    case NodeType::Fifo: return TarType::Fifo;
    case NodeType::CharDevice: return TarType::CharDevice;
    case NodeType::BlockDevice: return TarType::BlockDevice;
    default: return std::nullopt;
    }
}

// Linux's split of a device number (glibc's major() and minor()), written
// out so that a dump gives the same numbers on any system.
uint32_t DeviceMajor(uint64_t number) {
    return static_cast<uint32_t>((number >> 32 & 0xfffff000) | (number >> 8 & 0x00000fff));
}
uint32_t DeviceMinor(uint64_t number) {
    return static_cast<uint32_t>((number >> 12 & 0xffffff00) | (number & 0x000000ff));
}

TarEntry TarEntryOf(const std::string& name, const Node& node, TarType type) {
    TarEntry entry;
    entry.path = name;
    entry.type = type;
    entry.mode = node.implicit ? 0755 : node.mode;
    entry.uid = node.uid;
    entry.gid = node.gid;
    entry.user = node.user;
    entry.group = node.group;
    entry.size = type == TarType::File ? node.size : 0;
    entry.modifiedNs = node.modifiedNs;
    entry.linkTarget = node.linkTarget;
    entry.deviceMajor = DeviceMajor(node.deviceNumber);
    entry.deviceMinor = DeviceMinor(node.deviceNumber);
    for (const Xattr& xattr : node.xattrs) entry.xattrs.push_back({xattr.name, xattr.value});
    return entry;
}

// A folder's tree as a tar stream; a file's second name (a hard link with
// the same content) as a link to its first.
class TarDump {
public:
    TarDump(Repository& repository, const MasterIndex& index, const ByteSink& sink)
        : repository_(repository), index_(index), tar_(sink) {}

    void Add(const std::string& name, const Node& node);
    DumpReport Finish() {
        tar_.Finish();
        return report_;
    }

private:
    // The earlier name of the same file, when there is one.
    std::string EarlierName(const std::string& name, const Node& node);

    Repository& repository_;
    const MasterIndex& index_;
    TarWriter tar_;
    DumpReport report_{true};
    std::map<std::pair<uint64_t, uint64_t>, std::pair<std::string, const Node*>> names_;
    std::vector<std::unique_ptr<Node>> kept_;
};

std::string TarDump::EarlierName(const std::string& name, const Node& node) {
    if (node.type != NodeType::File || node.links < 2 || node.inode == 0) return "";
    const auto key = std::make_pair(node.device, node.inode);
    const auto found = names_.find(key);
    if (found == names_.end()) {
        kept_.push_back(std::make_unique<Node>(node));
        names_[key] = {name, kept_.back().get()};
        return "";
    }
    const Node& earlier = *found->second.second;
    return earlier.content == node.content && earlier.size == node.size ? found->second.first : "";
}

void TarDump::Add(const std::string& name, const Node& node) {
    const std::optional<TarType> type = TarTypeOf(node.type);
    if (!type) return void(++report_.skipped);
    const std::string earlier = EarlierName(name, node);
    if (!earlier.empty()) {
        TarEntry entry = TarEntryOf(name, node, TarType::HardLink);
        entry.linkTarget = earlier;
        tar_.Add(entry);
        return void(++report_.links);
    }
    tar_.Add(TarEntryOf(name, node, *type));
    if (node.type == NodeType::Folder) ++report_.folders;
    if (node.type == NodeType::Link) ++report_.links;
    if (node.type != NodeType::File) return;
    ++report_.files;
    report_.bytes += DumpFile(repository_, index_, node, "/" + name,
                              [this](const uint8_t* data, size_t size) { tar_.Content(data, size); });
}

}  // namespace

uint64_t DumpFile(Repository& repository, const MasterIndex& index, const Node& file, const std::string& path,
                  const ByteSink& sink) {
    Bytes sealed, plain;
    uint64_t written = 0;
    for (const BlobLocation& location : Locate(index, file, path)) {
        ReadChunk(repository, location, path, sealed, plain);
        sink(plain.data(), plain.size());
        written += plain.size();
    }
    return written;
}

DumpReport DumpPath(Repository& repository, const MasterIndex& index, const Snapshot& snapshot,
                    const std::string& path, const ByteSink& sink) {
    TreeReader reader(repository, index);
    const std::string rooted = RootedPath(path);
    if (rooted != "/") {
        const std::optional<Node> node = FindNode(reader, snapshot.tree, rooted.substr(1));
        if (!node) throw Error(ErrorKind::NotFound, "the snapshot holds nothing at " + rooted);
        if (node->type == NodeType::File) {
            DumpReport report;
            report.files = 1;
            report.bytes = DumpFile(repository, index, *node, rooted, sink);
            return report;
        }
    }
    // Names in the stream start with the folder's own name (none for the whole snapshot).
    const size_t base = rooted == "/" ? 1 : rooted.find_last_of('/') + 1;
    TarDump dump(repository, index, sink);
    ListSnapshot(reader, snapshot, rooted, [&](const ListedEntry& entry) {
        dump.Add(entry.path.substr(base), entry.node);
    });
    return dump.Finish();
}

}  // namespace qvhost::repo
