// The board's live page: draws each section of the board's state as the
// server pushes it (server-sent events), and sends what a person does to
// the board with the run's token.
'use strict';

const token = document.querySelector('meta[name="vexa-token"]').content;
const state = { sections: {}, log: [], output: {} };
const LOG_KEPT = 500;
const OUTPUT_KEPT = 16 * 1024;

// ---- helpers ----

function el(tag, attrs, ...children) {
  const node = document.createElement(tag);
  for (const [key, value] of Object.entries(attrs || {})) {
    if (value === null || value === undefined) continue;
    if (key === 'class') node.className = value;
    else if (key === 'text') node.textContent = value;
    else if (key.startsWith('on')) node.addEventListener(key.slice(2), value);
    else node.setAttribute(key, value);
  }
  for (const child of children) if (child !== null && child !== undefined)
    node.append(child instanceof Node ? child : document.createTextNode(String(child)));
  return node;
}

const svgNS = 'http://www.w3.org/2000/svg';
function svg(tag, attrs, text) {
  const node = document.createElementNS(svgNS, tag);
  for (const [key, value] of Object.entries(attrs || {})) node.setAttribute(key, value);
  if (text !== undefined) node.textContent = text;
  return node;
}

function facts(target, pairs) {
  const dl = document.getElementById(target);
  dl.replaceChildren();
  for (const [name, value] of pairs) dl.append(el('dt', { text: name }), el('dd', {}, value));
}

function badge(text, kind) { return el('span', { class: 'badge ' + (kind || ''), text }); }
function dot(on) { return el('span', { class: 'dot' + (on ? ' lit' : '') }); }
function dash(value, unit) { return value === null || value === undefined ? '-' : value + (unit || ''); }

async function ask(route, body) {
  const reply = await fetch(route, {
    method: 'POST',
    headers: { 'Content-Type': 'application/json', 'X-Vexa-Token': token },
    body: JSON.stringify(body),
  });
  if (!reply.ok) {
    let message = reply.status + ' ' + reply.statusText;
    try { message = (await reply.json()).error || message; } catch (e) { /* not JSON */ }
    throw new Error(message);
  }
}

// ---- the board face ----

const LAMP_COLOURS = {
  led_sys: '#39d353', led_network: '#4aa8ff', led_4gwork: '#ffb020', led_position: '#f2f2f2',
  led_switch: '#39d353', led_running: '#39d353', led_cloud: '#4aa8ff', sub_card_led: '#ffb020',
  led_tri_red: '#ff3b30', led_tri_green: '#39d353', led_tri_blue: '#3b7bff',
};

function partLabel(line) {
  return [el('span', { text: line.name }),
          el('span', { class: 'line-id', text: line.line > 0 ? 'gpio ' + line.line : line.note })];
}

function levelAttr(line) { return line.level === null ? '' : String(line.level); }

function drawLines(lines) {
  const lamps = [], relays = [], switches = [], inputs = [], fans = [];
  const tri = {};
  for (const line of lines) {
    const level = levelAttr(line);
    const unset = line.level === null ? ' unset' : '';
    if (line.kind === 'led') {
      const lamp = el('div', { class: 'lamp' + (line.level === 1 ? ' lit' : '') });
      lamp.style.setProperty('--lamp', LAMP_COLOURS[line.name] || '#39d353');
      lamps.push(el('div', { class: 'part' + unset, 'data-line': line.name, 'data-level': level,
                             title: line.name + (line.line > 0 ? ' (line ' + line.line + ')' : '') },
                    lamp, ...partLabel(line)));
      const colour = line.name.match(/^led_tri_(red|green|blue)$/);
      if (colour) tri[colour[1]] = line.level === 1;
    } else if (line.kind === 'relay' || line.kind === 'switch') {
      const part = el('div', { class: 'part ' + line.kind + unset, 'data-line': line.name, 'data-level': level },
                      el('div', { class: 'contact' + (line.level === 1 ? ' closed' : '') }), ...partLabel(line));
      (line.kind === 'relay' ? relays : switches).push(part);
    } else if (line.kind === 'fan') {
      fans.push(el('div', { class: 'part' + unset, 'data-line': line.name, 'data-level': level },
                   el('div', { class: 'contact' + (line.level === 1 ? ' closed' : '') }), ...partLabel(line)));
    } else if (line.kind === 'input') {
      const button = el('button', {
        class: 'input part' + unset, 'data-line': line.name, 'data-level': level, type: 'button',
        title: 'drive ' + line.name + ' to ' + (line.level === 1 ? 0 : 1),
        onclick: () => ask('/api/line', { name: line.name, level: line.level === 1 ? 0 : 1 })
          .catch((e) => alert(line.name + ': ' + e.message)),
      }, el('span', { text: line.name }),
         el('span', { class: 'line-id', text: (line.line > 0 ? 'gpio ' + line.line + ' = ' : '') + dash(line.level) }));
      if (line.level === null) button.disabled = true;
      inputs.push(button);
    }
  }
  // The tri-colour lamp mixes its three lines.
  const mixed = el('div', { class: 'lamp tri' + (tri.red || tri.green || tri.blue ? ' lit' : '') });
  mixed.style.setProperty('--lamp', 'rgb(' + (tri.red ? 255 : 0) + ',' + (tri.green ? 220 : 0) + ',' + (tri.blue ? 255 : 0) + ')');
  lamps.push(el('div', { class: 'part', 'data-tri': [tri.red, tri.green, tri.blue].map((x) => (x ? 1 : 0)).join('') },
                mixed, el('span', { text: 'tri-colour' })));
  document.getElementById('lamps').replaceChildren(...lamps);
  document.getElementById('relays').replaceChildren(...relays);
  document.getElementById('switches').replaceChildren(...switches);
  document.getElementById('inputs').replaceChildren(...inputs);
  drawFan(fans);
}

