#!/usr/bin/env bash
# What a restore keeps of a tree's metadata: cloudplugin-host against restic.
#
# Makes a fresh source tree holding every kind of metadata a real tree has:
# folders of modes 0700 and 0750 (empty), a setgid (2775) and a sticky
# (1777) folder, a set-user-ID file (4755), a folder whose modification
# time was set back after its content was made, a file of mode 0640, a file
# with old modification and access times, symbolic links (one with its own old time, one dangling),
# three hard links to one file, a sparse file (64 MiB, 8 KiB written in the
# middle), a FIFO, user extended attributes on a file and a folder, POSIX
# ACLs (an access ACL on a file, a default ACL on a folder and the ACL a file
# inherits from it; setfacl when installed, else the kernel's xattr form
# written directly) and, as root, a file, a folder and a link owned by
# 1234:5678 and a character device (1,3). Records the tree's metadata, then
# backs it up with restic (a local repository: the comparison is about
# metadata, not storage) and with cloudplugin-host (on Azurite, in memory
# on loopback), the source's times put back before each backup (one tool's
# reading moves access times the other would see), restores both into
# fresh folders, and prints, through scripts/tree-metadata.py, one table:
# per field, how many of the source's entries each restore lost or changed,
# then the first differences of each.
#
#   scripts/compare-metadata.sh                                   the tool of the demo build
#   scripts/compare-metadata.sh --tool build/linux-debug/stage/bin/cloudplugin-host --keep
#
# Installs what is missing (restic, python3 from Debian; Azurite through
# scripts/azurite.sh) and builds cloudplugin-host (demo preset) when neither
# --tool nor an earlier build gives one. Exit status 0 when every backup and
# restore succeeded (whatever the table shows), 1 when one failed (its
# error is shown, the table still printed), 2 on a bad command line.
# Run with --help for every option.
set -eEuo pipefail
trap 'echo "compare-metadata: FAILED at line $LINENO: $BASH_COMMAND" >&2' ERR

caller_dir=$(pwd)
cd "$(dirname "$0")/.."
repo=$(pwd)

usage() {
  cat <<'USAGE'
usage: scripts/compare-metadata.sh [options]

  --tool PATH         cloudplugin-host to run (default: build/demo/stage/bin/cloudplugin-host,
                      built with the demo preset first)
  --work DIR          source tree, repositories, restores, logs (default: build/compare-metadata)
  --keep              keep the source tree, restic's repository and both restores; without it
                      they are removed on success
  --restic-arg ARG    an extra option for restic backup (repeatable; e.g. --restic-arg --with-atime:
                      without it restic stores each entry's modification time as its access time)
  --examples N        differences listed per field and tool (default 4)
  --help              this text

Environment: AZURITE_BIN names an Azurite installation to use instead of build/azurite.
USAGE
}

fail() {
  echo "compare-metadata: FAILED: $*" >&2
  exit 1
}

# ---- options
tool=''
work=''
keep=no
examples=4
restic_args=()

absolute() { (cd "$caller_dir" && realpath -m -- "$1"); }

# One option: its value goes where the option says.
take_option() {
  local value=$2
  case $1 in
    --tool) tool=$(absolute "$value") ;;
    --work) work=$(absolute "$value") ;;
    --examples) examples=$value ;;
    --restic-arg) restic_args+=("$value") ;;
  esac
}
# shellcheck source=scripts/options.sh
. scripts/options.sh
read_options compare-metadata "--tool --work --examples --restic-arg" take_option "$@"
[[ $examples =~ ^[0-9]+$ ]] || { echo "compare-metadata: --examples takes a number" >&2; exit 2; }
[ -n "$work" ] || work=$repo/build/compare-metadata

# ---- set-up: what is missing
# shellcheck source=scripts/bench-common.sh
. scripts/bench-common.sh
bench_setup restic python3
metadata() { python3 "$repo/scripts/tree-metadata.py" "$@"; }

# ---- the work folder, Azurite
source_dir=$work/source
record=$work/source-metadata.json
restic_repo=$work/restic-repo
restic_restore=$work/restore-restic
tool_restore=$work/restore-cloudplugin-host
logs=$work/logs
mkdir -p "$work"
rm -rf "$source_dir" "$record" "$restic_repo" "$restic_restore" "$tool_restore" "$work/restic-cache" \
  "$logs" "$work/azurite"
