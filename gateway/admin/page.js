// The operator's page: asks for /status.json every two seconds and shows it. Whatever comes from
// devices and clients is set as text, never as markup.
"use strict";

const PERIOD = 2000;
const SAMPLES = 90;
const byId = (id) => document.getElementById(id);
const state = { paused: false, last: null, rates: [], words: "", timer: 0 };

function setText(element, text) {
  const wanted = String(text);
  if (element.textContent !== wanted) element.textContent = wanted;
}
const show = (id, text) => setText(byId(id), text);
const count = (number) => Number(number || 0).toLocaleString();
const clock = (time) => (time ? new Date(time).toLocaleTimeString() : "");
const moment = (time) => (time ? new Date(time).toLocaleString() : "");
const milliseconds = (seconds) => (seconds * 1000).toFixed(seconds < 0.01 ? 2 : 0) + " ms";

// Rows keep their elements from one time to the next, so that focus and selection stay. A cell is a
// text, or {text, kind}, or {button, does}.
function fill(id, rows, nothing) {
  const body = byId(id);
  const columns = body.parentNode.tHead.rows[0].cells.length;
  const wanted = rows.length ? rows : [{ key: "", cells: [{ text: nothing, kind: "none", span: columns }] }];
  const old = new Map(Array.from(body.rows, (row) => [row.dataset.key, row]));
  wanted.forEach((entry, at) => {
    const key = "row " + entry.key;
    const row = old.get(key) || document.createElement("tr");
    old.delete(key);
    row.dataset.key = key;
    entry.cells.forEach((cell, column) => fillCell(row, column, cell));
    if (body.rows[at] !== row) body.insertBefore(row, body.rows[at] || null);
  });
  for (const row of old.values()) row.remove();
}

function fillCell(row, column, given) {
  const cell = given !== null && typeof given === "object" ? given : { text: given };
  let element = row.cells[column];
  if (!element) {
    element = document.createElement(column === 0 && !cell.span ? "th" : "td");
    if (element.tagName === "TH") element.scope = "row";
    if (cell.span) element.colSpan = cell.span;
    row.append(element);
  }
  if (cell.button) {
    const button = element.firstElementChild || document.createElement("button");
    button.type = "button";
    setText(button, cell.button);
    button.onclick = cell.does;
    if (!button.isConnected) element.append(button);
    return;
  }
  const kind = cell.kind || (typeof cell.text === "number" ? "number" : "");
  if (element.className !== kind) element.className = kind;
  setText(element, typeof cell.text === "number" ? count(cell.text) : cell.text ?? "");
}

function answeredIn(status) {
  return status.requests.map((row) => row.good + row.clientErrors + row.serverErrors);
}

function showRequests(status) {
  const before = state.last;
  const seconds = before ? (status.time - before.time) / 1000 : 0;
  const now = answeredIn(status);
  const then = before ? answeredIn(before) : now;
  const rate = (from, to) => (seconds > 0 && to >= from ? (to - from) / seconds : 0);
  const sum = (numbers) => numbers.reduce((all, each) => all + each, 0);
  fill("requestRows", status.requests.map((row, at) => ({
    key: row.resource,
    cells: [row.resource, rate(then[at], now[at]).toFixed(1), now[at], row.clientErrors,
            { text: row.serverErrors, kind: row.serverErrors ? "bad" : "number" }],
  })));
  if (!before || seconds <= 0) return;
  const answered = sum(now) - sum(then);
  const all = rate(sum(then), sum(now));
  show("rate", all.toFixed(1));
  const own = status.times.gatewaySeconds - before.times.gatewaySeconds;
  show("ownTime", answered > 0 ? milliseconds(own / answered) : "–");
  const asked = status.times.deviceRequests - before.times.deviceRequests;
  const waited = status.times.deviceSeconds - before.times.deviceSeconds;
  show("deviceTime", asked > 0 ? milliseconds(waited / asked) : "–");
  state.rates.push(all);
  if (state.rates.length > SAMPLES) state.rates.shift();
  const top = Math.max(1, ...state.rates);
  const points = state.rates.map((each, at) =>
    `${(300 * at / (SAMPLES - 1)).toFixed(1)},${(58 - 56 * each / top).toFixed(1)}`);
  byId("curve").firstElementChild.setAttribute("points", points.join(" "));
}

