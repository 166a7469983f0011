# shellcheck shell=bash
# What the tests with the servers of others share. Sourced after daemon.sh.
# shellcheck disable=SC2154 # folder, running and url are set there
export PATH=$PATH:/usr/sbin:/sbin
fetch=(curl --silent --show-error --max-time 60)

# start_peer NAME: calls run_NAME with a port until that one is free; sets peer to the URL. What it serves as /token
# must be ours: another test may have been faster.
start_peer() {
  local name=$1 free attempt try
  for ((attempt = 0; attempt < 20; attempt++)); do
    free=$((20000 + RANDOM % 12000))
    "run_$name" "$free"
    peer=http://127.0.0.1:$free
    for ((try = 0; try < 100; try++)); do
      [ "$(curl --silent --max-time 5 "$peer/token" || true)" != "$folder" ] || return 0
      is_running "$name" || break
      sleep 0.05
    done
    end_peer "$name"
  done
  fail "$name did not start: $(cat "$folder/$name.err")"
}

end_peer() {
  kill -TERM "${running[$1]}" 2>/dev/null || true
  wait "${running[$1]}" 2>/dev/null || true
  unset "running[$1]"
}

# launch_nginx: standard input is what its http block says.
launch_nginx() {
  {
    cat <<CONF
# One process, which ends with our signal and leaves nobody behind.
master_process off;
daemon off;
pid $folder/nginx.pid;
error_log stderr crit;
events {
  worker_connections 1024;
}
http {
  client_body_temp_path $folder/nginx-body;
  proxy_temp_path $folder/nginx-proxy;
  fastcgi_temp_path $folder/nginx-fastcgi;
  uwsgi_temp_path $folder/nginx-uwsgi;
  scgi_temp_path $folder/nginx-scgi;
CONF
    cat
    echo '}'
  } >"$folder/nginx.conf"
  launch nginx nginx -p "$folder" -e stderr -c "$folder/nginx.conf"
}

# --- what is served ---------------------------------------------------------------------------------------------------

# Below /tcp and /ipc: the paths that the proxy hands on over TCP and over a Unix socket are found at the target itself
# as well.
make_root() {
  local files=$folder/root/files block
  mkdir -p "$files/sub"
  ln -s files "$folder/root/tcp"
  ln -s files "$folder/root/ipc"
  printf %s "$folder" >"$folder/root/token"
  : >"$files/empty"
  printf x >"$files/one"
  head -c 1048576 /dev/urandom >"$files/mebibyte"
  seq 1 40000 >"$files/numbers.txt"
  echo '<title>sub</title>' >"$files/sub/index.html"
  # A gibibyte that takes no room, but in which nothing can change its place unnoticed.
  truncate -s 1G "$files/gibibyte"
  for block in 0 1 255 256 511 1022 1023; do
    dd if="$files/mebibyte" of="$files/gibibyte" bs=1M seek="$block" conv=notrunc status=none
  done
}

# --- replies compared -------------------------------------------------------------------------------------------------

# get NAME URL OPTION...: head and body of the reply go to $folder/NAME.head and $folder/NAME.body, without what is each
# connection's own, what is new in each reply, and the reason behind the status. Names of headers come in small letters:
# it does not matter how they are written.
get() {
  local name=$1 boundary
  shift
  : >"$folder/$name.body"
  "${fetch[@]}" -D "$folder/raw" -o "$folder/$name.body" "$@" || fail "curl ended with $?: $*"
  boundary=$(tr -d '\r' <"$folder/raw" | sed -n 's|^Content-Type: multipart/byteranges; boundary="\?\([^"]*\)"\?$|\1|p')
  tr -d '\r' <"$folder/raw" | sed '1s/ [^0-9]*$//; s/^[A-Za-z-]*:/\L&/' | grep -vE '^(date|connection|keep-alive):' \
    >"$folder/$name.head"
  # With --head curl takes the head for what was asked.
  case " $* " in *" --head "*) : >"$folder/$name.body" ;; esac
  [ -z "$boundary" ] || sed -i "s/$boundary/BOUNDARY/" "$folder/$name.head" "$folder/$name.body"
}

