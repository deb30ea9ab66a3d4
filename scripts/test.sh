#!/usr/bin/env bash
# Builds and runs every test suite: the Linux debug build, the same suites
# under AddressSanitizer and UndefinedBehaviorSanitizer, and the Windows
# build under Wine. Fails when any suite fails. Pass preset names to run only
# some of them (linux-debug, linux-asan, windows-mingw).
set -uo pipefail
cd "$(dirname "$0")/.."

presets=("$@")
[ ${#presets[@]} -gt 0 ] || presets=(linux-debug linux-asan windows-mingw)

export WINEDEBUG=-all
# A Wine prefix of the project's own, so that its D: drive is ours to map.
export WINEPREFIX="${WINEPREFIX:-$HOME/.cache/qvazure-wine}"
# Azurite, the local Blob storage service of the Azure tests, installed into
# the build tree once (AZURITE_BIN may name another one).
. scripts/azurite.sh
azurite_install

failed=()
for preset in "${presets[@]}"; do
  echo "==== ${preset}: configure and build"
  if [ "$preset" = windows-mingw ]; then
    # Make the Wine prefix once, before tests run side by side in it, keep
    # one Wine server for the whole run, and give Wine a D: drive so that the
    # log stream's default folder (D:\log\Vexa\Log) can be written.
    mkdir -p "$(dirname "$WINEPREFIX")"
    "$(command -v wine64 || echo /usr/lib/wine/wine64)" wineboot --init >/dev/null 2>&1 || true
    wineserver -p 60 >/dev/null 2>&1 || true
    if [ -d "$WINEPREFIX/dosdevices" ]; then
      mkdir -p "$PWD/build/wine-d-drive"
      ln -sfn "$PWD/build/wine-d-drive" "$WINEPREFIX/dosdevices/d:"
    fi
  fi
  if ! cmake --preset "$preset" >/dev/null || ! cmake --build --preset "$preset"; then
    failed+=("$preset (build)")
    continue
  fi
  echo "==== ${preset}: tests"
  repeat=()
  # Under Wine a test process now and then loses its connection to the Wine
  # server ("wine client error: recvmsg: Connection reset by peer") and dies
  # before running a line of the test; such a test is run once more.
  [ "$preset" = windows-mingw ] && repeat=(--repeat until-pass:2)
  ctest --preset "$preset" "${repeat[@]}" || failed+=("$preset (tests)")
done

if [ ${#failed[@]} -gt 0 ]; then
  echo "FAILED: ${failed[*]}"
  exit 1
fi
echo "All suites passed: ${presets[*]}"
