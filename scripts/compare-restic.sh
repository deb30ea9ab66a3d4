#!/usr/bin/env bash
# cloudplugin-host's repository against restic, side by side, on one local
# Azurite.
#
# Both tools keep an encrypted, deduplicating repository of snapshots; restic
# reaches Azurite through its rclone backend (restic -r rclone:REMOTE:PATH,
# which runs `rclone serve restic --stdio`), cloudplugin-host through its
# plug-in. Installs what is missing (restic, rclone and GNU time from Debian,
# Azurite through scripts/azurite.sh), builds cloudplugin-host (demo preset,
# niced) when neither --tool nor an earlier build gives one, starts Azurite
# in memory on loopback, generates a reproducible mixed data set (small text
# files that compress, medium files, large incompressible ones) once, then
# runs both tools alternately for a number of rounds. Each round, for each
# tool, in a new container with an empty restic cache:
#   init; backup 1 (everything new); backup 2 (nothing changed);
#   overwrite 1 % of the bytes in place, spread over 10 files (sizes kept);
#   backup 3; restore the latest snapshot; compare it with the source
#   (outside the timing); put the edited bytes back;
#   init and back up a second data set, one file four times under other
#   names (what deduplication saves).
# Every command runs under GNU time: wall, CPU and peak RSS. The bytes a
# backup uploads are measured the same way for both tools: what the
# container holds under the tool's path (rclone size) after the backup,
# less what it held before. Prints the medians beside the goals of the
# repository, one table, PASS or MISS per goal.
#
# Scale mode (--files N): the data set is instead N small files (0 to
# 16 KiB, two in three random bytes, the others text; reproducible from
# --seed, written by scripts/small-files.py) in about N/66.7 folders nested
# two or three levels deep (200,000 files: 3,000 folders). Each round, for
# each tool: init; backup 1 (everything new); backup 2 (nothing changed);
# rewrite 100 files in place (sizes kept); backup 3; restore the latest
# snapshot; compare it with the source (outside the timing); put the 100
# files back. No deduplication set. The goals of that mode: backup 1 in at
# most 0.8 x restic's time; backup 2 in at most 0.5 x restic's time,
# uploading at most 64 KiB; backup 3 uploading at most 1.5 x what restic
# uploads; restore in at most 0.8 x restic's time; peak RSS at most
# restic's in every step.
#
#   scripts/compare-restic.sh                          1 GiB set, 3 rounds
#   scripts/compare-restic.sh --size-mib 64 --rounds 1 a quick look
#   scripts/compare-restic.sh --files 200000           scale: 200,000 small files, 3 rounds
#
# Run with --help for every option.
set -eEuo pipefail
trap 'echo "compare-restic: FAILED at line $LINENO: $BASH_COMMAND" >&2' ERR

caller_dir=$(pwd)
cd "$(dirname "$0")/.."
repo=$(pwd)

usage() {
  cat <<'USAGE'
usage: scripts/compare-restic.sh [options]

  --rounds N          rounds; each runs both tools, alternating which goes first (default 3)
  --size-mib N        size of the mixed data set in MiB, at least 8 (default 1024):
                        1/2 in 4 incompressible files of N/8 MiB,
                        1/4 in 16 files of N/64 MiB (every other one text, the others incompressible),
                        about 1/4 in 8*N text files of up to 64 KiB in 80 folders
  --dup-mib N         the deduplication set: one incompressible file of N MiB, four times
                      under different names (default 64)
  --files N           scale mode: instead of the mixed set and the deduplication set, N files
                        of 0 to 16 KiB in about N/66.7 folders nested 2 or 3 levels deep;
                        backup 3 follows 100 files rewritten in place (at least 200 files)
  --seed S            scale mode: the seed of the small files (default 1)
  --tool PATH         cloudplugin-host to run (default: build/demo/stage/bin/cloudplugin-host,
                      built with the demo preset first)
  --tool-arg ARG      an extra option for cloudplugin-host, before the command (repeatable;
                      e.g. --tool-arg --jobs=2)
  --restic-arg ARG    an extra option for restic, before the command (repeatable;
                      e.g. --restic-arg -o --restic-arg rclone.connections=8)
  --work DIR          data sets, restores, logs, per-round results (default: build/compare-restic,
                      in scale mode build/compare-restic-scale)
  --keep              keep the data sets and the last restores (a later run with the same
                      sizes reuses the data sets); without it they are removed on success
  --markdown FILE     also write the table in Markdown to FILE
  --help              this text

Environment: AZURITE_BIN names an Azurite installation to use instead of build/azurite.
USAGE
}

fail() {
  echo "compare-restic: FAILED: $*" >&2
  exit 1
}

# ---- options
rounds=3
size_mib=1024
dup_mib=64
tool=''
tool_args=()
restic_args=()
work=''
files=''
seed=1
keep=no
markdown=''

absolute() { (cd "$caller_dir" && realpath -m -- "$1"); }

# One option: its value goes where the option says.
take_option() {
  local value=$2
  case $1 in
    --rounds) rounds=$value ;;
    --size-mib) size_mib=$value ;;
    --dup-mib) dup_mib=$value ;;
    --files) files=$value ;;
    --seed) seed=$value ;;
    --tool) tool=$(absolute "$value") ;;
    --tool-arg) tool_args+=("$value") ;;
    --restic-arg) restic_args+=("$value") ;;
    --work) work=$(absolute "$value") ;;
    --markdown) markdown=$(absolute "$value") ;;
  esac
}
# shellcheck source=scripts/options.sh
. scripts/options.sh
read_options compare-restic "--rounds --size-mib --dup-mib --files --seed --tool --tool-arg --restic-arg --work --markdown" take_option "$@"

[[ $rounds =~ ^[1-9][0-9]*$ ]] || { echo "compare-restic: --rounds takes a positive number" >&2; exit 2; }
[[ $size_mib =~ ^[1-9][0-9]*$ ]] && [ "$size_mib" -ge 8 ] ||
  { echo "compare-restic: --size-mib takes a number of at least 8" >&2; exit 2; }
[[ $dup_mib =~ ^[1-9][0-9]*$ ]] || { echo "compare-restic: --dup-mib takes a positive number" >&2; exit 2; }
[ -z "$files" ] || { [[ $files =~ ^[1-9][0-9]*$ ]] && [ "$files" -ge 200 ]; } ||
  { echo "compare-restic: --files takes a number of at least 200" >&2; exit 2; }
[[ $seed =~ ^[0-9]+$ ]] || { echo "compare-restic: --seed takes a number" >&2; exit 2; }
scale=no
[ -n "$files" ] && scale=yes
if [ -z "$work" ]; then
  work=build/compare-restic
  [ $scale = yes ] && work=build/compare-restic-scale
fi
work=$(absolute "$work")

# ---- set-up: what is missing
# shellcheck source=scripts/bench-common.sh
. scripts/bench-common.sh
if [ $scale = yes ]; then bench_setup restic rclone python3; else bench_setup restic rclone; fi