# alike STATUS PATH OPTION...: directly and through the proxy the same reply comes.
alike() {
  local status=$1 path=$2
  shift 2
  get direct "$peer$path" "$@"
  get proxied "$url$path" "$@"
  diff <(sort "$folder/direct.head") <(sort "$folder/proxied.head") || fail "$path $*: the heads differ"
  same "$folder/direct.body" "$folder/proxied.body" "$path $*"
  expect "status of $path $*" "$(sed -n '1s/^HTTP[^ ]* //p' "$folder/proxied.head")" "$status"
}

# header NAME: of the reply that came last through the proxy.
header() {
  sed -n "s/^$1: //Ip" "$folder/proxied.head"
}

# --- what every target must be good for -------------------------------------------------------------------------------

# Beside what is made above the target has /chunked, the numbers in chunks; /nothing, 204; /moved, 302 to /one.

# check_route /tcp|/ipc: small replies of all kinds through the proxy, at $url, to the target, at $peer.
check_route() {
  local route=$1 files=$folder/root/files name modified
  for name in empty one mebibyte; do
    alike 200 "$route/$name"
    same "$files/$name" "$folder/proxied.body" "$route/$name"
  done
  expect "length of $route/mebibyte" "$(header Content-Length)" 1048576
  alike 200 "$route/mebibyte" --head
  expect "length in the head of $route/mebibyte" "$(header Content-Length)" 1048576
  alike 200 "$route/mebibyte" --limit-rate 4M
  alike 404 "$route/missing"
  alike 404 "$route/missing" --head
  alike 301 "$route/sub"
  alike 200 "$route/sub/"

  alike 200 "$route/chunked"
  expect "coding of $route/chunked" "$(header Transfer-Encoding)" chunked
  same "$files/numbers.txt" "$folder/proxied.body" "$route/chunked"
  alike 200 "$route/numbers.txt" -H 'Accept-Encoding: gzip'
  gunzip -c <"$folder/proxied.body" | cmp - "$files/numbers.txt" || fail "$route/numbers.txt: not what was compressed"
  # A browser that does not know chunks.
  get proxied "$url$route/chunked" --http1.0
  #  expect "coding of $route/chunked over HTTP/1.0" "$(header Transfer-Encoding)" ""
  same "$files/numbers.txt" "$folder/proxied.body" "$route/chunked over HTTP/1.0"

  modified=$("${fetch[@]}" --head "$peer$route/one" | tr -d '\r' | sed -n 's/^Last-Modified: //p')
  alike 304 "$route/one" -H "If-Modified-Since: $modified"
  alike 200 "$route/one" -H "If-Modified-Since: Thu, 01 Jan 1970 00:00:00 GMT"
  alike 206 "$route/mebibyte" -r 1000-1999
  expect "range of $route/mebibyte" "$(header Content-Range)" "bytes 1000-1999/1048576"
  alike 206 "$route/numbers.txt" -r 0-9,1000-2999,-5
  expect "type of several ranges" "$(header Content-Type)" "multipart/byteranges; boundary=BOUNDARY"
  alike 416 "$route/one" -r 100-
  alike 204 "$route/nothing"
  alike 302 "$route/moved"
  expect "where $route/moved leads" "$("${fetch[@]}" --location -w '%{num_connects}' "$url$route/moved")" x1

  expect "connections for five replies of $route" "$("${fetch[@]}" -w '%{num_connects} ' \
    -o "$folder/1" -o "$folder/2" -o "$folder/3" -o "$folder/4" -o "$folder/5" "$url$route/empty" \
    "$url$route/mebibyte" "$url$route/missing" "$url$route/chunked" "$url$route/one")" "1 0 0 0 0 "
  same "$files/mebibyte" "$folder/2" "the second of five replies"
  same "$files/numbers.txt" "$folder/4" "the fourth of five replies"
  same "$files/one" "$folder/5" "the last of five replies"
  # A head, what was not changed, and what is not there have no body that could be in the way of the next reply.
  expect "connections behind replies without a body" "$("${fetch[@]}" -w '%{num_connects} ' --head -o /dev/null \
    "$url$route/mebibyte" --next --silent -w '%{num_connects} ' -o /dev/null -H "If-Modified-Since: $modified" \
    "$url$route/one" --next --silent -w '%{num_connects} ' -o "$folder/1" "$url$route/mebibyte")" "1 0 0 "
  same "$files/mebibyte" "$folder/1" "a file behind its head"
}

