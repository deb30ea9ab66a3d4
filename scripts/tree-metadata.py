#!/usr/bin/env python3
"""The metadata of a folder tree, and what two restores of it kept.

Used by scripts/compare-metadata.sh. Every tree is walked with os.lstat
(links never followed); a folder is looked at before it is listed and file
contents are read last (with O_NOATIME where allowed), so that the walk
itself moves no access time it reports (a later walk of the same tree sees
the folders' access times this one's listing moved).

  tree-metadata.py record SOURCE FILE
      writes the metadata of every entry under SOURCE (SOURCE itself too) to
      FILE (JSON): type, mode, owner, size, times in ns, link target, inode,
      allocated blocks, device number, extended attributes, a SHA-256 of
      each regular file's content.
  tree-metadata.py reset-times RECORD SOURCE
      puts the access and modification times RECORD holds back on SOURCE's
      entries (listing a folder or reading a file moves its access time; one
      tool's backup must not change what the next one sees).
  tree-metadata.py compare SOURCE RESTORE_A LABEL_A RESTORE_B LABEL_B
                   [--compare-root] [--root-note TEXT] [--examples N]
      SOURCE is a folder or a FILE written by `record`. For each field
      (type, mode, uid, gid, size, mtime, atime, symlink target, symlink
      mtime, hard-link groups, sparseness, extended attributes, POSIX ACLs,
      FIFOs, device nodes, content) counts the source's entries whose
      restored counterpart differs or is missing, and prints one table with
      a column per restore, then the first N differences of each field per
      restore (default 4). The root folder itself is compared only with
      --compare-root (when both restores have an entry of their own for
      it); --root-note says why it is left out. A restore folder that does
      not exist counts as one that holds nothing.

Exit status: 0 when the comparison ran, whatever it found; 1 when a tree or
record could not be read or written; 2 on a bad command line.
"""

import argparse
import datetime
import errno
import hashlib
import json
import os
import stat
import struct
import sys

ACL_NAMES = ("system.posix_acl_access", "system.posix_acl_default")


KINDS = ((stat.S_ISREG, "file"), (stat.S_ISDIR, "dir"), (stat.S_ISLNK, "symlink"), (stat.S_ISFIFO, "fifo"),
         (stat.S_ISCHR, "char"), (stat.S_ISBLK, "block"), (stat.S_ISSOCK, "socket"))


def kind(mode):
    return next((name for test, name in KINDS if test(mode)), "other")


def read_xattrs(path):
    try:
        names = os.listxattr(path, follow_symlinks=False)
    except OSError as error:
        if error.errno in (errno.ENOTSUP, errno.EOPNOTSUPP):
            return {}
        raise
    values = {}
    for name in sorted(names):
        try:
            values[name] = os.getxattr(path, name, follow_symlinks=False).hex()
        except OSError as error:
            if error.errno == errno.ENODATA:  # removed while listed
                continue
            raise
    return values


def entry_of(path, st):
    entry = {
        "type": kind(st.st_mode),
        "mode": stat.S_IMODE(st.st_mode),
        "uid": st.st_uid,
        "gid": st.st_gid,
        "size": st.st_size,
        "mtime": st.st_mtime_ns,
        "atime": st.st_atime_ns,
        "ino": st.st_ino,
        "nlink": st.st_nlink,
        "blocks": st.st_blocks,
        "rdev": st.st_rdev,
        "xattrs": read_xattrs(path),
    }
    if entry["type"] == "symlink":
        entry["target"] = os.readlink(path)
    return entry


def content_hash(path):
    flags = os.O_RDONLY | getattr(os, "O_NOFOLLOW", 0)
    try:
        fd = os.open(path, flags | getattr(os, "O_NOATIME", 0))
    except PermissionError:  # O_NOATIME needs the file's owner (or root)
        fd = os.open(path, flags)
    digest = hashlib.sha256()
    try:
        while True:
            block = os.read(fd, 1 << 20)
            if not block:
                break
            digest.update(block)
    finally:
        os.close(fd)
    return digest.hexdigest()


