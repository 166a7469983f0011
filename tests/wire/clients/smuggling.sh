#!/usr/bin/env bash
# Messages that two readers could take for different requests: alone, and with HAProxy, nginx or krohttpd itself in front
# of the server, nobody behind ever sees a request that the one in front has not seen, nor the other way round.
# shellcheck source=tests/wire/clients/daemon.sh
. "$(dirname "${BASH_SOURCE[0]}")/daemon.sh"
# shellcheck source=tests/wire/clients/peers.sh
. "$(dirname "${BASH_SOURCE[0]}")/peers.sh"
need curl
need haproxy
need nginx
need perl
send=$(dirname "${BASH_SOURCE[0]}")/smuggling.pl

run_haproxy() {
  cat >"$folder/haproxy.cfg" <<CONF
global
  nbthread 1
  maxconn 500
  log stdout format raw local0
defaults
  mode http
  maxconn 500
  timeout connect 10s
  timeout client 2s
  timeout server 2s
  timeout http-request 2s
  option http-keep-alive
  http-reuse always
  retries 0
  log global
  log-format "%HU %s %ST"
frontend browsers
  bind 127.0.0.1:$1
  default_backend network
backend network
  server krohttpd 127.0.0.1:$port
CONF
  launch haproxy haproxy -db -f "$folder/haproxy.cfg"
}

# In front of krohttpd, and as a server behind it.
run_nginx() {
  launch_nginx <<CONF
log_format front '\$request_uri \$upstream_addr \$status';
log_format back '\$request_uri server \$status';
client_header_timeout 2s;
client_body_timeout 2s;
upstream krohttpd {
  server 127.0.0.1:$port;
  keepalive 4;
}
server {
  listen 127.0.0.1:$1;
  access_log $folder/nginx-front front;
  proxy_http_version 1.1;
  proxy_request_buffering off;
  proxy_next_upstream off;
  location / {
    proxy_pass http://krohttpd;
    proxy_set_header Connection "";
  }
}
server {
  listen unix:$folder/nginx.socket;
  access_log $folder/nginx-back back;
  location /token {
    root $folder/root;
  }
  location / {
    return 200 "Hello, world!";
  }
}
CONF
}

# Both print the marks of requests, those that were served, and all with "any": of krohttpd's log, and of a log with lines
# URI SERVER STATUS for what was handed on.
seen() {
  local status='(200|404)'
  [ $# -lt 3 ] || status='[0-9]+'
  sed -nE "s/.*\"[A-Z]+ [^ ?]*\?($1[0-9]+[ms]) HTTP\/1\.[01]\" $status .*/\1/p" "$2" | sort
}

forwarded() {
  local status='(200|404)'
  [ $# -lt 3 ] || status='[0-9]+'
  grep -vE ' (-|<NOSRV>) ' "$2" | sed -nE "s/^[^ ?]*\?($1[0-9]+[ms]) [^ ]+ $status$/\1/p" | sort
}

# compare WHO NAME FRONT-LOG BACK-LOG HOW-TO-READ-THEM...
compare() {
  "$5" "$2" "$3" >"$folder/served"
  [ -s "$folder/served" ] || fail "$1: nothing was served"
  "$6" "$2" "$4" | comm -23 "$folder/served" - >"$folder/lost"
  expect "$1: what the server behind has not served" "$(cat "$folder/lost")" ""
  "$5" "$2" "$3" any >"$folder/known"
  "$6" "$2" "$4" any | comm -13 "$folder/known" - >"$folder/smuggled"
  expect "$1: what the one in front knows nothing of" "$(cat "$folder/smuggled")" ""
  echo "$1: $(wc -l <"$folder/served") requests served, $(wc -l <"$folder/known") known"
}

make_root
start --demo --root "$folder/root" --access-log "$folder/log"

# --- alone ------------------------------------------------------------------------------------------------------------
"$send" alone "127.0.0.1:$port" strict >"$folder/statuses" || fail "a strict server answers otherwise"
expect "messages in the table" "$(sed -n 's/^\([0-9]*\) messages$/\1/p' "$folder/statuses")" 94
# Every reply but a refusal belongs to a request that was seen, and the other way round.
expect "requests seen, and replies" "$(seen alone "$folder/log" | wc -l)" \
  "$(grep -oE ' (200|404)' "$folder/statuses" | wc -l)"

# --- behind somebody --------------------------------------------------------------------------------------------------
for front in haproxy nginx; do
  start_peer "$front"
  # Twice: the second time meets connections that the first one has left behind.
  for round in 1 2; do
    "$send" "$front$round" "${peer#http://}" >"$folder/statuses"
    sed 's/^/'"$front"': /' "$folder/statuses" >>"$LOGS/smuggling"
  done
  for number in 1 2 3 4 5 6 7 8; do
    expect "$front: the reply of somebody else" "$("${fetch[@]}" -d "number $number" "$peer/echo")" "number $number"
  done
  end_peer "$front"
  log=$folder/nginx-front
  [ "$front" = nginx ] || log=$folder/haproxy.out
  for round in 1 2; do
    compare "$front, round $round" "$front$round" "$log" "$folder/log" forwarded seen
  done
done

# --- in front of somebody ---------------------------------------------------------------------------------------------
start_peer nginx
start_as proxy --proxy "/=ipc:$folder/nginx.socket" --access-log "$folder/proxy-log"
"$send" proxy "127.0.0.1:$port" >"$folder/statuses"
sed 's/^/proxy: /' "$folder/statuses" >>"$LOGS/smuggling"
end_peer nginx
compare "krohttpd in front" proxy "$folder/proxy-log" "$folder/nginx-back" seen forwarded
stop proxy
stop