# check_kroget SOCKET: the target and kroget, without the proxy.
check_kroget() {
  local files=$folder/root/files name status modified
  for name in empty one mebibyte numbers.txt; do
    "$KROGET" -o "$folder/back" "$peer/tcp/$name" || fail "kroget ended with $? for $name"
    same "$files/$name" "$folder/back" "kroget: $name"
  done
  "$KROGET" --unix "$1" -o "$folder/back" http://x/tcp/mebibyte || fail "kroget ended with $? over a Unix socket"
  same "$files/mebibyte" "$folder/back" "kroget: over a Unix socket"
  "$KROGET" "$peer/tcp/gibibyte" | cmp - "$files/gibibyte" || fail "kroget: gibibyte"
  "$KROGET" -o "$folder/back" "$peer/tcp/chunked" || fail "kroget ended with $? for what comes in chunks"
  same "$files/numbers.txt" "$folder/back" "kroget: what comes in chunks"
  expect "kroget: HEAD" "$("$KROGET" -I "$peer/tcp/mebibyte" | tr -d '\r' | sed -n 's/^Content-Length: //p')" 1048576
  modified=$("$KROGET" -I "$peer/tcp/one" | tr -d '\r' | sed -n 's/^Last-Modified: //p')
  expect "kroget: what was not changed" "$("$KROGET" -i -H "If-Modified-Since: $modified" "$peer/tcp/one" |
    head -n 1 | tr -d '\r')" "HTTP/1.1 304 Not Modified"
  expect "kroget: a directory without its slash" "$("$KROGET" -L "$peer/tcp/sub")" "<title>sub</title>"
  expect "kroget: a redirect" "$("$KROGET" -L "$peer/tcp/moved")" x
  expect "kroget: 204" "$("$KROGET" -i "$peer/tcp/nothing" | head -n 1 | tr -d '\r')" "HTTP/1.1 204 No Content"
  expect "kroget: a range" "$("$KROGET" -H 'Range: bytes=2-5' "$peer/tcp/numbers.txt")" "$(printf '2\n3\n')"
  get direct "$peer/tcp/numbers.txt" -r 0-9,1000-2999,-5
  "$KROGET" -H 'Range: bytes=0-9,1000-2999,-5' "$peer/tcp/numbers.txt" >"$folder/back"
  # Only the boundary is another one.
  diff <(grep -av '^--' "$folder/direct.body") <(grep -av '^--' "$folder/back") || fail "kroget: several ranges"
  status=0
  "$KROGET" --fail "$peer/tcp/missing" >"$folder/back" 2>/dev/null || status=$?
  expect "kroget: status for what is missing" "$status" 8
  same "$files/empty" "$folder/back" "kroget: the page of what is missing"
  "$KROGET" -v -o "$folder/1" -o "$folder/2" -o "$folder/3" "$peer/tcp/mebibyte" "$peer/tcp/numbers.txt" \
    "$peer/tcp/one" 2>"$folder/said" || fail "kroget: three files: $(cat "$folder/said")"
  expect "kroget: connections for three files" "$(grep -c '^\* connecting to ' "$folder/said")" 1
  same "$files/mebibyte" "$folder/1" "kroget: the first of three files"
  same "$files/one" "$folder/3" "kroget: the last of three files"
}

# make_locked: the same files behind passwords, with the users for Basic and for Digest.
make_locked() {
  local name
  for name in locked digest; do
    mkdir "$folder/root/files/$name"
    cp "$folder/root/files/mebibyte" "$folder/root/files/one" "$folder/root/files/$name/"
  done
  # shellcheck disable=SC2016 # for the shell that it is served by
  echo 'printf "Content-Type: text/plain\r\n\r\n%s %s %s" "$REQUEST_METHOD" "$QUERY_STRING" "$(cat)"' \
    >"$folder/root/files/digest/form.cgi"
  password='pä:ss wörd+%&"'
  printf 'alice:%s\n' "$(openssl passwd -apr1 "$password")" >"$folder/users"
  printf '%s\n' "$password" | "$KROHTTPD" --add-user "$folder/digests" alice 'Test Device'
}

