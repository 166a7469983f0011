"use strict";

const everyMilliseconds = 2000;

const byId = (id) => document.getElementById(id);

// --- the counters ---------------------------------------------------------------------------------------------------

function duration(seconds) {
  const units = [[86400, "d"], [3600, "h"], [60, "min"], [1, "s"]];
  const largest = units.findIndex(([size]) => seconds >= size);
  if (largest < 0) return "0 s";
  return units.slice(largest, largest + 2)
    .map(([size, unit], index) => {
      const count = Math.floor((index === 0 ? seconds : seconds % units[largest][0]) / size);
      return count + " " + unit;
    })
    .join(" ");
}

function bytes(count) {
  return count < 1024 * 1024 ? (count / 1024).toFixed(0) + " KiB" : (count / 1024 / 1024).toFixed(1) + " MiB";
}

const formats = {uptime: duration, memory: bytes};

function showCounters(status) {
  for (const cell of document.querySelectorAll("[data-counter]")) {
    const name = cell.dataset.counter;
    if (typeof status[name] !== "number") continue;
    const format = formats[name] || ((count) => count.toLocaleString("en"));
    cell.textContent = format(status[name]);
  }
  if (typeof status.version === "string") byId("version").textContent = status.version;
}

function note(text, alarm) {
  const element = byId("live-note");
  if (element.textContent === text) return;
  element.textContent = text;
  element.classList.toggle("alarm", Boolean(alarm));
}

function enableTrials(enabled) {
  for (const control of document.querySelectorAll("form button, form textarea")) control.disabled = !enabled;
}

// Returns whether it is worth asking again.
async function readStatus() {
  let reply;
  try {
    reply = await fetch("/status", {cache: "no-store"});
  } catch {
    note("The server does not answer any more. This page asks again and again.", true);
    return true;
  }
  if (!reply.ok) {
    enableTrials(false);
    note("This server runs without its demonstration pages: start it with --demo for the counters and the trials.");
    return false;
  }
  showCounters(await reply.json());
  enableTrials(true);
  note("Read from /status every two seconds; this page's own requests are counted too.");
  return true;
}

async function keepReading() {
  let again = true;
  try {
    if (!document.hidden) again = await readStatus();
  } catch {
    note("What /status answers makes no sense.", true);
  }
  if (again) setTimeout(keepReading, everyMilliseconds);
}

// --- the trials -----------------------------------------------------------------------------------------------------

// Shows a reply as it went over the wire: status, the headers worth a look, and the body.
async function show(output, request) {
  const started = performance.now();
  try {
    const reply = await request();
    const body = await reply.text();
    const took = (performance.now() - started).toFixed(1);
    const headers = ["content-type", "content-length", "transfer-encoding"]
      .filter((name) => reply.headers.has(name))
      .map((name) => name + ": " + reply.headers.get(name) + "\n");
    output.textContent = reply.status + " " + reply.statusText + "  (" + took + " ms)\n" + headers.join("") + "\n" + body;
  } catch {
    output.textContent = "No answer: is the server still running?";
  }
}

function onSubmit(form, request) {
  byId(form).addEventListener("submit", (event) => {
    event.preventDefault();
    show(byId(form + "-output"), request);
  });
}

onSubmit("hello", () => fetch("/hello", {cache: "no-store"}));
onSubmit("echo", () => fetch("/echo", {
  method: "POST",
  headers: {"Content-Type": "text/plain; charset=utf-8"},
  body: byId("echo-text").value,
}));

if (location.protocol.startsWith("http"))
  for (const place of document.querySelectorAll("[data-origin]")) place.textContent = location.origin;

keepReading();
