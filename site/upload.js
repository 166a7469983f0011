"use strict";

// Without this script the form is sent as it is, and the server answers with a page.

const byId = (id) => document.getElementById(id);

const form = byId("upload");
const picker = byId("files");
let request = null;

const count = (number) => number.toLocaleString("en");

function size(bytes) {
  const units = ["bytes", "KiB", "MiB", "GiB"];
  let unit = 0;
  for (; bytes >= 1024 && unit < units.length - 1; ++unit) bytes /= 1024;
  if (unit === 0) return bytes === 1 ? "1 byte" : bytes + " bytes";
  return bytes.toFixed(1) + " " + units[unit];
}

function say(text) {
  byId("state").textContent = text;
}

function complain(text) {
  byId("error").textContent = text;
  byId("error").hidden = text === "";
}

// --- choosing -------------------------------------------------------------------------------------------------------

const chosen = () => Array.from(picker.files);

const total = () => chosen().reduce((sum, file) => sum + file.size, 0);

// What stands in the way of sending, empty when nothing does.
function problem() {
  const limit = Number(form.dataset.limit);
  if (chosen().length === 0) return "Choose a file first.";
  return limit > 0 && total() > limit
    ? "These are " + count(total()) + " bytes, and no more than " + count(limit) + " are taken at once." : "";
}

function showChosen() {
  const items = chosen().map((file) => {
    const item = document.createElement("li");
    item.textContent = file.name + " (" + size(file.size) + ")";
    return item;
  });
  byId("chosen").replaceChildren(...items);
  complain(items.length > 0 ? problem() : "");
  say("");
}

function overForm(over) {
  byId("drop").classList.toggle("over", over);
}

function onDrop(event) {
  event.preventDefault();
  overForm(false);
  if (request !== null || event.dataTransfer.files.length === 0) return;
  picker.files = event.dataTransfer.files;
  showChosen();
}

// --- sending --------------------------------------------------------------------------------------------------------

function showRunning(running) {
  byId("send").disabled = running;
  picker.disabled = running;
  byId("abort").hidden = !running;
  byId("running").hidden = !running;
  if (running) byId("abort").focus();
  else byId("send").focus();
}

function onProgress(event) {
  if (!event.lengthComputable) return;
  byId("progress").value = event.total > 0 ? 100 * event.loaded / event.total : 100;
  byId("sent").textContent = event.loaded < event.total
    ? size(event.loaded) + " of " + size(event.total) : "All is sent; the server is storing it.";
}

function addRow(file) {
  const row = byId("rows").insertRow();
  const name = document.createElement("th");
  name.scope = "row";
  name.textContent = file.name;
  row.append(name);
  row.insertCell().textContent = count(file.bytes);
  row.insertCell().append(Object.assign(document.createElement("code"), {textContent: file.sha256}));
}

function finish(text, error) {
  request = null;
  showRunning(false);
  say(text);
  complain(error || "");
}

function onAnswer() {
  let answer = {};
  try {
    answer = JSON.parse(request.responseText);
  } catch {
    // what stands between here and the server may answer as it likes
  }
  if (request.status !== 200 || !Array.isArray(answer.files)) {
    finish("", answer.error || "The server refused the files (" + request.status + ").");
    return;
  }
  answer.files.forEach(addRow);
  byId("stored").hidden = false;
  form.reset();
  showChosen();
  finish(answer.files.length === 1 ? "One file is stored." : count(answer.files.length) + " files are stored.");
}

function send() {
  request = new XMLHttpRequest();
  request.upload.addEventListener("progress", onProgress);
  request.addEventListener("load", onAnswer);
  request.addEventListener("error", () => finish("", "The connection broke off: nothing was stored."));
  request.addEventListener("abort", () => finish("Aborted: nothing was stored."));
  request.open("POST", form.action);
  request.setRequestHeader("Accept", "application/json");
  const data = new FormData(form);
  byId("progress").value = 0;
  byId("sent").textContent = "";
  complain("");
  say("Sending " + size(total()) + ".");
  showRunning(true);
  request.send(data);
}

form.addEventListener("submit", (event) => {
  event.preventDefault();
  if (request !== null) return;
  complain(problem());
  if (problem() === "") send();
});
byId("abort").addEventListener("click", () => {
  if (request !== null) request.abort();
});
picker.addEventListener("change", showChosen);

// A file that is dropped beside the form must not replace the page.
for (const name of ["dragenter", "dragover"])
  document.addEventListener(name, (event) => {
    event.preventDefault();
    overForm(true);
  });
document.addEventListener("dragleave", (event) => {
  if (event.relatedTarget === null) overForm(false);
});
document.addEventListener("drop", onDrop);

byId("hint").textContent = "Choose one or several, or drop them on this page.";
