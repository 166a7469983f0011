# One table of bench/load: the medians of a scenario's rounds.
# Set: scenario, count (requests or bytes), ticks (a second), reference, order (the servers).
# Fields: scenario, server, round, bytes of a reply, user and system ticks before and after the turn, requests,
# microseconds, bytes, five counts of errors.

function median(values, n,    sorted, i, j, value) {
  for (i = 1; i <= n; ++i) {
    value = values[i]
    for (j = i; j > 1 && sorted[j - 1] > value; --j) sorted[j] = sorted[j - 1]
    sorted[j] = value
  }
  return n % 2 ? sorted[(n + 1) / 2] : (sorted[n / 2] + sorted[n / 2 + 1]) / 2
}

function medianOf(series, server,    i, values) {
  for (i = 1; i <= rounds[server]; ++i) values[i] = series[server, i]
  return median(values, rounds[server])
}

function ratio(value, series) {
  return medianOf(series, reference) > 0 ? sprintf("%.2f", value / medianOf(series, reference)) : "-"
}

$1 == scenario {
  requests = count == "bytes" ? $11 / $4 : $9
  if (requests == 0) requests = 1
  userTicks = $7 - $5
  allTicks = userTicks + $8 - $6
  seconds = $10 / 1e6
  n = ++rounds[$2]
  cpu[$2, n] = allTicks / ticks * 1e6 / requests
  user[$2, n] = userTicks / ticks * 1e6 / requests
  rate[$2, n] = requests / seconds
  transfer[$2, n] = $11 / seconds / 1e6
  busy[$2, n] = allTicks / ticks / seconds * 100
  for (i = 1; i <= 5; ++i) errors[$2, i] += $(11 + i)
}

END {
  split("connect read write status timeout", kind, " ")
  printf "%-10s %11s %11s %11s %11s %11s %9s %7s  %s\n", "", "CPU us/req", "/" reference, "of it user", "requests/s",
    "/" reference, "MB/s", "busy %", "errors"
  n = split(order, servers, " ")
  for (s = 1; s <= n; ++s) {
    server = servers[s]
    if (!(server in rounds)) continue
    text = ""
    for (i = 1; i <= 5; ++i) if (errors[server, i] > 0) text = text kind[i] " " errors[server, i] " "
    printf "%-10s %11.2f %11s %11.2f %11.0f %11s %9.1f %7.0f  %s\n", server, medianOf(cpu, server),
      ratio(medianOf(cpu, server), cpu), medianOf(user, server), medianOf(rate, server),
      ratio(medianOf(rate, server), rate), medianOf(transfer, server), medianOf(busy, server),
      text == "" ? "none" : text
  }
}