# ---- the work folder, Azurite
mkdir -p "$work"
source_dir=$work/source
dup_dir=$work/dup
tool_restore=$work/restore-cloudplugin-host
restic_restore=$work/restore-restic
restic_cache=$work/restic-cache
tool_cache=$work/tool-cache
edit_save=$work/edit-originals
logs=$work/logs
results=$work/results.tsv
rm -rf "$tool_restore" "$restic_restore" "$restic_cache" "$tool_cache" "$logs" "$work/azurite"
mkdir -p "$logs"

succeeded=no
cleanup() {
  azurite_stop
  if [ $succeeded = yes ] && [ $keep = no ]; then
    rm -rf "$source_dir" "$dup_dir" "$work/source.mix" "$work/source.made" "$work/dup.mix" "$tool_restore" "$restic_restore" \
      "$restic_cache" "$tool_cache" "$edit_save"
  elif [ $succeeded = no ]; then
    echo "compare-restic: logs, data sets and restores kept in $work" >&2
  fi
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# Azurite frees a purged container's memory only later: at 1,000,000 files
# one tool's three backups (6.5 GB) and the other's first overran its
# default store of half the machine's memory. Three quarters, unless set.
if [ -z "${AZURITE_MEMORY_MB:-}" ]; then
  AZURITE_MEMORY_MB=$(awk '/^MemTotal:/ { print int($2 / 1024 * 3 / 4) }' /proc/meminfo)
  export AZURITE_MEMORY_MB
fi
azurite_start "$work/azurite"
azurite_url="http://127.0.0.1:${AZURITE_PORT}/devstoreaccount1"
echo "==== Azurite on 127.0.0.1:${AZURITE_PORT} (pid ${AZURITE_PID}, in memory)"

# ---- the data sets
# Incompressible bytes, the same every time: AES-128-CTR of zeros with a
# fixed key. The seed is the high half of the first counter block, so that
# no two streams share a block: with the seed as the counter itself, stream
# N+1 would be stream N shifted by 16 bytes, which a content-defined chunker
# finds and stores once.
data_key=000102030405060708090a0b0c0d0e0f
keystream() {  # SEED BYTES
  head -c "$2" /dev/zero | openssl enc -aes-128-ctr -nosalt -K "$data_key" -iv "$(printf '%016x%016x' "$1" 0)"
}
# Text that compresses about as well as prose (zstd -3 to about a third):
# lines of common words picked with a skew towards the first ones, by a
# Park-Miller generator of its own (every product below 2^53, so mawk and
# gawk give the same bytes).
text_program='BEGIN {
  nw = split("the of and to in is that for it as was with be by on not he this are or his from at which but " \
    "have an they you were her she there been one all we their has would when if so no will more can its out " \
    "up who them some could him into than then only other time about these two may first any like our over " \
    "such me even most made after also did many before must through back years where much your way well down " \
    "should because each just those people how too little state good very make world still own see men work " \
    "long here get both between life being under never day same another know while last might us great old " \
    "year off come since against go came right used take three states himself few house use during without " \
    "again place around however home small found thought went say part once general high upon school every " \
    "does got left number course until always away something fact though water less public put think almost " \
    "hand enough far took head yet system better set told nothing night end why called find look asked later " \
    "knew point next program city business give group toward young days let room side social given present " \
    "several order possible rather second face among form important often things looking early white case " \
    "become large big need four within felt along children saw best ever least power development light thing " \
    "seemed family interest want members mind country area others done turned although open service certain " \
    "kind problem began different door thus help sense means whole matter perhaps itself times law human line " \
    "above name example action company hands local show whether five history gave today either act feet across " \
    "taken past quite anything seen having week experience body word half really field car words already " \
    "themselves information tell together shall money period held keep sure free seems real behind cannot " \
    "question air office making brought whose simple heard major problems ago became moment study available " \
    "known result street position reason change south board individual job society areas west close turn " \
    "community true court force full seem age policy", w, " ")
  x = seed % 2147483646 + 1
  out = 0; line = ""
  while (out < bytes) {
    x = (x * 16807) % 2147483647
    r = x % 1000
    i = int((r * r / 1000000) * (r % 7 + 1) * nw / 8) + 1
    if (i > nw) i = nw
    line = line w[i]
    if (length(line) > 60 + x % 20) {
      line = line "\n"
      if (out + length(line) > bytes) line = substr(line, 1, bytes - out)
      printf "%s", line; out += length(line); line = ""
    }
    else line = line " "
  }
}'
text() {  # SEED BYTES
  LC_ALL=C awk -v seed="$1" -v bytes="$2" "$text_program"
}

mib=1048576
large_count=4 large_size=$((size_mib * mib / 8))
medium_count=16 medium_size=$((size_mib * mib / 64))
small_count=$((size_mib * 8)) small_max=65536
medium_path() { if (($1 % 2)); then echo "medium/medium-$1.txt"; else echo "medium/medium-$1.bin"; fi; }
large_path() { echo "large/large-$1.bin"; }

data_bytes() { find "$1" -type f -printf '%s\n' | awk '{ s += $1 } END { printf "%d\n", s }'; }

generate() {
  local i total=0 expected
  rm -rf "$source_dir" "$work/source.mix"
  mkdir -p "$source_dir/large" "$source_dir/medium"
  for ((i = 1; i <= large_count; i++)); do
    keystream $((1000000 + i)) "$large_size" >"$source_dir/$(large_path "$i")"
  done
  for ((i = 1; i <= medium_count; i++)); do
    if ((i % 2)); then
      text $((2000000 + i)) "$medium_size" >"$source_dir/$(medium_path "$i")"
    else
      keystream $((2000000 + i)) "$medium_size" >"$source_dir/$(medium_path "$i")"
    fi
  done
  # The small files are cut one after another from one text stream.
  for ((i = 0; i < 80; i++)); do mkdir -p "$source_dir/small/dir$((i % 16))/sub$((i % 5))"; done
  for ((i = 1; i <= small_count; i++)); do total=$((total + (i * 7919) % small_max)); done
  for ((i = 1; i <= small_count; i++)); do
    head -c $(((i * 7919) % small_max)) >"$source_dir/small/dir$((i % 16))/sub$((i % 5))/note-$i.txt"
  done < <(text 3000000 "$total")
  expected=$((large_count * large_size + medium_count * medium_size + total))
  [ "$(data_bytes "$source_dir")" -eq "$expected" ] ||
    fail "the data set has $(data_bytes "$source_dir") bytes instead of $expected"
  echo "$mix" >"$work/source.mix"
}
generate_dup() {
  rm -rf "$dup_dir" "$work/dup.mix"
  mkdir -p "$dup_dir/one" "$dup_dir/two/deeper" "$dup_dir/three"
  keystream 5000000 $((dup_mib * mib)) >"$dup_dir/one/original.bin"
  cp "$dup_dir/one/original.bin" "$dup_dir/two/deeper/copy.bin"
  cp "$dup_dir/one/original.bin" "$dup_dir/three/another name.dat"
  cp "$dup_dir/one/original.bin" "$dup_dir/fourth-copy.bin"
  echo "$dup_mix" >"$work/dup.mix"
}

seconds_since() { awk -v a="$1" -v b="$(date +%s.%N)" 'BEGIN { printf "%.1f", b - a }'; }