function showDevices(devices) {
  show("trouble", count(devices.inTrouble));
  byId("trouble").className = devices.inTrouble ? "bad" : "";
  const shown = devices.list.length;
  show("deviceCount", `${count(shown)} of ${count(devices.matching)} shown, ` +
       `${count(devices.configured)} configured`);
  fill("deviceRows", devices.list.map((device) => ({
    key: device.index,
    cells: [device.index, device.address,
            { text: device.state, kind: device.trouble ? "bad" : "good" },
            device.alarmStream ? "open" : "–", device.pending, device.answered, device.failed,
            device.alarms,
            device.lastError ? `${device.lastError}, ${moment(device.lastErrorTime)}` : "–"],
  })), "No device matches.");
}

function showStreams(streams) {
  show("streamCount", count(streams.open));
  show("partCount", `${count(streams.partsSent)} parts sent, ${count(streams.partsDropped)} dropped.`);
  const sorted = [...streams.list].sort((a, b) => a.since - b.since);
  fill("streamRows", sorted.map((stream, at) => ({
    key: `${at} ${stream.client} ${stream.since}`,
    cells: [stream.user, stream.client, stream.device, moment(stream.since), stream.parts],
  })), "Nobody has an alert stream open.");
}

function showLogins(logins) {
  show("lockCount", count(logins.locks.length));
  show("loginCount", `${count(logins.admitted)} admitted, ${count(logins.wrong)} wrong, ` +
       `${count(logins.whileLocked)} while locked, ${count(logins.notAllowed)} for a device of others.`);
  fill("lockRows", logins.locks.map((lock) => ({
    key: lock.address,
    cells: [lock.address, `${count(lock.seconds)} s`,
            { button: `Unlock ${lock.address}`, does: () => unlock(lock.address) }],
  })), "No address is locked.");
  fill("refusalRows", logins.refusals.map((refusal, at) => ({
    key: `${at} ${refusal.time}`,
    cells: [clock(refusal.time), refusal.user, refusal.address, refusal.locked ? "yes" : "no"],
  })), "No login was refused.");
}

function showAlarms(alarms) {
  fill("alarmRows", alarms.map((alarm, at) => ({
    key: `${alarms.length - at} ${alarm.time} ${alarm.device}`,
    cells: [clock(alarm.time), alarm.device, alarm.channelID ?? "", alarm.eventType ?? "",
            alarm.eventState ?? "", alarm.eventDescription ?? ""],
  })), "No alarm has come since the start.");
}

// Read aloud, so only when it changes.
function say(words, bad) {
  byId("state").className = bad ? "bad" : "good";
  if (words !== state.words) show("state", words);
  state.words = words;
}

function showAll(status) {
  show("version", status.version);
  const refused = status.reloadRefused ? ` The last reload was refused: ${status.reloadRefused}` : "";
  const ready = status.notReady.length === 0;
  say((ready ? "Takes requests." : `Takes no requests: ${status.notReady.join(", ")}.`) + refused,
      !ready || refused !== "");
  show("connections", count(status.connections));
  show("inFlight", count(status.requestsInFlight));
  showRequests(status);
  showDevices(status.devices);
  showStreams(status.streams);
  showLogins(status.logins);
  showAlarms(status.alarms);
  state.last = status;
}

async function poll() {
  clearTimeout(state.timer);
  try {
    const query = "?search=" + encodeURIComponent(byId("search").value);
    const response = await fetch("status.json" + query, { signal: AbortSignal.timeout(10000) });
    if (!response.ok) throw new Error(`status ${response.status}`);
    showAll(await response.json());
  } catch (error) {
    say(`The gateway does not answer: ${error.message}`, true);
    state.last = null;
  }
  clearTimeout(state.timer);  // of another one that was under way
  if (!state.paused) state.timer = setTimeout(poll, PERIOD);
}

async function post(url, told) {
  try {
    const response = await fetch(url, { method: "POST" });
    const answer = await response.json();
    show("said", response.ok ? told(answer) : answer.reason || answer.error);
  } catch (error) {
    show("said", error.message);
  }
  poll();
}

const unlock = (address) => post("unlock?address=" + encodeURIComponent(address),
  (answer) => (answer.unlocked ? `${address} is not locked any more.` : `${address} was not locked.`));

byId("reload").onclick = () => post("reload", () => "The configuration was read again.");
byId("search").oninput = () => poll();
byId("pause").onclick = () => {
  state.paused = !state.paused;
  byId("pause").setAttribute("aria-pressed", String(state.paused));
  if (!state.paused) poll();
};
poll();
