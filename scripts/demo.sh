#!/usr/bin/env bash
# The whole system at work, from a fresh clone: installs what is missing,
# builds the plug-in, the Java storage library and cloudplugin-host, starts
# Azurite on loopback, makes an encrypted repository, backs up a generated
# sample folder (a few hundred files and one of 300 MiB), changes a little of
# it and backs it up again (only what changed is read and uploaded), restores
# the latest snapshot into a new folder, checks every pack, compares the two
# trees, prints a summary and stops Azurite.
#
#   scripts/demo.sh                 the whole demo
#   DEMO_BIG_FILE_MIB=50 scripts/demo.sh   a smaller large file
set -euo pipefail
cd "$(dirname "$0")/.."

big_mib="${DEMO_BIG_FILE_MIB:-300}"
small_files="${DEMO_SMALL_FILES:-300}"

# ---- set-up: Debian packages for the build and Java, Node.js for Azurite
missing=()
for command in cmake g++ make javac java npm; do
  command -v "$command" >/dev/null || missing+=("$command")
done
for header in nlohmann/json.hpp CLI/CLI.hpp openssl/evp.h zstd.h; do
  [ -f "/usr/include/$header" ] || missing+=("$header")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "==== installing what is missing (${missing[*]})"
  sudo_cmd=()
  [ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
  "${sudo_cmd[@]}" bash scripts/setup.sh --demo
fi
. scripts/azurite.sh
azurite_install

# ---- build (optimised, no test suites)
echo "==== building"
cmake --preset demo >/dev/null
cmake --build --preset demo
tool=build/demo/stage/bin/cloudplugin-host

# ---- Azurite
run=build/demo-run
rm -rf "$run"
mkdir -p "$run"
azurite_start "$run/azurite"
trap azurite_stop EXIT
export CLOUDPLUGIN_CONNECTION
CLOUDPLUGIN_CONNECTION="$(azurite_connection demo)"
echo "==== Azurite on 127.0.0.1:${AZURITE_PORT} (pid ${AZURITE_PID})"

# ---- the sample folder
source_dir="$run/source"
echo "==== generating ${small_files} small files and one of ${big_mib} MiB in ${source_dir}"
mkdir -p "$source_dir"
for i in $(seq 1 "$small_files"); do
  folder="$source_dir/folder$((i % 7))/sub$((i % 3))"
  mkdir -p "$folder"
  head -c $(( (i * 7919) % 262144 )) /dev/urandom >"$folder/file-$i.dat"
done
mkdir -p "$source_dir/Ünïcödé 文件夹"
echo "non-ASCII names survive" >"$source_dir/Ünïcödé 文件夹/naïve café.txt"
: >"$source_dir/an empty file"
chmod 0750 "$source_dir/folder1/sub1/file-1.dat" 2>/dev/null || true
mkdir -p "$source_dir/an empty folder"
ln -s "../folder3/sub0/file-3.dat" "$source_dir/folder1/a link"
head -c $((big_mib * 1024 * 1024)) /dev/urandom >"$source_dir/large-${big_mib}MiB.bin"

cpu_seconds() {  # user + system CPU seconds of a process so far
  awk -v hz="$(getconf CLK_TCK)" '{ printf "%.2f", ($14 + $15) / hz }' "/proc/$1/stat"
}

# Runs the tool, timing it; sets elapsed (wall seconds) and tool_cpu (user +
# system seconds of the tool with its JVM). The tool's progress stays on the
# terminal.
timed_tool() {
  local TIMEFORMAT='%R %U %S' real user sys
  { time "$tool" "$@" 2>&3; } 3>&2 2>"$run/times"
  read -r real user sys <"$run/times"
  elapsed=$real
  tool_cpu=$(awk -v u="$user" -v s="$sys" 'BEGIN { printf "%.2f", u + s }')
}

# ---- a repository, two backups, restore
export CLOUDPLUGIN_PASSWORD="demo password, keep it safe"
echo "==== init: an encrypted repository in the container"
"$tool" init

echo "==== backup"
azurite_before=$(cpu_seconds "$AZURITE_PID")
timed_tool backup "$source_dir"
backup_elapsed=$elapsed backup_cpu=$tool_cpu
azurite_after=$(cpu_seconds "$AZURITE_PID")
backup_azurite=$(awk -v a="$azurite_before" -v b="$azurite_after" 'BEGIN { printf "%.2f", b - a }')

echo "==== a second, incremental backup after changing two files and adding one"
echo "edited on $(date)" >>"$source_dir/Ünïcödé 文件夹/naïve café.txt"
head -c 100000 /dev/urandom >"$source_dir/folder2/a new file.dat"
printf 'changed' | dd of="$source_dir/large-${big_mib}MiB.bin" bs=1 seek=$((big_mib * 524288)) conv=notrunc status=none
"$tool" --json backup "$source_dir" >"$run/second.json"
member() { sed -n "s/.*\"$1\":\([^,}]*\).*/\1/p" "$run/second.json"; }
"$tool" snapshots
"$tool" diff "$(sed -n 's/.*"parent":"\([0-9a-f]*\)".*/\1/p' "$run/second.json")" latest

echo "==== restore"
azurite_before=$(cpu_seconds "$AZURITE_PID")
timed_tool restore latest "$run/restored"
restore_elapsed=$elapsed restore_cpu=$tool_cpu
azurite_after=$(cpu_seconds "$AZURITE_PID")
restore_azurite=$(awk -v a="$azurite_before" -v b="$azurite_after" 'BEGIN { printf "%.2f", b - a }')

echo "==== check --read-data"
"$tool" check --read-data

echo "==== comparing the trees"
# Files, links and empty folders: name, kind, size, time, mode, link target.
listing() {
  (cd "$1" && find . -mindepth 1 \( -type f -o -type l -o -type d -empty \) -printf '%P\t%y\t%s\t%T@\t%m\t%l\n' |
    LC_ALL=C sort)
}
if diff -r --no-dereference "$source_dir" "$run/restored" >/dev/null &&
  diff <(listing "$source_dir") <(listing "$run/restored"); then
  same=yes
else
  same=NO
fi

total_bytes=$(du -sb "$source_dir" | cut -f1)
files=$(find "$source_dir" -type f | wc -l)
mib=$(awk -v b="$total_bytes" 'BEGIN { printf "%.1f", b / 1048576 }')
rate() { awk -v b="$total_bytes" -v s="$1" 'BEGIN { printf "%.1f", (s > 0 ? b / 1048576 / s : 0) }'; }
cat <<SUMMARY

==== summary
files:                    ${files} (${mib} MiB)
backup:                   ${backup_elapsed} s, $(rate "$backup_elapsed") MiB/s
second backup:            $(member files_new) new, $(member files_changed) changed, $(member files_unmodified) unmodified files; read $(member bytes_processed) bytes, uploaded $(member bytes_added) bytes (compressed, encrypted, with its index and snapshot)
restore:                  ${restore_elapsed} s, $(rate "$restore_elapsed") MiB/s
CPU during backup:        cloudplugin-host with its JVM ${backup_cpu} s, Azurite ${backup_azurite} s
CPU during restore:       cloudplugin-host with its JVM ${restore_cpu} s, Azurite ${restore_azurite} s
restored tree identical:  ${same} (contents, sizes, modes, modification times, links, empty folders)
logs of the plug-in:      build/demo/stage/Plugin/Azure/Log
SUMMARY
[ "$same" = yes ]
