// ocpctl scope's page: live plots of the decimated traces the server sends,
// the actuators' state and controls, the parameter table and recordings.
'use strict';

const COLOURS = ['#4fc3f7', '#ffb74d', '#81c784', '#f06292', '#ba68c8', '#fff176', '#4db6ac', '#e57373'];
const SLIDER_RANGE = { TORQUE: 1, SPEED: 20, POSITION: 3.2, IMPEDANCE: 3.2 };
const UNITS = { position: 'rad', speed: 'rad/s', torque: 'N·m' };
const CAPACITY = 2600;  // bins kept per device: a 10 s window of 5 ms bins, and some

const token = new URLSearchParams(location.hash.slice(1)).get('token') || '';
const $ = (id) => document.getElementById(id);

// What the test and the benchmark read.
const scopeStats = { fps: 0, frames: 0, bins: 0, dataBytes: 0, statusCount: 0, points: {}, status: null };
window.scopeStats = scopeStats;

let config = null;
const devices = new Map();  // address -> device
let plots = [];
let windowS = 10;
let paused = false;
let pausedAt = 0;
let clockOffset = null;      // server seconds minus page seconds
let cursorTime = null;
let lastNotice = 0;

function pageSeconds() { return performance.now() / 1000; }
function serverNow() { return paused ? pausedAt : pageSeconds() + (clockOffset || 0) - 0.06; }
function fmt(value, digits = 4) {
  if (value === null || value === undefined || !isFinite(value)) return '—';
  const a = Math.abs(value);
  if (a !== 0 && (a < 1e-3 || a >= 1e5)) return value.toExponential(2);
  return Number(value.toPrecision(digits)).toString();
}

async function call(path, body) {
  const response = await fetch(path, {
    method: 'POST',
    headers: { 'Content-Type': 'application/json', 'X-Scope-Token': token },
    body: JSON.stringify(body || {}),
  });
  const answer = await response.json().catch(() => ({}));
  if (!response.ok) throw new Error(answer.error || response.statusText);
  return answer;
}

async function read(path) {
  const separator = path.includes('?') ? '&' : '?';
  const response = await fetch(path + separator + 'token=' + encodeURIComponent(token));
  const answer = await response.json().catch(() => ({}));
  if (!response.ok) throw new Error(answer.error || response.statusText);
  return answer;
}

function showNotice(text) {
  const notice = $('notice');
  notice.textContent = text;
  notice.classList.toggle('hidden', !text);
}

// ---------------------------------------------------------------- data

class Ring {
  constructor(channels) {
    this.k = new Float64Array(CAPACITY);
    this.lo = Array.from({ length: channels }, () => new Float32Array(CAPACITY));
    this.hi = Array.from({ length: channels }, () => new Float32Array(CAPACITY));
    this.start = 0;
    this.count = 0;
  }
  push(k, values, at) {
    const slot = (this.start + this.count) % CAPACITY;
    if (this.count === CAPACITY) this.start = (this.start + 1) % CAPACITY; else this.count++;
    this.k[slot] = k;
    for (let c = 0; c < this.lo.length; c++) {
      const lo = values[c][2 * at], hi = values[c][2 * at + 1];
      this.lo[c][slot] = lo === null ? NaN : lo;
      this.hi[c][slot] = hi === null ? NaN : hi;
    }
  }
  at(i) { return (this.start + i) % CAPACITY; }
  // The first index whose bin is at or after k.
  find(k) {
    let low = 0, high = this.count;
    while (low < high) {
      const middle = (low + high) >> 1;
      if (this.k[this.at(middle)] < k) low = middle + 1; else high = middle;
    }
    return low;
  }
}

function onData(message) {
  scopeStats.dataBytes += message.length;
  const data = JSON.parse(message);
  const offset = data.now - pageSeconds();
  // The smallest delay seen is the truest; drift is followed slowly.
  clockOffset = clockOffset === null ? offset : Math.max(offset, clockOffset - 0.002);
  for (const [address, bins] of Object.entries(data.devices)) {
    const device = devices.get(Number(address));
    if (!device) continue;
    for (let i = 0; i < bins.k.length; i++) device.ring.push(bins.k[i], bins.v, i);
    scopeStats.bins += bins.k.length;
  }
}