mkdir -p "$logs"

succeeded=no
cleanup() {
  azurite_stop
  if [ $succeeded = yes ] && [ $keep = no ]; then
    rm -rf "$source_dir" "$restic_repo" "$restic_restore" "$tool_restore" "$work/restic-cache" "$work/azurite"
  elif [ $succeeded = no ] || [ $keep = yes ]; then
    echo "compare-metadata: source tree, restores and logs kept in $work" >&2
  fi
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# ---- the source tree
# Extended attributes and ACLs through setfattr and setfacl when installed;
# otherwise written directly (os.setxattr; an ACL in the kernel's xattr
# form: version 2, then tag, permissions and id of each entry, sorted).
set_xattr() {  # PATH NAME VALUE (VALUE: text, or 0x followed by hex digits)
  if command -v setfattr >/dev/null; then
    setfattr -h -n "$2" -v "$3" "$1"
  else
    python3 - "$@" <<'PY'
import os, sys
path, name, value = sys.argv[1:]
data = bytes.fromhex(value[2:]) if value.startswith("0x") else value.encode()
os.setxattr(path, name, data, follow_symlinks=False)
PY
  fi
}
# set_acl PATH access|default ENTRIES, ENTRIES as setfacl writes them in
# full (u::rw-,u:1234:r--,g::r--,m::r--,o::---).
set_acl() {
  if command -v setfacl >/dev/null; then
    if [ "$2" = default ]; then setfacl -d --set "$3" "$1"; else setfacl --set "$3" "$1"; fi
  else
    python3 - "$@" <<'PY'
import os, struct, sys
path, which, spec = sys.argv[1:]
tags = {"u": (0x01, 0x02), "g": (0x04, 0x08), "m": (0x10, None), "o": (0x20, None)}
entries = []
for item in spec.split(","):
    tag, qualifier, perms = item.split(":")
    bits = sum(bit for letter, bit in (("r", 4), ("w", 2), ("x", 1)) if letter in perms)
    own, named = tags[tag]
    entries.append((named, int(qualifier), bits) if qualifier else (own, 0xFFFFFFFF, bits))
entries.sort()
value = struct.pack("<I", 2) + b"".join(struct.pack("<HHI", tag, bits, uid) for tag, uid, bits in entries)
os.setxattr(path, "system.posix_acl_" + which, value)
PY
  fi
}

as_root=no
[ "$(id -u)" -eq 0 ] && as_root=yes
skipped=()
make_tree() {
  local s=$source_dir
  umask 022
  mkdir -p "$s"
  echo "a plain file" >"$s/plain.txt"
  mkdir "$s/private" && echo "only the owner reads this" >"$s/private/secret.txt" && chmod 0700 "$s/private"
  echo "group reads, others do not" >"$s/mode-0640.txt" && chmod 0640 "$s/mode-0640.txt"
  printf '#!/bin/sh\necho set-user-ID\n' >"$s/setuid-4755" && chmod 4755 "$s/setuid-4755"
  mkdir "$s/setgid-shared" && echo "in a setgid folder" >"$s/setgid-shared/file.txt" && chmod 2775 "$s/setgid-shared"
  mkdir "$s/sticky-tmp" && echo "in a sticky folder" >"$s/sticky-tmp/file.txt" && chmod 1777 "$s/sticky-tmp"
  mkdir "$s/empty-0750" && chmod 0750 "$s/empty-0750"
  echo "old times" >"$s/past-times.txt"
  touch -m -d '2012-01-02 03:04:05.111111111 UTC' "$s/past-times.txt"
  touch -a -d '2013-04-05 06:07:08.222222222 UTC' "$s/past-times.txt"
  ln -s mode-0640.txt "$s/link-old"
  touch -h -d '2011-11-11 11:11:11.333333333 UTC' "$s/link-old"
  ln -s no-such-file "$s/link-dangling"
  mkdir -p "$s/hardlinks/sub"
  echo "one content, three names" >"$s/hardlinks/first"
  ln "$s/hardlinks/first" "$s/hardlinks/second"
  ln "$s/hardlinks/first" "$s/hardlinks/sub/third"
  truncate -s 64M "$s/sparse.img"
  printf 'middle of sparse%.0s' $(seq 1 512) |  # 16 bytes, 512 times
    dd of="$s/sparse.img" bs=1024 seek=32768 conv=notrunc status=none
  mkfifo "$s/fifo"
  echo "with extended attributes" >"$s/xattrs.txt"
  set_xattr "$s/xattrs.txt" user.comment "a comment"
  set_xattr "$s/xattrs.txt" user.binary 0x00ff10ee
  mkdir "$s/xattr-dir"
  set_xattr "$s/xattr-dir" user.note "on a folder"
  echo "with an access ACL" >"$s/acl.txt" && chmod 0640 "$s/acl.txt"
  mkdir "$s/acl-default"
  if set_acl "$s/acl.txt" access u::rw-,u:1234:r--,g::r--,m::r--,o::--- 2>"$logs/acl.err" &&
    set_acl "$s/acl-default" default u::rwx,u:1234:r-x,g::r-x,m::r-x,o::r-x 2>>"$logs/acl.err"; then
    echo "inherits the folder's default ACL" >"$s/acl-default/inherited.txt"
  else
    skipped+=("POSIX ACLs (the file system refused them: $(head -n 1 "$logs/acl.err"))")
  fi
  if [ $as_root = yes ]; then
    echo "owned by 1234:5678" >"$s/owned-file" && chown 1234:5678 "$s/owned-file"
    mkdir "$s/owned-dir" && echo "in a folder owned by 1234:5678" >"$s/owned-dir/inside.txt"
    chown 1234:5678 "$s/owned-dir"
    ln -s owned-file "$s/link-owned" && chown -h 1234:5678 "$s/link-owned"
    mknod "$s/char-1-3" c 1 3 && chmod 0620 "$s/char-1-3"
  else
    skipped+=("files, a folder and a link owned by 1234:5678 (needs root)" "a character device node (needs root)")
  fi
  mkdir "$s/old-dir" && echo "made before its folder's time was set back" >"$s/old-dir/inner.txt"
  touch -d '2015-06-07 08:09:10.123456789 UTC' "$s/old-dir"
}

echo "==== the source tree in $source_dir"
make_tree
metadata record "$source_dir" "$record" | sed 's/^/     /'
echo "     as root: $as_root"
if command -v setfattr >/dev/null; then xattr_way=setfattr; else xattr_way="os.setxattr (no setfattr here)"; fi
acl_way="system.posix_acl_* written directly (no setfacl here)"
command -v setfacl >/dev/null && acl_way=setfacl
echo "     extended attributes: $xattr_way; ACLs: $acl_way"
for item in "${skipped[@]}"; do echo "     left out: $item"; done

azurite_start "$work/azurite"
echo "==== Azurite on 127.0.0.1:${AZURITE_PORT} (pid ${AZURITE_PID}, in memory)"

export CLOUDPLUGIN_CONNECTION CLOUDPLUGIN_PASSWORD RESTIC_PASSWORD RESTIC_CACHE_DIR
CLOUDPLUGIN_CONNECTION=$(azurite_connection meta)
CLOUDPLUGIN_PASSWORD=$(openssl rand -hex 16)
RESTIC_PASSWORD=$CLOUDPLUGIN_PASSWORD
RESTIC_CACHE_DIR=$work/restic-cache

# step NAME COMMAND...: runs COMMAND, standard output to logs/NAME.out and
# standard error to logs/NAME.err; says how it ended and shows what it wrote
# on standard error when it failed. The status is in step_status.
failed=()
step() {
  local name=$1
  shift
  step_status=0
  "$@" >"$logs/$name.out" 2>"$logs/$name.err" || step_status=$?
  if [ $step_status -eq 0 ]; then
    echo "     $name: done"
  else
    echo "     $name: FAILED with exit status $step_status; its standard error (last 20 lines):"
    tail -n 20 "$logs/$name.err" | sed 's/^/       | /'
    failed+=("$name (exit status $step_status)")
  fi
}
# warnings NAME: what a command that succeeded wrote on standard error
# (restic names there what it could not back up or restore).
warnings() {
  local lines
  lines=$(tr '\r' '\n' <"$logs/$1.err" | grep -v -E '^\s*$' || true)
  [ -z "$lines" ] || head -n 20 <<<"$lines" | sed "s/^/       | /"
}

echo "==== command lines"
echo "  RESTIC_PASSWORD=... restic -r $restic_repo init | backup${restic_args[*]:+ ${restic_args[*]}} $source_dir |" \
  "restore latest --target $restic_restore"
echo "  CLOUDPLUGIN_CONNECTION='$(azurite_connection meta)' CLOUDPLUGIN_PASSWORD=..."
echo "  $tool init --kdf-memory 1M | --json backup $source_dir | --json restore latest $tool_restore"

echo "==== restic ($(restic version | sed -n 1p))"
step restic-init restic -r "$restic_repo" init
metadata reset-times "$record" "$source_dir" >/dev/null
step restic-backup restic -r "$restic_repo" backup "${restic_args[@]}" "$source_dir"
warnings restic-backup
step restic-restore restic -r "$restic_repo" restore latest --target "$restic_restore"
warnings restic-restore

tool_version=$("$tool" --version 2>/dev/null) || tool_version="--version failed"
echo "==== cloudplugin-host (${tool_version%%$'\n'*}, $tool)"
step tool-init "$tool" init --kdf-memory 1M
metadata reset-times "$record" "$source_dir" >/dev/null
step tool-backup "$tool" --json backup "$source_dir"
warnings tool-backup
step tool-restore "$tool" --json restore latest "$tool_restore"
warnings tool-restore
# What the tool itself says it left out: skipped entries of the backup,
# set-ID bits dropped and metadata not kept by the restore.
for name in tool-backup tool-restore; do
  python3 - "$logs/$name.out" <<'PY' || true
import json, sys
try:
    lines = [l for l in open(sys.argv[1], encoding="utf-8") if l.startswith("{")]
    report = json.loads(lines[-1])
except (OSError, ValueError, IndexError):
    sys.exit(0)
for key in ("skipped", "set_id_bits_dropped", "not_kept", "damaged"):
    for item in report.get(key) or []:
        print("       | %s: %s" % (key, json.dumps(item)))
PY
done

# ---- where each restore put the source folder: under its absolute path
# (restic), under its name, or its content right in the target (a restore
# of a snapshot of one folder). Only a folder restored as an entry of its
# own carries the source folder's own metadata.
root_of() {  # DEST -> the folder standing for the source
  if [ -d "$1$source_dir" ]; then
    echo "$1$source_dir"
  elif [ -d "$1/$(basename "$source_dir")" ] && [ ! -e "$source_dir/$(basename "$source_dir")" ]; then
    echo "$1/$(basename "$source_dir")"
  else
    echo "$1"
  fi
}
place() {  # ROOT DEST
  if [ "$1" != "$2" ]; then echo "$1 (an entry of its own)"; else echo "$1 (its content right in the target)"; fi
}
restic_root=$(root_of "$restic_restore")
tool_root=$(root_of "$tool_restore")
echo "==== where the source folder went"
echo "     restic:           $(place "$restic_root" "$restic_restore")"
echo "     cloudplugin-host: $(place "$tool_root" "$tool_restore")"

# Both keep the source folder's own metadata: restic on its entry under the
# target, cloudplugin-host on the target itself.
compare_args=(--examples "$examples" --compare-root)

echo
echo "==== what each restore kept of the source's metadata"
metadata compare "$record" "$restic_root" restic "$tool_root" cloudplugin-host "${compare_args[@]}" ||
  fail "scripts/tree-metadata.py compare could not run"
echo
echo "Source entries as recorded before the backups ($record); each tool's backup saw those times."
echo "Sparse: fewer than half the size's bytes allocated. Hard links: all names of a source inode on"
echo "one inode of the restore, which no other name shares. xattrs and ACLs: also counted where the"
echo "restore has some the source lacks. Logs: $logs"
[[ " ${restic_args[*]} " == *" --with-atime "* ]] ||
  echo "restic backed up without --with-atime: it then stores each entry's modification time as its access time."
[ ${#skipped[@]} -eq 0 ] || echo "Not in the source tree: $(printf '%s; ' "${skipped[@]}" | sed 's/; $//')."

if [ ${#failed[@]} -gt 0 ]; then
  echo "compare-metadata: failed: ${failed[*]}" >&2
  exit 1
fi
succeeded=yes