def scan(root):
    """{relative path ('.' for ROOT): entry}; {} when ROOT does not exist."""
    entries = {}
    if not os.path.lexists(root):
        return entries
    pending = [(root, ".")]
    while pending:
        path, rel = pending.pop()
        st = os.lstat(path)  # before the listing below moves the folder's atime
        entries[rel] = entry_of(path, st)
        if stat.S_ISDIR(st.st_mode):
            for name in sorted(os.listdir(path), reverse=True):
                pending.append((os.path.join(path, name), name if rel == "." else rel + "/" + name))
    for rel, entry in entries.items():  # contents last: reading moves atimes
        if entry["type"] == "file":
            entry["sha256"] = content_hash(root if rel == "." else os.path.join(root, rel))
    return entries


def load_source(source):
    if os.path.isdir(source):
        return scan(source)
    with open(source, encoding="utf-8") as f:
        return json.load(f)["entries"]


# ---- the fields compared


def fmt_time(ns):
    seconds, rest = divmod(ns, 1_000_000_000)
    when = datetime.datetime.fromtimestamp(seconds, datetime.timezone.utc)
    return when.strftime("%Y-%m-%d %H:%M:%S") + ".%09d" % rest


ACL_TAGS = {0x01: "u", 0x02: "u", 0x04: "g", 0x08: "g", 0x10: "m", 0x20: "o"}


def acl_text(raw):
    """The kernel's xattr form of an ACL (version 2, then 8 bytes an entry)
    as setfacl writes it; None when it is not one."""
    if len(raw) < 4 or (len(raw) - 4) % 8 or struct.unpack_from("<I", raw)[0] != 2:
        return None
    parts = []
    for offset in range(4, len(raw), 8):
        tag, perm, qualifier = struct.unpack_from("<HHI", raw, offset)
        if tag not in ACL_TAGS:
            return None
        named = str(qualifier) if tag in (0x02, 0x08) else ""
        bits = "".join(letter if perm & bit else "-" for letter, bit in (("r", 4), ("w", 2), ("x", 1)))
        parts.append("%s:%s:%s" % (ACL_TAGS[tag], named, bits))
    return ",".join(parts)


def fmt_xattrs(values):
    if not values:
        return "none"
    parts = []
    for name, value in sorted(values.items()):
        raw = bytes.fromhex(value)
        shown = acl_text(raw) if name in ACL_NAMES else None
        if shown is not None:
            parts.append("%s=%s" % (name, shown))
            continue
        shown = raw.decode("ascii") if raw.isascii() and raw.decode("ascii").isprintable() else "0x" + value
        if len(shown) > 40:
            shown = shown[:37] + "..."
        parts.append("%s=%s" % (name, shown))
    return ", ".join(parts)


def plain_xattrs(entry):
    return {k: v for k, v in entry["xattrs"].items() if k not in ACL_NAMES}


def acl_xattrs(entry):
    return {k: v for k, v in entry["xattrs"].items() if k in ACL_NAMES}


def is_sparse(entry):
    return entry["type"] == "file" and entry["size"] > 0 and entry["blocks"] * 512 < entry["size"] // 2


def simple_field(name, applies, value, show=str):
    """A field compared entry by entry: (name, applies(src), differs(src, dst) -> text or None)."""

    def differs(src, dst):
        a, b = value(src), value(dst)
        if a == b:
            return None
        return "source %s, restore %s" % (show(a), show(b))

    return (name, applies, differs)


def device_of(entry):
    if entry["type"] in ("char", "block"):
        return "%s %d,%d" % (entry["type"], os.major(entry["rdev"]), os.minor(entry["rdev"]))
    return "a " + entry["type"]


def octal(mode):
    return "%04o" % mode


def ident(x):
    return x


