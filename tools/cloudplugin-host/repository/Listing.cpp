#include "repository/Listing.h"

#include "util/Error.h"

namespace qvhost::repo {

namespace {

char TypeLetter(NodeType type) {
    switch (type) {
    case NodeType::Folder: return 'd';
    case NodeType::Link: return 'l';
    case NodeType::Fifo: return 'p';
    case NodeType::CharDevice: return 'c';
    case NodeType::BlockDevice: return 'b';
    case NodeType::Socket: return 's';
    default: return '-';
    }
}

// One of the three rwx triplets; `special` is the set-ID or sticky bit
// shown in its x place.
void PutTriplet(std::string& text, uint32_t mode, int shift, bool special, char shown) {
    text += (mode >> shift) & 4 ? 'r' : '-';
    text += (mode >> shift) & 2 ? 'w' : '-';
    const bool execute = (mode >> shift) & 1;
    if (special) {
        text += execute ? shown : static_cast<char>(shown - 'a' + 'A');
    } else {
        text += execute ? 'x' : '-';
    }
}

}  // namespace

std::string ModeText(const Node& node) {
    std::string text(1, TypeLetter(node.type));
    PutTriplet(text, node.mode, 6, node.mode & 04000, 's');
    PutTriplet(text, node.mode, 3, node.mode & 02000, 's');
    PutTriplet(text, node.mode, 0, node.mode & 01000, 't');
    return text;
}

std::string NodeTypeName(NodeType type) {
    switch (type) {
    case NodeType::Folder: return "dir";
    case NodeType::Link: return "symlink";
    case NodeType::Fifo: return "fifo";
    case NodeType::CharDevice: return "chardev";
    case NodeType::BlockDevice: return "dev";
    case NodeType::Socket: return "socket";
    default: return "file";
    }
}

std::string RootedPath(const std::string& path) {
    std::string rooted;
    for (const std::string& name : PathPattern::Components(path)) rooted += "/" + name;
    return rooted.empty() ? "/" : rooted;
}

void ListSnapshot(TreeReader& reader, const Snapshot& snapshot, const std::string& path, const EntryVisitor& visit) {
    const std::string rooted = RootedPath(path);
    std::vector<Id> trees = snapshot.tree;
    std::string prefix;
    if (rooted != "/") {
        const std::optional<Node> node = FindNode(reader, snapshot.tree, rooted.substr(1));
        if (!node) throw Error(ErrorKind::NotFound, "the snapshot holds nothing at " + rooted);
        visit({rooted, *node});
        if (!node->IsFolder()) return;
        trees = node->subtree;
        prefix = rooted;
    }
    WalkTree(reader, trees, [&](const std::string& below, const Node& node) {
        visit({prefix + "/" + below, node});
        return true;
    });
}

bool FindQuery::Matches(const std::string& path, const Node& node) const {
    if (node.modifiedNs < oldestNs || node.modifiedNs > newestNs) return false;
    const std::vector<std::string> names = PathPattern::Components(path);
    for (const PathPattern& pattern : patterns) {
        if (pattern.MatchesWhole(names)) return true;
    }
    return false;
}

std::vector<ListedEntry> FindInSnapshot(TreeReader& reader, const Snapshot& snapshot, const FindQuery& query) {
    std::vector<ListedEntry> found;
    ListSnapshot(reader, snapshot, "/", [&](const ListedEntry& entry) {
        if (query.Matches(entry.path, entry.node)) found.push_back(entry);
    });
    return found;
}

}  // namespace qvhost::repo
