// Trees: the entries of one folder, stored as blobs of their own.
//
// A snapshot names the tree of its root; a folder's node names the trees of
// the folder's entries. A tree blob is sealed and stored in packs like a
// chunk (type Tree, in packs of trees only) and named by the keyed hash of
// its plain bytes, so that a folder whose entries did not change is the
// same blob in every snapshot and is stored once.
//
// Plain bytes of a tree blob, integers as varints (Binary.h):
//   u8 version (1), varint node count,
//   per node: varint length of the node's record, then the record: fields
//   of varint tag, varint length, bytes. Fields a reader does not know are
//   skipped, so that later versions can add fields.
// Nodes are sorted by name (bytewise) and named once. A folder of many
// entries spreads them over several blobs (runs of up to kTreeRunBytes
// each), listed in order in the folder's node.
//
// Everything decoded is checked before it is used: every length against
// what is left, every name as a path component a restore can make, names
// in order, fields that fit the node's type, chunk counts that fit a size,
// extended attributes within their bounds.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "repository/Crypto.h"
#include "util/PathRules.h"

namespace qvhost::repo {

enum class NodeType : uint8_t { File = 1, Folder = 2, Link = 3, Fifo = 4, CharDevice = 5, BlockDevice = 6, Socket = 7 };

// An extended attribute (POSIX ACLs are the system.posix_acl_* ones).
struct Xattr {
    std::string name;
    std::string value;
    bool operator==(const Xattr& other) const { return name == other.name && value == other.value; }
};

// The most extended attribute bytes (names and values) one entry keeps: a
// value is at most 64 KiB on Linux.
constexpr size_t kMaximumXattrBytes = 1u << 20;
// A tree blob's plain bytes stay under this; a folder of more entries takes
// several.
constexpr size_t kTreeRunBytes = 4u << 20;

struct Node {
    std::string name;  // one path component (any bytes a file system takes)
    NodeType type = NodeType::File;
    uint32_t mode = 0;  // permission, set-ID and sticky bits
    int64_t modifiedNs = 0;
    int64_t accessedNs = 0;  // 0: not known (left as the restore makes it)
    int64_t changedNs = 0;  // the status change time: tells a changed file at backup; never restored
    bool hasOwner = false;  // uid, gid, user and group were read (not so for the version 2 layout, format 1)
    uint32_t uid = 0;
    uint32_t gid = 0;
    std::string user;   // the owner's name at backup; empty when unknown
    std::string group;  // the group's name
    uint64_t size = 0;  // files
    uint64_t inode = 0;
    uint64_t device = 0;        // the file system (st_dev): with the inode, names a file for hard links
    uint64_t links = 1;         // hard links to it
    uint64_t deviceNumber = 0;  // devices: st_rdev
    std::string linkTarget;     // links: their own text, never followed
    bool sparse = false;        // the file had fewer blocks than its size needs: restored with holes
    bool implicit = false;      // a folder known only as the place of its entries: no metadata to restore
    std::vector<Xattr> xattrs;  // sorted by name
    std::vector<Id> content;    // files: their chunks in order
    std::vector<Id> subtree;    // folders: the tree blobs of their entries, in order

    bool IsFolder() const { return type == NodeType::Folder; }
};

// The name of the node that holds a snapshot's root folder's own metadata.
constexpr const char* kRootFolderName = "root";

// The plain bytes of the tree blobs of a folder's nodes (sorted by name):
// one blob, or runs of at most kTreeRunBytes.
std::vector<Bytes> EncodeTree(const std::vector<Node>& nodes);
// One tree blob's nodes; throws Damaged naming `what`. Names are checked by
// the POSIX rules on every system (no name can leave its folder): a tree
// written on Linux reads on Windows, whose restore refuses, one by one,
// the names Windows cannot have (PlanRestore).
std::vector<Node> DecodeTree(const uint8_t* data, size_t size, const std::string& what,
                             PathRules rules = PathRules::Posix);

// Why a node decoded from storage cannot be used; empty when it can.
std::string WhyNodeIsRefused(const Node& node, PathRules rules = kNativePathRules);

}  // namespace qvhost::repo
