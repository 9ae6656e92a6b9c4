#!/usr/bin/env bash
# Measures sprelio-server with real speech and prints the figures; run by hand, never by ctest:
#
#   ninja -C build bench_server sprelio-server && bench/server/measure-server.sh build [wer|rtf|latency|load]...
#
# (no section named: all four). Needs the packages of scripts/deps/bench.txt.
#
#   wer      word error rate with sclite on the LibriVox clips of pocketsphinx-testdata:
#            (a) the WAV clips through POST /transcribe of a sprelio-server started here, one request after the
#                other as a server serves them;
#            (b) pocketsphinx_continuous with the same model, one process per clip: the reference the server must
#                not fall behind;
#            (c) the clips as the application records them (our CAF Opus writer, 16 kbit/s) through the server;
#            (d) the clips encoded by FFmpeg's libopus at 16 kbit/s (its defaults otherwise) through the server;
#            then (c) and (d) scored against the server's transcript of the WAV (a): the words each codec changed;
#            (e, f, g) WAV, our CAF Opus and FFmpeg's libopus once more on 30 festival sentences (about 290 words).
#   rtf      decoding and recognition time over audio time (bench_server rtf).
#   latency  a 5-second festival dictation through the application's upload client (bench_server latency).
#   load     16 clients at once (bench_server load): default engine slots and worker threads, turned-away
#            clients asking again at once and after 1 s; then 16 slots with the default worker threads and with 16.
#
# Environment: RUNS (latency rounds, 20), CLIENTS (16), DICTATIONS (per client and load run, 3).
set -euo pipefail

