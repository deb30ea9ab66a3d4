#!/usr/bin/env bash
# cloudplugin-host against rclone, side by side, on one local Azurite.
#
# Installs what is missing (rclone and GNU time from Debian, Azurite through
# scripts/azurite.sh), builds cloudplugin-host (demo preset) when neither
# --tool nor an earlier build gives one, starts Azurite in memory on
# loopback, generates a reproducible data set, then runs both tools
# alternately for a number of rounds with the same parallelism. Each round,
# for each tool: back up (timed), restore into an empty folder (timed),
# compare the restored tree with the source, delete what was stored. Prints
# the medians (and min-max) of wall time, throughput, CPU seconds and peak
# RSS of every command for both tools, the ratios, the machine and the
# versions, and the same table in Markdown.
#
#   scripts/compare-rclone.sh                         the 1 GiB set, 5 rounds, 4 jobs
#   scripts/compare-rclone.sh --set demo --rounds 3   the demo's set
#   scripts/compare-rclone.sh --large 1x32M --medium 2x8M --small 50x256K --rounds 2
#   scripts/compare-rclone.sh --tool-arg --jvm-option=-Xmx512m
#
# Run with --help for every option.
set -euo pipefail

caller_dir=$(pwd)
cd "$(dirname "$0")/.."
repo=$(pwd)

usage() {
  cat <<'USAGE'
usage: scripts/compare-rclone.sh [options]

  --rounds N          rounds; each runs both tools, alternating which goes first (default 5)
  --jobs P            parallelism: cloudplugin-host --jobs P, rclone --transfers P (default 4)
  --set big|demo      the data set (default big):
                        big   2 files of 256 MiB, 4 of 64 MiB, 500 of up to 1 MiB
                              (2x256M, 4x64M, 500x1M; 1007 MiB)
                        demo  what scripts/demo.sh backs up: 300 files of up to 256 KiB in
                              nested folders, one of 300 MiB, a folder and a file with
                              non-ASCII names, an empty file (1x300M, 300x256K; 337 MiB)
  --large NxSIZE      N files of SIZE bytes each (replaces the set's large files)
  --medium NxSIZE     N files of SIZE bytes each (replaces the set's medium files)
  --small NxSIZE      N files of sizes spread below SIZE ((i * 7919) mod SIZE, as
                      scripts/demo.sh does) (replaces the set's small files)
                      SIZE takes the suffixes K, M, G (powers of 1024); N may be 0
  --tool PATH         cloudplugin-host to run (default: build/demo/stage/bin/cloudplugin-host,
                      built with the demo preset first)
  --tool-arg ARG      an extra option for cloudplugin-host, before the command
                      (repeatable; e.g. --tool-arg --jvm-option=-Xmx512m)
  --rclone-arg ARG    an extra option for rclone copy (repeatable)
  --credential sas|key  cloudplugin-host's credential: the same account SAS as rclone's (default),
                      or the account key (Shared Key signing of every request)
  --work DIR          data set, restores, logs, per-round results (default: build/compare-rclone)
  --keep              keep the data set and the last restores (a later run with the same
                      set reuses the data set); without it they are removed on success
  --markdown FILE     also write the Markdown table to FILE
  --help              this text

Environment: AZURITE_BIN names an Azurite installation to use instead of build/azurite.
USAGE
}

fail() {
  echo "compare-rclone: FAILED: $*" >&2
  exit 1
}

# ---- options
rounds=5
jobs=4
set_name=big
large='' medium='' small=''
tool=''
tool_args=()
rclone_args=()
work=build/compare-rclone
keep=no
markdown=''
credential=sas

absolute() { (cd "$caller_dir" && realpath -m -- "$1"); }

# One option: its value goes where the option says.
take_option() {
  local value=$2
  case $1 in
    --rounds) rounds=$value ;;
    --jobs) jobs=$value ;;
    --set) set_name=$value ;;
    --large) large=$value ;;
    --medium) medium=$value ;;
    --small) small=$value ;;
    --tool) tool=$(absolute "$value") ;;
    --tool-arg) tool_args+=("$value") ;;
    --rclone-arg) rclone_args+=("$value") ;;
    --credential) credential=$value ;;
    --work) work=$(absolute "$value") ;;
    --markdown) markdown=$(absolute "$value") ;;
  esac
}
# shellcheck source=scripts/options.sh
. scripts/options.sh
read_options compare-rclone "--rounds --jobs --set --large --medium --small --tool --tool-arg --rclone-arg --credential --work --markdown" take_option "$@"

