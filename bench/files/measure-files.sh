#!/bin/sh
# The Files figures: wall time per audio minute of a 30-minute recording of festival's speech, and the client's
# peak memory while it goes up and comes back as text.
#
#   bench/files/measure-files.sh BUILD_DIR [MINUTES]
#
# Two runs of the long-file path (`sprelio transcribe --long`, the same upload and stream as the Files tab):
#  1. on the embedded server, in the client's own process (the default "embedded" API): wall time per audio minute;
#  2. on sprelio-server in a process of its own, so that the client's peak resident memory is the client's alone.
set -eu
BUILD=${1:?usage: measure-files.sh BUILD_DIR [MINUTES]}
MINUTES=${2:-30}
SPRELIO=$BUILD/src/sprelio
SERVER=$BUILD/server/sprelio-server
WORK=$(mktemp -d /tmp/sprelio-files-bench-XXXXXX)
SERVER_PID=
cleanup() {
    [ -n "$SERVER_PID" ] && kill "$SERVER_PID" 2>/dev/null && wait "$SERVER_PID" 2>/dev/null
    rm -rf "$WORK"
}
trap cleanup EXIT INT TERM

# About 30 s of speech with pauses, looped to the length asked for.
i=0
for s in "Please call me tomorrow morning at the office." "The weather is nice today." \
         "We will meet again next week." "I would like a cup of coffee." \
         "The children are playing in the garden." "She reads a book every evening." \
         "Turn left at the next corner." "My brother works at the bank." \
         "The train leaves at seven o'clock." "Thank you very much for your help."; do
    echo "$s" | text2wave -eval '(voice_cmu_us_slt_arctic_hts)' -o "$WORK/s$i.wav" >/dev/null 2>&1
    echo "file '$WORK/s$i.wav'" >> "$WORK/list.txt"
    echo "file '$WORK/pause.wav'" >> "$WORK/list.txt"
    i=$((i + 1))
done
ffmpeg -nostdin -loglevel error -f lavfi -i anullsrc=r=16000:cl=mono -t 1 "$WORK/pause.wav"
ffmpeg -nostdin -loglevel error -f concat -safe 0 -i "$WORK/list.txt" -ac 1 -ar 16000 "$WORK/round.wav"
ffmpeg -nostdin -loglevel error -stream_loop -1 -i "$WORK/round.wav" -t $((MINUTES * 60)) -ac 1 -ar 16000 \
    "$WORK/long.wav"
SECONDS_OF_AUDIO=$(ffprobe -v error -show_entries format=duration -of csv=p=0 "$WORK/long.wav")
echo "audio: $SECONDS_OF_AUDIO s ($(du -h "$WORK/long.wav" | cut -f1))"

run() { # HOME, then the rest of the environment; prints "wall_seconds peak_kib"
    home=$1; shift
    env -i PATH=/usr/bin:/bin HOME="$home" "$@" /usr/bin/time -f "%e %M" -o "$home/time.txt" \
        "$SPRELIO" transcribe --long "$WORK/long.wav" >"$home/text.txt" 2>"$home/progress.txt"
    cat "$home/time.txt"
}

mkdir -p "$WORK/embedded"
set -- $(run "$WORK/embedded")
echo "embedded server: wall $1 s, $(echo "$1 $SECONDS_OF_AUDIO" | awk '{printf "%.2f", $1 / ($2 / 60)}') s per audio minute, peak RSS of client and server together ${2} KiB"
echo "  progress lines: $(grep -c '\[' "$WORK/embedded/progress.txt"), words: $(wc -w < "$WORK/embedded/text.txt")"

mkdir -p "$WORK/server" "$WORK/external"
"$SERVER" --port 0 --data "$WORK/server" 2>"$WORK/server.log" &
SERVER_PID=$!
for _ in $(seq 100); do grep -q "listening on" "$WORK/server.log" && break; sleep 0.1; done
PORT=$(sed -n 's/.*listening on 127\.0\.0\.1:\([0-9]*\).*/\1/p' "$WORK/server.log" | head -1)
TOKEN=$(head -1 "$WORK/server/local-token")
mkdir -p "$WORK/external/.config/Sprelio"
printf '{"apiBaseURL":"http://127.0.0.1:%s","token":"%s"}\n' "$PORT" "$TOKEN" > "$WORK/external/.config/Sprelio/settings.json"
set -- $(run "$WORK/external")
echo "separate server: wall $1 s, $(echo "$1 $SECONDS_OF_AUDIO" | awk '{printf "%.2f", $1 / ($2 / 60)}') s per audio minute, client peak RSS ${2} KiB"
