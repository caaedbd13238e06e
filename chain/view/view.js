// kelvorn-chain view: the chain's devices drawn from above, each pin
// coloured by the level its input cell samples. The server samples the
// chain and pushes the differences on an event stream; this page keeps no
// state on the server, so any number of tabs can watch one board. Every URL
// is relative: the page lives under the server's /TOKEN/ prefix.
'use strict';

const HISTORY_S = 30;     // seconds of per-port history kept for the waveform
const CHANGED_MS = 3000;  // how long a pin that changed keeps its ring
const DRIVABLE = new Set(['bidir', 'output2', 'output3']);

const state = {
  drive: false,          // the server was started with --drive
  pins: new Map(),       // "POS/PORT" -> the elements drawing that port
  levels: {},            // POS -> {PORT: 0|1}, the last sample
  driving: {},           // POS -> {PORT: "0"|"1"}, what the server drives
  marks: {},             // POS -> pin names on failing nets
  history: new Map(),    // "POS/PORT" -> [[t, level], ...], oldest first
  changedAt: new Map(),  // "POS/PORT" -> performance.now() of its last change
  clock: { t: 0, at: 0 },  // the server's t of the last event, and when it came
  selected: null,        // the pin element whose panel is open
  source: null,          // the EventSource
};

const $ = (id) => document.getElementById(id);
const key = (position, port) => `${position}/${port}`;

// An element with attributes and children (strings become text).
function el(tag, attrs = {}, ...children) {
  const e = document.createElement(tag);
  for (const [name, value] of Object.entries(attrs)) {
    if (value === null || value === undefined) continue;
    if (name === 'class') e.className = value;
    else if (name === 'style') Object.assign(e.style, value);
    else e.setAttribute(name, value);
  }
  for (const c of children) e.append(c);
  return e;
}

function setStatus(text, isError = false) {
  const s = $('status');
  s.textContent = text;
  s.classList.toggle('error', isError);
}

// A request to the server's JSON API; a refusal becomes an Error carrying
// the server's one-line reason.
async function api(path, body) {
  const options = body === undefined ? {} : {
    method: 'POST',
    headers: { 'Content-Type': 'application/json' },
    body: JSON.stringify(body),
  };
  const response = await fetch(path, options);
  let doc = null;
  try { doc = await response.json(); } catch (e) { /* no JSON: reported below */ }
  if (!response.ok) {
    const reason = doc && doc.error ? doc.error : response.statusText;
    throw new Error(`${path}: ${response.status} ${reason}`);
  }
  if (doc === null) throw new Error(`${path}: the answer is not JSON`);
  return doc;
}

// The server's clock now: t of the last event plus the time since it came.
function serverNow() {
  return state.clock.t + (performance.now() - state.clock.at) / 1000;
}
function setClock(t) {
  if (typeof t !== 'number') return;
  state.clock = { t, at: performance.now() };
}

// ---- the chain table ----

function makerText(d) {
  if (d.manufacturer) return d.manufacturer;
  if (d.jep106) return `bank ${d.jep106.bank} code ${d.jep106.code}`;
  return '';
}

function renderChain(chain) {
  const body = $('chain').tBodies[0];
  body.replaceChildren();
  for (const d of chain.devices) {
    body.append(el('tr', { 'data-position': d.position },
      el('td', {}, String(d.position)),
      el('td', { class: 'mono' }, d.idcode === null ? 'none (BYPASS)' : d.idcode),
      el('td', {}, makerText(d)),
      el('td', {}, d.part || ''),
      el('td', {}, String(d.ir_length)),
      el('td', { title: d.bsdl || '' }, d.bsdl ? 'yes' : 'no')));
  }
  $('chain-summary').textContent =
    `${chain.devices.length} device${chain.devices.length === 1 ? '' : 's'}, IR ${chain.ir_total} bits in all, ` +
    'nearest TDO first' + (chain.drive ? '; driving allowed (--drive)' : '; read only');
}