// ---------------------------------------------------------------- plots

function buildPlots() {
  const groups = new Map();
  config.items.forEach((item, index) => {
    const key = item.quantity || item.name;
    if (!groups.has(key)) groups.set(key, { quantity: item.quantity, channels: [], names: [] });
    groups.get(key).channels.push(index);
    groups.get(key).names.push(item.name);
  });
  const container = $('plots');
  plots = [];
  for (const [key, group] of groups) {
    const box = document.createElement('div');
    box.className = 'plot';
    const unit = UNITS[group.quantity] ? ' [' + UNITS[group.quantity] + ']' : '';
    box.innerHTML = '<h3><b>' + key + unit + '</b> ' + group.names.join(', ') +
      (group.quantity ? ' · dashed: setpoint' : '') + '<span class="legend">' +
      config.devices.map((d, i) => '<i style="color:' + COLOURS[i % COLOURS.length] + '">━ ' + d.hex + '</i>').join('') +
      '</span></h3><canvas></canvas><div class="readout hidden"></div>';
    container.appendChild(box);
    const plot = { key, quantity: group.quantity, channels: group.channels, box,
      canvas: box.querySelector('canvas'), readout: box.querySelector('.readout'), yLow: -1, yHigh: 1, points: 0 };
    plot.box.dataset.plot = key;
    attachCursor(plot);
    plots.push(plot);
  }
}

function attachCursor(plot) {
  plot.canvas.addEventListener('mousemove', (event) => {
    const rect = plot.canvas.getBoundingClientRect();
    const fraction = (event.clientX - rect.left - 50) / (rect.width - 60);
    if (fraction < 0 || fraction > 1) { cursorTime = null; return; }
    cursorTime = { end: serverNow(), fraction };
  });
  plot.canvas.addEventListener('mouseleave', () => { cursorTime = null; });
  plot.canvas.addEventListener('wheel', (event) => {
    event.preventDefault();
    windowS = Math.min(10, Math.max(0.2, windowS * (event.deltaY > 0 ? 1.25 : 0.8)));
    $('window').value = '';
  }, { passive: false });
}

function visibleRange(plot, t0, t1) {
  let low = Infinity, high = -Infinity;
  const binS = config.bin_s;
  for (const device of devices.values()) {
    const ring = device.ring;
    const first = ring.find(Math.floor(t0 / binS));
    const channels = plot.channels.slice();
    if (device.quantity === plot.quantity) channels.push(config.items.length);
    for (let i = first; i < ring.count; i++) {
      const slot = ring.at(i);
      if (ring.k[slot] * binS > t1) break;
      for (const c of channels) {
        const lo = ring.lo[c][slot], hi = ring.hi[c][slot];
        if (lo < low) low = lo;
        if (hi > high) high = hi;
      }
    }
  }
  if (!isFinite(low)) return [-1, 1];
  if (high - low < 1e-6) { low -= 0.5; high += 0.5; }
  const margin = (high - low) * 0.08;
  return [low - margin, high + margin];
}

function niceStep(span, count) {
  const raw = span / count;
  const power = Math.pow(10, Math.floor(Math.log10(raw)));
  const scaled = raw / power;
  return (scaled < 1.5 ? 1 : scaled < 3.5 ? 2 : scaled < 7.5 ? 5 : 10) * power;
}

