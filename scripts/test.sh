#!/usr/bin/env bash
# Builds and runs every test suite: the optimised Linux build (what the
# packages ship) and a debug build under AddressSanitizer and
# UndefinedBehaviorSanitizer, each with the unit suites and its share of the
# end-to-end suite (the Java library's suite in the first), and the Windows
# build under Wine. Fails when
# any suite fails. Pass preset names to run only some of them (linux-release,
# linux-asan, windows-mingw, or linux-debug). Each step says how long it took.
#
# On a fresh Debian machine it first installs what is missing: the packages
# of scripts/setup.sh (through sudo unless run as root) when any of them is
# not installed, and Azurite. A machine that has everything runs no apt-get.
set -uo pipefail
cd "$(dirname "$0")/.."

# ---- set-up: the packages of scripts/setup.sh that are not installed
missing=()
mapfile -t wanted < <(bash scripts/setup.sh --list)
if command -v dpkg-query >/dev/null; then
  installed=$(dpkg-query -W -f='${db:Status-Status} ${Package}\n' "${wanted[@]}" 2>/dev/null)
  for package in "${wanted[@]}"; do
    grep -qx "installed ${package}" <<<"$installed" || missing+=("$package")
  done
else
  # Not a Debian system: look for the main tools instead.
  for command in cmake make g++ javac clang++ x86_64-w64-mingw32-g++-posix npm; do
    command -v "$command" >/dev/null || missing+=("$command")
  done
fi
if [ ${#missing[@]} -gt 0 ]; then
  echo "==== installing what is missing (${missing[*]})"
  sudo_cmd=()
  [ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
  if ! "${sudo_cmd[@]}" bash scripts/setup.sh; then
    echo "FAILED: scripts/setup.sh could not install ${missing[*]}"
    exit 1
  fi
fi

presets=("$@")
[ ${#presets[@]} -gt 0 ] || presets=(linux-release linux-asan windows-mingw)

export WINEDEBUG=-all
# A Wine prefix of the project's own, so that its D: drive is ours to map.
export WINEPREFIX="${WINEPREFIX:-$HOME/.cache/qvazure-wine}"
# Azurite, the local Blob storage service of the Azure tests, installed into
# the build tree once (AZURITE_BIN may name another one).
. scripts/azurite.sh
azurite_install
echo "==== set-up took ${SECONDS} s"

failed=()
for preset in "${presets[@]}"; do
  echo "==== ${preset}: configure and build"
  SECONDS=0
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
  # A build that hangs (a stuck download, a full disk) ends the run, not CI's clock.
  if ! cmake --preset "$preset" >/dev/null || ! timeout 1800 cmake --build --preset "$preset"; then
    failed+=("$preset (build)")
    continue
  fi
  echo "==== ${preset}: configured and built in ${SECONDS} s"
  echo "==== ${preset}: tests"
  SECONDS=0
  # Which tests run in which build, in which order:
  # - The end-to-end suite (cloudplugin-host as a process on Azurite) runs
  #   once, split between the two Linux builds by cost: the repository's
  #   scenario and fault tests ($heavy_e2e: half of its time, and twice as
  #   slow under the sanitizers, while their repository code runs under the
  #   sanitizers in repository_tests already) in linux-release, the rest
  #   (the command line, inspection, the nightly job, the version 2 layout)
  #   in linux-asan. A new end-to-end suite runs under the sanitizers.
  # - linux-release: the unit suites with the Java library's suite (about
  #   three minutes on one core) in one ctest, and at the same time the
  #   heavy end-to-end tests in another, so that no core waits for the
  #   Java suite alone.
  # - linux-asan: the unit suites and its end-to-end tests in one ctest run
  #   (the end-to-end tests, which the Azurite clean-up waits for, start
  #   first; no unit shard is long enough to run alone at the end).
  # - windows-mingw: everything. Under Wine a test process now and then
  #   loses its connection to the Wine server ("wine client error: recvmsg:
  #   Connection reset by peer") and dies before running a line of the
  #   test; such a test is run once more.
  # - linux-debug (on request): everything, in one run.
  heavy_e2e='^(RepositoryToolTest|FaultTest)\.'
  # No test runs longer than 15 minutes (those that set a limit of their
  # own keep it): a hang fails that test, not the whole run.
  limit=(--timeout 900)
  case $preset in
    linux-release)
      # The test programs list their tests when ctest first reads them
      # (gtest_discover_tests, PRE_TEST): once, here, before the two ctest
      # runs below start. Two runs listing at once appended to the same
      # list, so that tests were named twice, and the second copy of the
      # last one ran after the fixture had stopped the shared Azurite.
      ctest --preset "$preset" -N >/dev/null
      ctest --preset "$preset" "${limit[@]}" -LE end-to-end -j1 &
      units=$!
      ctest --preset "$preset" "${limit[@]}" -L end-to-end -R "$heavy_e2e" -j2
      e2e=$?
      wait $units && [ $e2e -eq 0 ] || failed+=("$preset (tests)")
      ;;
    linux-asan) ctest --preset "$preset" "${limit[@]}" -E "$heavy_e2e" || failed+=("$preset (tests)") ;;
    windows-mingw) ctest --preset "$preset" "${limit[@]}" --repeat until-pass:2 || failed+=("$preset (tests)") ;;
    *) ctest --preset "$preset" "${limit[@]}" || failed+=("$preset (tests)") ;;
  esac
  echo "==== ${preset}: tests took ${SECONDS} s"
  # The object files are done with once the suites have run: a machine with
  # little disk keeps room for the next build (the staged tools and the
  # test programs stay; the Windows suite runs the Linux build's tool).
  find "build/$preset" \( -name '*.o' -o -name '*.obj' \) -delete 2>/dev/null
  echo "==== ${preset}: $(df -h --output=avail . | tail -1 | tr -d ' ') free on the disk"
done

if [ ${#failed[@]} -gt 0 ]; then
  echo "FAILED: ${failed[*]}"
  exit 1
fi
echo "All suites passed: ${presets[*]}"
