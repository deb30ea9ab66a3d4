#!/usr/bin/env bash
# Where the CPU time of a backup and a restore goes, layer by layer: runs
# cloudplugin-host backup and restore of a folder against a local Azurite
# under `perf record -g` and attributes every sample to a layer (JIT
# compilation, Java code, SHA-256, sockets, file I/O, ...) with
# bench/perf_layers.py. Azurite's own CPU seconds are printed beside.
#
#   scripts/profile-layers.sh SOURCE_DIR [cloudplugin-host options...]
#
# TOOL names the cloudplugin-host to run (default: the demo build's);
# PROFILE_CONNECTION a connection string to use instead of the account key's
# (for a SAS, say, whose Container must be "profile").
set -euo pipefail
cd "$(dirname "$0")/.."
[ $# -ge 1 ] || { echo "usage: scripts/profile-layers.sh SOURCE_DIR [cloudplugin-host options...]" >&2; exit 2; }
source_dir=$(realpath "$1")
shift
tool=${TOOL:-build/demo/stage/bin/cloudplugin-host}
[ -x "$tool" ] || { echo "no $tool: build the demo preset or set TOOL" >&2; exit 2; }
if ! command -v perf >/dev/null; then
  sudo_cmd=()
  [ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
  "${sudo_cmd[@]}" apt-get install -y --no-install-recommends linux-perf
fi
. scripts/azurite.sh
azurite_install
work=build/profile-layers
rm -rf "$work"
mkdir -p "$work"
azurite_start "$work/azurite"
trap azurite_stop EXIT
export CLOUDPLUGIN_CONNECTION
CLOUDPLUGIN_CONNECTION="${PROFILE_CONNECTION:-$(azurite_connection profile)}"
azurite_cpu() { awk -v hz="$(getconf CLK_TCK)" '{ printf "%.2f", ($14 + $15) / hz }' "/proc/$AZURITE_PID/stat"; }

hz=499
for step in backup restore; do
  # The backup is the version 2 layout's, written by the build's fixture
  # program beside the tool; the restore is the tool's.
  program=$tool
  if [ "$step" = backup ]; then
    program=$(dirname "$(dirname "$tool")")/fixtures/version2-writer
    command=(backup "$source_dir" --name profiled)
  else
    command=(legacy restore profiled "$work/restored")
  fi
  before=$(azurite_cpu)
  perf record -q -F "$hz" -g -o "$work/$step.data" -- "$program" --quiet "$@" "${command[@]}"
  after=$(azurite_cpu)
  echo "==== $step: CPU seconds per layer (cloudplugin-host with its JVM; Azurite $(awk -v a="$before" -v b="$after" 'BEGIN { printf "%.2f", b - a }') s)"
  echo "| layer | CPU s | share |"
  echo "|---|---|---|"
  python3 bench/perf_layers.py "$work/$step.data" "$hz"
done
diff -r -q "$source_dir" "$work/restored" >/dev/null && echo "restored tree identical" || { echo "restored tree DIFFERS" >&2; exit 1; }
