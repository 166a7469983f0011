#!/usr/bin/env bash
# krohttpd and wget: a small tree, mirrored over connections that are kept.
# shellcheck source=tests/wire/clients/daemon.sh
. "$(dirname "${BASH_SOURCE[0]}")/daemon.sh"
need wget

tree=$folder/tree
mkdir -p "$tree/deep/er" "$tree/pics"
{
  echo '<html><body><a href="a.html">a</a> <a href="deep/">deep</a> <img src="pics/p.png"><a href="missing.html">gone</a>'
  echo '<link rel="stylesheet" href="s.css"><script src="j.js"></script></body></html>'
} >"$tree/index.html"
echo '<html><body><a href="deep/er/b.html">b</a></body></html>' >"$tree/a.html"
echo '<html><body><a href="er/b.html">b</a></body></html>' >"$tree/deep/index.html"
echo '<html><body><a href="/">home</a></body></html>' >"$tree/deep/er/b.html"
echo 'body { background: url(pics/q.gif) }' >"$tree/s.css"
echo 'void 0;' >"$tree/j.js"
head -c 300000 /dev/urandom >"$tree/pics/p.png"
head -c 5000 /dev/urandom >"$tree/pics/q.gif"
start --root "$tree" --access-log "$folder/log"

status=0
wget --no-verbose --mirror --page-requisites --no-host-directories --timeout=20 --tries=1 \
  --directory-prefix="$folder/mirror" "$url/" 2>"$folder/said" || status=$?
[ "$status" -eq 8 ] || fail "wget ended with $status, not with 8 for the missing page: $(cat "$folder/said")"
rm -f "$folder/mirror/robots.txt"
diff -r "$tree" "$folder/mirror" || fail "the mirror differs"
expect "missing pages in the log" "$(grep -c 'GET /missing.html HTTP/1.1" 404 ' "$folder/log")" 1
expect "pages in the log" "$(grep -c '" 200 ' "$folder/log")" 8

# wget keeps its connection over several files.
wget --debug --timeout=20 --tries=1 -O /dev/null "$url/a.html" "$url/s.css" "$url/pics/p.png" >"$folder/said" 2>&1 ||
  fail "wget: $(cat "$folder/said")"
expect "connections that were used again" "$(grep -c 'Reusing existing connection' "$folder/said")" 2

stop_without_complaint krohttpd