// ---- the drawings ----

// One pin: its element carries what tests and scripts look for
// (class "pin", data-position, data-pin, data-port, data-level).
function makePin(position, pin, tag = 'div') {
  const e = el(tag, {
    class: 'pin' + (pin.cell === null ? ' nocell' : ''),
    'data-position': position,
    'data-pin': pin.pin,
    'data-port': pin.port,
    'data-level': 'none',
  });
  e.pinInfo = { position, ...pin };
  const k = key(position, pin.port);
  if (!state.pins.has(k)) state.pins.set(k, []);
  state.pins.get(k).push(e);
  e.addEventListener('click', (ev) => { ev.stopPropagation(); openPanel(e); });
  return e;
}

function place(e, x, y, w, h) {
  Object.assign(e.style, { left: `${x}px`, top: `${y}px`, width: `${w}px`, height: `${h}px` });
  return e;
}

// A quad package from above: pin 1 at the top of the left side, numbers
// running counter-clockwise: down the left, along the bottom, up the
// right, back along the top.
function drawQuad(detail) {
  const pins = detail.pins;
  const n = Math.max(1, Math.ceil(pins.length / 4));  // pins per side
  const pitch = Math.max(12, Math.min(24, Math.floor(600 / n)));
  const width = pitch - 4, length = 24, label = 72, gap = 3;
  const body = (n + 1) * pitch;
  const b0 = length + label + gap;  // where the body starts, on both axes
  const size = 2 * b0 + body;
  const box = el('div', { class: 'quad', style: { width: `${size}px`, height: `${size}px`, '--pitch': `${pitch}px` } });
  box.append(place(el('div', { class: 'body' },
    el('span', { class: 'pin1' }), el('div', {}, detail.part || ''), el('div', { class: 'summary' }, detail.package || '')),
  b0, b0, body, body));
  pins.forEach((pin, index) => {
    // The pin's place from its number when it is one, else its order.
    const number = /^\d+$/.test(pin.pin) ? Number(pin.pin) - 1 : index;
    const i = number >= 0 && number < 4 * n ? number : index;
    const side = Math.floor(i / n), k = i % n;
    const e = makePin(detail.position, pin);
    e.textContent = pin.pin;
    const text = el('div', { class: 'plabel side' + side }, pin.port);
    const along = pitch * (k + 1);  // slot centre along the side
    if (side === 0) {         // left, top to bottom
      place(e, b0 - length, b0 + along - width / 2, length, width);
      place(text, 0, b0 + along - pitch / 2, label, pitch);
    } else if (side === 1) {  // bottom, left to right
      place(e, b0 + along - width / 2, b0 + body, width, length);
      place(text, b0 + along - pitch / 2, b0 + body + length + gap, pitch, label);
    } else if (side === 2) {  // right, bottom to top
      place(e, b0 + body, b0 + body - along - width / 2, length, width);
      place(text, b0 + body + length + gap, b0 + body - along - pitch / 2, label, pitch);
    } else {                  // top, right to left
      place(e, b0 + body - along - width / 2, b0 - length, width, length);
      place(text, b0 + body - along - pitch / 2, 0, pitch, label);
    }
    e.classList.add('side' + side);
    box.append(e, text);
  });
  return box;
}

