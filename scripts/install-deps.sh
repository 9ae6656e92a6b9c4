#!/usr/bin/env bash
# Installs the Debian packages that building, running and testing Sprelio need. Safe to run again:
# when everything is present it changes nothing and asks apt nothing.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config
  libsqlite3-dev sqlite3 nlohmann-json3-dev libzip-dev unzip libicu-dev
  libgtest-dev libgmock-dev googletest libbenchmark-dev
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

sudo=""
if [ "$(id -u)" -ne 0 ]; then
  sudo="sudo"
fi

echo "install-deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