# An edit left in place by a run that stopped half-way is put back first.
edit_revert() {
  local k file
  [ -d "$edit_save" ] || return 0
  for ((k = 1; k <= 10; k++)); do
    [ -f "$edit_save/$k.path" ] || continue
    file=$(cat "$edit_save/$k.path")
    dd if="$edit_save/$k.bytes" of="$source_dir/$file" bs=1M conv=notrunc oflag=seek_bytes \
      seek="$(cat "$edit_save/$k.offset")" status=none
    touch -r "$edit_save/$k.bytes" "$source_dir/$file"
  done
  rm -rf "$edit_save"
}

# ---- scale mode: N small files from scripts/small-files.py (one process
# writes them all), and between backup 2 and backup 3 100 of them rewritten
# in place (sizes kept), saved first and put back after the restore.
edit_count=10
if [ $scale = yes ]; then
  edit_count=100
  small_files() { python3 scripts/small-files.py "$@"; }
  generate() {
    rm -rf "$source_dir" "$work/source.mix"
    mkdir -p "$source_dir"
    small_files generate "$source_dir" --files "$files" --seed "$seed" >"$work/source.made" ||
      fail "scripts/small-files.py generate failed"
    echo "$mix" >"$work/source.mix"
  }
  edit_revert() { small_files revert "$source_dir" "$edit_save" || fail "scripts/small-files.py revert failed"; }
  edit_bytes=NA
  edit_apply() {  # sets edit_bytes: how many bytes the edit rewrote (the same every round)
    local said
    said=$(small_files edit "$source_dir" "$edit_save" --count "$edit_count" --seed "$seed") ||
      fail "scripts/small-files.py edit failed"
    edit_bytes=$(sed -n 's/.* \([0-9]*\) bytes$/\1/p' <<<"$said")
  }
  mix="small files=$files seed=$seed (v1)"
else
  mix="mixed size_mib=$size_mib large=$large_count x $large_size medium=$medium_count x $medium_size small=$small_count x <$small_max (v2)"
fi
dup_mix="dup 4 x $dup_mib MiB (v2)"
if [ -d "$source_dir" ] && [ "$(cat "$work/source.mix" 2>/dev/null)" = "$mix" ]; then
  edit_revert
  echo "==== reusing the data set in $source_dir"
else
  echo "==== generating the data set in $source_dir"
  rm -rf "$edit_save"
  start=$(date +%s.%N)
  generate
  echo "     in $(seconds_since "$start") s"
fi
if [ $scale = no ]; then
  if [ -d "$dup_dir" ] && [ "$(cat "$work/dup.mix" 2>/dev/null)" = "$dup_mix" ]; then
    echo "==== reusing the deduplication set in $dup_dir"
  else
    echo "==== generating the deduplication set in $dup_dir"
    generate_dup
  fi
fi
total_bytes=$(data_bytes "$source_dir")
total_files=$(find "$source_dir" -type f | wc -l)
to_mib() { awk -v b="$1" 'BEGIN { printf "%.1f", b / 1048576 }'; }
if [ $scale = yes ]; then
  total_folders=$(find "$source_dir" -mindepth 1 -type d | wc -l)
  [ "$total_files" -eq "$files" ] || fail "the data set has $total_files files instead of $files"
  set_text="$total_files files of 0 to 16 KiB (two in three incompressible, the others text), $(to_mib "$total_bytes") MiB,"
  set_text="$set_text in $total_folders folders 2 or 3 levels deep (seed $seed)"
  echo "     $set_text"
else
  dup_bytes=$(data_bytes "$dup_dir")
  set_text="$total_files files, $(to_mib "$total_bytes") MiB: $large_count × $(to_mib "$large_size") MiB incompressible,"
  set_text="$set_text $medium_count × $(to_mib "$medium_size") MiB (half text, half incompressible),"
  set_text="$set_text $small_count text files below 64 KiB"
  dup_text="4 × $dup_mib MiB, one incompressible file under four names ($(to_mib "$dup_bytes") MiB)"
  echo "     $set_text"
  echo "     deduplication set: $dup_text"
fi

# ---- the edit between backup 2 and backup 3 of the mixed set: 1 % of the
# data set's bytes, overwritten in place in one range of each of 10 files
# (the 4 large files and the first 6 medium ones, text and incompressible),
# sizes kept. The ranges lie at 5 %, 15 %, ... 95 % of the room each file
# leaves for them.
if [ $scale = no ]; then
  edit_files=()
  for ((i = 1; i <= large_count; i++)); do edit_files+=("$(large_path "$i")"); done
  for ((i = 1; i <= 6; i++)); do edit_files+=("$(medium_path "$i")"); done
  edit_length=$((total_bytes / 1000))
  edit_bytes=$((edit_length * 10))
  edit_apply() {
    local k file size offset
    rm -rf "$edit_save"
    mkdir -p "$edit_save"
    for ((k = 1; k <= 10; k++)); do
      file=${edit_files[$((k - 1))]}
      size=$(stat -c %s "$source_dir/$file")
      offset=$(((size - edit_length) * (2 * k - 1) / 20))
      dd if="$source_dir/$file" bs=1M iflag=skip_bytes,count_bytes skip="$offset" count="$edit_length" \
        of="$edit_save/$k.bytes" status=none
      touch -r "$source_dir/$file" "$edit_save/$k.bytes"  # keeps the modification time to put back
      echo "$offset" >"$edit_save/$k.offset"
      echo "$file" >"$edit_save/$k.path"
      keystream $((6000000 + k)) "$edit_length" |
        dd of="$source_dir/$file" bs=1M iflag=fullblock oflag=seek_bytes seek="$offset" conv=notrunc status=none
      [ "$(stat -c %s "$source_dir/$file")" -eq "$size" ] || fail "the edit changed the size of $file"
    done
  }
fi

# ---- the two tools' set-up
# An account SAS signed with Azurite's development key (account_sas,
# scripts/bench-common.sh). Both tools use it: cloudplugin-host in its connection string, rclone (for restic and
# for measuring) as its SAS URL.
sas=$(account_sas)
tool_connection() { echo "BlobEndpoint=$azurite_url;SharedAccessSignature=$sas;Container=$1"; }
export RCLONE_CONFIG RCLONE_CONFIG_BENCHAZ_TYPE RCLONE_CONFIG_BENCHAZ_SAS_URL
RCLONE_CONFIG=$work/rclone.conf  # empty: the remote comes from the two variables below
: >"$RCLONE_CONFIG"
RCLONE_CONFIG_BENCHAZ_TYPE=azureblob
RCLONE_CONFIG_BENCHAZ_SAS_URL="$azurite_url?$sas"

# One password for both, new each run; each tool derives its key with its
# own default: cloudplugin-host scrypt with --kdf-memory 64M, restic scrypt
# with parameters it calibrates at init (about 0.5 s, at most 60 MiB).
export CLOUDPLUGIN_PASSWORD RESTIC_PASSWORD RESTIC_CACHE_DIR CLOUDPLUGIN_CACHE_DIR
CLOUDPLUGIN_PASSWORD=$(openssl rand -hex 16)
RESTIC_PASSWORD=$CLOUDPLUGIN_PASSWORD
# Both tools keep their local caches (index, snapshots and tree packs; part
# of how they save time on a second backup) from one command to the next of
# a round, and start every round with empty ones.
RESTIC_CACHE_DIR=$restic_cache
CLOUDPLUGIN_CACHE_DIR=$tool_cache