// A ball grid from above: row letters down, column numbers across. Balls
// the grid has no place for (a name outside the rows and columns) are
// listed after it.
function drawGrid(detail) {
  const rows = detail.rows || [], columns = detail.columns || [];
  const byName = new Map(detail.pins.map((p) => [p.pin, p]));
  const grid = el('div', { class: 'grid', style: { gridTemplateColumns: `2em repeat(${columns.length}, var(--ball))` } });
  grid.append(el('div'));
  for (const c of columns) grid.append(el('div', { class: 'glabel' }, String(c)));
  const placed = new Set();
  for (const r of rows) {
    grid.append(el('div', { class: 'glabel' }, r));
    for (const c of columns) {
      const pin = byName.get(`${r}${c}`);
      if (!pin) { grid.append(el('div', { class: 'noball' })); continue; }
      placed.add(pin.pin);
      const e = makePin(detail.position, pin);
      e.classList.add('ball');
      e.append(el('span', { class: 'bname' }, pin.pin), el('span', { class: 'bport' }, pin.port));
      grid.append(e);
    }
  }
  const rest = detail.pins.filter((p) => !placed.has(p.pin));
  const box = el('div', { class: 'gridbox' }, grid);
  if (rest.length) box.append(drawList({ position: detail.position, pins: rest }));
  return box;
}

// Any other package: a table, one row a pin, the row being the pin element.
function drawList(detail) {
  const table = el('table', { class: 'pinlist' },
    el('thead', {}, el('tr', {}, ...['Pin', 'Port', 'Function', 'Cell', 'Level'].map((h) => el('th', {}, h)))));
  const body = el('tbody');
  for (const pin of detail.pins) {
    const row = makePin(detail.position, pin, 'tr');
    row.append(el('td', {}, pin.pin), el('td', {}, pin.port), el('td', {}, pin.function || ''),
      el('td', {}, pin.cell === null ? '' : String(pin.cell)), el('td', { class: 'lvl' }));
    body.append(row);
  }
  table.append(body);
  return table;
}

function renderDevice(detail) {
  const draw = { quad: drawQuad, grid: drawGrid }[detail.shape] || drawList;
  return el('section', { class: 'device', 'data-position': detail.position },
    el('h2', {}, `${detail.position}: ${detail.part || 'unknown part'}`,
      el('span', { class: 'summary' }, ` ${detail.package || ''}, ${detail.pins.length} pins`)),
    draw(detail));
}

// ---- pin state ----

function levelOf(position, port) {
  const l = (state.levels[position] || {})[port];
  return l === 0 || l === 1 ? l : null;
}
function drivenOf(position, port) {
  const d = (state.driving[position] || {})[port];
  return d === '0' || d === '1' ? d : null;
}

function updatePin(e) {
  const p = e.pinInfo;
  const level = levelOf(p.position, p.port);
  const driven = drivenOf(p.position, p.port);
  const marks = state.marks[p.position] || [];
  e.dataset.level = level === null ? 'none' : String(level);
  e.classList.toggle('driven', driven !== null);
  e.classList.toggle('fault', marks.includes(p.pin) || marks.includes(p.port));
  e.title = `${p.port}, pin ${p.pin}\ncell ${p.cell === null ? 'none' : p.cell}, ` +
    `${p.function || 'no function'}\nlevel ${level === null ? 'none' : level}` +
    (driven === null ? '' : `\ndriven ${driven}`);
  const cell = e.querySelector('td.lvl');
  if (cell) cell.textContent = level === null ? '' : String(level) + (driven === null ? '' : ` (driven ${driven})`);
  if (e === state.selected) renderPanel();
}

function updatePort(position, port) {
  for (const e of state.pins.get(key(position, port)) || []) updatePin(e);
}
function updateAll() {
  for (const list of state.pins.values()) list.forEach(updatePin);
}

// The history of one port: a step is added only when the level differs
// from the last one; one point before the window stays as the start of the
// line.
function record(k, t, level) {
  let h = state.history.get(k);
  if (!h) state.history.set(k, h = []);
  if (h.length && h[h.length - 1][1] === level) return;
  h.push([t, level]);
  prune(h, t);
}
function prune(h, now) {
  while (h.length > 1 && h[1][0] <= now - HISTORY_S) h.shift();
}

// ---- the event stream ----

