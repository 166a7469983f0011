#!/usr/bin/env bash
# Runs each example as its reader would, on a port of the system's choice.
#
# usage: run.sh EXAMPLE-FOLDER NAME
set -euo pipefail
export LC_ALL=C.UTF-8
folder=$1
name=$2
scratch=$(mktemp -d)
server=
others=()
stop() {
  local pid
  for pid in $server "${others[@]}"; do
    kill "$pid" 2>/dev/null || true
  done
  rm -rf "$scratch"
}
trap stop EXIT

fail() {
  echo "$name: $1" >&2
  cat "$scratch"/*.out >&2 || true
  exit 1
}

# start EXAMPLE ARGUMENT...: runs it and waits for what it prints when it listens; $url is where, unless on a socket.
start() {
  local output=$scratch/$1.out
  [ -z "$server" ] || others+=("$server")
  : >"$output"
  "$folder/$1" "${@:2}" >>"$output" 2>&1 &
  server=$!
  for _ in $(seq 200); do
    if grep -qE '(listening|serving .*) on ' "$output"; then
      url=$(grep -oE 'http://[0-9.]+:[0-9]+' "$output" || echo "${url:-}")
      return 0
    fi
    sleep 0.05
  done
  fail "$1 does not listen"
}

# end_of COMMAND...: what it prints, and how it ends.
end_of() { "$@" 2>&1 && echo "exit 0" || echo "exit $?"; }

get() { curl --silent --show-error --max-time 20 "$@"; }

expect() {
  [ "$1" = "$2" ] || fail "got '$1' instead of '$2'"
}

case $name in
  hello)
    start hello 0
    expect "$(get "$url/" "$url/again")" "$(printf 'Hello, world!\nHello, world!')"
    expect "$(get --head --output /dev/null --write-out '%{http_code} %{size_download}' "$url/")" "200 0"
    ;;
  later)
    start later 0
    page='<html><head><title>OK</title></head><body><h1>200 - OK</h1><p>Sorry to have kept you waiting.</p></body></html>'
    expect "$(get "$url/?ms=50" "$url/?ms=1")" "$(printf '%s\n%s' "$page" "$page")"
    # A client that leaves before its reply must not take the others' along.
    get --max-time 0.2 "$url/?ms=1000" >/dev/null 2>&1 && fail "did not wait"
    expect "$(get "$url/?ms=1200")" "$page"
    ;;
  files)
    printf 'text of a file\n' >"$scratch/file.txt"
    expect "$(end_of "$folder/files")" "$(printf 'usage: files DIR [PORT]\nexit 2')"
    start files "$scratch" 0
    expect "$(get "$url/file.txt")" "text of a file"
    expect "$(get --output /dev/null --write-out '%{http_code}' "$url/none")" "404"
    kill -TERM "$server"
    wait "$server" || fail "ended with $?"
    server=
    ;;
  get)
    expect "$(end_of "$folder/get")" "$(printf 'get: usage: get HOST PORT PATH\nexit 1')"
    expect "$(end_of "$folder/get" 127.0.0.1 1 /)" "$(printf 'get: Connection refused\nexit 1')"
    start hello 0
    expect "$(end_of "$folder/get" 127.0.0.1 "${url##*:}" /)" "$(printf 'Hello, world!\nexit 0')"
    # More than fits between the two: the server ends while it sends.
    truncate --size 256M "$scratch/large"
    mkfifo "$scratch/pipe"
    start files "$scratch" 0
    "$folder/get" 127.0.0.1 "${url##*:}" /large >"$scratch/pipe" 2>"$scratch/get.out" &
    client=$!
    exec 3<"$scratch/pipe"
    head --bytes 100000 <&3 >"$scratch/start"
    kill -KILL "$server"
    wait "$server" 2>/dev/null || true
    server=
    size=$(wc --bytes <&3)
    wait "$client" && fail "takes a part for the whole"
    expect "$(cat "$scratch/get.out")" "get: the reply is not whole"
    [ "$size" -lt $((256 << 20)) ] || fail "got all of it"
    ;;
  back)
    expect "$(end_of "$folder/back")" "$(printf 'usage: back SOCKET\nexit 2')"
    start back "$scratch/socket"
    expect "$(get --unix-socket "$scratch/socket" http://back/a%20b http://back/c --data hello)" \
      "$(printf 'POST /a b, 5 bytes\nPOST /c, 5 bytes')"
    expect "$(get --unix-socket "$scratch/socket" http://back/)" "GET /, 0 bytes"
    ;;
  front)
    expect "$(end_of "$folder/front")" "$(printf 'usage: front SOCKET [PORT]\nexit 2')"
    start back "$scratch/socket"
    back=$server
    start front "$scratch/socket" 0
    expect "$(get "$url/a%20b?x" "$url/c")" "$(printf 'GET /a b, 0 bytes\nGET /c, 0 bytes')"
    expect "$(get --data hello "$url/a" "$url/b")" "$(printf 'POST /a, 5 bytes\nPOST /b, 5 bytes')"
    truncate --size 3M "$scratch/large"
    expect "$(get --data-binary @"$scratch/large" "$url/a")" "POST /a, 3145728 bytes"
    expect "$(get --upload-file - --header 'Transfer-Encoding: chunked' "$url/b" <"$scratch/large")" \
      "PUT /b, 3145728 bytes"
    expect "$(get --request POST "$url/a")" "POST /a, 0 bytes"
    expect "$(get --http1.0 --header Host: "$url/a")" "GET /a, 0 bytes"
    expect "$(get --head --output /dev/null --write-out '%{http_code} %{size_download}' "$url/")" "200 0"
    expect "$(get --output /dev/null --write-out '%{http_code}' "$url/a%0d%0aX:%20b")" "400"
    kill "$back"
    wait "$back" 2>/dev/null || true
    expect "$(get --output /dev/null --write-out '%{http_code}' --data hello "$url/a")" "504"
    start back "$scratch/socket"
    expect "$(get "$url/a")" "GET /a, 0 bytes"
    ;;
  protect)
    start protect 0
    status() { get --output /dev/null --write-out '%{http_code}' "$@"; }
    # page STATUS TEXT: as the library frames it.
    page() { printf '<html><head><title>%s</title></head><body><h1>%s</h1>%s</body></html>' "${1#* - }" "$1" "$2"; }
    hello_alice=$(page '200 - OK' '<p>Hello, alice!</p>')
    hello_bob=$(page '200 - OK' '<p>Hello, bob!</p>')
    expect "$(status "$url/") $(status "$url/basic")" "404 404"

    expect "$(get --basic --user alice:wonderland "$url/basic/x")" "$hello_alice"
    expect "$(get --basic --user 'bob:can fix it' "$url/basic/")" "$hello_bob"
    expect "$(get --output /dev/null --write-out '%{http_code} %header{www-authenticate}' "$url/basic/")" \
      '401 Basic realm="protect"'
    for user in alice:builder alice: alice:wonderland2 mallory:wonderland :wonderland; do
      expect "$user $(status --basic --user "$user" "$url/basic/")" "$user 401"
      expect "$user $(status --digest --user "$user" "$url/digest/")" "$user 401"
    done
    expect "$(status --header 'Authorization: Bearer x' "$url/basic/")" 401
    expect "$(status --digest --user alice:wonderland "$url/basic/")" 401

    expect "$(get --digest --user alice:wonderland "$url/digest/a%20b?c=d&e")" "$hello_alice"
    bob=(--silent --digest --user 'bob:can fix it')
    expect "$(get "${bob[@]}" "$url/digest/" --next --max-time 20 "${bob[@]}" "$url/digest/x")" \
      "$(printf '%s\n%s' "$hello_bob" "$hello_bob")"
    expect "$(status --basic --user alice:wonderland "$url/digest/")" 401
    # What was made for one target does not open another.
    # credentials PATH: the header that curl makes for it.
    credentials() {
      get --verbose --digest --user alice:wonderland --output /dev/null "$url$1" 2>&1 |
        sed -n 's/^> \(Authorization: Digest .*\)\r$/\1/p'
    }
    one=$(credentials '/digest/one?x')
    expect "$(status --header "$one" "$url/digest/one?x")" 200
    expect "$(status --header "$one" "$url/digest/one?y")" 401
    expect "$(status --header "$one" "$url/digest/two?x")" 401
    expect "$(status --header "$one" --header "X-KRO-$one" "$url/digest/one?x")" 200
    expect "$(status --header "$one" --header "X-KRO-$(credentials /digest/two)" "$url/digest/one?x")" 401

    jar=(--cookie "$scratch/jar" --cookie-jar "$scratch/jar")
    : >"$scratch/jar"
    expect "$(status "${jar[@]}" "$url/session/")" 403
    for form in 'username=alice&password=builder' 'username=alice' 'password=wonderland' '' \
      'username=mallory&password=wonderland'; do
      expect "$form $(status "${jar[@]}" --data "$form" "$url/session/login")" "$form 403"
      expect "$(status "${jar[@]}" "$url/session/")" 403
    done
    expect "$(status --request POST "$url/session/login")" 403
    expect "$(status --data "username=alice&x=$(head -c 2000 /dev/zero | tr '\0' x)" "$url/session/login")" 413
    hello_session=$(page '200 - OK' \
      '<p>Hello, NAME!</p><form method="post" action="/session/logout"><button>Log out</button></form>')
    expect "$(get "${jar[@]}" --location --data 'a=b&username=%61lice&password=wonderland' "$url/session/login")" \
      "${hello_session/NAME/alice}"
    grep -q '^#HttpOnly_127.0.0.1.*/session/.*kro/sessid' "$scratch/jar" || fail "the cookie can be read by scripts"
    expect "$(get "${jar[@]}" "$url/session/x?y")" "${hello_session/NAME/alice}"
    # Another login ends the session that was there.
    cp "$scratch/jar" "$scratch/old"
    expect "$(get "${jar[@]}" --location --data 'username=bob&password=can+fix+it' "$url/session/login")" \
      "${hello_session/NAME/bob}"
    expect "$(status --cookie "$scratch/old" "$url/session/")" 403
    cp "$scratch/jar" "$scratch/old"
    expect "$(status "${jar[@]}" --request POST "$url/session/logout")" 303
    ! grep -q 'kro/sessid' "$scratch/jar" || fail "the cookie was not taken back"
    expect "$(status --cookie "$scratch/old" "$url/session/")" 403
    expect "$(status --request POST "$url/session/logout")" 303
    # A form that is never finished.
    get --max-time 0.2 --header 'Content-Length: 100' --data 'username=bob' "$url/session/login" >/dev/null 2>&1 &&
      fail "did not wait"
    expect "$(get --basic --user 'bob:can fix it' "$url/basic/")" "$hello_bob"
    ;;
  receive)
    expect "$(end_of "$folder/receive")" "$(printf 'usage: receive FILE [PORT]\nexit 2')"
    start receive "$scratch/flash" 0
    # bytes NUMBER: the page that tells it.
    bytes() { printf '<html><head><title>OK</title></head><body><h1>200 - OK</h1><p>%s bytes</p></body></html>' "$1"; }
    for size in 1 65535 65536 65537 3000000; do
      head --bytes $size /dev/urandom >"$scratch/image"
      expect "$(get --form image=@"$scratch/image" "$url/")" "$(bytes $size)"
      cmp "$scratch/image" "$scratch/flash" || fail "took another image"
    done
    expect "$(get --form image=@"$scratch/image" --header 'Transfer-Encoding: chunked' "$url/")" "$(bytes 3000000)"
    cmp "$scratch/image" "$scratch/flash" || fail "took another image in chunks"
    # Others are served while an upload waits for the flash, and a client that leaves meanwhile is noticed.
    get --max-time 0.2 --limit-rate 2M --form image=@"$scratch/image" "$url/" >/dev/null 2>&1 &
    leaving=$!
    expect "$(get --output /dev/null --write-out '%{http_code}' "$url/")" 405
    wait $leaving && fail "was faster than its flash"
    expect "$(get --output /dev/null --write-out '%{http_code}' --data none=multipart "$url/" || echo " $?")" "000 52"
    expect "$(get --form image=@"$scratch/image" "$url/")" "$(bytes 3000000)"
    ;;
  *) fail "is not known here" ;;
esac
[ -z "$server" ] || kill -0 "$server" || fail "has ended"