function drawPlot(plot, t1) {
  const canvas = plot.canvas;
  const ratio = window.devicePixelRatio || 1;
  const width = canvas.clientWidth, height = canvas.clientHeight;
  if (canvas.width !== Math.round(width * ratio) || canvas.height !== Math.round(height * ratio)) {
    canvas.width = Math.round(width * ratio);
    canvas.height = Math.round(height * ratio);
  }
  const g = canvas.getContext('2d');
  g.setTransform(ratio, 0, 0, ratio, 0, 0);
  g.clearRect(0, 0, width, height);
  const left = 50, right = width - 10, top = 8, bottom = height - 20;
  const t0 = t1 - windowS;
  const [targetLow, targetHigh] = visibleRange(plot, t0, t1);
  // The axis follows the data smoothly instead of jumping each frame.
  const ease = (from, to) => from + (to - from) * 0.25;
  plot.yLow = paused ? targetLow : ease(plot.yLow, targetLow);
  plot.yHigh = paused ? targetHigh : ease(plot.yHigh, targetHigh);
  const yLow = plot.yLow, yHigh = plot.yHigh;
  const xOf = (t) => left + (t - t0) / windowS * (right - left);
  const yOf = (v) => bottom - (v - yLow) / (yHigh - yLow) * (bottom - top);

  g.font = '11px "DejaVu Sans", sans-serif';
  g.lineWidth = 1;
  g.strokeStyle = '#2a3441';
  g.fillStyle = '#8a96a8';
  const yStep = niceStep(yHigh - yLow, 4);
  g.textAlign = 'right';
  for (let v = Math.ceil(yLow / yStep) * yStep; v <= yHigh; v += yStep) {
    const y = Math.round(yOf(v)) + 0.5;
    g.beginPath(); g.moveTo(left, y); g.lineTo(right, y); g.stroke();
    g.fillText(fmt(v, 3), left - 5, y + 4);
  }
  const tStep = niceStep(windowS, 8);
  g.textAlign = 'center';
  // Seconds before now, on a grid that stays put while the traces scroll.
  for (let before = 0; before <= windowS + 1e-9; before += tStep) {
    const x = Math.round(xOf(t1 - before)) + 0.5;
    g.beginPath(); g.moveTo(x, top); g.lineTo(x, bottom); g.stroke();
    g.fillText(before === 0 ? 'now' : '−' + fmt(before, 3) + ' s', Math.min(x, right - 12), height - 5);
  }
  g.strokeStyle = '#3b4757';
  g.strokeRect(left + 0.5, top + 0.5, right - left, bottom - top);

  g.save();
  g.beginPath(); g.rect(left, top, right - left, bottom - top); g.clip();
  const binS = config.bin_s;
  let points = 0;
  for (const device of devices.values()) {
    const ring = device.ring;
    const first = Math.max(0, ring.find(Math.floor(t0 / binS)) - 1);
    const traces = plot.channels.map((c) => ({ c, dashed: false }));
    if (device.quantity === plot.quantity) traces.push({ c: config.items.length, dashed: true });
    for (const { c, dashed } of traces) {
      g.strokeStyle = device.colour;
      g.lineWidth = dashed ? 1.5 : 1.3;
      g.setLineDash(dashed ? [6, 4] : []);
      g.globalAlpha = dashed ? 0.85 : 1;
      g.beginPath();
      let drawing = false, lastK = -Infinity;
      for (let i = first; i < ring.count; i++) {
        const slot = ring.at(i);
        const k = ring.k[slot];
        const lo = ring.lo[c][slot], hi = ring.hi[c][slot];
        if (isNaN(lo)) { drawing = false; continue; }
        const x = xOf((k + 0.5) * binS);
        // A gap of more than half a second is a gap, not a line.
        if (!drawing || (k - lastK) * binS > 0.5) g.moveTo(x, yOf(lo)); else g.lineTo(x, yOf(lo));
        if (hi !== lo) g.lineTo(x, yOf(hi));
        drawing = true; lastK = k; points++;
        if (x > right + 2) break;
      }
      g.stroke();
    }
  }
  g.restore();
  g.setLineDash([]);
  g.globalAlpha = 1;
  plot.points = points;
  scopeStats.points[plot.key] = points;

  if (cursorTime) {
    const t = t0 + cursorTime.fraction * windowS;
    const x = xOf(t);
    g.strokeStyle = '#d8dee9';
    g.beginPath(); g.moveTo(x + 0.5, top); g.lineTo(x + 0.5, bottom); g.stroke();
    const lines = [fmt(t - t1, 4) + ' s'];
    for (const device of devices.values()) {
      const ring = device.ring;
      const index = ring.find(Math.floor(t / binS));
      if (index >= ring.count) continue;
      const slot = ring.at(index);
      for (const c of plot.channels) {
        const value = (ring.lo[c][slot] + ring.hi[c][slot]) / 2;
        lines.push(device.hex + ' ' + config.items[c].name + ' ' + fmt(value, 5));
      }
      if (device.quantity === plot.quantity) {
        const sp = ring.lo[config.items.length][slot];
        if (!isNaN(sp)) lines.push(device.hex + ' setpoint ' + fmt(sp, 5));
      }
    }
    plot.readout.textContent = lines.join('\n');
    plot.readout.style.left = (x + 12 > width - 220 ? x - 220 : x + 12) + 'px';
    plot.readout.classList.remove('hidden');
  } else {
    plot.readout.classList.add('hidden');
  }
}

