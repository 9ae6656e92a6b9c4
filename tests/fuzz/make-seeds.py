#!/usr/bin/env python3
"""Writes the seed corpora of the fuzz targets (tests/fuzz/corpus/<target>) with the project's own programs.

    tests/fuzz/make-seeds.py <normal build dir> <fuzz build dir>

- CAF files: the recorder's writer (make_caf_seeds of the fuzz build).
- Settings file and stored texts: the sprelio command line writes a settings file, the default shortcuts and a
  substitution into a scratch home; the seeds are that file and the texts of the store's rows.
- Answers of the account API, the upload and the long-file stream: a sprelio-server started on loopback, asked
  as the client asks it; each seed is "<status> <content type>" and the body, the parts separated by "~~~" lines.
- Raw requests of the server's target: the requests above as bytes, "@TOKEN@" in place of the token.
A few hostile seeds are written by hand below, each saying what it aims at. Run it again after a change of the
formats; the files are small and committed.
"""
import io
import json
import os
import shutil
import socket
import sqlite3
import subprocess
import sys
import tempfile
import time
import urllib.error
import urllib.request
import uuid
import wave

SEP = "\n~~~\n"
HERE = os.path.dirname(os.path.abspath(__file__))
CORPUS = os.path.join(HERE, "corpus")


def write(target, name, data):
    folder = os.path.join(CORPUS, target)
    os.makedirs(folder, exist_ok=True)
    if isinstance(data, str):
        data = data.encode()
    with open(os.path.join(folder, name), "wb") as out:
        out.write(data)


def answer(status, content_type, body):
    if isinstance(body, bytes):
        body = body.decode("utf-8", "replace")
    return f"{status} {content_type}\n{body}"


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def request(port, method, path, token=None, body=None, headers=None):
    req = urllib.request.Request(f"http://127.0.0.1:{port}{path}", data=body, method=method)
    if token:
        req.add_header("Authorization", "Bearer " + token)
    for name, value in (headers or {}).items():
        req.add_header(name, value)
    try:
        with urllib.request.urlopen(req, timeout=120) as response:
            return response.status, response.headers.get_content_type(), response.read()
    except urllib.error.HTTPError as error:
        return error.code, error.headers.get_content_type(), error.read()


def multipart(fields):
    boundary = "sprelio-seed-" + uuid.uuid4().hex
    out = io.BytesIO()
    for name, filename, content_type, data in fields:
        out.write(f"--{boundary}\r\n".encode())
        disposition = f'form-data; name="{name}"' + (f'; filename="{filename}"' if filename else "")
        out.write(f"Content-Disposition: {disposition}\r\nContent-Type: {content_type}\r\n\r\n".encode())
        out.write(data)
        out.write(b"\r\n")
    out.write(f"--{boundary}--\r\n".encode())
    return boundary, out.getvalue()


def raw_request(method, path, headers, body=b""):
    head = f"{method} {path} HTTP/1.1\r\nHost: 127.0.0.1\r\n"
    for name, value in headers:
        head += f"{name}: {value}\r\n"
    if body or method == "POST":
        head += f"Content-Length: {len(body)}\r\n"
    return head.encode() + b"\r\n" + body


def caf_seeds(fuzz_build):
    folder = os.path.join(CORPUS, "fuzz_caf")
    subprocess.run([os.path.join(fuzz_build, "tests/fuzz/make_caf_seeds"), folder], check=True)
    return open(os.path.join(folder, "finished.caf"), "rb").read()


def decoder_seeds(recording):
    write("fuzz_audio_decoder", "recording.caf", recording)
    samples = io.BytesIO()
    with wave.open(samples, "wb") as w:
        w.setnchannels(1)
        w.setsampwidth(2)
        w.setframerate(16000)
        w.writeframes(bytes(2 * 1600))
    write("fuzz_audio_decoder", "silence.wav", samples.getvalue())
    # A playlist and a protocol name: the decoder must read only the bytes it was given.
    write("fuzz_audio_decoder", "playlist.ffconcat", "ffconcat version 1.0\nfile 'other.upload'\n")
    write("fuzz_audio_decoder", "hls.m3u8", "#EXTM3U\n#EXTINF:1,\nfile:///etc/hostname\n")