# restic runs rclone through this wrapper, which runs it under GNU time, so
# that rclone's own CPU seconds and peak RSS are known (restic waits for
# rclone, so restic's figures under GNU time include rclone's CPU seconds,
# and its peak RSS is the larger of the two processes').
rclone_wrapper=$work/rclone-timed
rclone_time=$logs/rclone-time.out
cat >"$rclone_wrapper" <<WRAPPER
#!/bin/sh
exec /usr/bin/time -f '%e %U %S %M' -o '$rclone_time' rclone "\$@"
WRAPPER
chmod +x "$rclone_wrapper"

tool_cmd=("$tool" "${tool_args[@]}")
restic_cmd=(restic -o "rclone.program=$rclone_wrapper" "${restic_args[@]}")
tool_prefix=cloudplugin-host  # the tool's default --repo
for arg in "${tool_args[@]}"; do
  [[ $arg == --repo=* ]] && tool_prefix=${arg#--repo=}
done
restic_repository() { echo "rclone:benchaz:$1/repo"; }

echo "==== command lines (round N; CONTAINER is new each round)"
echo "  CLOUDPLUGIN_CONNECTION='$(tool_connection CONTAINER)'"
echo "  CLOUDPLUGIN_PASSWORD=(new each run) CLOUDPLUGIN_CACHE_DIR=$tool_cache (emptied each round)"
echo "  $(quoted "${tool_cmd[@]}") init"
echo "  $(quoted "${tool_cmd[@]}") --json backup SOURCE                       (three times)"
echo "  $(quoted "${tool_cmd[@]}") restore latest DEST"
echo "  RCLONE_CONFIG=$RCLONE_CONFIG (empty) RCLONE_CONFIG_BENCHAZ_TYPE=azureblob"
echo "  RCLONE_CONFIG_BENCHAZ_SAS_URL='$RCLONE_CONFIG_BENCHAZ_SAS_URL'"
echo "  RESTIC_PASSWORD=(the same) RESTIC_CACHE_DIR=$restic_cache (emptied each round)"
echo "  $(quoted "${restic_cmd[@]}") -r $(restic_repository CONTAINER) init"
echo "  cd SOURCE && $(quoted "${restic_cmd[@]}") -r $(restic_repository CONTAINER) --json backup .   (three times)"
echo "  $(quoted "${restic_cmd[@]}") -r $(restic_repository CONTAINER) restore latest --target DEST"
echo "  rclone size --json benchaz:CONTAINER/PATH    (stored bytes; not timed)"
echo "  rclone purge benchaz:CONTAINER               (not timed)"

# ---- measuring

# record ROUND WHO KEY VALUE: one figure of one round; NA when not measured.
record() { printf '%s\t%s\t%s\t%s\n' "$1" "$2" "$3" "${4:-NA}" >>"$results"; }

# stored_bytes REMOTE_PATH: the sum of the blob sizes under the path (rclone
# size: content lengths, without the blobs' metadata); NA when not listed.
stored_bytes() {
  local answer
  answer=$(rclone size --json "benchaz:$1" 2>>"$logs/rclone-size.log") || { echo NA; return; }
  sed -n 's/.*"bytes":\([0-9]*\).*/\1/p' <<<"$answer" | grep . || echo NA
}

# json_number FILE KEY: a number of a flat JSON object in FILE (its last
# line that holds KEY).
json_number() {
  grep -o "\"$2\":[0-9.eE+-]*" "$1" 2>/dev/null | tail -n 1 | cut -d: -f2 | grep . || echo NA
}

# highest_child_hwm PID: the highest VmHWM (KiB) of PID's first child, read
# from /proc every 0.1 s while it runs (restic's own peak when its rclone is
# the larger process: GNU time then reports rclone's).
highest_child_hwm() {
  local parent=$1 child='' peak=0 state key value _
  while read -r _ _ state _ 2>/dev/null <"/proc/$parent/stat" && [ "$state" != Z ]; do
    if [ -z "$child" ]; then
      read -r child _ 2>/dev/null <"/proc/$parent/task/$parent/children" || true  # no newline at its end
    fi
    if [ -n "$child" ] && [ -r "/proc/$child/status" ]; then
      while read -r key value _; do
        if [ "$key" = VmHWM: ] && [ "$value" -gt "$peak" ]; then peak=$value; fi
      done 2>/dev/null <"/proc/$child/status" || true
    fi
    sleep 0.1
  done
  echo "$peak"
}

# run_step WHO STEP ROUND DIR COMMAND...: runs COMMAND in DIR under GNU time
# after a sync (so that no earlier write-back runs during it); standard
# output to logs/roundR-WHO-STEP.out, standard error to .log. Records
# STEP.wall (s), STEP.cpu (user + system s, of the process and every child
# it waited for), STEP.rss (peak RSS MiB of the tool's own process),
# STEP.azurite_cpu; for restic also STEP.rss_max (GNU time's figure: the
# larger of restic and rclone), STEP.rclone_cpu, STEP.rclone_rss and
# STEP.rss_sampled (1 when restic's own peak had to come from /proc).
run_step() {
  local who=$1 step=$2 round=$3 dir=$4
  shift 4
  local log=$logs/round$round-$who-$step.log out=$logs/round$round-$who-$step.out
  local pid status=0 before after wall user sys rss_kib hwm=0 line
  local rclone_user=NA rclone_sys=NA rclone_kib=NA own_kib sampled=0
  rm -f "$rclone_time" "$logs/time.out"
  sync
  before=$(cpu_ticks "$AZURITE_PID")
  (cd "$dir" && exec /usr/bin/time -f '%e %U %S %M' -o "$logs/time.out" "$@") >"$out" 2>"$log" &
  pid=$!
  if [ "$who" = restic ]; then hwm=$(highest_child_hwm "$pid"); fi
  wait "$pid" || status=$?
  after=$(cpu_ticks "$AZURITE_PID")
  if [ $status -ne 0 ]; then
    tail -n 20 "$log" >&2
    fail "round $round: $who $step exited with status $status (log: $log)"
  fi
  read -r wall user sys rss_kib < <(tail -n 1 "$logs/time.out")
  own_kib=$rss_kib
  if [ "$who" = restic ]; then
    if [ -s "$rclone_time" ]; then
      line=$(tail -n 1 "$rclone_time")
      [[ $line =~ ^[0-9.]+\ [0-9.]+\ [0-9.]+\ [0-9]+$ ]] && read -r _ rclone_user rclone_sys rclone_kib <<<"$line"
    fi
    if [ "$rclone_kib" = NA ]; then
      own_kib=NA
    elif [ "$rclone_kib" -ge "$rss_kib" ]; then
      own_kib=$hwm sampled=1
      [ "$hwm" -gt 0 ] || own_kib=NA
    fi
    record "$round" "$who" "$step.rss_max" "$(awk -v m="$rss_kib" 'BEGIN { printf "%.1f", m / 1024 }')"
    record "$round" "$who" "$step.rss_sampled" "$sampled"
    if [ "$rclone_kib" != NA ]; then
      record "$round" "$who" "$step.rclone_cpu" "$(awk -v u="$rclone_user" -v s="$rclone_sys" 'BEGIN { printf "%.2f", u + s }')"
      record "$round" "$who" "$step.rclone_rss" "$(awk -v m="$rclone_kib" 'BEGIN { printf "%.1f", m / 1024 }')"
    else
      record "$round" "$who" "$step.rclone_cpu" NA
      record "$round" "$who" "$step.rclone_rss" NA
    fi
  fi
  record "$round" "$who" "$step.wall" "$wall"
  record "$round" "$who" "$step.cpu" "$(awk -v u="$user" -v s="$sys" 'BEGIN { printf "%.2f", u + s }')"
  record "$round" "$who" "$step.rss" "$([ "$own_kib" = NA ] && echo NA || awk -v m="$own_kib" 'BEGIN { printf "%.1f", m / 1024 }')"
  record "$round" "$who" "$step.azurite_cpu" "$(awk -v a="$((after - before))" -v hz="$ticks_per_second" 'BEGIN { printf "%.2f", a / hz }')"
  printf '     %-16s %-9s %7.2f s wall %7.2f s CPU %7s MiB peak RSS' "$who" "$step" "$wall" \
    "$(awk -v u="$user" -v s="$sys" 'BEGIN { printf "%.2f", u + s }')" \
    "$([ "$own_kib" = NA ] && echo n/m || awk -v m="$own_kib" 'BEGIN { printf "%.0f", m / 1024 }')"
  if [ "$who" = restic ]; then
    printf ' (rclone: %s MiB, %s s CPU)' \
      "$([ "$rclone_kib" = NA ] && echo n/m || awk -v m="$rclone_kib" 'BEGIN { printf "%.0f", m / 1024 }')" \
      "$([ "$rclone_kib" = NA ] && echo n/m || awk -v u="$rclone_user" -v s="$rclone_sys" 'BEGIN { printf "%.2f", u + s }')"
  fi
  echo
}

# backup_step WHO STEP ROUND STORED_PATH DIR COMMAND...: run_step, with the
# stored bytes under STORED_PATH measured before and after (STEP.uploaded:
# their growth; STEP.stored: after) and the tool's own account of what it
# added (STEP.reported: cloudplugin-host's bytes_added, restic's data_added).
backup_step() {
  local who=$1 step=$2 round=$3 path=$4 dir=$5 before after out
  shift 5
  before=$(stored_bytes "$path")
  run_step "$who" "$step" "$round" "$dir" "$@"
  after=$(stored_bytes "$path")
  out=$logs/round$round-$who-$step.out
  record "$round" "$who" "$step.stored" "$after"
  if [ "$before" != NA ] && [ "$after" != NA ]; then
    record "$round" "$who" "$step.uploaded" $((after - before))
  else
    record "$round" "$who" "$step.uploaded" NA
  fi
  if [ "$who" = restic ]; then
    record "$round" "$who" "$step.reported" "$(json_number "$out" data_added)"
  else
    record "$round" "$who" "$step.reported" "$(json_number "$out" bytes_added)"
  fi
  local new changed unmodified
  new=$(json_number "$out" files_new) changed=$(json_number "$out" files_changed)
  unmodified=$(json_number "$out" files_unmodified)
  echo "     $(printf '%-16s %-9s' "$who" "$step") files new $new, changed $changed, unmodified $unmodified;" \
    "stored $(to_mib "${after/NA/0}") MiB (+$( [ "$before" != NA ] && [ "$after" != NA ] && echo "$(((after - before) / 1024)) KiB" || echo n/m))"
  # What each backup should have found; anything else makes its figures meaningless.
  local expect_new=0 expect_changed=0 expect_unmodified=0
  case $step in
    backup1) expect_new=$total_files ;;
    backup2) expect_unmodified=$total_files ;;
    backup3) expect_changed=$edit_count expect_unmodified=$((total_files - edit_count)) ;;
    dup) expect_new=4 ;;
  esac
  [ "$new/$changed/$unmodified" = "$expect_new/$expect_changed/$expect_unmodified" ] ||
    fail "round $round: $who $step found $new new, $changed changed, $unmodified unmodified files" \
      "instead of $expect_new, $expect_changed, $expect_unmodified"
}