let fpsFrames = 0, fpsSince = 0;
function frame() {
  const now = performance.now();
  fpsFrames++;
  scopeStats.frames++;
  if (now - fpsSince >= 1000) {
    scopeStats.fps = fpsFrames * 1000 / (now - fpsSince);
    fpsFrames = 0; fpsSince = now;
  }
  if (config && clockOffset !== null) {
    const t1 = serverNow();
    for (const plot of plots) drawPlot(plot, t1);
  }
  requestAnimationFrame(frame);
}

// ---------------------------------------------------------------- devices

function buildDevices() {
  const aside = $('devices');
  config.devices.forEach((info, index) => {
    const colour = COLOURS[index % COLOURS.length];
    const card = document.createElement('div');
    card.className = 'card';
    card.style.setProperty('--c', colour);
    card.dataset.address = info.hex;
    const modes = config.modes.map((m) => '<option>' + m.name + '</option>').join('');
    card.innerHTML =
      '<div class="head"><span class="addr">' + info.hex + '</span><span class="model">' + info.model +
      ' · firmware ' + info.firmware + '</span><span class="badge">STOPPED</span></div>' +
      '<div class="row"><label>Mode</label><select class="mode">' + modes + '</select>' +
      '<button class="start">Start</button><button class="stop">Stop</button></div>' +
      '<div class="row"><label>Setpoint</label><input class="slider" type="range" min="-1" max="1" step="0.001" value="0">' +
      '<input class="number" type="number" step="0.01" value="0"></div>' +
      '<div class="facts"><span>fault</span><span class="fault">unknown</span>' +
      '<span>feedback</span><span class="age">—</span>' +
      '<span>device</span><span><span class="device">—</span> ' +
      '<button class="cycle hidden" title="Cut the emulated device\'s power: it restarts, is set up again and stays stopped">' +
      'power-cycle</button></span>' +
      '<span>now</span><span class="latest">—</span></div>';
    aside.appendChild(card);
    const device = { ...info, colour, card, quantity: 'position', mode: null, running: false,
      ring: new Ring(config.items.length + 1), lastSent: 0, pending: null };
    devices.set(info.address, device);
    const slider = card.querySelector('.slider'), number = card.querySelector('.number');
    card.querySelector('.start').addEventListener('click', () => act(() => call('/api/start', { address: info.hex })));
    card.querySelector('.stop').addEventListener('click', () => act(() => call('/api/stop', { address: info.hex })));
    card.querySelector('.cycle').addEventListener('click',
      () => act(() => call('/api/power_cycle', { address: info.hex })));
    card.querySelector('.mode').addEventListener('change', (event) => {
      act(() => call('/api/mode', { address: info.hex, mode: event.target.value }));
      setSliderRange(device, event.target.value);
    });
    slider.addEventListener('input', () => { number.value = slider.value; sendSetpoint(device, Number(slider.value)); });
    number.addEventListener('change', () => {
      const value = Number(number.value);
      if (!isFinite(value)) return;
      slider.value = value;
      sendSetpoint(device, value);
    });
  });
  const select = $('params-device');
  for (const info of config.devices) select.add(new Option(info.hex + ' ' + info.model, info.hex));
}

function setSliderRange(device, mode) {
  const range = SLIDER_RANGE[mode] || 1;
  const slider = device.card.querySelector('.slider');
  slider.min = -range; slider.max = range; slider.step = range / 500;
}

