-- For wrk: sends the request several times at once (the first argument says how many), and prints the totals as one
-- line of numbers: requests, microseconds, bytes, then connect, read, write, status and timeout errors.

function init(arguments)
  local depth = tonumber(arguments[1] or "1")
  if depth > 1 then
    local requests = string.rep(wrk.format(), depth)
    -- Only where it is needed: with this function wrk asks for every request anew.
    request = function() return requests end
  end
end

function done(summary)
  local errors = summary.errors
  io.write(string.format("totals %d %d %d %d %d %d %d %d\n", summary.requests, summary.duration, summary.bytes,
    errors.connect, errors.read, errors.write, errors.status, errors.timeout))
end