[[ $rounds =~ ^[1-9][0-9]*$ ]] || { echo "compare-rclone: --rounds takes a positive number" >&2; exit 2; }
[[ $jobs =~ ^[1-9][0-9]*$ ]] || { echo "compare-rclone: --jobs takes a positive number" >&2; exit 2; }
[[ $credential =~ ^(sas|key)$ ]] || { echo "compare-rclone: --credential takes sas or key" >&2; exit 2; }
set_label="$set_name set"
[ -z "$large$medium$small" ] || set_label="$set_name set's layout, own mix"
case $set_name in
  big) : "${large:=2x256M}" "${medium:=4x64M}" "${small:=500x1M}" ;;
  demo) : "${large:=1x300M}" "${medium:=0x0}" "${small:=300x256K}" ;;
  *) echo "compare-rclone: --set takes big or demo" >&2; exit 2 ;;
esac

# "NxSIZE" -> "N BYTES"
parse_mix() {
  local text=$1 count size number suffix
  [[ $text =~ ^([0-9]+)x([0-9]+)([KMGkmg]?)$ ]] ||
    { echo "compare-rclone: '$text' is not NxSIZE (e.g. 4x64M)" >&2; exit 2; }
  count=${BASH_REMATCH[1]} number=${BASH_REMATCH[2]} suffix=${BASH_REMATCH[3]}
  case $suffix in
    '') size=$number ;;
    K | k) size=$((number * 1024)) ;;
    M | m) size=$((number * 1024 * 1024)) ;;
    G | g) size=$((number * 1024 * 1024 * 1024)) ;;
  esac
  echo "$((10#$count)) $size"
}
large_mix=$(parse_mix "$large")
medium_mix=$(parse_mix "$medium")
small_mix=$(parse_mix "$small")
read -r large_count large_size <<<"$large_mix"
read -r medium_count medium_size <<<"$medium_mix"
read -r small_count small_max <<<"$small_mix"
if [ "$small_count" -gt 0 ] && [ "$small_max" -eq 0 ]; then
  echo "compare-rclone: --small needs a size above 0" >&2; exit 2
fi

# ---- set-up: what is missing
# shellcheck source=scripts/bench-common.sh
. scripts/bench-common.sh
bench_setup rclone

# ---- the work folder, Azurite
mkdir -p "$work"
source_dir=$work/source
tool_restore=$work/restore-cloudplugin-host
rclone_restore=$work/restore-rclone
logs=$work/logs
results=$work/results.tsv
rm -rf "$tool_restore" "$rclone_restore" "$logs" "$work/azurite"
mkdir -p "$logs"

succeeded=no
cleanup() {
  azurite_stop
  if [ $succeeded = yes ] && [ $keep = no ]; then
    rm -rf "$source_dir" "$work/source.mix" "$tool_restore" "$rclone_restore"
  elif [ $succeeded = no ]; then
    echo "compare-rclone: logs, data set and restores kept in $work" >&2
  fi
}
trap cleanup EXIT
trap 'exit 130' INT TERM

azurite_start "$work/azurite"
azurite_url="http://127.0.0.1:${AZURITE_PORT}/devstoreaccount1"
echo "==== Azurite on 127.0.0.1:${AZURITE_PORT} (pid ${AZURITE_PID}, in memory)"

# ---- the data set: incompressible, the same bytes every time (AES-128-CTR
# of zeros with a fixed key; the counter block names the stream)
data_key=000102030405060708090a0b0c0d0e0f
keystream() {  # SEED BYTES
  head -c "$2" /dev/zero | openssl enc -aes-128-ctr -nosalt -K "$data_key" -iv "$(printf '%032x' "$1")"
}

small_path() {  # I
  if [ "$set_name" = demo ]; then
    echo "folder$(($1 % 7))/sub$(($1 % 3))/file-$1.dat"
  else
    echo "small/dir$(($1 % 10))/small-$1.bin"
  fi
}
large_path() {  # I
  if [ "$set_name" = demo ]; then
    echo "large-$((large_size / 1048576))MiB-$1.bin"
  else
    echo "large/large-$1.bin"
  fi
}