def client_seeds(build, home):
    env = dict(os.environ, HOME=home, XDG_CONFIG_HOME=os.path.join(home, "config"),
               XDG_DATA_HOME=os.path.join(home, "data"))
    sprelio = os.path.join(build, "src/sprelio")
    for args in (["settings", "set", "soundEnabled", "true"], ["settings", "set", "minimumRecordingDuration", "250"],
                 ["shortcuts", "reset"], ["substitutions", "add", "teh", "the"]):
        subprocess.run([sprelio] + args, env=env, check=True, stdout=subprocess.DEVNULL, timeout=60)
    settings_path = os.path.join(home, "config/Sprelio/settings.json")
    settings_text = open(settings_path, "rb").read()
    write("fuzz_settings_file", "written-by-sprelio.json", settings_text)
    write("fuzz_settings_file", "empty-object.json", "{}")
    # Deep nesting: every reader of the file must refuse it rather than recurse through it.
    write("fuzz_settings_file", "deeply-nested.json", '{"a":' + "[" * 30000 + "]" * 30000 + "}")
    write("fuzz_settings_file", "wrong-types.json",
          json.dumps({"soundEnabled": "yes", "minimumRecordingDuration": -5, "balancers": {"a": 1},
                      "localizedTranslationLanguages": "[{\"code\":1}]", "saveRecordingsFolder": "file:///%zz",
                      "overlayFrame": "1,2,nan,inf", "apiBaseURL": 7}))

    settings = json.loads(settings_text)
    store = sqlite3.connect(os.path.join(home, "data/Sprelio/Persistence.sqlite"))
    rows = store.execute("select uuid, shortcutActionRawValue, shortcutString, singleModifierDirection, "
                         "modifierEventCharacters, intelligenceActionItemIdString, "
                         "intelligenceActionCategoryRawValue, intelligenceActionCompletionType, inputLanguageCode, "
                         "modifierEventKeyCode from UserShortcut order by Z_PK").fetchall()
    for index, row in enumerate(rows[:6]):
        combination = settings.get("KeyboardShortcuts_" + row[0], "")
        parts = [("" if value is None else str(value)) for value in row[1:9]] + [combination, str(row[9])]
        write("fuzz_stored_texts", f"shortcut-{index}.txt", SEP.join(parts))


