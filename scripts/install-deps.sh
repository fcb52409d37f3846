#!/usr/bin/env bash
# Installs what building and testing need on Debian 12. Does nothing when all of it is there
# already, so that a prepared machine (or a CI rerun) doesn't wait for apt.
set -euo pipefail

# The fuzz targets need clang; on Debian 12 its libFuzzer and sanitizer runtimes come in
# libclang-rt-14-dev, which clang doesn't pull in without the recommended packages.
packages=(cmake g++ make libgtest-dev libbenchmark-dev libssl-dev openssl ffmpeg pkg-config clang-format
  mandoc man-db jq python3 dpkg-dev clang libclang-rt-14-dev)

missing=()
for package in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${Status}' "$package" 2>/dev/null || true)
  if [[ "$status" != "install ok installed" ]]; then
    missing+=("$package")
  fi
done

if [[ ${#missing[@]} -eq 0 ]]; then
  echo "install-deps: everything is installed"
  exit 0
fi

sudo=()
if [[ $(id -u) -ne 0 ]]; then
  sudo=(sudo)
fi

echo "install-deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
"${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update
"${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "${missing[@]}"