generate() {
  local i size total=0 expected
  rm -rf "$source_dir" "$work/source.mix"
  mkdir -p "$source_dir"
  for ((i = 1; i <= large_count; i++)); do
    mkdir -p "$(dirname "$source_dir/$(large_path "$i")")"
    keystream $((1000000 + i)) "$large_size" >"$source_dir/$(large_path "$i")"
  done
  for ((i = 1; i <= medium_count; i++)); do
    mkdir -p "$source_dir/medium"
    keystream $((2000000 + i)) "$medium_size" >"$source_dir/medium/medium-$i.bin"
  done
  # The small files are cut one after another from one stream.
  for ((i = 1; i <= small_count; i++)); do
    total=$((total + (i * 7919) % small_max))
    mkdir -p "$(dirname "$source_dir/$(small_path "$i")")"
  done
  if [ "$small_count" -gt 0 ]; then
    for ((i = 1; i <= small_count; i++)); do
      head -c $(((i * 7919) % small_max)) >"$source_dir/$(small_path "$i")"
    done < <(keystream 3000000 "$total")
  fi
  if [ "$set_name" = demo ]; then
    mkdir -p "$source_dir/Ünïcödé 文件夹"
    echo "non-ASCII names survive" >"$source_dir/Ünïcödé 文件夹/naïve café.txt"
    : >"$source_dir/an empty file"
  fi
  expected=$((large_count * large_size + medium_count * medium_size + total))
  [ "$set_name" = demo ] && expected=$((expected + 24))
  [ "$(data_bytes)" -eq "$expected" ] || fail "the data set has $(data_bytes) bytes instead of $expected"
  echo "$mix" >"$work/source.mix"
}
data_bytes() { find "$source_dir" -type f -printf '%s\n' | awk '{ s += $1 } END { printf "%d\n", s }'; }

mix="set=$set_name large=$large_count x $large_size medium=$medium_count x $medium_size small=$small_count x <$small_max (v1)"
if [ -d "$source_dir" ] && [ "$(cat "$work/source.mix" 2>/dev/null)" = "$mix" ]; then
  echo "==== reusing the data set in $source_dir"
else
  echo "==== generating the data set in $source_dir"
  start=$(date +%s.%N)
  generate
  echo "     in $(awk -v a="$start" -v b="$(date +%s.%N)" 'BEGIN { printf "%.1f", b - a }') s"
fi
total_bytes=$(data_bytes)
total_files=$(find "$source_dir" -type f | wc -l)
total_mib=$(awk -v b="$total_bytes" 'BEGIN { printf "%.1f", b / 1048576 }')
human() {  # BYTES -> "256 MiB", "1 MiB", "256 KiB", "100 bytes"
  awk -v b="$1" 'BEGIN {
    if (b >= 1073741824 && b % 1073741824 == 0) printf "%d GiB", b / 1073741824
    else if (b >= 1048576) printf "%g MiB", b / 1048576
    else if (b >= 1024) printf "%g KiB", b / 1024
    else printf "%d bytes", b }'
}
parts=()
[ "$large_count" -eq 0 ] || parts+=("$large_count × $(human "$large_size")")
[ "$medium_count" -eq 0 ] || parts+=("$medium_count × $(human "$medium_size")")
[ "$small_count" -eq 0 ] || parts+=("$small_count below $(human "$small_max")")
[ "$set_name" = demo ] && parts+=("non-ASCII names" "an empty file")
set_text="$total_files files, $total_mib MiB ($set_label"
for part in "${parts[@]}"; do set_text="$set_text, $part"; done
set_text="$set_text)"
echo "     $set_text"

# ---- the two tools' command lines
tool_cmd=("$tool" --jobs "$jobs" "${tool_args[@]}")
# cloudplugin-host only reads the version 2 layout; the build's fixture
# program beside it writes it (the same global options, command backup).
writer_cmd=("$(dirname "$(dirname "$tool")")/fixtures/version2-writer" --jobs "$jobs" "${tool_args[@]}")
[ -x "${writer_cmd[0]}" ] || fail "no ${writer_cmd[0]} beside $tool (built with the tool)"