function applyLevels(doc) {
  // A t that went back is a restarted server: its history is another run's.
  if (typeof doc.t === 'number' && doc.t < state.clock.t) {
    state.history.clear();
    state.changedAt.clear();
  }
  setClock(doc.t);
  state.levels = doc.levels || {};
  state.driving = doc.driving || {};
  for (const [position, ports] of Object.entries(state.levels))
    for (const [port, level] of Object.entries(ports)) record(key(position, port), doc.t, level);
  updateAll();
  updateReleaseButton();
}

function applyChange(doc) {
  setClock(doc.t);
  const now = performance.now();
  for (const c of doc.changes || []) {
    const ports = state.levels[c.position] || (state.levels[c.position] = {});
    ports[c.port] = c.level;
    const k = key(c.position, c.port);
    record(k, doc.t, c.level);
    state.changedAt.set(k, now);
    for (const e of state.pins.get(k) || []) e.classList.add('changed');
    updatePort(c.position, c.port);
  }
}

function applyDriving(driving) {
  state.driving = driving || {};
  updateAll();
  updateReleaseButton();
}

function connect() {
  const source = new EventSource('api/events');
  state.source = source;
  const conn = (text, ok) => { $('conn').textContent = text; $('conn').classList.toggle('live', ok); };
  source.onopen = () => conn('live', true);
  source.onerror = () => {
    conn('stream lost, reconnecting', false);
    // The browser retries by itself unless the server refused the stream
    // (a non-200 answer closes it): then try again from here, slowly.
    if (source.readyState === EventSource.CLOSED) setTimeout(connect, 2000);
  };
  const handle = (fn) => (ev) => {
    try { fn(JSON.parse(ev.data)); } catch (e) { setStatus(`event stream: ${e.message}`, true); }
  };
  source.addEventListener('levels', handle(applyLevels));
  source.addEventListener('change', handle(applyChange));
  source.addEventListener('driving', handle((doc) => applyDriving(doc.driving)));
}

// Rings fade after CHANGED_MS, histories drop what left the window, and the
// open panel's waveform scrolls.
function tick() {
  const now = performance.now();
  for (const [k, at] of state.changedAt) {
    if (now - at < CHANGED_MS) continue;
    state.changedAt.delete(k);
    for (const e of state.pins.get(k) || []) e.classList.remove('changed');
  }
  const t = serverNow();
  for (const h of state.history.values()) prune(h, t);
  $('clock').textContent = state.clock.at ? `t = ${t.toFixed(1)} s` : '';
  if (state.selected) renderWave();
}

// ---- the pin panel ----

function openPanel(e) {
  if (state.selected) state.selected.classList.remove('selected');
  state.selected = e;
  e.classList.add('selected');
  $('panel').hidden = false;
  renderPanel();
}

function closePanel() {
  if (state.selected) state.selected.classList.remove('selected');
  state.selected = null;
  $('panel').hidden = true;
}

function renderPanel() {
  const p = state.selected.pinInfo;
  const level = levelOf(p.position, p.port), driven = drivenOf(p.position, p.port);
  $('panel-title').textContent = `${p.port} (pin ${p.pin}, device ${p.position})`;
  $('panel-info').textContent = `cell ${p.cell === null ? 'none' : p.cell}, ${p.function || 'no function'}; ` +
    `level ${level === null ? 'none' : level}` + (driven === null ? '' : `; driven ${driven}`);
  // Buttons only for ports with an output cell; the server checks the rest
  // (shared control cells, --drive) and its refusal shows in the status line.
  $('panel-drive').hidden = !(state.drive && DRIVABLE.has(p.function));
  renderWave();
}