# compare WHO ROUND DEST: every file's bytes (diff -r reads them all), the
# same names, sizes and modification times.
listing() {
  (cd "$1" && find . -mindepth 1 \( -type d -printf '%P/\n' \) -o -printf '%P\t%y\t%s\t%T@\n' | LC_ALL=C sort)
}
compare() {
  local who=$1 round=$2 dest=$3 report=$logs/round$2-$1-compare.txt
  [ -d "$dest" ] || fail "round $round: $who restored nothing into $dest"
  if ! diff -r -q "$source_dir" "$dest" >"$report" 2>&1; then
    head -n 5 "$report" >&2
    fail "round $round: the restore of $who differs from the source (see $report)"
  fi
  if ! diff <(listing "$source_dir") <(listing "$dest") >"$report" 2>&1; then
    head -n 5 "$report" >&2
    fail "round $round: the restore of $who differs from the source in names, sizes or times (see $report)"
  fi
  echo "     $who restore identical to the source (contents, sizes, modification times)"
}

purge() {  # CONTAINER
  rclone purge "benchaz:$1" >>"$logs/rclone-purge.log" 2>&1 || fail "rclone purge $1 failed (log: $logs/rclone-purge.log)"
}

round_tool() {  # ROUND
  local round=$1 container=cph-r$1 dup_container=cph-dup-r$1 who=cloudplugin-host
  rm -rf "$tool_restore" "$tool_cache"
  export CLOUDPLUGIN_CONNECTION
  CLOUDPLUGIN_CONNECTION=$(tool_connection "$container")
  run_step $who init "$round" "$work" "${tool_cmd[@]}" init
  backup_step $who backup1 "$round" "$container/$tool_prefix" "$work" "${tool_cmd[@]}" --json backup "$source_dir"
  backup_step $who backup2 "$round" "$container/$tool_prefix" "$work" "${tool_cmd[@]}" --json backup "$source_dir"
  edit_apply
  backup_step $who backup3 "$round" "$container/$tool_prefix" "$work" "${tool_cmd[@]}" --json backup "$source_dir"
  run_step $who restore "$round" "$work" "${tool_cmd[@]}" restore latest "$tool_restore"
  compare $who "$round" "$tool_restore"
  edit_revert
  purge "$container"
  if [ $keep = no ] || [ "$round" -lt "$rounds" ]; then rm -rf "$tool_restore"; fi
  rm -rf "$tool_cache"
  [ $scale = no ] || return 0
  CLOUDPLUGIN_CONNECTION=$(tool_connection "$dup_container")
  run_step $who dupinit "$round" "$work" "${tool_cmd[@]}" init
  backup_step $who dup "$round" "$dup_container/$tool_prefix" "$work" "${tool_cmd[@]}" --json backup "$dup_dir"
  purge "$dup_container"
  rm -rf "$tool_cache"
}
round_restic() {  # ROUND
  local round=$1 container=restic-r$1 dup_container=restic-dup-r$1 who=restic
  rm -rf "$restic_restore" "$restic_cache"
  local r=(-r "$(restic_repository "$container")")
  run_step $who init "$round" "$work" "${restic_cmd[@]}" "${r[@]}" init
  backup_step $who backup1 "$round" "$container/repo" "$source_dir" "${restic_cmd[@]}" "${r[@]}" --json backup .
  backup_step $who backup2 "$round" "$container/repo" "$source_dir" "${restic_cmd[@]}" "${r[@]}" --json backup .
  edit_apply
  backup_step $who backup3 "$round" "$container/repo" "$source_dir" "${restic_cmd[@]}" "${r[@]}" --json backup .
  run_step $who restore "$round" "$work" "${restic_cmd[@]}" "${r[@]}" restore latest --target "$restic_restore"
  compare $who "$round" "$restic_restore"
  edit_revert
  purge "$container"
  if [ $keep = no ] || [ "$round" -lt "$rounds" ]; then rm -rf "$restic_restore"; fi
  rm -rf "$restic_cache"
  [ $scale = no ] || return 0
  r=(-r "$(restic_repository "$dup_container")")
  run_step $who dupinit "$round" "$work" "${restic_cmd[@]}" "${r[@]}" init
  backup_step $who dup "$round" "$dup_container/repo" "$dup_dir" "${restic_cmd[@]}" "${r[@]}" --json backup .
  purge "$dup_container"
  rm -rf "$restic_cache"
}