// A slider sends at most 20 setpoints a second; the last one always goes.
function sendSetpoint(device, value) {
  device.pending = value;
  const wait = 50 - (performance.now() - device.lastSent);
  if (device.timer) return;
  device.timer = setTimeout(() => {
    device.timer = null;
    device.lastSent = performance.now();
    const sending = device.pending;
    act(() => call('/api/setpoint', { address: device.hex, value: sending }));
  }, Math.max(0, wait));
}

async function act(request) {
  try {
    await request();
  } catch (error) {
    showNotice('Refused: ' + error.message);
  }
}

function onStatus(message) {
  scopeStats.statusCount++;
  const status = JSON.parse(message);
  scopeStats.status = status;
  for (const entry of status.devices) {
    const device = devices.get(entry.address);
    if (!device) continue;
    const card = device.card;
    device.quantity = entry.quantity;
    device.running = entry.running;
    const badge = card.querySelector('.badge');
    badge.textContent = entry.running ? 'RUNNING' : 'STOPPED';
    badge.classList.toggle('running', entry.running);
    const select = card.querySelector('.mode');
    if (device.mode !== entry.mode) {
      device.mode = entry.mode;
      select.value = entry.mode;
      setSliderRange(device, entry.mode);
    }
    // The setpoint controls show what the device was sent, unless in use.
    const slider = card.querySelector('.slider'), number = card.querySelector('.number');
    if (entry.setpoint !== null && document.activeElement !== slider && document.activeElement !== number &&
        !device.timer) {
      slider.value = entry.setpoint;
      number.value = fmt(entry.setpoint, 6);
    }
    const fault = card.querySelector('.fault');
    fault.textContent = entry.fault;
    fault.classList.toggle('bad', entry.error_word !== null && entry.error_word !== 0);
    const age = card.querySelector('.age');
    age.textContent = (entry.feedback_age_s === null ? 'none yet' : fmt(entry.feedback_age_s * 1000, 3) + ' ms old') +
      ' · ' + (entry.answering ? entry.feedback : 'silent, pinged');
    age.classList.toggle('stale', !entry.answering || entry.feedback !== 'fresh');
    card.querySelector('.device').textContent = entry.device_running === null ? 'real device'
      : 'emulated, ' + (entry.device_running ? 'running' : 'stopped');
    card.querySelector('.cycle').classList.toggle('hidden', entry.device_running === null);
    card.querySelector('.latest').textContent = config.items.map((item, i) =>
      item.name.replace(/_.*$/, '').toLowerCase() + ' ' + fmt(entry.latest[i], 4)).join('  ');
  }
  const server = status.server;
  $('stats').textContent = 'page ' + fmt(scopeStats.fps, 3) + ' fps · ' + fmt(server.samples_per_s, 4) +
    ' samples/s in · ' + fmt(server.bytes_per_s / 1024, 3) + ' KiB/s to ' + server.pages + ' page(s)' +
    (status.statistics || []).map(([name, value]) => ' · ' + name + ' ' + value).join('');
  if (status.group) updateGroupTable(status.group);
  if (status.traffic) updateTraffic(status.traffic);
  if (status.notice_number > lastNotice) {
    lastNotice = status.notice_number;
    if (lastNotice > 0 && status.notice) showNotice(status.notice);
  }
}

// The group's statistics since the scope started, one row per actuator.
const GROUP_COLUMNS = [
  ['age_p50_ms', 3], ['age_p99_ms', 3], ['age_max_ms', 3], ['fresh'], ['stale'], ['missing'],
  ['faults'], ['restarts'], ['setpoints'], ['superseded'], ['refused'],
];

function updateGroupTable(rows) {
  const body = $('group-table').tBodies[0];
  for (const row of rows) {
    let tr = body.querySelector('tr[data-address="' + row.hex + '"]');
    if (!tr) {
      tr = body.insertRow();
      tr.dataset.address = row.hex;
      const device = devices.get(row.address);
      const head = tr.insertCell();
      head.textContent = row.hex;
      if (device) head.style.color = device.colour;
      for (const [key] of GROUP_COLUMNS) tr.insertCell().dataset.key = key;
    }
    for (const cell of tr.querySelectorAll('td[data-key]')) {
      const column = GROUP_COLUMNS.find(([key]) => key === cell.dataset.key);
      const value = row[column[0]];
      cell.textContent = column.length > 1 ? fmt(value, column[1]) : String(value);
      cell.classList.toggle('bad', ['missing', 'faults', 'restarts', 'refused'].includes(column[0]) && value > 0);
    }
  }
}