# An account SAS signed with Azurite's development key (account_sas,
# scripts/bench-common.sh). Both tools use the same kind of credential: by default the same account
# SAS (rclone can use nothing else here); --credential key gives
# cloudplugin-host the account key instead, which signs every request.
export CLOUDPLUGIN_CONNECTION
if [ "$credential" = sas ]; then
  CLOUDPLUGIN_CONNECTION="BlobEndpoint=$azurite_url;SharedAccessSignature=$(account_sas);Container=cloudplugin-bench"
else
  CLOUDPLUGIN_CONNECTION=$(azurite_connection cloudplugin-bench)
fi
export RCLONE_CONFIG RCLONE_CONFIG_BENCHAZ_TYPE RCLONE_CONFIG_BENCHAZ_SAS_URL
RCLONE_CONFIG=$work/rclone.conf  # empty: the remote comes from the two variables below
: >"$RCLONE_CONFIG"
RCLONE_CONFIG_BENCHAZ_TYPE=azureblob
RCLONE_CONFIG_BENCHAZ_SAS_URL="$azurite_url?$(account_sas)"
# rclone keeps its other defaults; those that shape this test: blocks of
# --azureblob-chunk-size 4Mi, --azureblob-upload-concurrency 16 blocks in
# flight per file, files from --multi-thread-cutoff 250Mi on downloaded in
# --multi-thread-streams 4 ranges (without the MD5 check single-stream
# downloads make), --checkers 8, --buffer-size 16Mi per transfer.
rclone_cmd=(rclone copy --transfers "$jobs" "${rclone_args[@]}")
remote=benchaz:rclone-bench

echo "==== command lines (round N; the data set is $source_dir)"
echo "  CLOUDPLUGIN_CONNECTION='$CLOUDPLUGIN_CONNECTION'"
echo "  $(quoted "${writer_cmd[@]}") backup SOURCE --name bench-N"
echo "  $(quoted "${tool_cmd[@]}") legacy restore bench-N DEST"
echo "  $(quoted "${tool_cmd[@]}") legacy delete bench-N         (not timed)"
echo "  RCLONE_CONFIG=$RCLONE_CONFIG (empty) RCLONE_CONFIG_BENCHAZ_TYPE=azureblob"
echo "  RCLONE_CONFIG_BENCHAZ_SAS_URL='$RCLONE_CONFIG_BENCHAZ_SAS_URL'"
echo "  $(quoted "${rclone_cmd[@]}") SOURCE $remote/round-N"
echo "  $(quoted "${rclone_cmd[@]}") $remote/round-N DEST"
echo "  rclone purge $remote/round-N                              (not timed)"

# ---- measuring

# run_timed WHO OP ROUND COMMAND...: runs COMMAND under GNU time after a
# sync (so that no earlier write-back runs during it) and appends a line to
# the results: round, who, op, wall s, CPU s (user + system), peak RSS MiB,
# Azurite's CPU s during the command, MiB/s.
run_timed() {
  local who=$1 op=$2 round=$3 log status=0 before after wall user sys rss_kib
  shift 3
  log=$logs/round$round-$who-$op.log
  sync
  before=$(cpu_ticks "$AZURITE_PID")
  /usr/bin/time -f '%e %U %S %M' -o "$logs/time.out" "$@" >"$log" 2>&1 || status=$?
  after=$(cpu_ticks "$AZURITE_PID")
  if [ $status -ne 0 ]; then
    tail -n 20 "$log" >&2
    fail "round $round: $who $op exited with status $status (log: $log)"
  fi
  read -r wall user sys rss_kib <"$logs/time.out"
  awk -v r="$round" -v w="$who" -v o="$op" -v wall="$wall" -v u="$user" -v s="$sys" -v m="$rss_kib" \
    -v a="$((after - before))" -v hz="$ticks_per_second" -v b="$total_bytes" \
    'BEGIN { printf "%s\t%s\t%s\t%.2f\t%.2f\t%.1f\t%.2f\t%.2f\n", r, w, o, wall, u + s, m / 1024, a / hz, (wall > 0 ? b / 1048576 / wall : 0) }' \
    >>"$results"
  printf '     %-16s %-7s %7.2f s wall %7.2f s CPU %7.1f MiB RSS\n' "$who" "$op" "$wall" \
    "$(awk -v u="$user" -v s="$sys" 'BEGIN { print u + s }')" "$(awk -v m="$rss_kib" 'BEGIN { print m / 1024 }')"
}

