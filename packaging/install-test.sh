#!/usr/bin/env bash
# The packages on a clean Debian 12, as a user gets them: a fresh root made by mmdebstrap from Debian's archive
# (Essential packages and apt, nothing else), `apt-get install ./sprelio_*.deb ./sprelio-server_*.deb` there with apt
# fetching every dependency (Recommends left out, so that the Depends are shown to suffice), then inside it:
#   - sprelio --version and sprelio-server --help;
#   - sprelio transcribe of a sentence spoken by festival, on the embedded server, by an ordinary user;
#   - the desktop application under Xvfb until it logs that it is ready, its autostart entry validated, a clean exit;
#   - sprelio-server started as its unit starts it (user, configuration, data folder), answering HTTP;
#   - a purge of both packages: the service's data and configuration go, nothing of the packages is left.
# Xvfb is added only after the package checks, so that it cannot supply a library the packages forgot.
# Downloaded packages are kept in WORK_DIR/apt-archives for the next run; the root itself is thrown away.
# Needs root (or unprivileged user namespaces), mmdebstrap, festival's text2wave and desktop-file-validate.
# Usage: packaging/install-test.sh PACKAGE_DIR WORK_DIR
set -euo pipefail

MIRROR=${SPRELIO_DEBIAN_MIRROR:-http://deb.debian.org/debian}
SECURITY_MIRROR=${SPRELIO_DEBIAN_SECURITY_MIRROR:-http://deb.debian.org/debian-security}
SENTENCE="hello this is a test of dictation"
READY_LINE="Desktop.launch() - ready: the hotkeys are live"

now() { date +%s.%N; }
elapsed() { python3 -c "import sys; print(f'{float(sys.argv[2]) - float(sys.argv[1]):.1f}')" "$1" "$(now)"; }
say() { printf '== %s\n' "$*"; }
# A child that has ended stays a zombie until waited for, and kill -0 still reaches a zombie.
alive() { [ -e "/proc/$1" ] && ! grep -q '^State:[[:space:]]*Z' "/proc/$1/status" 2>/dev/null; }
fail() {
  printf 'install-test: FAILED: %s\n' "$*" >&2
  exit 1
}

# Runs on the host as mmdebstrap's customize hook, with the finished root as $1.
inside() {
  local root=$1 work=$2
  # shellcheck source=/dev/null
  source "$work/test.env"
  pids=()
  # Whatever still runs in the root when this ends would keep mmdebstrap from unmounting it.
  trap 'kill -9 "${pids[@]}" 2>/dev/null || true' EXIT

  as_root() {
    chroot "$root" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LANG=C.UTF-8 DEBIAN_FRONTEND=noninteractive \
      HOME=/root "$@"
  }
  # The root's size without apt's downloads and lists, in KiB; /proc, /sys and /dev are mounts and not counted.
  root_size() { du -skx --exclude="$root/var/cache/apt" --exclude="$root/var/lib/apt/lists" "$root" | cut -f1; }
  # An ordinary user's command, as a plain command line so that `&` gives the program's own process id.
  local as_user=()

  say "apt-get install ./${APP_DEB} ./${SERVER_DEB}"
  mkdir -p "$root/tmp/packages"
  cp "$PACKAGE_DIR/$APP_DEB" "$PACKAGE_DIR/$SERVER_DEB" "$root/tmp/packages/"
  # apt reads local packages as its own unprivileged user.
  chmod 0755 "$root/tmp/packages"
  chmod 0644 "$root/tmp/packages/"*.deb
  # mmdebstrap's apt leaves Recommends out, so the programs below run on the Depends alone. What apt's default,
  # Recommends included (a sound server among them), would add, for comparison:
  as_root sh -c 'cd /tmp/packages && apt-get install -s -o APT::Install-Recommends=true \
    ./sprelio_*.deb ./sprelio-server_*.deb' | grep -E "newly installed" | sed 's/^/with Recommends: /' || true
  local started before
  before=$(root_size)
  started=$(now)
  as_root sh -c 'cd /tmp/packages && apt-get install -y ./sprelio_*.deb ./sprelio-server_*.deb' \
    >"$work/apt-install.log" 2>&1 || { tail -40 "$work/apt-install.log"; fail "apt-get install"; }
  echo "apt-get install took $(elapsed "$started") s"
  grep -E "newly installed|After this operation" "$work/apt-install.log"
  for package in sprelio sprelio-server; do
    printf '%s: %s, installed size %s KiB\n' "$package" \
      "$(as_root dpkg-query -W -f='${Version} ${Status}' "$package")" \
      "$(as_root dpkg-query -W -f='${Installed-Size}' "$package")"
  done
  echo "the root grew from $((before / 1024)) MiB to $(($(root_size) / 1024)) MiB"

  say "sprelio --version"
  as_root sprelio --version | tee "$work/version.txt"
  grep -q "^Sprelio $VERSION " "$work/version.txt" || fail "sprelio --version does not name $VERSION"

  say "sprelio-server --help"
  as_root sprelio-server --help | tee "$work/server-help.txt" | head -3
  grep -q "^Usage: sprelio-server" "$work/server-help.txt" || fail "sprelio-server --help"

  say "the service's user"
  local account
  account=$(as_root getent passwd sprelio-server) || fail "postinst made no user sprelio-server"
  echo "$account"
  case "$account" in
    *:/var/lib/sprelio-server:/usr/sbin/nologin) ;;
    *) fail "sprelio-server's home or shell: $account" ;;
  esac

  say "an ordinary user"
  as_root adduser --disabled-password --gecos "" --quiet tester
  local uid gid
  uid=$(as_root id -u tester)
  gid=$(as_root id -g tester)
  install -d -m 0700 -o "$uid" -g "$gid" "$root/tmp/run-tester"
  as_user=(chroot --userspec="$uid:$gid" "$root" /usr/bin/env -i PATH=/usr/bin:/bin LANG=C.UTF-8 HOME=/home/tester
    XDG_RUNTIME_DIR=/tmp/run-tester)
  install -m 0644 "$work/speech.wav" "$root/tmp/speech.wav"

  say "sprelio transcribe (embedded server) of festival's \"$SENTENCE\""
  started=$(now)
  "${as_user[@]}" sprelio transcribe /tmp/speech.wav >"$work/transcript.txt" 2>"$work/transcribe.err" ||
    { cat "$work/transcribe.err"; fail "sprelio transcribe"; }
  echo "transcript: \"$(cat "$work/transcript.txt")\" in $(elapsed "$started") s"
  # The share of the sentence's words that were heard, as the command-line tests count it.
  python3 - "$SENTENCE" "$work/transcript.txt" <<'EOF' || fail "the transcript misses too many words"
import re, sys
reference = sys.argv[1].split()
heard = set(re.findall(r"[a-z0-9']+", open(sys.argv[2]).read().lower()))
found = sum(word in heard for word in reference) / len(reference)
print(f"words found: {found:.2f}")
sys.exit(0 if found >= 0.6 else 1)
EOF

  say "the desktop application under Xvfb"
  as_root apt-get install -y --no-install-recommends xvfb >"$work/apt-xvfb.log" 2>&1 ||
    { tail -20 "$work/apt-xvfb.log"; fail "apt-get install xvfb"; }
  # Xvfb picks a free display itself: the root shares the host's network, and so its abstract X sockets.
  install -d -m 1777 "$root/tmp/.X11-unix"
  "${as_user[@]}" Xvfb -displayfd 3 -nolisten tcp -screen 0 1280x800x24 3>"$work/display" 2>"$work/xvfb.log" &
  pids+=($!)
  local deadline=$((SECONDS + 20))
  until [ -s "$work/display" ]; do
    [ $SECONDS -lt $deadline ] || { cat "$work/xvfb.log"; fail "Xvfb did not start"; }
    sleep 0.2
  done
  local display
  display=:$(head -1 "$work/display")
  echo "Xvfb on $display"
  local log="$root/home/tester/.local/share/Sprelio/logs/app_log.txt"
  started=$(now)
  "${as_user[@]}" DISPLAY="$display" sprelio >"$work/desktop.out" 2>&1 &
  local app=$!
  pids+=("$app")
  deadline=$((SECONDS + 60))
  until [ -f "$log" ] && grep -qF "$READY_LINE" "$log"; do
    if ! alive "$app" || [ $SECONDS -ge $deadline ]; then
      cat "$work/desktop.out"
      [ ! -f "$log" ] || tail -30 "$log"
      fail "the desktop application did not get ready"
    fi
    sleep 0.2
  done
  echo "ready after $(elapsed "$started") s: $(grep -F "$READY_LINE" "$log" | head -1)"
  local entry="$root/home/tester/.config/autostart/com.sprelio.app.desktop"
  [ -f "$entry" ] || fail "no autostart entry at ~/.config/autostart/com.sprelio.app.desktop"
  echo "autostart entry written, $(grep '^Exec=' "$entry")"
  local validated
  validated=$(desktop-file-validate "$entry" 2>&1) || true
  [ -z "$validated" ] || { echo "$validated"; fail "the autostart entry does not validate"; }
  echo "desktop-file-validate ~/.config/autostart/com.sprelio.app.desktop: valid"
  kill -TERM "$app"
  local status=0
  wait "$app" || status=$?
  [ "$status" -eq 0 ] || { cat "$work/desktop.out"; fail "the desktop application exited with $status on SIGTERM"; }
  echo "SIGTERM: exit status 0"
  cp "$log" "$work/app_log.txt"
  kill -TERM "${pids[0]}" 2>/dev/null || true
  wait "${pids[0]}" 2>/dev/null || true
  pids=()

  say "sprelio-server as its unit starts it"
  local unit="$root/lib/systemd/system/sprelio-server.service"
  local exec user umask state_mode
  exec=$(sed -n 's/^ExecStart=//p' "$unit")
  user=$(sed -n 's/^User=//p' "$unit")
  umask=$(sed -n 's/^UMask=//p' "$unit")
  state_mode=$(sed -n 's/^StateDirectoryMode=//p' "$unit")
  # What systemd does for StateDirectory=, StateDirectoryMode= and UMask=, then the service's own command line on a
  # free port (the root shares the host's network).
  local server_uid server_gid port
  server_uid=$(as_root id -u "$user")
  server_gid=$(as_root id -g "$user")
  install -d -m "${state_mode:-0755}" -o "$server_uid" -g "$server_gid" "$root/var/lib/sprelio-server"
  port=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
  echo "$user, umask ${umask:-0022}: $exec --port $port"
  chroot --userspec="$server_uid:$server_gid" "$root" /usr/bin/env -i PATH=/usr/bin:/bin LANG=C.UTF-8 \
    /bin/sh -c "umask ${umask:-0022} && exec $exec --port $port" >"$work/server.log" 2>&1 &
  local server=$!
  pids+=("$server")
  deadline=$((SECONDS + 30))
  local answer=""
  until answer=$(curl -s -o /dev/null -w '%{http_code}' "http://127.0.0.1:$port/") && [ "$answer" != "000" ]; do
    if ! alive "$server" || [ $SECONDS -ge $deadline ]; then
      cat "$work/server.log"
      fail "sprelio-server did not answer"
    fi
    sleep 0.2
  done
  echo "HTTP answer on 127.0.0.1:$port: $answer"
  local token="$root/var/lib/sprelio-server/local-token"
  [ -f "$token" ] || fail "no local-token in /var/lib/sprelio-server"
  # Numbers: the host's names for them are not the root's.
  echo "local-token: owner uid $(stat -c '%u, mode %a' "$token") (uid $server_uid is $user)"
  [ "$(stat -c '%u %a' "$token")" = "$server_uid 600" ] || fail "local-token is not the service user's, mode 0600"
  local readable
  readable=$(cd "$root/var/lib" && find sprelio-server -perm /o=r,o=x)
  [ -z "$readable" ] || fail "other users can read the service's data: $readable"
  echo "the data folder: $(stat -c 'mode %a' "$root/var/lib/sprelio-server"), $(cd "$root/var/lib/sprelio-server" &&
    find . -type f | wc -l) files, none readable by other users"
  kill -TERM "$server"
  status=0
  wait "$server" || status=$?
  pids=()
  [ "$status" -eq 0 ] || { cat "$work/server.log"; fail "sprelio-server exited with $status on SIGTERM"; }
  echo "SIGTERM: exit status 0"

  say "apt-get purge sprelio sprelio-server"
  as_root apt-get purge -y sprelio sprelio-server >"$work/apt-purge.log" 2>&1 ||
    { tail -20 "$work/apt-purge.log"; fail "apt-get purge"; }
  local left=""
  for path in /usr/bin/sprelio /usr/bin/sprelio-server /var/lib/sprelio-server /etc/sprelio \
    /lib/systemd/system/sprelio-server.service /usr/share/sprelio; do
    if [ -e "$root$path" ]; then left+=" $path"; fi
  done
  [ -z "$left" ] || fail "left after the purge:$left"
  if as_root dpkg-query -W -f='${Status}\n' sprelio sprelio-server 2>/dev/null | grep -qv "not-installed"; then
    fail "dpkg still knows the packages after the purge"
  fi
  echo "nothing of either package is left; the system user stays: $(as_root getent passwd sprelio-server | cut -d: -f1,6)"
}

