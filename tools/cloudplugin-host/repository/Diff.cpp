#include "repository/Diff.h"

#include <algorithm>

namespace qvhost::repo {

namespace {

int64_t SizeOf(const Node& node) { return node.type == NodeType::File ? static_cast<int64_t>(node.size) : 0; }

bool SameMetadata(const Node& a, const Node& b) {
    return a.mode == b.mode && a.modifiedNs == b.modifiedNs && a.uid == b.uid && a.gid == b.gid &&
           a.xattrs == b.xattrs;
}

class Differ {
public:
    explicit Differ(TreeReader& reader) : reader_(reader) {}

    void Folder(const std::vector<Id>& first, const std::vector<Id>& second, const std::string& prefix) {
        if (first == second) return;
        const std::vector<Node> before = reader_.Entries(first);
        const std::vector<Node> after = reader_.Entries(second);
        size_t i = 0, k = 0;
        while (i < before.size() || k < after.size()) {
            if (k == after.size() || (i < before.size() && before[i].name < after[k].name)) {
                Whole('-', before[i++], prefix);
            } else if (i == before.size() || after[k].name < before[i].name) {
                Whole('+', after[k++], prefix);
            } else {
                Entry(before[i++], after[k++], prefix);
            }
        }
    }

    std::vector<TreeChange> Take() {
        std::sort(changes_.begin(), changes_.end(), [](const TreeChange& a, const TreeChange& b) { return a.path < b.path; });
        return std::move(changes_);
    }

private:
    // An entry only one snapshot has, with everything beneath it.
    void Whole(char kind, const Node& node, const std::string& prefix) {
        const std::string path = Join(prefix, node.name);
        changes_.push_back({kind, path, kind == '+' ? SizeOf(node) : -SizeOf(node)});
        if (!node.IsFolder()) return;
        for (const Node& child : reader_.Entries(node.subtree)) Whole(kind, child, path);
    }

    void Entry(const Node& was, const Node& now, const std::string& prefix) {
        const std::string path = Join(prefix, now.name);
        if (was.type != now.type) {
            changes_.push_back({'T', path, SizeOf(now) - SizeOf(was)});
        } else if (was.content != now.content || was.linkTarget != now.linkTarget) {
            changes_.push_back({'M', path, SizeOf(now) - SizeOf(was)});
        } else if (!SameMetadata(was, now)) {
            changes_.push_back({'U', path, 0});
        }
        if (was.IsFolder() && now.IsFolder()) Folder(was.subtree, now.subtree, path);
    }

    static std::string Join(const std::string& prefix, const std::string& name) {
        return prefix.empty() ? name : prefix + "/" + name;
    }

    TreeReader& reader_;
    std::vector<TreeChange> changes_;
};

}  // namespace

std::vector<TreeChange> DiffSnapshots(TreeReader& reader, const Snapshot& first, const Snapshot& second) {
    Differ differ(reader);
    differ.Folder(first.tree, second.tree, "");
    return differ.Take();
}

}  // namespace qvhost::repo