let fanLines = [];
function drawFan(lines) {
  if (lines) fanLines = lines;
  const fan = state.sections.fan || {};
  const level = fan.level;
  const icon = svg('svg', { viewBox: '-20 -20 40 40', class: 'fan-icon' + (level > 0 ? ' spin' : '') });
  for (let i = 0; i < 4; ++i)
    icon.append(svg('path', { d: 'M0,0 C6,-4 10,-14 2,-18 C-4,-14 -4,-6 0,0', fill: '#c6ccd2', transform: 'rotate(' + i * 90 + ')' }));
  icon.append(svg('circle', { r: 3, fill: '#0a261a' }));
  const meter = el('div', { class: 'meter' }, el('div'));
  meter.firstChild.style.width = (level > 0 ? (100 * level) / (fan.max || 10) : 0) + '%';
  document.getElementById('fan').replaceChildren(
    el('div', { class: 'part', 'data-fan-level': dash(level) }, icon, el('span', { text: 'level ' + dash(level) + ' / ' + (fan.max || 10) })),
    el('div', { class: 'part' }, meter), ...fanLines);
}

// ---- sensors, timers, chips ----

function drawAdc(adc) {
  facts('adc', [['board id', dash(adc.board_id)],
                ['voltage', adc.voltage_v === null ? '-' : adc.voltage_v.toFixed(2) + ' V'],
                ['temperature', adc.temperature_c === null ? '-' : adc.temperature_c.toFixed(1) + ' °C']]);
}

function drawRtc(rtc) {
  const alarm = (a) => [a.time || '-', ' ', a.enabled ? badge('on', 'good') : badge('off')];
  const row = (name, a) => [name, el('span', {}, ...alarm(a))];
  facts('rtc', [['device', rtc.device || '-'], row('boot', rtc.boot), row('wake', rtc.wake)]);
}

function drawWatchdog(w) {
  const left = el('span', { id: 'watchdog-left' });
  facts('watchdog', [['device', w.device || '-'],
                     ['state', w.expired ? badge('expired', 'bad') : w.armed ? badge('armed', 'busy') : badge('disarmed')],
                     ['timeout', dash(w.timeout_s, ' s')], ['feeds', String(w.feeds)], ['deadline in', left]]);
  tickWatchdog();
}

function tickWatchdog() {
  const w = state.sections.watchdog;
  const left = document.getElementById('watchdog-left');
  if (!w || !left) return;
  if (!w.armed || w.deadline_ms === null) { left.textContent = '-'; return; }
  const ms = Math.max(0, w.deadline_ms - Date.now());
  left.textContent = (ms / 1000).toFixed(1) + ' s';
}
setInterval(tickWatchdog, 200);