if [ "${1:-}" = "--inside" ]; then
  inside "$2" "$3"
  exit 0
fi

package_dir=$(realpath "${1:?usage: $0 PACKAGE_DIR WORK_DIR}")
work=$(realpath -m "${2:?usage: $0 PACKAGE_DIR WORK_DIR}")
for tool in mmdebstrap text2wave desktop-file-validate curl python3; do
  command -v "$tool" >/dev/null || fail "$tool is missing (scripts/install-deps.sh installs it)"
done
shopt -s nullglob
app_debs=("$package_dir"/sprelio_*.deb)
server_debs=("$package_dir"/sprelio-server_*.deb)
[ ${#app_debs[@]} -eq 1 ] && [ ${#server_debs[@]} -eq 1 ] ||
  fail "expected one sprelio_*.deb and one sprelio-server_*.deb in $package_dir"
shopt -u nullglob

mkdir -p "$work/apt-archives"
rm -f "$work"/*.log "$work"/*.txt "$work/display" "$work/speech.wav" "$work/report.txt"
echo "$SENTENCE" | text2wave -eval '(voice_cmu_us_slt_arctic_hts)' -o "$work/speech.wav" >/dev/null 2>&1 ||
  fail "festival's text2wave could not speak"
cat >"$work/test.env" <<EOF
PACKAGE_DIR=$(printf %q "$package_dir")
APP_DEB=$(printf %q "$(basename "${app_debs[0]}")")
SERVER_DEB=$(printf %q "$(basename "${server_debs[0]}")")
VERSION=$(printf %q "$(dpkg-deb -f "${app_debs[0]}" Version)")
EOF

self=$(realpath "$0")
status=0
started=$(now)
say "a Debian 12 root from $MIRROR"
mmdebstrap --variant=apt --skip=essential/unlink --skip=download/empty \
  --setup-hook='mkdir -p "$1"/var/cache/apt/archives/' \
  --setup-hook="sync-in $(printf %q "$work/apt-archives") /var/cache/apt/archives/" \
  --customize-hook="$(printf %q "$self") --inside \"\$1\" $(printf %q "$work") >$(printf %q "$work/report.txt") 2>&1" \
  --customize-hook="sync-out /var/cache/apt/archives $(printf %q "$work/apt-archives")" \
  bookworm /dev/null \
  "deb $MIRROR bookworm main" "deb $MIRROR bookworm-updates main" "deb $SECURITY_MIRROR bookworm-security main" \
  >"$work/mmdebstrap.log" 2>&1 || status=$?
# The checks' own account, whether they passed or not.
[ ! -f "$work/report.txt" ] || cat "$work/report.txt"
if [ "$status" -ne 0 ]; then
  tail -30 "$work/mmdebstrap.log"
  fail "mmdebstrap or a check in the root (above)"
fi
say "install test passed in $(elapsed "$started") s"
