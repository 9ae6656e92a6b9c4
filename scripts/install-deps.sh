#!/usr/bin/env bash
# Installs the Debian packages that building, running and testing Sprelio need, as listed in scripts/deps/*.txt
# (one file per area; '#' starts a comment). Safe to run again: when everything is present it changes nothing
# and asks apt nothing.
set -euo pipefail
cd "$(dirname "$0")"

mapfile -t packages < <(sed -e 's/#.*//' deps/*.txt | tr -s ' \t' '\n' | sed '/^$/d' | sort -u)

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
$sudo apt-get -o DPkg::Lock::Timeout=600 update -qq
$sudo apt-get -o DPkg::Lock::Timeout=600 install -y -qq --no-install-recommends "${missing[@]}"