function drawMcu(m) {
  if (!m.present) return facts('mcu', [['model', 'none on this board']]);
  const kind = m.mode === 'application' ? 'good' : m.mode === 'bootloader' ? 'busy' : 'bad';
  const flash = m.mode === 'bootloader'
    ? (m.mass_erased ? 'mass-erased, ' : m.erased_pages + ' pages erased, ') + (m.written_bytes / 1024).toFixed(1) + ' KiB written'
    : '-';
  facts('mcu', [['running', el('span', { 'data-mcu-mode': m.mode }, badge(m.mode, kind))],
                ['firmware', m.version || 'unknown'], ['flashing', flash]]);
}

function drawFpga(f) {
  if (!f.present) return facts('fpga', [['model', 'none on this board']]);
  facts('fpga', [
    ['done pin', el('span', { 'data-fpga-done': dash(f.done) }, dot(f.done === 1), ' line ' + f.done_pin + ' ' + (f.done === 1 ? 'high' : 'low'))],
    ['program', f.configured ? (f.program_bytes / 1024).toFixed(0) + ' KiB, tag ' + (f.tag || '-') : 'none (not configured)'],
    ['SGMII', el('span', {}, dot(f.sgmii_negotiated), f.sgmii_negotiated ? ' negotiated' : ' not negotiated')],
    ['PHY link', el('span', {}, dot(f.phy_link), f.phy_link ? ' up' : ' down')],
    ['outputs', el('span', {}, dot(f.net_outputs), f.net_outputs ? ' on' : ' off')],
  ]);
}

// ---- display ----

function timingBar(y, label, parts, total, width) {
  const group = svg('g');
  group.append(svg('text', { x: 0, y: y + 15, class: 'axis' }, label));
  let x = 90;
  const scale = (width - 100) / total;
  for (const [cls, name, value] of parts) {
    const w = Math.max(value * scale, value > 0 ? 1 : 0);
    const rect = svg('rect', { x, y, width: w, height: 22, class: cls });
    rect.append(svg('title', {}, name + ': ' + value));
    group.append(rect);
    x += w;
  }
  const legend = parts.map(([, name, value]) => name + ' ' + value).join('   ·   ') + '   ·   total ' + total;
  group.append(svg('text', { x: 90, y: y + 40 }, legend));
  return group;
}

function drawDisplay(d) {
  const t = d.timing;
  const e = d.edid;
  facts('display-facts', [
    ['mode', d.mode + (t ? ': ' + t.hdisplay + ' × ' + t.vdisplay + ' at ' + t.refresh_hz + ' Hz, pixel clock ' + (t.clock_khz / 1000).toFixed(2) + ' MHz' : '')],
    ['EDID', e ? e.manufacturer + ' ' + (e.name || '') + ', product 0x' + e.product_code.toString(16).padStart(4, '0') +
                 ', serial ' + e.serial + (e.year ? ', ' + e.year : '') + ', EDID ' + e.version : 'none'],
  ]);
  const box = document.getElementById('timing');
  if (!t) return box.replaceChildren(el('p', { class: 'note', text: 'No saved timing.' }));
  const width = 900;
  const drawing = svg('svg', { viewBox: '0 0 ' + width + ' 120', 'data-timing': t.hdisplay + 'x' + t.vdisplay });
  drawing.append(timingBar(6, 'horizontal', [
    ['seg-active', 'active', t.hdisplay], ['seg-front', 'front porch', t.hsync_start - t.hdisplay],
    ['seg-sync', 'sync', t.hsync_end - t.hsync_start], ['seg-back', 'back porch', t.htotal - t.hsync_end]], t.htotal, width));
  drawing.append(timingBar(64, 'vertical', [
    ['seg-active', 'active', t.vdisplay], ['seg-front', 'front porch', t.vsync_start - t.vdisplay],
    ['seg-sync', 'sync', t.vsync_end - t.vsync_start], ['seg-back', 'back porch', t.vtotal - t.vsync_end]], t.vtotal, width));
  box.replaceChildren(drawing);
}

// ---- serial lines ----

const consoles = {}; // path -> { view: 'text'|'hex', box }

