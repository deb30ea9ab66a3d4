#!/usr/bin/env bash
# Fetches the upstream source archive of a Debian source package (the
# .orig.tar.* that `apt-get source` downloads, checked by apt against the
# archive's signed index) into a folder, and prints its path. Used by the
# Windows cross build for libraries Debian ships no MinGW build of (zstd).
#
#   scripts/debian-source.sh SOURCE-PACKAGE FOLDER
#
# Needs no root and leaves the machine's apt set-up alone: it keeps a private
# source list (deb-src of the machine's own release) and package lists under
# FOLDER/apt. An archive already in FOLDER is reused.
set -euo pipefail
package=$1
folder=$2
mkdir -p "$folder"
folder=$(cd "$folder" && pwd)

existing=$(ls "$folder/${package}"_*.orig.tar.* 2>/dev/null | grep -v '\.asc$' | head -n1 || true)
if [ -n "$existing" ]; then
  echo "$existing"
  exit 0
fi

. /etc/os-release
codename=${VERSION_CODENAME:?/etc/os-release names no release}
keyring=/usr/share/keyrings/debian-archive-keyring.gpg
apt_dir=$folder/apt
mkdir -p "$apt_dir/lists/partial" "$apt_dir/cache/archives/partial"
echo "deb-src [signed-by=$keyring] http://deb.debian.org/debian $codename main" >"$apt_dir/sources.list"
echo "deb-src [signed-by=$keyring] http://deb.debian.org/debian $codename-updates main" >>"$apt_dir/sources.list"
apt_options=(-o "Dir::Etc::SourceList=$apt_dir/sources.list" -o "Dir::Etc::SourceParts=-"
             -o "Dir::State::Lists=$apt_dir/lists" -o "Dir::Cache=$apt_dir/cache" -o "APT::Sandbox::User=$(id -un)")
apt-get "${apt_options[@]}" -qq update >&2
(cd "$folder" && apt-get "${apt_options[@]}" -qq source --download-only "$package" >&2)

archive=$(ls "$folder/${package}"_*.orig.tar.* 2>/dev/null | grep -v '\.asc$' | head -n1 || true)
[ -n "$archive" ] || { echo "no upstream archive of $package was downloaded" >&2; exit 1; }
echo "$archive"