build=${1:-build}
shift || true
sections=("$@")
[ ${#sections[@]} -eq 0 ] && sections=(wer rtf latency load)

bench="$build/bench/bench_server"
server="$build/server/sprelio-server"
clips=/usr/share/pocketsphinx/test/data/librivox
model=/usr/share/pocketsphinx/model/en-us
sclite=/usr/lib/sctk/bin/sclite

for tool in "$bench" "$server" "$sclite" "$(command -v pocketsphinx_continuous || echo pocketsphinx_continuous)" \
    "$(command -v ffmpeg || echo ffmpeg)" "$clips/transcription"; do
  if [ ! -e "$tool" ]; then
    echo "measure-server: $tool is missing (build bench_server and sprelio-server; scripts/install-deps.sh)" >&2
    exit 2
  fi
done

work=$(mktemp -d "${TMPDIR:-/tmp}/sprelio-measure-XXXXXX")
server_pid=
cleanup() {
  if [ -n "$server_pid" ]; then kill "$server_pid" 2>/dev/null || true; wait "$server_pid" 2>/dev/null || true; fi
  rm -rf "$work"
}
trap cleanup EXIT

mapfile -t ids < "$clips/fileids"

# sclite compares words as they stand: lower case, no punctuation, ids kept.
normalise() {
  sed -E 's/^(.*) \(([^()]*)\)$/\1\t\2/' | while IFS=$'\t' read -r text id; do
    text=$(printf '%s' "$text" | tr '[:upper:]' '[:lower:]' | sed -E "s/[^a-z0-9' ]+/ /g; s/ +/ /g; s/^ //; s/ $//")
    printf '%s (%s)\n' "$text" "$id"
  done
}

score() { # name hypothesis-file [reference-file]
  local name=$1 hyp=$2 ref=${3:-$work/ref.trn}
  echo "---- $name"
  [ $# -lt 3 ] && cat "$hyp"
  "$sclite" -r "$ref" trn -h "$hyp" trn -i rm -o sum stdout >"$work/$name.sclite" 2>&1 || true
  local line
  line=$(grep -E '\| *Sum/Avg' "$work/$name.sclite" | sed -E 's/^ +//' || true)
  if [ -z "$line" ]; then
    echo "sclite failed:" && cat "$work/$name.sclite"
    return 1
  fi
  echo "| $name"
  grep -E 'SPKR' "$work/$name.sclite" | head -1 | sed -E 's/^ +//'
  echo "$line"
}

start_server() {
  "$server" --port 0 --data "$work/data" 2>"$work/server.log" &
  server_pid=$!
  local url=
  for _ in $(seq 1 600); do
    url=$(sed -nE 's/.*announced as (http:[^ ]*).*/\1/p' "$work/server.log" | head -1)
    [ -n "$url" ] && break
    kill -0 "$server_pid" 2>/dev/null || { cat "$work/server.log" >&2; return 1; }
    sleep 0.1
  done
  [ -n "$url" ] || { echo "sprelio-server did not start" >&2; return 1; }
  server_url=$url
}

run_wer() {
  echo "== Word error rate: ${#ids[@]} LibriVox clips of pocketsphinx-testdata, sclite"
  sed -E 's/<s> //; s# </s>##' "$clips/transcription" >"$work/ref.trn"
  start_server
  local token="$work/data/local-token"
  mkdir -p "$work/caf" "$work/ffopus"
  local wavs=() cafs=() opus=()
  for id in "${ids[@]}"; do
    wavs+=("$clips/$id.wav")
    "$bench" encode-caf "$clips/$id.wav" "$work/caf/$id.caf"
    cafs+=("$work/caf/$id.caf")
    ffmpeg -nostdin -hide_banner -loglevel error -y -i "$clips/$id.wav" -c:a libopus -b:a 16k "$work/ffopus/$id.caf"
    opus+=("$work/ffopus/$id.caf")
  done
  echo "sizes: WAV $(cat "${wavs[@]}" | wc -c) bytes, our CAF Opus $(cat "${cafs[@]}" | wc -c) bytes," \
    "FFmpeg libopus CAF $(cat "${opus[@]}" | wc -c) bytes"

  "$bench" transcribe --url "$server_url" --token-file "$token" "${wavs[@]}" | normalise >"$work/a-server-wav.trn"
  score a-server-wav "$work/a-server-wav.trn"

  : >"$work/b-cli-wav.trn"
  for id in "${ids[@]}"; do
    hyp=$(pocketsphinx_continuous -infile "$clips/$id.wav" -hmm "$model/en-us" -lm "$model/en-us.lm.bin" \
      -dict "$model/cmudict-en-us.dict" -logfn /dev/null | tr '\n' ' ')
    printf '%s (%s)\n' "$hyp" "$id" | normalise >>"$work/b-cli-wav.trn"
  done
  score b-cli-wav "$work/b-cli-wav.trn"
  if cmp -s "$work/a-server-wav.trn" "$work/b-cli-wav.trn"; then
    echo "server and pocketsphinx_continuous: the same words for every clip"
  else
    echo "server and pocketsphinx_continuous differ:"
    diff "$work/b-cli-wav.trn" "$work/a-server-wav.trn" || true
  fi

  "$bench" transcribe --url "$server_url" --token-file "$token" "${cafs[@]}" | normalise >"$work/c-server-caf-ours.trn"
  score c-server-caf-ours "$work/c-server-caf-ours.trn"
  "$bench" transcribe --url "$server_url" --token-file "$token" "${opus[@]}" | normalise >"$work/d-server-caf-ffmpeg.trn"
  score d-server-caf-ffmpeg "$work/d-server-caf-ffmpeg.trn"
  # With 71 words one word is 1.4 points: what each codec changed against the server's own WAV transcript
  # tells the codecs apart more directly than the error rates.
  score c-vs-a-ours "$work/c-server-caf-ours.trn" "$work/a-server-wav.trn"
  score d-vs-a-ffmpeg "$work/d-server-caf-ffmpeg.trn" "$work/a-server-wav.trn"

  run_festival_codecs
  kill "$server_pid" && wait "$server_pid" || true
  server_pid=
}

# The same codec comparison on more words: festival's reading of dictation-like sentences, as 16 kHz WAV, as our
# CAF Opus and as FFmpeg's libopus, each scored against the sentences.
run_festival_codecs() {
  echo "== Codecs on ${#sentences[@]} festival sentences (voice cmu_us_slt_arctic_hts), sclite"
  local folder="$work/festival" n=0 wavs=() cafs=() opus=()
  mkdir -p "$folder"
  : >"$folder/ref.trn"
  for sentence in "${sentences[@]}"; do
    n=$((n + 1))
    local id
    id=$(printf 'festival-%02d' "$n")
    printf '%s\n' "$sentence" >"$folder/$id.txt"
    text2wave -eval '(voice_cmu_us_slt_arctic_hts)' -o "$folder/$id-voice.wav" "$folder/$id.txt" >/dev/null 2>&1
    # One 16 kHz version feeds all three, so that only the codec differs.
    ffmpeg -nostdin -hide_banner -loglevel error -y -i "$folder/$id-voice.wav" -ar 16000 "$folder/$id.wav"
    "$bench" encode-caf "$folder/$id.wav" "$folder/$id.caf"
    ffmpeg -nostdin -hide_banner -loglevel error -y -i "$folder/$id.wav" -c:a libopus -b:a 16k "$folder/$id.opus.caf"
    printf '%s (%s)\n' "$sentence" "$id" >>"$folder/ref.trn"
    wavs+=("$folder/$id.wav") cafs+=("$folder/$id.caf") opus+=("$folder/$id.opus.caf")
  done
  local token="$work/data/local-token"
  "$bench" transcribe --url "$server_url" --token-file "$token" "${wavs[@]}" | normalise >"$work/e-festival-wav.trn"
  "$bench" transcribe --url "$server_url" --token-file "$token" "${cafs[@]}" | normalise >"$work/f-festival-caf-ours.trn"
  # FFmpeg's files are named id.opus.caf; the transcript's id is the name without its last extension.
  "$bench" transcribe --url "$server_url" --token-file "$token" "${opus[@]}" | sed -E 's/\.opus\)$/)/' | normalise \
    >"$work/g-festival-caf-ffmpeg.trn"
  score e-festival-wav "$work/e-festival-wav.trn" "$folder/ref.trn"
  score f-festival-caf-ours "$work/f-festival-caf-ours.trn" "$folder/ref.trn"
  score g-festival-caf-ffmpeg "$work/g-festival-caf-ffmpeg.trn" "$folder/ref.trn"
}

sentences=(
  "please call me tomorrow morning at the office"
  "the weather is nice today so we will walk to the station"
  "send the invoice to the accounting team before friday"
  "i think we should move the meeting to thursday afternoon"
  "can you remind me to buy milk and bread on the way home"
  "the new version of the report is ready for review"
  "our train leaves at seven thirty from platform four"
  "thank you for your help with the project last week"
  "let us schedule a call with the customer next monday"
  "the printer on the second floor is out of paper again"
  "please add a note that the budget was approved yesterday"
  "we need three more chairs for the conference room"
  "my flight was delayed by two hours because of the storm"
  "the children are playing in the garden behind the house"
  "remember to water the plants while i am away"
  "he said that the results would be published next month"
  "the doctor asked me to come back in two weeks"
  "we should order pizza for the team on friday evening"
  "the car needs new tires before the winter starts"
  "write down the phone number of the hotel please"
  "i will send you the slides after the presentation"
  "the library closes early on saturday and sunday"
  "she bought a red bicycle for her daughter"
  "the engineers found a problem in the cooling system"
  "please turn off the lights when you leave the room"
  "our neighbours are moving to a bigger apartment in june"
  "the coffee machine in the kitchen is broken"
  "we are going to visit my parents for the holidays"
  "the museum has a new exhibition about ancient rome"
  "do not forget to sign the contract before noon"
)

for section in "${sections[@]}"; do
  case "$section" in
  wer) run_wer ;;
  rtf)
    echo "== Real-time factor of the embedded engine on the same clips"
    "$bench" rtf --repeat 3 "$clips"/*.wav
    ;;
  latency)
    echo "== Latency of a 5-second dictation, end to end on loopback"
    "$bench" latency --runs "${RUNS:-20}"
    ;;
  load)
    n=${CLIENTS:-16} k=${DICTATIONS:-3}
    echo "== $n clients at once, default engine slots and worker threads, turned-away requests sent again at once"
    "$bench" load --clients "$n" --dictations "$k"
    echo "== the same, sent again 1 s after NoOnlineFarms"
    "$bench" load --clients "$n" --dictations "$k" --busy-pause-ms 1000
    echo "== $n clients at once, 16 engine slots, default worker threads"
    "$bench" load --clients "$n" --dictations "$k" --slots 16
    echo "== $n clients at once, 16 engine slots, 16 worker threads"
    "$bench" load --clients "$n" --dictations "$k" --slots 16 --threads 16
    ;;
  *) echo "measure-server: unknown section $section (wer, rtf, latency, load)" >&2; exit 2 ;;
  esac
done
