# What the side-by-side scripts (compare-rclone.sh, compare-restic.sh) share:
# installing what is missing, the cloudplugin-host to measure, Azurite's
# account SAS, CPU ticks of a process. Sourced from the repository's top
# folder after the script's options are read; uses and sets `tool`
# (empty: this checkout's demo build, built when missing), `repo` and
# `sudo_cmd`, and the script's own `fail`.

bench_as_root() {
  if [ ${#sudo_cmd[@]} -gt 0 ] && ! command -v sudo >/dev/null; then
    fail "need root or sudo to install: $*"
  fi
  "${sudo_cmd[@]}" "$@"
}

# bench_setup COMMAND...: installs the Debian packages of the commands that
# are missing (each named as its package), GNU time and openssl, what the
# build and Azurite need, Azurite itself; builds cloudplugin-host (niced:
# the build must not take the machine from whoever else uses it) when
# neither --tool nor an earlier build gives one.
bench_setup() {
  sudo_cmd=()
  [ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
  local packages=() command missing=() needed=(java npm) build_tool=no
  for command in "$@"; do
    command -v "$command" >/dev/null || packages+=("$command")
  done
  [ -x /usr/bin/time ] || packages+=(time)
  command -v openssl >/dev/null || packages+=(openssl)
  if [ ${#packages[@]} -gt 0 ]; then
    echo "==== installing ${packages[*]} (Debian packages)"
    bench_as_root env DEBIAN_FRONTEND=noninteractive apt-get update
    bench_as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "${packages[@]}"
  fi
  if [ -z "$tool" ]; then
    tool=$repo/build/demo/stage/bin/cloudplugin-host
    [ -x "$tool" ] || build_tool=yes
  fi
  [ $build_tool = yes ] && needed+=(cmake g++ make javac)
  for command in "${needed[@]}"; do
    command -v "$command" >/dev/null || missing+=("$command")
  done
  if [ -n "${AZURITE_BIN:-}" ] && [ ${#missing[@]} -eq 1 ] && [ "${missing[0]}" = npm ]; then
    missing=()  # Azurite is there already; node alone runs it
  fi
  if [ ${#missing[@]} -gt 0 ]; then
    echo "==== installing what is missing (${missing[*]})"
    bench_as_root bash scripts/setup.sh --demo
  fi
  # shellcheck source=scripts/azurite.sh
  . scripts/azurite.sh
  azurite_install
  if [ $build_tool = yes ]; then
    echo "==== building cloudplugin-host (demo preset)"
    nice cmake --preset demo >/dev/null
    nice cmake --build --preset demo
  fi
  [ -x "$tool" ] || fail "no cloudplugin-host at $tool"
}

# An account SAS for Azurite's development account (string to sign: account,
# permissions, services, resource types, start, expiry, IP range, protocol,
# version, encryption scope, each followed by a newline; HMAC-SHA256 with
# the base64-decoded key).
account_key=Eby8vdM02xNOcqFlqUwJPLlmEtlCDXJ1OUzFT50uSRZ6IFsuFq2UVErCz4I6tq/K1SZFPTOtr/KBHBeksoGMGw==
account_sas() {
  local sv=2020-12-06 sp=rwdlacup ss=b srt=sco se key_hex signature
  se=$(date -u -d '+1 day' +%Y-%m-%dT%H:%M:%SZ)
  key_hex=$(printf %s "$account_key" | base64 -d | od -An -v -tx1 | tr -d ' \n')
  signature=$(printf '%s\n' devstoreaccount1 "$sp" "$ss" "$srt" "" "$se" "" "" "$sv" "" |
    openssl dgst -sha256 -mac HMAC -macopt "hexkey:$key_hex" -binary | base64 -w0)
  signature=${signature//+/%2B} signature=${signature//\//%2F} signature=${signature//=/%3D}
  echo "sv=$sv&ss=$ss&srt=$srt&sp=$sp&se=${se//:/%3A}&sig=$signature"
}

quoted() { printf '%q ' "$@" | sed 's/ $//'; }
cpu_ticks() { awk '{ print $14 + $15 }' "/proc/$1/stat"; }
ticks_per_second=$(getconf CLK_TCK)