# check_login FOLDER: kroget and a folder that make_locked has made.
check_login() {
  local files=$folder/root/files/$1 from=$peer/tcp/$1 status
  "$KROGET" -v --fail -u "alice:$password" -o "$folder/back" "$from/mebibyte?a=b&c=%20d" 2>"$folder/said" ||
    fail "kroget: login to $1: $(cat "$folder/said")"
  same "$files/mebibyte" "$folder/back" "kroget: login to $1"
  expect "kroget: connections for a login to $1" "$(grep -c '^\* connecting to ' "$folder/said")" 1
  "$KROGET" --fail -u "alice:$password" "$from/one" "$from/one" "$from/one" >"$folder/back" || fail "kroget: three logins"
  expect "kroget: three logins to $1" "$(cat "$folder/back")" xxx
  for user in alice:x "bob:$password"; do
    status=0
    "$KROGET" -u "$user" "$from/one" >"$folder/back" 2>"$folder/said" || status=$?
    expect "kroget: status for a wrong login to $1" "$status" 8
    expect "kroget: what it says of a wrong login to $1" "$(cat "$folder/said")" \
      "kroget: $from/one: 401 Unauthorized: the credentials are refused"
    expect "kroget: its output for a wrong login to $1" "$(cat "$folder/back")" ""
  done
}

# --- cookies ----------------------------------------------------------------------------------------------------------

# check_cookies: curl and kroget take over each other's jars. The target sets cookies at /cookies/set, takes one back at
# /cookies/clear and tells those it gets at /cookies/show.
check_cookies() {
  local from=$peer/tcp/cookies one other jar sent name
  for one in kroget curl; do
    jar=$folder/jar-$one
    rm -f "$jar"
    "with_$one" "$jar" "$from/set" >/dev/null
    other=curl
    [ "$one" = kroget ] || other=kroget
    # Not all order cookies of the same path in the same way.
    sent='a=1 dated=4 empty= kro/sessid=x+/y= long=3'
    for name in "$one" "$other" "$one"; do
      expect "cookies of $one for $name" "$(shown "$name" "$jar" "$from/show")" "$sent"
      expect "cookies of $one for $name elsewhere" "$(shown "$name" "$jar" "$peer/tcp/other/cookies/show")" 'kro/sessid=x+/y='
    done
    "with_$other" "$jar" "$from/clear" >/dev/null
    expect "cookies of $one without that which $other has dropped" "$(shown "$one" "$jar" "$from/show")" "${sent#* }"
    grep -v '^# ' "$jar" | sort >"$folder/$one.cookies"
    # The default path has its last slash in curl's jar.
    sed -i 's/^\(.*\t\)[0-9]*\tlong/\1TIME\tlong/; s|/cookies/\t|/cookies\t|' "$folder/$one.cookies"
  done
  diff "$folder/kroget.cookies" "$folder/curl.cookies" || fail "the jars of kroget and curl differ"
}
with_kroget() { "$KROGET" --fail -c "$1" "$2" || fail "kroget ended with $? for $2"; }
with_curl() { "${fetch[@]}" --fail -b "$1" -c "$1" "$2"; }
shown() { "with_$1" "$2" "$3" | tr -d '[]' | sed 's/; /\n/g' | sort | paste -s -d ' '; }

# --- memory -----------------------------------------------------------------------------------------------------------

# peak NAME: the most memory it ever had, in KiB.
peak() {
  sed -n 's/^VmHWM:[[:space:]]*\([0-9]*\) kB$/\1/p' "/proc/${running[$1]}/status"
}

# start_proxy: hands /tcp to port $1 and /ipc to the Unix socket $2. Freed memory that a sanitizer keeps for a while
# would be counted as ours.
start_proxy() {
  ASAN_OPTIONS=${ASAN_OPTIONS:+$ASAN_OPTIONS:}quarantine_size_mb=1 \
    start_as proxy --proxy "/tcp=tcp:127.0.0.1:$1" --proxy "/ipc=ipc:$2" "${@:3}"
  idle=$(peak proxy)
}

# Whatever passes through, it does not pile up.
expect_little_memory() {
  local most
  most=$(peak proxy)
  echo "memory of the proxy: $idle KiB idle, $most KiB at most after $1"
  [ "$most" -le $((idle + 8192)) ] || fail "$1: the proxy had $most KiB, $idle KiB when idle"
}