// ---------------------------------------------------------------- controls

async function stopAll() {
  const button = $('stop-all');
  button.classList.add('flash');
  setTimeout(() => button.classList.remove('flash'), 300);
  await act(() => call('/api/stop_all'));
}

function bindControls() {
  $('stop-all').addEventListener('click', stopAll);
  document.addEventListener('keydown', (event) => {
    if (event.code === 'Space' || event.key === 'Escape') {
      event.preventDefault();
      stopAll();
    } else if ((event.key === 'p' || event.key === 'P') && !(event.target instanceof HTMLInputElement)) {
      togglePause();
    }
  }, true);
  $('pause').addEventListener('click', togglePause);
  $('window').addEventListener('change', (event) => { windowS = Number(event.target.value) || windowS; });
  $('csv').addEventListener('click', saveCsv);
  $('traffic').addEventListener('click', toggleTraffic);
  $('params-read').addEventListener('click', readParameters);
  $('params-write').addEventListener('click', writeParameters);
  $('params-save').addEventListener('click', () => act(async () => {
    await call('/api/save', { address: $('params-device').value });
    paramsMessage('saved in ' + $('params-device').value, false);
  }));
  $('params-device').addEventListener('change', readParameters);
}

function togglePause() {
  paused = !paused;
  if (paused) pausedAt = pageSeconds() + (clockOffset || 0) - 0.06;
  $('pause').classList.toggle('on', paused);
  $('pause').textContent = paused ? 'Paused' : 'Pause';
}

// What the plots show, one row per bin: each trace's low and high.
function saveCsv() {
  const t1 = serverNow(), t0 = t1 - windowS, binS = config.bin_s;
  const rows = new Map();
  const columns = [];
  for (const device of devices.values()) {
    const names = config.items.map((item) => item.name).concat(['SETPOINT']);
    names.forEach((name, c) => {
      const column = columns.length;
      columns.push(device.hex + ' ' + name + ' min', device.hex + ' ' + name + ' max');
      const ring = device.ring;
      for (let i = ring.find(Math.floor(t0 / binS)); i < ring.count; i++) {
        const slot = ring.at(i);
        if (ring.k[slot] * binS > t1) break;
        if (!rows.has(ring.k[slot])) rows.set(ring.k[slot], []);
        const row = rows.get(ring.k[slot]);
        row[column] = ring.lo[c][slot];
        row[column + 1] = ring.hi[c][slot];
      }
    });
  }
  const text = ['time_s,' + columns.join(',')];
  for (const k of [...rows.keys()].sort((a, b) => a - b)) {
    const row = rows.get(k);
    const cells = [];
    for (let i = 0; i < columns.length; i++) cells.push(row[i] === undefined || isNaN(row[i]) ? '' : String(row[i]));
    text.push(((k + 0.5) * binS).toFixed(4) + ',' + cells.join(','));
  }
  const link = document.createElement('a');
  link.href = URL.createObjectURL(new Blob([text.join('\n') + '\n'], { type: 'text/csv' }));
  link.download = 'scope.csv';
  link.click();
  setTimeout(() => URL.revokeObjectURL(link.href), 1000);
}

let trafficRecording = false;
async function toggleTraffic() {
  await act(() => call(trafficRecording ? '/api/traffic/stop' : '/api/traffic/start'));
}

function updateTraffic(traffic) {
  trafficRecording = traffic.recording;
  const button = $('traffic');
  button.classList.toggle('on', traffic.recording);
  button.textContent = traffic.recording ? 'Stop recording (' + traffic.frames + ' frames)' : 'Record traffic';
  const link = $('traffic-log');
  link.href = '/api/traffic.log?token=' + encodeURIComponent(token);
  link.textContent = 'Download log (' + traffic.frames + ' frames' + (traffic.full ? ', full' : '') + ')';
  link.classList.toggle('hidden', traffic.recording || traffic.frames === 0);
}