FIELDS = [
    simple_field("type", lambda e: True, lambda e: e["type"]),
    simple_field("mode (incl. setid, sticky)", lambda e: e["type"] != "symlink", lambda e: e["mode"], octal),
    simple_field("uid", lambda e: True, lambda e: e["uid"]),
    simple_field("gid", lambda e: True, lambda e: e["gid"]),
    simple_field("size (files)", lambda e: e["type"] == "file", lambda e: e["size"]),
    simple_field("mtime ns (not links)", lambda e: e["type"] != "symlink", lambda e: e["mtime"], fmt_time),
    simple_field("atime ns (files, folders)", lambda e: e["type"] in ("file", "dir"), lambda e: e["atime"], fmt_time),
    simple_field("symlink target", lambda e: e["type"] == "symlink", lambda e: e.get("target"), repr),
    simple_field("symlink mtime ns", lambda e: e["type"] == "symlink", lambda e: e["mtime"], fmt_time),
    None,  # hard links: by group, below
    simple_field("sparse (holes kept)", is_sparse, lambda e: is_sparse(e),
                 lambda sparse: "sparse" if sparse else "fully allocated"),
    simple_field("xattrs (names, values)", lambda e: bool(plain_xattrs(e)), plain_xattrs, fmt_xattrs),
    simple_field("POSIX ACLs (system.posix_acl_*)", lambda e: bool(acl_xattrs(e)), acl_xattrs, fmt_xattrs),
    simple_field("FIFO kept", lambda e: e["type"] == "fifo", lambda e: e["type"]),
    simple_field("device node (type, rdev)", lambda e: e["type"] in ("char", "block"), device_of),
    simple_field("content (SHA-256, files)", lambda e: e["type"] == "file", lambda e: e.get("sha256"),
                 lambda h: h[:12] if h else "none"),
]
HARD_LINKS = "hard-link groups"
FIELD_NAMES = ["present"] + [f[0] if f else HARD_LINKS for f in FIELDS] + ["extra entries (not in source)"]
# Fields whose differences also count entries the source has none of (an
# attribute the restore added).
COUNT_ADDED = {"xattrs (names, values)", "POSIX ACLs (system.posix_acl_*)"}


def link_groups(entries):
    groups = {}
    for rel, entry in entries.items():
        if entry["type"] != "dir":
            groups.setdefault(entry["ino"], []).append(rel)
    return [sorted(names) for names in groups.values() if len(names) > 1]


def compare(source, restore):
    """{field: (applicable source entries, [(path, text)...] differing)}."""
    result = {name: [0, []] for name in FIELD_NAMES}
    for rel in sorted(source):
        src = source[rel]
        dst = restore.get(rel)
        result["present"][0] += 1
        if dst is None:
            result["present"][1].append((rel, "missing in the restore"))
        for field in FIELDS:
            if field is None:
                continue
            name, applies, differs = field
            applicable = applies(src)
            if applicable:
                result[name][0] += 1
            if dst is None:
                if applicable:
                    result[name][1].append((rel, "missing"))
                continue
            if applicable or (name in COUNT_ADDED and applies(dst)):
                text = differs(src, dst)
                if text is not None:
                    result[name][1].append((rel, text))
    for rel in sorted(set(restore) - set(source)):
        result["extra entries (not in source)"][1].append((rel, "a %s not in the source" % restore[rel]["type"]))

    # Hard links: the names of one source inode must share one inode in the
    # restore, and that inode no other name; names the restore links together
    # that the source keeps apart count too.
    groups = link_groups(source)
    restore_inodes = {}
    for rel, entry in restore.items():
        if entry["type"] != "dir":
            restore_inodes.setdefault(entry["ino"], set()).add(rel)
    linked = set()
    for names in groups:
        result[HARD_LINKS][0] += len(names)
        linked.update(names)
        present = [n for n in names if n in restore]
        inodes = {restore[n]["ino"] for n in present}
        if len(present) == len(names) and len(inodes) == 1 and restore_inodes[inodes.pop()] == set(names):
            continue
        shared = ", ".join("%s: inode %s" % (n, restore[n]["ino"] if n in restore else "missing") for n in names)
        for n in names:
            result[HARD_LINKS][1].append((n, "one inode in the source; restore: " + shared))
    source_inode_of = {rel: e["ino"] for rel, e in source.items()}
    for inode, names in restore_inodes.items():
        if len(names) < 2:
            continue
        for n in sorted(names):
            if n in linked or n not in source_inode_of:
                continue
            others = sorted(m for m in names if m != n and source_inode_of.get(m) != source_inode_of[n])
            if others:
                result[HARD_LINKS][1].append((n, "linked in the restore to %s, not in the source" % ", ".join(others)))
    return result