printf 'round\twho\tkey\tvalue\n' >"$results"
for ((round = 1; round <= rounds; round++)); do
  echo "==== round $round of $rounds"
  if ((round % 2 == 1)); then
    round_tool "$round"
    round_restic "$round"
  else
    round_restic "$round"
    round_tool "$round"
  fi
done

# ---- the summary: medians over the rounds
median() {  # WHO KEY -> the median, or NA when no round measured it
  awk -F'\t' -v w="$1" -v k="$2" 'NR > 1 && $2 == w && $3 == k && $4 != "NA" { print $4 }' "$results" |
    sort -g | awk '{ v[NR] = $1 } END { if (NR == 0) print "NA"; else print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'
}
count_of() {  # WHO KEY VALUE -> in how many rounds KEY was VALUE
  awk -F'\t' -v w="$1" -v k="$2" -v v="$3" 'NR > 1 && $2 == w && $3 == k && $4 == v { n++ } END { print n + 0 }' "$results"
}
fmt() {  # FORMAT VALUE
  # shellcheck disable=SC2059  # the format is the caller's number format
  if [ "$2" = NA ]; then echo "n/m"; else printf "$1" "$2"; fi
}
bytes_text() {  # BYTES -> "812 bytes", "12.3 KiB", "700.12 MiB"
  [ "$1" = NA ] && { echo "n/m"; return; }
  awk -v b="$1" 'BEGIN {
    if (b < 0) { s = "-"; b = -b } else s = ""
    if (b >= 1048576) printf "%s%.2f MiB", s, b / 1048576
    else if (b >= 1024) printf "%s%.1f KiB", s, b / 1024
    else printf "%s%d bytes", s, b }'
}
ratio() {  # A B -> A / B
  awk -v a="$1" -v b="$2" 'BEGIN { if (a == "NA" || b == "NA" || b + 0 == 0) print "-"; else printf "%.2f", a / b }'
}
verdict() {  # A OP B: PASS when A OP B holds, n/m when either is missing
  awk -v a="$1" -v op="$2" -v b="$3" 'BEGIN {
    if (a == "NA" || b == "NA") { print "n/m"; exit }
    ok = (op == "<=") ? (a + 0 <= b + 0) : (a + 0 >= b + 0)
    print ok ? "PASS" : "MISS" }'
}
times() {  # FACTOR VALUE -> FACTOR x VALUE, unrounded (NA stays NA)
  awk -v f="$1" -v v="$2" 'BEGIN { if (v == "NA") print "NA"; else printf "%.6f", f * v }'
}
per_second() {  # BYTES SECONDS -> MiB/s
  awk -v b="$1" -v s="$2" 'BEGIN { if (s == "NA" || s + 0 == 0) print "NA"; else printf "%.2f", b / 1048576 / s }'
}

H=cloudplugin-host R=restic
rows=()  # label|host cell|restic cell|ratio|goal|verdict ("" cells: a heading)
heading() { rows+=("$1|||||"); }
row() { rows+=("$1|$2|$3|$4|${5:-}|${6:-}"); }
rss_verdicts=()  # one per step whose resources are shown

# The CPU and RSS rows of one step; restic's cells name rclone's share.
resource_rows() {  # STEP
  local hc rc rrc hr rr rrr sampled
  hc=$(median $H "$1.cpu") rc=$(median $R "$1.cpu") rrc=$(median $R "$1.rclone_cpu")
  hr=$(median $H "$1.rss") rr=$(median $R "$1.rss") rrr=$(median $R "$1.rclone_rss")
  sampled=$(count_of $R "$1.rss_sampled" 1)
  rss_verdicts+=("$(verdict "$hr" '<=' "$rr")")
  row "  CPU s (restic: with rclone)" "$(fmt %.2f "$hc")" "$(fmt %.2f "$rc") (rclone $(fmt %.2f "$rrc"))" "$(ratio "$hc" "$rc")"
  row "  peak RSS MiB (restic: own$([ "$sampled" -gt 0 ] && echo '*'))" "$(fmt %.0f "$hr")" \
    "$(fmt %.0f "$rr") (rclone $(fmt %.0f "$rrr"))" "$(ratio "$hr" "$rr")" "≤ restic's" "$(verdict "$hr" '<=' "$rr")"
}

