#!/usr/bin/env bash
# krohttpd behind HAProxy, which keeps its connections to the server and uses them for whoever comes next.
# shellcheck source=tests/wire/clients/daemon.sh
. "$(dirname "${BASH_SOURCE[0]}")/daemon.sh"
# shellcheck source=tests/wire/clients/peers.sh
. "$(dirname "${BASH_SOURCE[0]}")/peers.sh"
need curl
need haproxy

run_haproxy() {
  cat >"$folder/haproxy.cfg" <<CONF
global
  nbthread 1
  maxconn 200
defaults
  mode http
  maxconn 200
  timeout connect 10s
  timeout client 30s
  timeout server 30s
  option http-keep-alive
  http-reuse always
frontend browsers
  bind 127.0.0.1:$1
  use_backend local if { path_beg /local/ }
  default_backend network
backend network
  server krohttpd 127.0.0.1:$port
backend local
  http-request replace-path /local/(.*) /\1
  server krohttpd unix@$folder/krohttpd.socket
CONF
  launch haproxy haproxy -db -f "$folder/haproxy.cfg"
}

make_root
files=$folder/root/files
gzip -k "$files/numbers.txt"
start --demo --root "$folder/root" --listen "unix:$folder/krohttpd.socket" --access-log "$folder/log"
start_peer haproxy

for base in "$peer" "$peer/local"; do
  # --- files ----------------------------------------------------------------------------------------------------------
  for name in empty one mebibyte; do
    "${fetch[@]}" --fail -o "$folder/back" "$base/files/$name"
    same "$files/$name" "$folder/back" "$base: $name"
  done
  "${fetch[@]}" --fail "$base/files/gibibyte" | cmp - "$files/gibibyte" || fail "$base: a gibibyte"
  "${fetch[@]}" --fail -H 'Accept-Encoding: gzip' "$base/files/numbers.txt" | gunzip | cmp - "$files/numbers.txt" ||
    fail "$base: a compressed file"
  expect "$base: length of a HEAD" "$("${fetch[@]}" --head "$base/files/mebibyte" | tr -d '\r' |
    sed -n 's/^content-length: //Ip')" 1048576
  expect "$base: what is missing" "$("${fetch[@]}" -o /dev/null -w '%{http_code}' "$base/files/missing")" 404
  expect "$base: connections for HEAD and GET" "$("${fetch[@]}" -w '%{num_connects} ' --head -o /dev/null \
    "$base/files/mebibyte" --next --silent -w '%{num_connects} ' -o "$folder/back" "$base/files/mebibyte")" "1 0 "
  same "$files/mebibyte" "$folder/back" "$base: a file behind its head"

  # --- echoes ---------------------------------------------------------------------------------------------------------
  for name in empty one mebibyte; do
    "${fetch[@]}" --fail --data-binary "@$files/$name" -o "$folder/back" "$base/echo"
    same "$files/$name" "$folder/back" "$base: $name with a length"
    "${fetch[@]}" --fail -H 'Transfer-Encoding: chunked' --data-binary "@$files/$name" -o "$folder/back" "$base/echo"
    same "$files/$name" "$folder/back" "$base: $name in chunks"
  done
  "${fetch[@]}" --fail -v -H 'Expect: 100-continue' --expect100-timeout 50 --data-binary "@$files/mebibyte" \
    -o "$folder/back" "$base/echo" 2>"$folder/said"
  same "$files/mebibyte" "$folder/back" "$base: after 100 Continue"
  expect "$base: a method that is not allowed" \
    "$("${fetch[@]}" -o /dev/null -w '%{http_code}' -d abc "$base/hello")" 405
  expect "$base: the next one" "$("${fetch[@]}" "$base/hello")" "Hello, world!"
done

# --- requests that are sent at once -----------------------------------------------------------------------------------
exec {connection}<>"/dev/tcp/127.0.0.1/${peer##*:}"
{
  for number in 1 2 3; do
    printf 'GET /hello HTTP/1.1\r\nHost: x\r\n\r\n'
    printf 'POST /echo HTTP/1.1\r\nHost: x\r\nContent-Length: 7\r\n\r\nnumber%s' "$number"
    printf 'HEAD /files/numbers.txt HTTP/1.1\r\nHost: x\r\n\r\n'
  done
  printf 'GET /hello HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n'
} >&"$connection"
timeout 20 cat <&"$connection" >"$folder/back"
exec {connection}>&-
wanted=
for number in 1 2 3; do wanted+="HTTP/1.1 200 Hello, world! HTTP/1.1 200 number$number HTTP/1.1 200 "; done
expect "replies to requests that were sent at once" \
  "$(grep -aoE 'HTTP/1\.1 [0-9]+|Hello, world!|number[0-9]' "$folder/back" | xargs)" \
  "${wanted}HTTP/1.1 200 Hello, world!"

# HAProxy has used one connection to each address for all of these; the third one is ours.
connections=$("${fetch[@]}" "$url/status" | sed 's/.*"connections":\([0-9]*\).*/\1/')
[ "$connections" -le 3 ] || fail "HAProxy does not keep its connections: krohttpd has $connections"
stop
end_peer haproxy
