#!/usr/bin/env bash
# Installs what building and testing Tovrel needs on a Debian machine,
# skipping what is already there. Needs root (or sudo) when anything is missing.
set -euo pipefail

packages=(cmake make g++ binutils clang libclang-rt-dev zlib1g-dev googletest libgtest-dev
          libbenchmark-dev libsqlite3-dev liblmdb-dev libleveldb-dev
          libcurl4-openssl-dev nginx python3 nlohmann-json3-dev
          pkg-config g++-mingw-w64-x86-64-posix binutils-mingw-w64-x86-64 libz-mingw-w64-dev wine wine64)
missing=()
for p in "${packages[@]}"; do
  [ "$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null || true)" = "install ok installed" ] || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "installing: ${missing[*]}"
  sudo_cmd=""
  [ "$(id -u)" -ne 0 ] && sudo_cmd="sudo"
  # RUNLEVEL=1: packages that bring a service (nginx) do not start it.
  export DEBIAN_FRONTEND=noninteractive RUNLEVEL=1
  $sudo_cmd apt-get update -q
  $sudo_cmd apt-get install -y -q "${missing[@]}"
fi