// ---------------------------------------------------------------- parameters

function paramsMessage(text, bad) {
  const message = $('params-message');
  message.textContent = text;
  message.classList.toggle('bad', bad);
}

function fillParameters(rows, replace) {
  const body = $('params-table').tBodies[0];
  if (replace) body.innerHTML = '';
  for (const row of rows) {
    let tr = body.querySelector('tr[data-name="' + row.name + '"]');
    if (!tr) {
      tr = document.createElement('tr');
      tr.dataset.name = row.name;
      tr.innerHTML = '<td class="mono">' + row.name + '</td><td class="mono">' + row.code +
        '</td><td><input></td><td class="mono text"></td><td class="meaning"></td>';
      const input = tr.querySelector('input');
      input.addEventListener('input', () => input.classList.toggle('changed', input.value !== input.dataset.read));
      input.addEventListener('keydown', (event) => { if (event.key === 'Enter') writeParameters(); });
      if (row.name === 'ADDRESS') { input.disabled = true; input.title = 'ocpctl address moves a device'; }
      body.appendChild(tr);
    }
    const input = tr.querySelector('input');
    input.value = row.value;
    input.dataset.read = row.value;
    input.classList.remove('changed', 'bad');
    tr.querySelector('.text').textContent = row.text;
    tr.querySelector('.meaning').textContent = row.meaning;
  }
}

async function readParameters() {
  const address = $('params-device').value;
  paramsMessage('reading ' + address + ' …', false);
  try {
    const answer = await read('/api/params?address=' + encodeURIComponent(address));
    fillParameters(answer.parameters, true);
    paramsMessage('read from ' + address, false);
  } catch (error) {
    paramsMessage(error.message, true);
  }
}

async function writeParameters() {
  const address = $('params-device').value;
  const values = {};
  for (const input of $('params-table').querySelectorAll('input.changed')) {
    values[input.closest('tr').dataset.name] = input.value.trim();
  }
  if (Object.keys(values).length === 0) { paramsMessage('nothing edited', false); return; }
  try {
    const answer = await call('/api/params', { address, values });
    fillParameters(answer.parameters, false);
    paramsMessage('written to ' + address + ' and read back: ' +
      answer.parameters.map((row) => row.name + ' ' + row.value).join(', '), false);
  } catch (error) {
    paramsMessage(error.message, true);
    for (const input of $('params-table').querySelectorAll('input.changed')) input.classList.add('bad');
  }
}

// ---------------------------------------------------------------- start

// The scope stops running actuators when these stop coming.
function heartbeat() {
  fetch('/api/alive', {
    method: 'POST',
    headers: { 'Content-Type': 'application/json', 'X-Scope-Token': token },
    body: JSON.stringify({ hidden: document.hidden }),
  }).catch(() => {});
}

function connect() {
  const events = new EventSource('/api/events?token=' + encodeURIComponent(token));
  const link = $('link');
  events.addEventListener('open', () => { link.textContent = 'live'; link.className = 'link live'; });
  events.addEventListener('data', (event) => onData(event.data));
  events.addEventListener('status', (event) => onStatus(event.data));
  events.addEventListener('error', () => {
    link.textContent = 'connection lost, retrying';
    link.className = 'link lost';
  });
}

async function main() {
  if (!token) {
    showNotice('No access token: open the address ocpctl scope printed (it ends in #token=…).');
    return;
  }
  try {
    config = await read('/api/config');
  } catch (error) {
    showNotice('The scope refused the page: ' + error.message + '. Open the address ocpctl scope printed.');
    return;
  }
  $('subtitle').textContent = config.bus + ' · ' + config.rate_hz + ' Hz · ' +
    config.devices.map((d) => d.hex).join(' ');
  document.title = 'ocpctl scope · ' + config.devices.map((d) => d.hex).join(' ');
  buildPlots();
  buildDevices();
  bindControls();
  connect();
  heartbeat();
  setInterval(heartbeat, 250);
  document.addEventListener('visibilitychange', heartbeat);
  readParameters();
  requestAnimationFrame(frame);
}

main();