# compare WHO ROUND DEST WITH_TIMES: every file's bytes (diff -r reads them
# all), the same set of names, sizes and, when WITH_TIMES is yes,
# modification times.
listing() {  # FOLDER WITH_TIMES
  local format='%P\t%y\t%s\n'
  [ "$2" = yes ] && format='%P\t%y\t%s\t%T@\n'
  (cd "$1" && find . -mindepth 1 \( -type d -printf '%P/\n' \) -o -printf "$format" | LC_ALL=C sort)
}
compare() {
  local who=$1 round=$2 dest=$3 with_times=$4 report=$logs/round$2-$1-compare.txt
  [ -d "$dest" ] || fail "round $round: $who restored nothing into $dest"
  if ! diff -r -q "$source_dir" "$dest" >"$report" 2>&1; then
    head -n 5 "$report" >&2
    fail "round $round: the restore of $who differs from the source (see $report)"
  fi
  if ! diff <(listing "$source_dir" "$with_times") <(listing "$dest" "$with_times") >"$report" 2>&1; then
    head -n 5 "$report" >&2
    fail "round $round: the restore of $who differs from the source in names, sizes or times (see $report)"
  fi
  local what=contents
  [ "$with_times" = yes ] && what="contents and modification times"
  echo "     $who restore identical to the source ($what)"
}

round_tool() {  # ROUND
  rm -rf "$tool_restore"
  run_timed cloudplugin-host backup "$1" "${writer_cmd[@]}" backup "$source_dir" --name "bench-$1"
  run_timed cloudplugin-host restore "$1" "${tool_cmd[@]}" legacy restore "bench-$1" "$tool_restore"
  compare cloudplugin-host "$1" "$tool_restore" yes
  "${tool_cmd[@]}" legacy delete "bench-$1" >>"$logs/round$1-cloudplugin-host-delete.log" 2>&1 ||
    fail "round $1: cloudplugin-host delete failed (log: $logs/round$1-cloudplugin-host-delete.log)"
  if [ $keep = no ] || [ "$1" -lt "$rounds" ]; then rm -rf "$tool_restore"; fi
}
round_rclone() {  # ROUND
  rm -rf "$rclone_restore"
  run_timed rclone backup "$1" "${rclone_cmd[@]}" "$source_dir" "$remote/round-$1"
  run_timed rclone restore "$1" "${rclone_cmd[@]}" "$remote/round-$1" "$rclone_restore"
  compare rclone "$1" "$rclone_restore" no
  rclone purge "$remote/round-$1" >>"$logs/round$1-rclone-purge.log" 2>&1 ||
    fail "round $1: rclone purge failed (log: $logs/round$1-rclone-purge.log)"
  if [ $keep = no ] || [ "$1" -lt "$rounds" ]; then rm -rf "$rclone_restore"; fi
}

printf 'round\twho\top\twall_s\tcpu_s\tpeak_rss_mib\tazurite_cpu_s\tmib_per_s\n' >"$results"
for ((round = 1; round <= rounds; round++)); do
  echo "==== round $round of $rounds"
  if ((round % 2 == 1)); then
    round_tool "$round"
    round_rclone "$round"
  else
    round_rclone "$round"
    round_tool "$round"
  fi
done

# ---- the summary
# stats WHO OP COLUMN -> "median min max"
stats() {
  awk -F'\t' -v w="$1" -v o="$2" -v c="$3" 'NR > 1 && $2 == w && $3 == o { print $c }' "$results" |
    sort -g | awk '{ v[NR] = $1 } END { m = (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2; print m, v[1], v[NR] }'
}
# cell WHO OP COLUMN FORMAT -> "median (min–max)"
cell() {
  local median low high
  read -r median low high < <(stats "$1" "$2" "$3")
  # shellcheck disable=SC2059  # the format is the caller's number format
  if [ "$rounds" -eq 1 ]; then
    printf "$4" "$median"
  else
    printf "$4 ($4–$4)" "$median" "$low" "$high"
  fi
}
ratio() {  # OP COLUMN: median of cloudplugin-host / median of rclone
  local a b
  read -r a _ _ < <(stats cloudplugin-host "$1" "$2")
  read -r b _ _ < <(stats rclone "$1" "$2")
  awk -v a="$a" -v b="$b" 'BEGIN { if (b > 0) printf "%.2f", a / b; else printf "-" }'
}

