#!/usr/bin/env bash
# Checks the Debian packages that cpack wrote, as a distribution would before taking them: lintian over each
# package (an error fails), the desktop entry and the AppStream metainfo as installed, through the freedesktop
# validators. Prints each package's size, installed size and dependencies.
# Usage: packaging/check-packages.sh PACKAGE_DIR
set -euo pipefail

dir=${1:?usage: $0 PACKAGE_DIR}
shopt -s nullglob
debs=("$dir"/*.deb)
if [ ${#debs[@]} -eq 0 ]; then
  echo "check-packages: no .deb in $dir" >&2
  exit 1
fi

for deb in "${debs[@]}"; do
  printf '%s: %s bytes, installed %s KiB\n' "$(basename "$deb")" "$(stat -c %s "$deb")" \
    "$(dpkg-deb -f "$deb" Installed-Size)"
  printf '  Depends: %s\n' "$(dpkg-deb -f "$deb" Depends)"
  recommends=$(dpkg-deb -f "$deb" Recommends)
  if [ -n "$recommends" ]; then printf '  Recommends: %s\n' "$recommends"; fi
done

unpacked=$(mktemp -d)
trap 'rm -rf "$unpacked"' EXIT
for deb in "${debs[@]}"; do dpkg-deb -x "$deb" "$unpacked"; done

status=0
echo "== desktop-file-validate"
for entry in "$unpacked"/usr/share/applications/*.desktop; do
  out=$(desktop-file-validate "$entry" 2>&1) || status=1
  # Warnings and hints do not change its exit status; here they fail as errors do.
  if [ -n "$out" ]; then echo "$out"; status=1; else echo "${entry#"$unpacked"}: valid"; fi
done
echo "== appstreamcli validate"
for metainfo in "$unpacked"/usr/share/metainfo/*.xml; do
  echo "${metainfo#"$unpacked"}:"
  appstreamcli validate --no-net --pedantic "$metainfo" || status=1
done
echo "== lintian"
# Errors fail; warnings and the informational tags are shown for whoever reads the build.
if lintian --fail-on error --display-info --pedantic "${debs[@]}"; then
  echo "lintian: no error"
else
  status=1
fi
exit $status