// The last HISTORY_S seconds of the port as a step line, now at the right.
function renderWave() {
  const p = state.selected.pinInfo;
  const box = $('panel-wave');
  if (p.cell === null) { box.textContent = 'no input cell: nothing sampled'; return; }
  const W = 360, H = 64, hi = 10, lo = 46, now = serverNow(), t0 = now - HISTORY_S;
  const x = (t) => (Math.max(0, Math.min(HISTORY_S, t - t0)) / HISTORY_S * W).toFixed(1);
  const h = state.history.get(key(p.position, p.port)) || [];
  let d = '';
  h.forEach(([t, level], i) => {
    const y = level ? hi : lo;
    d += i === 0 ? `M${x(t)} ${y}` : ` H${x(t)} V${y}`;
  });
  if (h.length) d += ` H${W}`;
  const ticks = [0, 10, 20].map((s) => `<line class="tick" x1="${s / HISTORY_S * W}" y1="${lo + 4}" x2="${s / HISTORY_S * W}" y2="${lo + 8}"/>` +
    `<text x="${s / HISTORY_S * W + 2}" y="${H - 2}">-${HISTORY_S - s} s</text>`).join('');
  box.innerHTML = `<svg class="wave" viewBox="0 0 ${W + 14} ${H}" width="${W + 14}" height="${H}">` +
    `<line class="axis" x1="0" y1="${lo + 4}" x2="${W}" y2="${lo + 4}"/>${ticks}` +
    `<text x="${W - 22}" y="${H - 2}">now</text>` +
    `<text x="${W + 3}" y="${hi + 4}">1</text><text x="${W + 3}" y="${lo + 4}">0</text>` +
    `<path class="step" d="${d}"/></svg>`;
}

// ---- driving ----

async function drive(level) {
  const p = state.selected && state.selected.pinInfo;
  if (!p) return;
  try {
    const doc = await api('api/drive', { position: p.position, port: p.port, level });
    applyDriving(doc.driving);
    setStatus(level === 'z' ? `${p.position}.${p.port} released` : `${p.position}.${p.port} driven ${level}`);
  } catch (e) {
    setStatus(e.message, true);
  }
}

async function releaseAll() {
  try {
    const doc = await api('api/release', {});
    applyDriving(doc.driving);
    setStatus('every device released (Test-Logic-Reset)');
  } catch (e) {
    setStatus(e.message, true);
  }
}

// Release-all is offered while drive is allowed; it is marked while
// anything is driven.
function updateReleaseButton() {
  const b = $('release-all');
  b.hidden = !state.drive;
  b.classList.toggle('active', Object.values(state.driving).some((ports) => Object.keys(ports).length > 0));
}

// ---- search ----

function search(text) {
  const q = text.trim().toLowerCase();
  let count = 0;
  for (const list of state.pins.values()) {
    for (const e of list) {
      const match = q !== '' && e.pinInfo.port.toLowerCase().includes(q);
      e.classList.toggle('match', match);
      if (match) count++;
    }
  }
  $('search-count').textContent = q === '' ? '' : `${count} pin${count === 1 ? '' : 's'}`;
}

// ---- start ----

async function main() {
  $('search').addEventListener('input', (ev) => search(ev.target.value));
  $('panel-close').addEventListener('click', closePanel);
  $('drive-0').addEventListener('click', () => drive('0'));
  $('drive-1').addEventListener('click', () => drive('1'));
  $('drive-z').addEventListener('click', () => drive('z'));
  $('release-all').addEventListener('click', releaseAll);
  document.addEventListener('keydown', (ev) => { if (ev.key === 'Escape') closePanel(); });
  try {
    const chain = await api('api/chain');
    state.drive = chain.drive === true;
    renderChain(chain);
    const drawn = chain.devices.filter((d) => d.boundary);
    const details = await Promise.all(drawn.map((d) => api(`api/devices/${d.position}`)));
    $('devices').replaceChildren(...details.map(renderDevice));
    if (!drawn.length) $('devices').append(el('p', { class: 'summary' }, 'No device has a BSDL file with a boundary register: nothing to draw.'));
    try {
      state.marks = (await api('api/test')).marks || {};
    } catch (e) {
      state.marks = {};  // no test result: nothing to mark
    }
    updateAll();
    updateReleaseButton();
    search($('search').value);
    connect();
    setInterval(tick, 250);
  } catch (e) {
    setStatus(e.message, true);
  }
}

main();
