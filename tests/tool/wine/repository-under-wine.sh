#!/usr/bin/env bash
# The repository's commands end to end in the Windows build under Wine, on
# a repository in a local folder (--folder: Wine has no JVM to run the
# plug-in), and a repository written by the Linux build read by the Windows
# build and the other way round.
#
#   repository-under-wine.sh WINE WINDOWS_TOOL LINUX_TOOL WORK_DIR
#
# Each step checks its exit status and what it should have done; the first
# that fails stops the test with a line naming it.
set -uo pipefail
fail() {
  echo "FAILED: $*"
  exit 1
}

wine=$1
windows_tool=$2
linux_tool=$3
work=$4

[ -x "$linux_tool" ] || fail "no Linux build of the tool at $linux_tool: build the linux-release preset first, or give -DQV_LINUX_TOOL=FILE"
rm -rf "$work"
mkdir -p "$work"
cd "$work"
export CLOUDPLUGIN_PASSWORD=under-wine
export WINEDEBUG=-all

win() { "$wine" "$windows_tool" "$@" 2>&1; }
lin() { "$linux_tool" "$@" 2>&1; }
# Runs a step, keeping its output in $out; fails the test on a non-zero exit.
step() {
  local what=$1
  shift
  out=$("$@")
  local status=$?
  [ $status -eq 0 ] || fail "$what (exit status $status): $out"
}
same_tree() {
  diff -r "$1" "$2" >/dev/null || fail "$3: $2 differs from $1: $(diff -rq "$1" "$2" | head -3)"
}
snapshot_count() { "$@" snapshots --json | grep -o '"short_id"' | wc -l; }

# A tree with nested folders, an empty one, a name beyond ASCII, an empty
# file, and files large enough to span several chunks and packs.
mkdir -p source/docs/deep/deeper source/empty "source/été"
printf 'alpha\n' >source/a.txt
: >source/docs/empty.txt
printf 'accents\n' >"source/été/fichier.txt"
head -c 5000000 /dev/urandom >source/docs/deep/big.bin
head -c 300000 /dev/urandom >source/docs/deep/deeper/mid.bin

# ---- The Windows build alone: init, backup, incremental backup, restore,
# check --read-data, forget --prune.
step "init under Wine" win --folder repo init --kdf-memory 16MiB
step "first backup under Wine" win --folder repo backup source
printf 'changed\n' >>source/a.txt
printf 'new\n' >source/docs/new.txt
step "second backup under Wine" win --folder repo --json backup source
# The file ids and change times Windows gives tell the unchanged files.
grep -q '"files_new":1,"files_changed":1,"files_unmodified":4,' <<<"$out" ||
  fail "the second backup under Wine should find 1 new, 1 changed and 4 unmodified files: $out"
[ "$(snapshot_count win --folder repo)" -eq 2 ] || fail "two snapshots expected under Wine"
step "restore under Wine" win --folder repo restore latest restored-win
same_tree source restored-win "the Windows restore"
step "check --read-data under Wine" win --folder repo check --read-data
step "forget --prune under Wine" win --folder repo forget --keep-last 1 --prune
[ "$(snapshot_count win --folder repo)" -eq 1 ] || fail "one snapshot expected after forget"
step "check --read-data after prune under Wine" win --folder repo check --read-data
rm -rf restored-win
step "restore after prune under Wine" win --folder repo restore latest restored-win
same_tree source restored-win "the Windows restore after prune"

# A shadow copy: Wine has no Volume Shadow Copy service. The backup stores
# nothing and says which step failed, with exit status 4.
out=$(win --folder repo backup --use-fs-snapshot source)
status=$?
[ $status -eq 4 ] || fail "a backup with --use-fs-snapshot under Wine should end with exit status 4, not $status: $out"
grep -q "cloudplugin-host backup: cannot make a shadow copy of .*: .* answered 0x" <<<"$out" ||
  fail "a backup with --use-fs-snapshot under Wine should name the step that failed: $out"
[ "$(snapshot_count win --folder repo)" -eq 1 ] || fail "a backup without its shadow copy stored a snapshot"

# ---- Written on Linux, read on Windows; written on Windows, read on Linux.
step "init on Linux" lin --folder shared init --kdf-memory 16MiB
step "backup on Linux" lin --folder shared backup source
step "restore under Wine of the Linux backup" win --folder shared restore latest from-linux
same_tree source from-linux "the Windows restore of the Linux repository"
step "check --read-data under Wine of the Linux repository" win --folder shared check --read-data
printf 'from windows\n' >source/docs/windows.txt
step "backup under Wine into the Linux repository" win --folder shared backup source
step "check --read-data on Linux" lin --folder shared check --read-data
step "restore on Linux of the Windows backup" lin --folder shared restore latest from-windows
same_tree source from-windows "the Linux restore of the Windows backup"
[ "$(snapshot_count lin --folder shared)" -eq 2 ] || fail "the Linux build lists both snapshots"

# ---- A damaged pack is found under Wine, and a wrong password refused.
pack=$(find shared/objects -path '*/data/*' -type f | head -n1)
printf 'X' | dd of="$pack" bs=1 seek=100 conv=notrunc 2>/dev/null
out=$(win --folder shared check --read-data)
[ $? -ne 0 ] || fail "check --read-data under Wine missed a changed byte: $out"
out=$(CLOUDPLUGIN_PASSWORD=wrong win --folder shared snapshots)
[ $? -eq 12 ] || fail "a wrong password under Wine should give exit status 12: $out"

echo "the repository under Wine: every step passed"