function drawSerial(lines) {
  const list = document.getElementById('lines');
  const parts = [];
  for (const line of lines) {
    const head = el('div', { class: 'serial-head' },
      el('span', { class: 'path', text: line.path }),
      line.name ? el('span', { class: 'port', text: line.name }) : null,
      el('span', { class: 'pty', text: 'board side ' + line.board_pty }),
      el('span', { class: 'pty', text: (line.mcu ? 'MCU model behind it; outside tools open ' : 'far end ') + line.outside_pty }));
    if (line.mcu) { parts.push(el('div', { class: 'serial-line' }, head)); continue; }
    const c = consoles[line.path] || (consoles[line.path] = { view: 'text' });
    c.box = el('div', { class: 'console', 'data-console': line.path, title: 'what the board wrote on ' + line.path });
    const input = el('input', { type: 'text', 'data-send': line.path, placeholder: 'type here, Enter sends', spellcheck: 'false' });
    const from = el('select', { 'data-from': line.path, title: 'who sends it' },
      el('option', { value: 'far_end', text: 'as the peer device' }),
      el('option', { value: 'board', text: 'as the board' }));
    const ending = el('select', { title: 'line ending' },
      el('option', { value: '\n', text: 'LF' }), el('option', { value: '\r\n', text: 'CR LF' }),
      el('option', { value: '\r', text: 'CR' }), el('option', { value: '', text: 'none' }));
    const send = () => {
      const text = input.value + ending.value;
      if (!text) return;
      ask('/api/serial', { path: line.path, text, from: from.value })
        .then(() => { input.value = ''; })
        .catch((e) => alert(line.path + ': ' + e.message));
    };
    input.addEventListener('keydown', (event) => { if (event.key === 'Enter') send(); });
    const toggle = el('button', { type: 'button', text: c.view === 'text' ? 'hex' : 'text' });
    toggle.addEventListener('click', () => {
      c.view = c.view === 'text' ? 'hex' : 'text';
      toggle.textContent = c.view === 'text' ? 'hex' : 'text';
      drawConsole(line.path);
    });
    parts.push(el('div', { class: 'serial-line' }, head, c.box,
      el('div', { class: 'console-tools' }, from, input, ending, el('button', { type: 'button', text: 'send', onclick: send }), toggle)));
    drawConsole(line.path);
  }
  list.replaceChildren(...(parts.length ? parts : [el('p', { class: 'note', text: 'The board has no serial lines.' })]));
}

function fromHex(hex) {
  const bytes = new Uint8Array(hex.length / 2);
  for (let i = 0; i < bytes.length; ++i) bytes[i] = parseInt(hex.substr(2 * i, 2), 16);
  return bytes;
}

function drawConsole(path) {
  const c = consoles[path];
  if (!c || !c.box) return;
  const bytes = state.output[path] || new Uint8Array();
  let text = '';
  if (c.view === 'text') {
    for (const b of bytes)
      text += b === 10 || b === 9 ? String.fromCharCode(b) : b === 13 ? '' : b >= 32 && b < 127 ? String.fromCharCode(b) : '·';
  } else {
    for (let at = 0; at < bytes.length; at += 16) {
      const row = bytes.subarray(at, at + 16);
      const hex = Array.from(row, (b) => b.toString(16).padStart(2, '0')).join(' ');
      const ascii = Array.from(row, (b) => (b >= 32 && b < 127 ? String.fromCharCode(b) : '.')).join('');
      text += at.toString(16).padStart(6, '0') + '  ' + hex.padEnd(48) + ' |' + ascii + '|\n';
    }
  }
  const atEnd = c.box.scrollTop + c.box.clientHeight >= c.box.scrollHeight - 4;
  c.box.textContent = text;
  c.box.dataset.bytes = String(bytes.length);
  if (atEnd) c.box.scrollTop = c.box.scrollHeight;
}

function addOutput(path, hex, reset) {
  const add = fromHex(hex);
  const before = reset ? new Uint8Array() : state.output[path] || new Uint8Array();
  let joined = new Uint8Array(before.length + add.length);
  joined.set(before);
  joined.set(add, before.length);
  if (joined.length > OUTPUT_KEPT) joined = joined.slice(joined.length - OUTPUT_KEPT);
  state.output[path] = joined;
  drawConsole(path);
}

// ---- log ----

const PRIORITY = { 2: 'V', 3: 'D', 4: 'I', 5: 'W', 6: 'E', 7: 'F' };

function logTime(ms) {
  if (!ms) return '--/-- --:--:--.---';
  const d = new Date(ms);
  const two = (n) => String(n).padStart(2, '0');
  return two(d.getMonth() + 1) + '-' + two(d.getDate()) + ' ' + two(d.getHours()) + ':' + two(d.getMinutes()) + ':' +
         two(d.getSeconds()) + '.' + String(d.getMilliseconds()).padStart(3, '0');
}