def print_table(source, results, labels):
    headers = ["field", "entries in source"] + ["%s differing" % label for label in labels]
    rows = []
    for name in FIELD_NAMES:
        count = "-" if name.startswith("extra") else str(results[0][name][0])
        rows.append([name, count] + [str(len(r[name][1])) for r in results])
    widths = [max(len(row[i]) for row in rows + [headers]) for i in range(len(headers))]

    def line(cells):
        return "| " + " | ".join(c.ljust(w) if i == 0 else c.rjust(w) for i, (c, w) in enumerate(zip(cells, widths))) + " |"

    print(line(headers))
    print("|" + "|".join("-" * (w + 2) for w in widths) + "|")
    for row in rows:
        print(line(row))


def main():
    parser = argparse.ArgumentParser(description="The metadata of a folder tree, and what two restores of it kept.")
    commands = parser.add_subparsers(dest="command", required=True)
    record = commands.add_parser("record", help="write the metadata of SOURCE's entries to FILE")
    record.add_argument("source")
    record.add_argument("file")
    reset = commands.add_parser("reset-times", help="put the recorded access and modification times back")
    reset.add_argument("record")
    reset.add_argument("source")
    comp = commands.add_parser("compare", help="what two restores kept of the source's metadata")
    comp.add_argument("source", help="the source folder, or a file `record` wrote")
    comp.add_argument("restore_a")
    comp.add_argument("label_a")
    comp.add_argument("restore_b")
    comp.add_argument("label_b")
    comp.add_argument("--compare-root", action="store_true", help="also compare the root folder itself")
    comp.add_argument("--root-note", default="", help="why the root folder itself is left out")
    comp.add_argument("--examples", type=int, default=4, help="differences listed per field and restore")
    args = parser.parse_args()

    try:
        if args.command == "record":
            entries = scan(args.source)
            if not entries:
                raise OSError(errno.ENOENT, "no such folder", args.source)
            with open(args.file, "w", encoding="utf-8") as f:
                json.dump({"root": os.path.abspath(args.source), "entries": entries}, f, indent=0, sort_keys=True)
            print("recorded %s: the folder and the %d entries below it" % (args.source, len(entries) - 1))
            return 0
        if args.command == "reset-times":
            entries = load_source(args.record)
            for rel, entry in entries.items():
                path = args.source if rel == "." else os.path.join(args.source, rel)
                os.utime(path, ns=(entry["atime"], entry["mtime"]), follow_symlinks=False)
            print("put back the times of %d entries of %s" % (len(entries), args.source))
            return 0

        source = load_source(args.source)
        if not source:
            raise OSError(errno.ENOENT, "no such folder or record", args.source)
        labels = [args.label_a, args.label_b]
        restores = []
        for path, label in ((args.restore_a, args.label_a), (args.restore_b, args.label_b)):
            entries = scan(path)
            if not entries:
                print("%s: nothing restored at %s; every entry counts as missing" % (label, path))
            restores.append(entries)
        if not args.compare_root:
            source = {k: v for k, v in source.items() if k != "."}
            restores = [{k: v for k, v in r.items() if k != "."} for r in restores]
        results = [compare(source, r) for r in restores]

        print("source: %d entries; restores: %s %s, %s %s" % (len(source), args.label_a, args.restore_a,
                                                             args.label_b, args.restore_b))
        if args.compare_root:
            print("the root folder itself is compared")
        else:
            print("the root folder itself is left out" + (": " + args.root_note if args.root_note else ""))
        print()
        print_table(source, results, labels)
        for label, result in zip(labels, results):
            print()
            differing = [name for name in FIELD_NAMES if result[name][1]]
            if not differing:
                print("%s: no differences" % label)
                continue
            print("%s: differences (first %d of each field)" % (label, args.examples))
            for name in differing:
                listed = result[name][1]
                print("  %s (%d):" % (name, len(listed)))
                for rel, text in listed[: args.examples]:
                    print("    %s: %s" % (rel, text))
                if len(listed) > args.examples:
                    print("    ... %d more" % (len(listed) - args.examples))
        return 0
    except OSError as error:
        print("tree-metadata: %s" % error, file=sys.stderr)
        return 1


if __name__ == "__main__":
    sys.exit(main())
