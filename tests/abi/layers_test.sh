#!/usr/bin/env bash
# tools/check-layers passes the sources as they are, and finds each kind of include that points the wrong way.
#
# usage: layers_test.sh SOURCE SCRATCH
set -euo pipefail
export LC_ALL=C.UTF-8
source=$1
scratch=$2

"$source/tools/check-layers" "$source"

# file | line to add | what must be said of it ("" when it is fine)
cases='
src/uri.cpp          | #include <krohttp/message.h>       | uri includes message, which is above it
src/uri.cpp          | #include "utils_internal.h"        | uri includes utils, which is beside it
src/message.cpp      | #include <krohttp/request.h>       | message includes request, which is above it
src/header.cpp       | #include <krohttp/body.h>          |
src/header.cpp       | # include "server_internal.h"      | header includes server, which is above it
src/server.cpp       | #include <krohttp/utils.h>         |
src/request.cpp      | #include <krohttp/reply.h>         | request includes reply, which is beside it
src/reply.cpp        | #include <krohttp/krohttp.h>       | includes krohttp.h, which is for applications
src/server.cpp       | #include "src/uri_internal.h"      | a quoted include names a file of src/, without a path: src/uri_internal.h
src/server.cpp       | #include <uv.h>                    | uv.h is no public header of the platform
src/server.cpp       | #include <zel/secret.h>            | zel/secret.h is no public header of the platform
src/server.cpp       | #include <zel/timer.h>             |
src/server.cpp       | #include "../platform/src/queue.h" | a quoted include names a file of src/, without a path: ../platform/src/queue.h
src/server.cpp       | #include "gadget.h"                | the module gadget has no place in the layers of tools/check-layers
src/gadget.cpp       | // new                             | the module gadget has no place in the layers of tools/check-layers
src/server_files.cpp | #include <krohttp/reply.h>         |
include/krohttp/uri.h     | #include "uri_internal.h"     | a public header includes the private uri_internal.h
include/krohttp/utils.h   | #include <krohttp/uri.h>      | utils includes uri, which is beside it
platform/src/loop.cpp     | // for HTTP                   | the platform mentions HTTP
platform/include/zel/peer.h | #include <krohttp/uri.h>    | the platform mentions HTTP
'

failures=0
while IFS='|' read -r file line wanted; do
  file=$(xargs <<<"$file")
  [ -n "$file" ] || continue
  line=$(sed -E 's/^ | *$//g' <<<"$line")
  wanted=$(sed -E 's/^ *| *$//g' <<<"$wanted")
  rm -rf "$scratch"
  mkdir -p "$scratch/platform"
  cp -r "$source/include" "$source/src" "$scratch/"
  cp -r "$source/platform/include" "$source/platform/src" "$scratch/platform/"
  echo "$line" >>"$scratch/$file"
  [ -z "$wanted" ] || wanted="$file:$(wc -l <"$scratch/$file"): $wanted"

  said=$("$source/tools/check-layers" "$scratch") && status=0 || status=$?
  if [ "$said" != "$wanted" ] || { [ -n "$wanted" ] && [ "$status" -ne 1 ]; } || { [ -z "$wanted" ] && [ "$status" -ne 0 ]; }; then
    echo "'$line' in $file: status $status, said '$said', should say '$wanted'"
    failures=$((failures + 1))
  fi
done <<<"$cases"
rm -rf "$scratch"
[ "$failures" -eq 0 ]