rows=()  # label|tool cell|rclone cell|ratio
for op in backup restore; do
  rows+=("$op wall s|$(cell cloudplugin-host $op 4 %.2f)|$(cell rclone $op 4 %.2f)|")
  rows+=("$op MiB/s|$(cell cloudplugin-host $op 8 %.1f)|$(cell rclone $op 8 %.1f)|$(ratio $op 8)")
  rows+=("$op CPU s (user+sys)|$(cell cloudplugin-host $op 5 %.2f)|$(cell rclone $op 5 %.2f)|$(ratio $op 5)")
  rows+=("$op peak RSS MiB|$(cell cloudplugin-host $op 6 %.0f)|$(cell rclone $op 6 %.0f)|$(ratio $op 6)")
  rows+=("$op Azurite CPU s|$(cell cloudplugin-host $op 7 %.2f)|$(cell rclone $op 7 %.2f)|$(ratio $op 7)")
done

cpu_model=$(lscpu | sed -n 's/^Model name: *//p' | head -n 1)
memory_gib=$(awk '/^MemTotal:/ { printf "%.0f", $2 / 1048576 }' /proc/meminfo)
os_name=$(. /etc/os-release && echo "$PRETTY_NAME")
java_bin=java
[ -n "${JAVA_HOME:-}" ] && [ -x "$JAVA_HOME/bin/java" ] && java_bin=$JAVA_HOME/bin/java
java_version=$("$java_bin" -version 2>&1 | head -n 1)
rclone_version=$(rclone --version | head -n 1)
azurite_version=$("$(azurite_executable)" --version)
# What the figures are of: this checkout's build, or the --tool given.
if [ "$tool" = "$repo/build/demo/stage/bin/cloudplugin-host" ]; then
  commit="commit $(git rev-parse --short HEAD 2>/dev/null || echo unknown)"
  [ -n "$(git status --porcelain --untracked-files=no 2>/dev/null)" ] && commit="$commit with local changes"
else
  commit="$tool"
fi
run_date=$(date -u '+%Y-%m-%d %H:%M UTC')
tool_text="cloudplugin-host --jobs $jobs${tool_args[*]:+ ${tool_args[*]}}"
credential_text="account SAS"
[ "$credential" = key ] && credential_text="account key"
rclone_text="rclone copy --transfers $jobs${rclone_args[*]:+ ${rclone_args[*]}}"

echo
echo "==== medians of $rounds rounds (min-max); ratios are cloudplugin-host / rclone"
echo "machine:   $cpu_model, $(nproc) cores, $memory_gib GiB, $os_name, kernel $(uname -r)"
echo "date:      $run_date"
echo "data set:  $set_text"
echo "tools:     $tool_text ($commit, $credential_text), $java_version"
echo "           $rclone_text ($rclone_version, azureblob backend, account SAS)"
echo "storage:   Azurite $azurite_version, in memory, loopback"
printf '\n%-26s %-27s %-27s %s\n' "" cloudplugin-host rclone "host / rclone"
for row in "${rows[@]}"; do
  IFS='|' read -r label a b r <<<"$row"
  printf '%-26s %-27s %-27s %s\n' "$label" "${a//–/-}" "${b//–/-}" "$r"
done
echo "per-round figures: $results"

table_markdown() {
  echo "Machine: $cpu_model, $(nproc) cores, $memory_gib GiB, $os_name. Date: $run_date."
  echo "Data: $set_text. Azurite $azurite_version in memory on loopback."
  echo "\`$tool_text\` ($commit, $credential_text, $java_version) against \`$rclone_text\`"
  echo "($rclone_version, azureblob backend, account SAS); whole commands, JVM start included;"
  echo "median of $rounds rounds (min–max), run alternately; every restore compared with the source."
  echo
  echo "| | cloudplugin-host | rclone | cloudplugin-host / rclone |"
  echo "|---|---|---|---|"
  for row in "${rows[@]}"; do
    IFS='|' read -r label a b r <<<"$row"
    echo "| $label | $a | $b | $r |"
  done
}
echo
echo "==== Markdown"
table_markdown
[ -z "$markdown" ] || table_markdown >"$markdown"

succeeded=yes