# Scale mode: its goals compare the medians themselves (0.8 x restic's, not
# a rounded ratio).
scale_rows() {
  local hw rw hu ru steps=(init backup1 backup2 backup3 restore) step all
  heading "init"
  hw=$(median $H init.wall) rw=$(median $R init.wall)
  row "  wall s" "$(fmt %.2f "$hw")" "$(fmt %.2f "$rw")" "$(ratio "$hw" "$rw")"
  resource_rows init

  heading "backup 1: all new ($total_files files, $(to_mib "$total_bytes") MiB)"
  hw=$(median $H backup1.wall) rw=$(median $R backup1.wall)
  row "  wall s" "$(fmt %.2f "$hw")" "$(fmt %.2f "$rw")" "$(ratio "$hw" "$rw")" "≤ 0.8 × restic" \
    "$(verdict "$hw" '<=' "$(times 0.8 "$rw")")"
  hu=$(median $H backup1.uploaded) ru=$(median $R backup1.uploaded)
  row "  uploaded (stored growth)" "$(bytes_text "$hu")" "$(bytes_text "$ru")" "$(ratio "$hu" "$ru")"
  row "  the tool's own count (a)" "$(bytes_text "$(median $H backup1.reported)")" "$(bytes_text "$(median $R backup1.reported)")" ""
  resource_rows backup1

  heading "backup 2: nothing changed"
  hw=$(median $H backup2.wall) rw=$(median $R backup2.wall)
  row "  wall s" "$(fmt %.2f "$hw")" "$(fmt %.2f "$rw")" "$(ratio "$hw" "$rw")" "≤ 0.5 × restic" \
    "$(verdict "$hw" '<=' "$(times 0.5 "$rw")")"
  hu=$(median $H backup2.uploaded) ru=$(median $R backup2.uploaded)
  row "  uploaded (stored growth)" "$(bytes_text "$hu")" "$(bytes_text "$ru")" "$(ratio "$hu" "$ru")" "≤ 64 KiB" \
    "$(verdict "$hu" '<=' 65536)"
  row "  the tool's own count (a)" "$(bytes_text "$(median $H backup2.reported)")" "$(bytes_text "$(median $R backup2.reported)")" ""
  resource_rows backup2

  heading "backup 3: $edit_count files rewritten in place (b)"
  hw=$(median $H backup3.wall) rw=$(median $R backup3.wall)
  row "  wall s" "$(fmt %.2f "$hw")" "$(fmt %.2f "$rw")" "$(ratio "$hw" "$rw")"
  hu=$(median $H backup3.uploaded) ru=$(median $R backup3.uploaded)
  row "  uploaded (stored growth)" "$(bytes_text "$hu")" "$(bytes_text "$ru")" "$(ratio "$hu" "$ru")" "≤ 1.5 × restic" \
    "$(verdict "$hu" '<=' "$(times 1.5 "$ru")")"
  row "  the tool's own count (a)" "$(bytes_text "$(median $H backup3.reported)")" "$(bytes_text "$(median $R backup3.reported)")" ""
  resource_rows backup3

  heading "restore latest ($total_files files, $(to_mib "$total_bytes") MiB)"
  hw=$(median $H restore.wall) rw=$(median $R restore.wall)
  row "  wall s" "$(fmt %.2f "$hw")" "$(fmt %.2f "$rw")" "$(ratio "$hw" "$rw")" "≤ 0.8 × restic" \
    "$(verdict "$hw" '<=' "$(times 0.8 "$rw")")"
  resource_rows restore

  heading "stored"
  hu=$(median $H backup3.stored) ru=$(median $R backup3.stored)
  row "  after the three backups" "$(bytes_text "$hu")" "$(bytes_text "$ru")" "$(ratio "$hu" "$ru")"

  all=PASS
  for step in "${rss_verdicts[@]}"; do
    [ "$step" = PASS ] || { [ "$all" = MISS ] || all=$step; }
  done
  row "peak RSS, all ${#steps[@]} steps" "" "" "" "≤ restic's in each" "$all"
}

if [ $scale = yes ]; then
  scale_rows
else
  h_init=$(median $H init.wall) r_init=$(median $R init.wall)
  row "init: wall s" "$(fmt %.2f "$h_init")" "$(fmt %.2f "$r_init")" "$(ratio "$h_init" "$r_init")"

  heading "backup 1: all new ($(to_mib "$total_bytes") MiB)"
  hw=$(median $H backup1.wall) rw=$(median $R backup1.wall)
  ht=$(per_second "$total_bytes" "$hw") rt=$(per_second "$total_bytes" "$rw")
  row "  wall s" "$(fmt %.2f "$hw")" "$(fmt %.2f "$rw")" "$(ratio "$hw" "$rw")"
  row "  throughput MiB/s" "$(fmt %.1f "$ht")" "$(fmt %.1f "$rt")" "$(ratio "$ht" "$rt")" "≥ 1.0 × restic" \
    "$(verdict "$(ratio "$ht" "$rt" | sed 's/^-$/NA/')" '>=' 1.0)"
  hu=$(median $H backup1.uploaded) ru=$(median $R backup1.uploaded)
  row "  uploaded (stored growth)" "$(bytes_text "$hu")" "$(bytes_text "$ru")" "$(ratio "$hu" "$ru")"
  row "  the tool's own count (a)" "$(bytes_text "$(median $H backup1.reported)")" "$(bytes_text "$(median $R backup1.reported)")" ""
  resource_rows backup1

  heading "backup 2: nothing changed"
  hw2=$(median $H backup2.wall) rw2=$(median $R backup2.wall)
  row "  wall s" "$(fmt %.2f "$hw2")" "$(fmt %.2f "$rw2")" "$(ratio "$hw2" "$rw2")" "≤ 0.5 × restic" \
    "$(verdict "$(ratio "$hw2" "$rw2" | sed 's/^-$/NA/')" '<=' 0.5)"
  hu2=$(median $H backup2.uploaded) ru2=$(median $R backup2.uploaded)
  row "  uploaded (stored growth)" "$(bytes_text "$hu2")" "$(bytes_text "$ru2")" "$(ratio "$hu2" "$ru2")" "≤ 1 MiB" \
    "$(verdict "$hu2" '<=' 1048576)"
  row "  the tool's own count (a)" "$(bytes_text "$(median $H backup2.reported)")" "$(bytes_text "$(median $R backup2.reported)")" ""
  resource_rows backup2

  heading "backup 3: $(bytes_text "$edit_bytes") overwritten in 10 files"
  hw3=$(median $H backup3.wall) rw3=$(median $R backup3.wall)
  row "  wall s" "$(fmt %.2f "$hw3")" "$(fmt %.2f "$rw3")" "$(ratio "$hw3" "$rw3")"
  hu3=$(median $H backup3.uploaded) ru3=$(median $R backup3.uploaded)
  allowance=NA
  [ "$hu2" != NA ] && allowance=$((3 * edit_bytes + ${hu2%.*}))
  row "  uploaded (stored growth)" "$(bytes_text "$hu3")" "$(bytes_text "$ru3")" "$(ratio "$hu3" "$ru3")" \
    "≤ 3 × edited + (b) = $(bytes_text "$allowance")" "$(verdict "$hu3" '<=' "$allowance")"
  row "  the tool's own count (a)" "$(bytes_text "$(median $H backup3.reported)")" "$(bytes_text "$(median $R backup3.reported)")" ""
  resource_rows backup3

  heading "restore latest ($(to_mib "$total_bytes") MiB)"
  hw4=$(median $H restore.wall) rw4=$(median $R restore.wall)
  ht4=$(per_second "$total_bytes" "$hw4") rt4=$(per_second "$total_bytes" "$rw4")
  row "  wall s" "$(fmt %.2f "$hw4")" "$(fmt %.2f "$rw4")" "$(ratio "$hw4" "$rw4")"
  row "  throughput MiB/s" "$(fmt %.1f "$ht4")" "$(fmt %.1f "$rt4")" "$(ratio "$ht4" "$rt4")" "≥ 1.0 × restic" \
    "$(verdict "$(ratio "$ht4" "$rt4" | sed 's/^-$/NA/')" '>=' 1.0)"
  resource_rows restore

  heading "stored"
  hs=$(median $H backup3.stored) rs=$(median $R backup3.stored)
  row "  after the three backups" "$(bytes_text "$hs")" "$(bytes_text "$rs")" "$(ratio "$hs" "$rs")" "≤ restic's" "$(verdict "$hs" '<=' "$rs")"
  hd=$(median $H dup.stored) rd=$(median $R dup.stored)
  row "  4 × $dup_mib MiB, same bytes (c)" "$(bytes_text "$hd")" "$(bytes_text "$rd")" "$(ratio "$hd" "$rd")" "≤ restic's" "$(verdict "$hd" '<=' "$rd")"
  hdw=$(median $H dup.wall) rdw=$(median $R dup.wall)
  row "    its backup: wall s" "$(fmt %.2f "$hdw")" "$(fmt %.2f "$rdw")" "$(ratio "$hdw" "$rdw")"