function drawLog() {
  const box = document.getElementById('log');
  const min = Number(document.getElementById('log-priority').value);
  const tag = document.getElementById('log-tag').value.trim();
  const atEnd = box.scrollTop + box.clientHeight >= box.scrollHeight - 4;
  const rows = [];
  for (const r of state.log) {
    if (r.priority < min || (tag && r.tag !== tag)) continue;
    rows.push(el('div', { class: 'rec p' + Math.min(Math.max(r.priority, 3), 6), 'data-tag': r.tag },
      logTime(r.time_ms) + ' ' + String(r.pid).padStart(5) + ' ' + String(r.tid).padStart(5) + ' ' +
      (PRIORITY[r.priority] || '?') + '/' + r.tag + ': ' + r.text));
  }
  box.replaceChildren(...rows);
  document.getElementById('log-count').textContent = rows.length + ' of ' + state.log.length + ' records';
  if (atEnd) box.scrollTop = box.scrollHeight;
}
document.getElementById('log-priority').addEventListener('change', drawLog);
document.getElementById('log-tag').addEventListener('input', drawLog);

// ---- environment and knobs ----

function drawEnv(entries) {
  document.querySelector('#env tbody').replaceChildren(...entries.map((e) =>
    el('tr', { 'data-env': e.name }, el('td', { text: e.name }), el('td', { text: e.value }))));
}

function drawKnobs(knobs) {
  const note = document.getElementById('knob-note');
  document.getElementById('knobs').replaceChildren(...knobs.map((k) => {
    const control = k.choices.length
      ? el('select', { 'data-knob-control': k.name }, ...k.choices.map((c) => el('option', { value: c, text: c })))
      : el('input', { type: 'text', 'data-knob-control': k.name, placeholder: k.takes, spellcheck: 'false',
                      title: 'Enter sets it; empty clears it' });
    control.value = k.value;
    const set = () => ask('/api/knob', { name: k.name, value: control.value })
      .then(() => { note.className = 'note'; note.textContent = k.name + (control.value ? ' = ' + control.value : ' cleared'); })
      .catch((e) => { note.className = 'note error'; note.textContent = e.message; });
    control.addEventListener(k.choices.length ? 'change' : 'keydown', (event) => {
      if (k.choices.length || event.key === 'Enter') set();
    });
    const clear = el('button', { type: 'button', text: 'clear', title: 'back to its initial value',
      onclick: () => { control.value = ''; set(); } });
    if (!k.set) clear.disabled = true;
    return el('div', { class: 'knob' + (k.set ? ' set' : ''), 'data-knob': k.name, 'data-value': k.value },
      el('span', { class: 'name', text: k.name }), el('span', { class: 'tools' }, control, clear),
      el('span', { class: 'help', text: k.takes + ': ' + k.help }));
  }));
}

// ---- sections ----

const DRAW = {
  product: (p) => {
    document.getElementById('product-name').textContent = p.name || 'Virtual board';
    document.getElementById('module-id').textContent = 'module id ' + dash(p.module_id);
    document.getElementById('board-root').textContent = p.board;
    document.title = (p.name || 'Virtual board') + ' (module ' + dash(p.module_id) + ') - vexa board';
  },
  lines: drawLines, fan: () => drawFan(), adc: drawAdc, rtc: drawRtc, watchdog: drawWatchdog, mcu: drawMcu,
  fpga: drawFpga, serial: drawSerial, display: drawDisplay, env: drawEnv, knobs: drawKnobs,
};

function onSection(event) {
  const { name, value } = JSON.parse(event.data);
  state.sections[name] = value;
  if (DRAW[name]) DRAW[name](value);
}

function onLog(event) {
  const { reset, records } = JSON.parse(event.data);
  state.log = reset ? records : state.log.concat(records);
  if (state.log.length > LOG_KEPT) state.log = state.log.slice(state.log.length - LOG_KEPT);
  drawLog();
}

function onOutput(event) {
  const { path, hex, reset } = JSON.parse(event.data);
  addOutput(path, hex, reset);
}

function connect() {
  const live = document.getElementById('live');
  const events = new EventSource('/events?token=' + encodeURIComponent(token));
  events.addEventListener('section', onSection);
  events.addEventListener('log', onLog);
  events.addEventListener('output', onOutput);
  events.addEventListener('open', () => { live.dataset.state = 'live'; live.textContent = 'live'; });
  // EventSource reconnects by itself; the first events after it are the
  // whole state again.
  events.addEventListener('error', () => { live.dataset.state = 'lost'; live.textContent = 'reconnecting'; });
}

connect();