def server_seeds(build, recording, home):
    data = os.path.join(home, "server")
    port = free_port()
    server = subprocess.Popen([os.path.join(build, "server/sprelio-server"), "--port", str(port), "--data", data],
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        token_file = os.path.join(data, "local-token")
        deadline = time.time() + 60
        while True:
            try:
                if os.path.exists(token_file) and request(port, "GET", "/users/info")[0] == 401:
                    break
            except OSError:
                pass
            if time.time() > deadline or server.poll() is not None:
                raise RuntimeError("sprelio-server did not start")
            time.sleep(0.1)
        token = open(token_file).read().strip()

        info = request(port, "GET", "/users/info?app=linux-0.1.0&os=Linux", token)
        # The scratch server's token is of no use to anyone, but a seed should not look like a credential.
        info = (info[0], info[1], info[2].replace(token.encode(), b"0" * len(token)))
        signin = request(port, "GET", "/auth/request?email=someone%40example.org")
        code_body = json.dumps({"uuid": json.loads(signin[2]).get("uuid", ""), "code": "000000"}).encode()
        code = request(port, "POST", "/auth/request/code", body=code_body,
                       headers={"Content-Type": "application/json"})
        refused = request(port, "GET", "/users/info")
        write("fuzz_account", "info-signin-code.txt",
              SEP.join(answer(*a) for a in (info, signin, code)))
        write("fuzz_account", "refused.txt", SEP.join(answer(*a) for a in (refused, refused, refused)))

        boundary, body = multipart([("file", "rec_20240501-120000-000.caf", "application/octet-stream", recording)])
        transcribe_path = "/transcribe?app=linux-0.1.0&languages=en&os=Linux&diarization=false"
        content_type = f"multipart/form-data; boundary={boundary}"
        transcript = request(port, "POST", transcribe_path, token, body, {"Content-Type": content_type})
        busy = request(port, "POST", transcribe_path, "wrong-token", body, {"Content-Type": content_type})
        write("fuzz_upload_answer", "transcript.txt", answer(*transcript))
        write("fuzz_upload_answer", "refused-then-transcript.txt", answer(*busy) + SEP + answer(*transcript))
        # The streamed form: the transcript line, then an AI result line, as a server with an AI service sends.
        line = json.loads(transcript[2])
        stream = json.dumps(line) + "\n" + json.dumps({"completion": "An AI result."}) + "\n"
        write("fuzz_upload_answer", "stream.txt", answer(200, "text/event-stream", stream))

        file_id = str(uuid.uuid4()).upper()
        upload = request(port, "POST", f"/transcribe/file/{file_id}?diarization=false&file_hash=x&device_id=D",
                         token, recording)
        progress = request(port, "GET", f"/transcribe/file/{file_id}?diarization=false&languages=en", token)
        write("fuzz_file_stream", "upload-and-stream.txt", answer(*upload) + SEP + answer(*progress))
        stream_lines = "\n".join([json.dumps({"progress_text": "first piece", "duration": 12.5}),
                                  json.dumps({"progress_text": "second piece"}),
                                  json.dumps({"text": "first piece second piece", "duration": 20})])
        write("fuzz_file_stream", "progress-lines.txt", answer(*upload) + SEP + answer(200, "text/plain", stream_lines))
        write("fuzz_file_stream", "error-line.txt",
              answer(*upload) + SEP + answer(200, "text/plain", json.dumps({"error": "NoOnlineFarms", "message": "busy"})))

        # The same requests as raw bytes for the server's own target.
        tok = [("Authorization", "Bearer @TOKEN@")]
        write("fuzz_server_http", "users-info.http", raw_request("GET", "/users/info?app=linux-0.1.0&os=Linux", tok))
        write("fuzz_server_http", "transcribe.http",
              raw_request("POST", transcribe_path, tok + [("Content-Type", content_type)], body))
        ai_boundary, ai_body = multipart([("file", "a.caf", "application/octet-stream", recording),
                                          ("ai", "", "application/json",
                                           json.dumps({"prompt_id": "fixGrammar"}).encode())])
        write("fuzz_server_http", "transcribe-ai.http",
              raw_request("POST", transcribe_path, tok + [("Content-Type", f"multipart/form-data; boundary={ai_boundary}")],
                          ai_body))
        write("fuzz_server_http", "file-upload.http",
              raw_request("POST", f"/transcribe/file/{file_id}?file_hash=x", tok, recording))
        write("fuzz_server_http", "file-transcribe.http",
              raw_request("GET", f"/transcribe/file/{file_id}?languages=en", tok))
        write("fuzz_server_http", "signin.http", raw_request("GET", "/auth/request?email=someone%40example.org", []))
        write("fuzz_server_http", "signin-code.http",
              raw_request("POST", "/auth/request/code", [("Content-Type", "application/json")], code_body))
        write("fuzz_server_http", "completions.http",
              raw_request("POST", "/completions", tok + [("Content-Type", "application/json")],
                          json.dumps({"text": "hello", "prompt_id": "fixGrammar"}).encode()))
        report_boundary, report_body = multipart([("text", "", "text/plain", b"it broke"),
                                                  ("logs", "logs.zip", "application/zip", b"PK\x05\x06" + bytes(18))])
        write("fuzz_server_http", "report.http",
              raw_request("POST", "/users/report",
                          tok + [("Content-Type", f"multipart/form-data; boundary={report_boundary}")], report_body))
        # Chunked body, two requests on one connection, a query with invalid UTF-8, a path leaving the folder.
        write("fuzz_server_http", "chunked.http",
              b"POST /completions HTTP/1.1\r\nHost: x\r\nAuthorization: Bearer @TOKEN@\r\n"
              b"Transfer-Encoding: chunked\r\nContent-Type: application/json\r\n\r\n"
              b"5\r\n{\"tex\r\nb\r\nt\":\"hello\"}\r\n0\r\n\r\n")
        write("fuzz_server_http", "pipelined.http",
              raw_request("GET", "/users/info", tok) + raw_request("GET", "/auth/request?email=%FF%FE", []))
        write("fuzz_server_http", "traversal.http",
              raw_request("GET", "/transcribe/file/..%2F..%2Fetc%2Fpasswd?languages=en", tok))
    finally:
        server.terminate()
        server.wait(timeout=30)


def substitution_seeds():
    write("fuzz_substitution", "plain.txt", SEP.join(["I'm gonna go, Gonna go. GONNA!", "gonna=>Going to", "teh=>the"]))
    write("fuzz_substitution", "regex-looking.txt",
          SEP.join(["a.b (x) x* [y] c++ $1 \\1 ^$", "a.b=>Z", "(x)=>$0", "c++=>\\1", ".*=>all", "[=>]"]))
    write("fuzz_substitution", "unicode.txt",
          SEP.join(["STRAẞE straße café cafe\u0301 \u0130stanbul ǅemal ﬁne \U0001F600 \u200d",
                    "straße=>road", "ﬁ=>FI", "i̇=>I", "\u0301=>x", "ǆ=>dz"]))
    write("fuzz_substitution", "invalid-utf8.txt", b"abc \xff\xfe \xc3" + SEP.encode() + b"abc=>\xc0\x80" +
          SEP.encode() + b"\xed\xa0\x80=>surrogate")
    write("fuzz_substitution", "empty-rules.txt", SEP.join(["a, b", "=>x", "=>", "a=>"]))
    write("fuzz_substitution", "growth.txt", SEP.join(["go go go go", "go=>go go", "go=>go go go", "go=>go go"]))


def main():
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    build, fuzz_build = (os.path.abspath(p) for p in sys.argv[1:3])
    home = tempfile.mkdtemp(prefix="sprelio-seeds-")
    try:
        recording = caf_seeds(fuzz_build)
        decoder_seeds(recording)
        client_seeds(build, home)
        server_seeds(build, recording, home)
        substitution_seeds()
    finally:
        shutil.rmtree(home, ignore_errors=True)


if __name__ == "__main__":
    main()