fi

cpu_model=$(lscpu | sed -n 's/^Model name: *//p' | sed -n 1p)
memory_gib=$(awk '/^MemTotal:/ { printf "%.0f", $2 / 1048576 }' /proc/meminfo)
os_name=$(. /etc/os-release && echo "$PRETTY_NAME")
java_bin=java
[ -n "${JAVA_HOME:-}" ] && [ -x "$JAVA_HOME/bin/java" ] && java_bin=$JAVA_HOME/bin/java
java_version=$("$java_bin" -version 2>&1 | sed -n 1p)
restic_version=$(restic version | sed -n 1p)
rclone_version=$(rclone --version | sed -n 1p)
azurite_version=$("$(azurite_executable)" --version)
if [ "$tool" = "$repo/build/demo/stage/bin/cloudplugin-host" ]; then
  commit="commit $(git rev-parse --short HEAD 2>/dev/null || echo unknown)"
  [ -n "$(git status --porcelain --untracked-files=no 2>/dev/null)" ] && commit="$commit with local changes"
else
  commit="$tool"
fi
run_date=$(date -u '+%Y-%m-%d %H:%M UTC')
tool_text="cloudplugin-host${tool_args[*]:+ ${tool_args[*]}} (defaults: --jobs 4, packs of 16 MiB, scrypt 64 MiB)"
restic_text="restic${restic_args[*]:+ ${restic_args[*]}} (defaults: repository version 2, compression auto, packs of 16 MiB)"
sampled_steps=(backup1 backup2 backup3 restore)
[ $scale = yes ] && sampled_steps=(init "${sampled_steps[@]}")
sampled_total=0
for step in "${sampled_steps[@]}"; do sampled_total=$((sampled_total + $(count_of $R "$step.rss_sampled" 1))); done

notes() {
  echo "(a) cloudplugin-host: --json bytes_added, the bytes of the packs, index and snapshot it wrote (compressed,"
  echo "    encrypted). restic: --json data_added, the plain bytes of the new data and tree blobs, before"
  echo "    compression and encryption, without index and snapshot. 'uploaded' is the same measure for both:"
  echo "    the growth of the container's blob bytes under the tool's path (rclone size); objects written and"
  echo "    removed within the command (locks) do not count."
  if [ $scale = yes ]; then
    echo "(b) every byte of $edit_count non-empty files, spread evenly over the sorted file list, rewritten in"
    echo "    place with new random bytes (sizes kept): $(bytes_text "$edit_bytes") ($edit_bytes bytes); put back after the restore."
  else
    echo "(b) the same tool's upload in backup 2 (its snapshot, index and whatever a backup writes regardless)."
    echo "    Edited: $(bytes_text "$edit_bytes") ($edit_bytes bytes), $(bytes_text "$edit_length") in one range of each of 10 files."
    echo "(c) stored bytes of a repository holding one backup of the set: $(to_mib "$dup_bytes") MiB of files, $dup_mib MiB distinct."
  fi
  echo "Stored bytes: the sum of the blob sizes under the tool's path (cloudplugin-host/ or repo/) in its own"
  echo "container, config and keys included; the local caches are not counted."
  echo "CPU s: user + system seconds of the command and every process it waited for; restic's include its"
  echo "rclone (its share in brackets); cloudplugin-host's include its JVM (one process). Peak RSS: of the"
  echo "command's own process, the JVM included for cloudplugin-host; restic's own without rclone (rclone's in"
  echo "brackets, measured by running it under GNU time through -o rclone.program). GNU time reports the larger"
  echo "of restic and rclone; when rclone was the larger, restic's own is the highest VmHWM read from /proc every"
  echo "0.1 s (*: $sampled_total of $((${#sampled_steps[@]} * rounds)) measurements). host/restic: ratio of the medians."
  echo "Keys: each tool's default key derivation (cloudplugin-host scrypt of 64 MiB, restic scrypt calibrated"
  echo "at init to about 0.5 s and at most 60 MiB), paid again by every command. Both tools keep their local"
  echo "caches from one command to the next within a round and start each round with empty ones."
  echo "Every restore was compared with the source (contents, sizes, modification times) outside the timing."
  echo "cloudplugin-host writes restored files with O_DIRECT; restic's land in the page cache (no sync timed)."
}

title="==== medians of $rounds round(s), run alternately; n/m: not measured"
echo
echo "$title"
echo "machine:   $cpu_model, $(nproc) cores, $memory_gib GiB, $os_name, kernel $(uname -r)"
echo "date:      $run_date"
echo "data set:  $set_text"
echo "tools:     $tool_text"
echo "           ($commit), $java_version"
echo "           $restic_text"
echo "           ($restic_version, rclone backend: $rclone_version, azureblob, account SAS)"
echo "storage:   Azurite $azurite_version, in memory, loopback; a new container per tool and round"
printf '\n%-36s %-16s %-24s %-11s %-36s %s\n' "" "$H" "$R" "host/restic" "goal" ""
for entry in "${rows[@]}"; do
  IFS='|' read -r label a b r g v <<<"$entry"
  if [ -z "$a$b$r$g$v" ]; then
    echo "$label"
  else
    printf '%-36s %-16s %-24s %-11s %-36s %s\n' "$label" "$a" "$b" "$r" "$g" "$v"
  fi
done
echo
notes
echo "per-round figures: $results; logs: $logs"

table_markdown() {
  echo "Machine: $cpu_model, $(nproc) cores, $memory_gib GiB, $os_name. Date: $run_date."
  echo "Data: $set_text. Azurite $azurite_version in memory on loopback."
  echo "\`$tool_text\` ($commit, $java_version) against \`$restic_text\` ($restic_version, $rclone_version)."
  echo "Medians of $rounds round(s), run alternately."
  echo
  echo "| | cloudplugin-host | restic | host / restic | goal | |"
  echo "|---|---|---|---|---|---|"
  for entry in "${rows[@]}"; do
    IFS='|' read -r label a b r g v <<<"$entry"
    if [ -z "$a$b$r$g$v" ]; then
      echo "| **$label** | | | | | |"
    else
      echo "| ${label#"${label%%[! ]*}"} | $a | $b | $r | $g | $v |"
    fi
  done
  echo
  notes | sed 's/$/  /'
}
[ -z "$markdown" ] || table_markdown >"$markdown"

succeeded=yes
