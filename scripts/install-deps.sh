#!/usr/bin/env bash
# Installs the Debian 12 packages needed to build, test and benchmark the library.
# Does nothing when everything is already there.
set -euo pipefail
packages=(
  g++ cmake make pkg-config
  qtbase5-dev libqt5sql5-sqlite
  libplist-dev libprotobuf-dev protobuf-compiler
  libavformat-dev libssl-dev zlib1g-dev libmagic-dev
  libsqlite3-dev sqlite3 googletest libgtest-dev libgmock-dev libbenchmark-dev
  python3 time
  # the reference tools and producers the tool's tests compare with
  libplist-utils ffmpeg file
)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  sudo=""
  [ "$(id -u)" -ne 0 ] && sudo="sudo"
  echo "Installing: ${missing[*]}" >&2
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >&2
fi
