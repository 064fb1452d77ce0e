'use strict';

// The lines lie in <template class="lines">, about a million characters in each. A line is
//   <microseconds since the line before> <number of its lane> <severity> <text> newline
// where the first one of a template counts from 1970, and a form feed in a text is a newline.
// <template id="lanes"> tells the lanes: the threads of the processes.

const chunks = [];  // the texts of the templates
const columns = {   // of each line, in the order of the page
  time: new Float64Array(1 << 16),   // microseconds since 1970
  lane: new Uint16Array(1 << 16),
  severity: new Uint8Array(1 << 16),
  chunk: new Uint16Array(1 << 16),
  start: new Uint32Array(1 << 16),   // of its text in its chunk
};
let count = 0;
let byTime = null;  // the lines in the order of their times; a rank is a place in it
let rankOf = null;  // the reverse
let lanes = [];     // {process, file, thread, first, last, row}
let rows = [];      // of the timeline: {process} or {lane}
let worst = [0, 0, 0];  // how many lines of each severity

const severities = ['', 'warning', 'error'];
const view = {from: 0, to: 1000, row: 0};  // times, and the topmost row of the timeline
const whole = {from: 0, to: 1000, hasDates: false};
let chosen = -1;  // a rank
let hits = new Uint32Array(0);  // ranks, in order
let pattern = null;  // of the search, or null

const byId = id => document.getElementById(id);
const canvas = byId('timeline');
const list = byId('lines');

// ---- Reading

function grow() {
  for (const name in columns) {
    const larger = new columns[name].constructor(columns[name].length * 2);
    larger.set(columns[name]);
    columns[name] = larger;
  }
}

function readChunk(text) {
  const number = chunks.push(text) - 1;
  const newline = 10, blank = 32, minus = 45, zero = 48;
  let time = 0;
  for (let at = 0; at < text.length;) {
    if (count === columns.time.length) {
      grow();
    }
    const sign = text.charCodeAt(at) === minus ? -1 : 1;
    at += sign < 0 ? 1 : 0;
    let delta = 0, lane = 0, c;
    for (; (c = text.charCodeAt(at)) !== blank; ++at) {
      delta = delta * 10 + (c - zero);
    }
    for (++at; (c = text.charCodeAt(at)) !== blank; ++at) {
      lane = lane * 10 + (c - zero);
    }
    time += sign * delta;
    const severity = text.charCodeAt(at + 1) - zero;
    columns.time[count] = time;
    columns.lane[count] = lane;
    columns.severity[count] = severity;
    columns.chunk[count] = number;
    columns.start[count] = at + 3;
    ++worst[severity];
    ++count;
    at = text.indexOf('\n', at) + 1;
  }
}

function orderByTime() {
  const {time} = columns;
  byTime = new Uint32Array(count);
  let isOrdered = true;
  for (let i = 0; i < count; ++i) {
    byTime[i] = i;
    isOrdered = isOrdered && (i === 0 || time[i - 1] <= time[i]);
  }
  if (isOrdered) {
    rankOf = byTime;
    return;
  }
  byTime.sort((a, b) => time[a] - time[b] || a - b);
  rankOf = new Uint32Array(count);
  byTime.forEach((line, rank) => { rankOf[line] = rank; });
}

function readLanes() {
  lanes = JSON.parse(byId('lanes').content.textContent);
  for (let rank = 0; rank < count; ++rank) {
    const line = byTime[rank], lane = lanes[columns.lane[line]];
    lane.first ??= columns.time[line];
    lane.last = columns.time[line];
  }
  const processes = new Map();
  lanes.forEach((lane, number) => {
    const key = lane.file + '\f' + lane.process;
    if (!processes.has(key)) {
      processes.set(key, [{process: lane.process}]);
    }
    processes.get(key).push({lane: number});
  });
  rows = [...processes.values()].flat();
  rows.forEach((row, i) => {
    if (row.lane !== undefined) {
      lanes[row.lane].row = i;
    }
  });
  lanes.processes = processes.size;
}

const pause = () => new Promise(resolve => setTimeout(resolve));

async function read() {
  let begin = performance.now();
  for (const template of document.querySelectorAll('template.lines')) {
    readChunk(template.content.textContent);
    template.remove();
    if (performance.now() - begin > 100) {
      byId('facts').textContent = `Reading the lines … ${count.toLocaleString('en')}`;
      await pause();
      begin = performance.now();
    }
  }
  orderByTime();
  readLanes();
}

// ---- Lines and times

const timeAt = rank => columns.time[byTime[rank]];

/// The first rank whose time is not below `time`.
function rankAt(time) {
  let low = 0, high = count;
  while (low < high) {
    const middle = (low + high) >>> 1;
    if (timeAt(middle) < time) {
      low = middle + 1;
    } else {
      high = middle;
    }
  }
  return low;
}

const visible = () => ({first: rankAt(view.from), end: rankAt(view.to)});

function textOf(line) {
  const text = chunks[columns.chunk[line]], start = columns.start[line];
  return text.slice(start, text.indexOf('\n', start));
}

const digits = (value, count) => String(value).padStart(count, '0');

/// "2026-11-22" of microseconds since 1970.
const dateOf = time => new Date(time / 1000).toISOString().slice(0, 10);

/// "12:23:41.000098".
function clockOf(time) {
  const second = Math.floor(time / 1e6);
  return new Date(second * 1000).toISOString().slice(11, 19) + '.' +
      digits(Math.floor(time - second * 1e6), 6);
}

function lengthOf(microseconds) {
  const units = [[86400e6, 'd'], [3600e6, 'h'], [60e6, 'min'], [1e6, 's'], [1e3, 'ms'], [1, 'µs']];
  const [size, unit] = units.find(([size]) => microseconds >= size) ?? units.at(-1);
  return `${Number((microseconds / size).toPrecision(4))} ${unit}`;
}

/// The time of a line, with its date where the trace has several.
const stampOf = time => (whole.hasDates ? dateOf(time) + ' ' : '') + clockOf(time);

const counted = (n, one) => `${n.toLocaleString('en')} ${one}${n === 1 ? '' : 's'}`;

const nameOf = lane =>
    (lanes.processes > 1 ? lane.process + ' ' : '') + (lane.thread || '(no thread)');

// ---- The timeline

const gutter = 150, axis = 22, rowHeight = 20;
let colours = {};
let isDrawn = true;

function readColours() {
  const style = getComputedStyle(document.documentElement);
  for (const name of ['back', 'raised', 'text', 'quiet', 'rule', 'line', 'life', 'warning', 'error',
      'hit', 'chosen']) {
    const text = style.getPropertyValue('--' + name).trim();
    const rgb = parseInt(text.slice(1), 16);
    // As ImageData has it on a little-endian machine.
    const pixel = (0xff000000 | (rgb & 0xff) << 16 | rgb & 0xff00 | rgb >> 16) >>> 0;
    colours[name] = {text, pixel};
  }
}

/// Asks for a new picture; several requests in a frame make one.
function redraw() {
  if (isDrawn) {
    isDrawn = false;
    requestAnimationFrame(draw);
  }
}

/// For each pixel of the width, `stride` places: one for each row and a last one for the rows that
/// are not shown, so that a million lines are counted within a frame, without a choice for each.
/// They tell how many lines there are, the worst severity of them, and whether there is a hit.
function collect(width, firstRow, endRow) {
  const hidden = endRow - firstRow, stride = hidden + 1;
  const counts = new Uint32Array(width * stride);
  const severities = new Uint8Array(width * stride), found = new Uint8Array(width * stride);
  const {lane, severity} = columns, order = byTime;
  const rowOf = Int32Array.from(lanes,
      ({row}) => row < firstRow || row >= endRow ? hidden : row - firstRow);
  let rank = rankAt(view.from), hit = firstHitFrom(rank);
  for (let x = 0; x < width; ++x) {
    const base = x * stride;
    const end = rankAt(view.from + (view.to - view.from) * (x + 1) / width);
    for (; rank < end; ++rank) {
      const line = order[rank], place = base + rowOf[lane[line]];
      ++counts[place];
      if (severity[line] > severities[place]) {
        severities[place] = severity[line];
      }
    }
    for (; hit < hits.length && hits[hit] < end; ++hit) {
      found[base + rowOf[lane[order[hits[hit]]]]] = 1;
    }
  }
  return {stride, counts, severities, found};
}

/// Draws the rows, without their names.
function drawLanes(context, width, height, ratio, firstRow, endRow) {
  const bins = collect(width, firstRow, endRow);
  const image = context.createImageData(width, height);
  const pixels = new Uint32Array(image.data.buffer).fill(colours.back.pixel);
  const fill = (x, endX, y, endY, pixel) => {
    endX = Math.min(endX, width);
    endY = Math.min(endY, height);
    for (; y < endY; ++y) {
      for (let at = y * width + x, end = y * width + endX; at < end; ++at) {
        pixels[at] = pixel;
      }
    }
  };
  const toX = time => Math.max(0, Math.min(width,
      Math.floor((time - view.from) / (view.to - view.from) * width)));
  const thick = Math.max(1, Math.round(ratio));
  for (const {x} of ticks(width / ratio)) {
    const at = Math.floor(Math.floor(x) * ratio);
    fill(at, at + thick, 0, height, colours.rule.pixel);
  }
  const full = Math.round((rowHeight - 4) * ratio);
  const marks = [colours.line.pixel, colours.warning.pixel, colours.error.pixel];
  for (let row = firstRow; row < endRow; ++row) {
    const bottom = Math.round((row - firstRow + 1) * rowHeight * ratio) - 2 * thick;
    const {lane} = rows[row];
    if (lane === undefined) {
      fill(0, width, bottom + thick, bottom + 2 * thick, colours.rule.pixel);
      continue;
    }
    fill(toX(lanes[lane].first), toX(lanes[lane].last) + thick, bottom - 2 * thick, bottom,
        colours.life.pixel);
    for (let x = 0; x < width; ++x) {
      const bin = x * bins.stride + row - firstRow;
      const n = bins.counts[bin];
      if (n !== 0) {
        // The same height for the same density, however large the trace is.
        const severity = bins.severities[bin];
        const share = severity > 0 ? 1 : Math.min(1, (6 + Math.log2(n)) / 15);
        fill(x, x + (severity > 0 ? 2 * thick : thick), bottom - Math.round(full * share), bottom,
            marks[severity]);
      }
      if (bins.found[bin] !== 0) {
        fill(x, x + 2 * thick, bottom - full, bottom - full + 5 * thick, colours.hit.pixel);
      }
    }
  }
  context.putImageData(image, Math.round(gutter * ratio), Math.round(axis * ratio));
}

/// The steps of the axis, in microseconds: 1, 2 and 5 of each power up to seconds, then those of
/// clocks.
const steps = [...Array(7).keys()].flatMap(power => [1, 2, 5].map(n => n * 10 ** power))
    .filter(step => step < 10e6)
    .concat([10, 30, 60, 120, 300, 600, 1800, 3600, 7200, 10800, 21600, 43200].map(s => s * 1e6))
    .concat([1, 2, 5, 10, 20, 50, 100, 200, 500, 1000, 5000, 10000].map(d => d * 86400e6));

function tickText(time, step) {
  const clock = clockOf(time);
  return time % 86400e6 === 0 ? dateOf(time)
       : step >= 60e6 ? clock.slice(0, 5)
       : step >= 1e6 ? clock.slice(0, 8)
       : step >= 1e3 ? clock.slice(0, 12)
                     : clock;
}

/// The grid of the axis: where it has a line, by pixels from the left of the lanes, and the text.
function ticks(width) {
  const span = view.to - view.from;
  const step = steps.find(step => width * step / span >= 110) ?? steps.at(-1);
  const found = [];
  for (let time = Math.ceil(view.from / step) * step; time < view.to; time += step) {
    found.push({x: (time - view.from) / span * width, text: tickText(time, step)});
  }
  return found;
}

function drawAxis(context, width) {
  context.fillStyle = colours.quiet.text;
  context.fillText(dateOf(view.from), 8, axis / 2);
  for (const {x, text} of ticks(width)) {
    context.fillStyle = colours.rule.text;
    context.fillRect(gutter + Math.floor(x), axis - 5, 1, 5);
    context.fillStyle = colours.quiet.text;
    if (x + 4 + context.measureText(text).width <= width) {
      context.fillText(text, gutter + x + 4, axis / 2);
    }
  }
}

function drawNames(context, firstRow, endRow) {
  for (let row = firstRow; row < endRow; ++row) {
    const {process, lane} = rows[row];
    const y = axis + (row - firstRow + 0.5) * rowHeight;
    context.fillStyle = process === undefined ? colours.text.text : colours.quiet.text;
    context.font = `${process === undefined ? '' : 'bold '}12px system-ui, sans-serif`;
    if (process !== undefined) {
      // Also over the timeline, where its row has no lines.
      context.fillText(process, 8, y);
    } else {
      context.fillText(lanes[lane].thread || '(no thread)', 18, y, gutter - 24);
    }
  }
}

/// Where the rows are that are shown, when not all of them are.
function drawScrollMark(context, height) {
  const room = height - axis, shown = room / rowHeight;
  if (rows.length > shown) {
    context.fillStyle = colours.rule.text;
    context.fillRect(gutter - 5, axis + room * view.row / rows.length, 4, room * shown / rows.length);
  }
}

function drawChosen(context, width, height) {
  if (chosen < 0) {
    return;
  }
  const x = gutter + (timeAt(chosen) - view.from) / (view.to - view.from) * width;
  if (x >= gutter) {
    context.fillStyle = colours.text.text;
    context.fillRect(Math.round(x), axis - 5, 1, height);
  }
}

const shownRows = () => Math.max(1, Math.ceil((canvas.clientHeight - axis) / rowHeight));

function draw() {
  isDrawn = true;
  const ratio = devicePixelRatio;
  const width = Math.max(1, canvas.clientWidth - gutter), height = canvas.clientHeight;
  canvas.width = Math.round(canvas.clientWidth * ratio);
  canvas.height = Math.round(height * ratio);
  const context = canvas.getContext('2d', {alpha: false});
  context.fillStyle = colours.back.text;
  context.fillRect(0, 0, canvas.width, canvas.height);
  const firstRow = view.row, endRow = Math.min(rows.length, firstRow + shownRows());
  drawLanes(context, Math.max(1, canvas.width - Math.round(gutter * ratio)),
      Math.max(1, canvas.height - Math.round(axis * ratio)), ratio, firstRow, endRow);
  context.scale(ratio, ratio);
  context.textBaseline = 'middle';
  context.font = '12px system-ui, sans-serif';
  drawAxis(context, width);
  drawChosen(context, width, height);
  drawNames(context, firstRow, endRow);
  drawScrollMark(context, height);
}

// ---- Where the view is

const narrowest = 20;  // microseconds

/// Shows another span, or other rows, and the lines of it.
function show(from, to, row = view.row) {
  const span = Math.max(narrowest, Math.min(to - from, whole.to - whole.from));
  view.from = Math.max(whole.from, Math.min(from, whole.to - span));
  view.to = view.from + span;
  view.row = Math.max(0, Math.min(row, rows.length - shownRows() + 1));
  tellSpan();
  keepListPlace();
  redraw();
}

/// Zooms by `factor` (below 1: closer) around the time at `share` of the span.
function zoom(factor, share = 0.5) {
  const span = view.to - view.from;
  const wanted = Math.max(narrowest, Math.min(span * factor, whole.to - whole.from));
  const from = view.from + (span - wanted) * share;
  show(from, from + wanted);
}

function move(share) {
  const by = (view.to - view.from) * share;
  show(view.from + by, view.to + by);
}

const showAll = () => show(whole.from, whole.to, 0);

function tellSpan() {
  const {first, end} = visible();
  const date = dateOf(view.from), lastDate = dateOf(view.to);
  const last = (date === lastDate ? '' : lastDate + ' ') + clockOf(view.to);
  byId('span').textContent = `${date} ${clockOf(view.from)} – ${last}, ` +
      `${lengthOf(view.to - view.from)}, ${counted(end - first, 'line')}`;
}

// ---- The list

const lineHeight = 18;
const tallest = 8e6;  // pixels: browsers do not scroll without limit
let topRank = 0;

const listRoom = () => Math.max(1, Math.floor(list.clientHeight / lineHeight));

/// How the list scrolls: all lines if they fit into the height of an element, else a share of them.
function listScale() {
  const {first, end} = visible();
  const height = Math.min((end - first) * lineHeight, tallest);
  const steps = Math.max(1, height - list.clientHeight);
  return {first, end, height, perPixel: Math.max(0, end - first - list.clientHeight / lineHeight) / steps};
}

/// The place of each hit of the search in the text is marked.
function appendText(element, text) {
  let at = 0;
  if (pattern !== null) {
    for (const match of text.matchAll(pattern)) {
      element.append(text.slice(at, match.index));
      const mark = document.createElement('mark');
      mark.textContent = match[0];
      element.append(mark);
      at = match.index + match[0].length;
    }
  }
  element.append(text.slice(at));
}

function makeRow(rank, {first, end}, top) {
  const line = byTime[rank], row = document.createElement('div');
  const severity = severities[columns.severity[line]];
  row.className = 'row ' + severity;
  row.id = 'rank' + rank;
  row.role = 'option';
  row.ariaSelected = String(rank === chosen);
  row.ariaPosInSet = rank - first + 1;
  row.ariaSetSize = end - first;
  row.style.top = top + 'px';
  const stamp = document.createElement('span'), lane = document.createElement('span');
  stamp.className = 'stamp';
  stamp.textContent = stampOf(columns.time[line]) + ' ';
  lane.className = 'lane';
  lane.textContent = nameOf(lanes[columns.lane[line]]).padEnd(lanes.width) + ' ';
  row.append(stamp, lane);
  // More of it is shown below when the line is chosen.
  appendText(row, textOf(line).slice(0, 2000).replaceAll('\f', ' ⏎ '));
  return row;
}

function drawList() {
  const scale = listScale();
  byId('rows').style.height = scale.height + 'px';
  const place = scale.first + list.scrollTop * scale.perPixel;
  topRank = Math.min(Math.floor(place + 1e-6), Math.max(scale.first, scale.end - 1));
  const shift = list.scrollTop - (place - topRank) * lineHeight;
  const made = [];
  for (let rank = topRank; rank < scale.end && rank < topRank + listRoom() + 2; ++rank) {
    made.push(makeRow(rank, scale, shift + (rank - topRank) * lineHeight));
  }
  byId('rows').replaceChildren(...made);
  const active = document.getElementById('rank' + chosen);
  if (active === null) {
    list.removeAttribute('aria-activedescendant');
  } else {
    list.setAttribute('aria-activedescendant', active.id);
  }
}

function scrollListTo(rank) {
  const scale = listScale();
  byId('rows').style.height = scale.height + 'px';
  list.scrollTop = scale.perPixel > 0 ? (rank - scale.first) / scale.perPixel : 0;
  drawList();
}

/// After the span has changed: the chosen line, else the topmost one, stays if it is in the span.
function keepListPlace() {
  const {first, end} = visible();
  const isChosenVisible = chosen >= first && chosen < end;
  scrollListTo(isChosenVisible ? Math.max(first, chosen - (listRoom() >> 1))
                               : Math.max(first, Math.min(topRank, end)));
}

// ---- The chosen line

/// Chooses a line and brings it into view, in the timeline and in the list.
function choose(rank) {
  chosen = rank;
  const line = byTime[rank], time = columns.time[line], lane = lanes[columns.lane[line]];
  const pane = byId('chosen');
  pane.hidden = false;
  pane.textContent = `${dateOf(time)} ${clockOf(time)}  ${lane.process}  ${lane.thread}\n` +
      textOf(line).replaceAll('\f', '\n');
  const span = view.to - view.from;
  const isInSpan = time >= view.from && time < view.to;
  const isInRows = lane.row >= view.row && lane.row < view.row + shownRows() - 1;
  show(isInSpan ? view.from : time - span / 2, isInSpan ? view.to : time + span / 2,
      isInRows ? view.row : lane.row - (shownRows() >> 1));
}

function chooseBy(step) {
  const {first, end} = visible();
  const from = chosen >= first && chosen < end ? chosen + step : topRank;
  if (end > first) {
    choose(Math.max(first, Math.min(end - 1, from)));
  }
}

/// The next line of a severity, forward or backward from the chosen one, around the end.
function chooseError(step) {
  const start = chosen >= 0 ? chosen : step > 0 ? topRank - 1 : topRank;
  for (let i = 1; i <= count; ++i) {
    const rank = ((start + step * i) % count + count) % count;
    if (columns.severity[byTime[rank]] > 0) {
      choose(rank);
      return;
    }
  }
}

// ---- Search

let search = 0;  // counts the searches: a new one ends the one before

/// The first place in `hits` with a rank not below `rank`.
function firstHitFrom(rank) {
  let low = 0, high = hits.length;
  while (low < high) {
    const middle = (low + high) >>> 1;
    if (hits[middle] < rank) {
      low = middle + 1;
    } else {
      high = middle;
    }
  }
  return low;
}

function tellHits() {
  const at = chosen < 0 ? -1 : firstHitFrom(chosen);
  const isAtHit = at >= 0 && hits[at] === chosen;
  byId('found').textContent = pattern === null ? ''
      : isAtHit ? `${(at + 1).toLocaleString('en')} of ${counted(hits.length, 'line')}`
                : counted(hits.length, 'line');
  byId('previous').disabled = byId('next').disabled = hits.length === 0;
}

/// The lines of a chunk that hold what is looked for; the first line of the chunk is `line`.
function findInChunk(number, line, found) {
  const text = chunks[number], {start, chunk} = columns;
  pattern.lastIndex = 0;
  for (let match; (match = pattern.exec(text)) !== null;) {
    while (line + 1 < count && chunk[line + 1] === number && start[line + 1] <= match.index) {
      ++line;
    }
    const end = text.indexOf('\n', start[line]);
    if (match.index >= start[line] && match.index < end) {
      found.push(rankOf[line]);
      pattern.lastIndex = end;
    } else {
      pattern.lastIndex = match.index + 1;  // in the numbers of a line
    }
  }
}

/// Finds all lines with a text, a little at a time, then goes to the first one from where the list
/// stands.
async function find(wanted) {
  const own = ++search;
  const quoted = wanted.replace(/[\\^$.*+?()[\]{}|]/g, '\\$&');
  pattern = wanted === '' ? null : new RegExp(quoted, 'gi');
  hits = new Uint32Array(0);
  const found = [];
  let begin = performance.now();
  for (let number = 0, line = 0; pattern !== null && number < chunks.length; ++number) {
    findInChunk(number, line, found);
    while (line < count && columns.chunk[line] === number) {
      ++line;
    }
    if (performance.now() - begin > 15) {
      byId('found').textContent = `${found.length.toLocaleString('en')} …`;
      await pause();
      if (own !== search) {
        return;
      }
      begin = performance.now();
    }
  }
  hits = Uint32Array.from(found).sort();
  if (hits.length > 0) {
    choose(hits[firstHitFrom(chosen >= 0 ? chosen : topRank) % hits.length]);
  }
  tellHits();
  drawList();
  redraw();
}

function chooseHit(step) {
  if (hits.length > 0) {
    const at = firstHitFrom(chosen + (step > 0 ? 1 : 0)) + (step > 0 ? 0 : -1);
    choose(hits[(at + hits.length) % hits.length]);
    tellHits();
  }
}

// ---- Mouse and keys

function shareAt(event) {
  const box = canvas.getBoundingClientRect();
  return (event.clientX - box.left - gutter) / Math.max(1, box.width - gutter);
}

function onWheel(event) {
  event.preventDefault();
  const share = shareAt(event);
  const pixels = [1, 16, canvas.clientHeight][event.deltaMode];
  if (share < 0) {
    show(view.from, view.to, view.row + Math.sign(event.deltaY));
  } else if (event.shiftKey || Math.abs(event.deltaX) > Math.abs(event.deltaY)) {
    move((event.deltaX || event.deltaY) * pixels / canvas.clientWidth);
  } else {
    zoom(Math.exp(event.deltaY * pixels * 0.0025), share);
  }
}

/// The line in the clicked row that is nearest to the clicked time, if any is near.
function lineAt(event) {
  const box = canvas.getBoundingClientRect();
  const row = rows[view.row + Math.floor((event.clientY - box.top - axis) / rowHeight)];
  const span = view.to - view.from, time = view.from + shareAt(event) * span;
  const reach = span * 4 / (box.width - gutter);
  let best = -1;
  for (let rank = rankAt(time - reach); rank < count && timeAt(rank) <= time + reach; ++rank) {
    if (columns.lane[byTime[rank]] === row?.lane &&
        (best < 0 || Math.abs(timeAt(rank) - time) < Math.abs(timeAt(best) - time))) {
      best = rank;
    }
  }
  return best;
}

function listenToMouse() {
  let grip = null;
  canvas.addEventListener('wheel', onWheel, {passive: false});
  canvas.addEventListener('pointerdown', event => {
    grip = {x: event.clientX, y: event.clientY, isMoved: false, ...view};
    canvas.setPointerCapture(event.pointerId);
  });
  canvas.addEventListener('pointermove', event => {
    if (grip === null) {
      return;
    }
    const x = event.clientX - grip.x, y = event.clientY - grip.y;
    grip.isMoved ||= Math.abs(x) + Math.abs(y) > 4;
    if (grip.isMoved) {
      canvas.classList.add('dragged');
      const by = x / Math.max(1, canvas.clientWidth - gutter) * (grip.to - grip.from);
      show(grip.from - by, grip.to - by, grip.row - Math.round(y / rowHeight));
    }
  });
  canvas.addEventListener('pointerup', event => {
    const rank = grip === null || grip.isMoved ? -1 : lineAt(event);
    grip = null;
    canvas.classList.remove('dragged');
    if (rank >= 0) {
      choose(rank);
    }
  });
  canvas.addEventListener('dblclick', event => zoom(0.25, shareAt(event)));
  list.addEventListener('click', event => {
    const row = event.target.closest('.row');
    if (row !== null && getSelection().isCollapsed) {
      choose(Number(row.id.slice('rank'.length)));
    }
  });
}

const timelineKeys = {
  ArrowLeft: () => move(-0.1),
  ArrowRight: () => move(0.1),
  ArrowUp: () => show(view.from, view.to, view.row - 1),
  ArrowDown: () => show(view.from, view.to, view.row + 1),
  PageUp: () => show(view.from, view.to, view.row - shownRows() + 1),
  PageDown: () => show(view.from, view.to, view.row + shownRows() - 1),
  Home: () => show(whole.from, whole.from + view.to - view.from),
  End: () => show(whole.to - view.to + view.from, whole.to),
};
const listKeys = {
  ArrowUp: () => chooseBy(-1),
  ArrowDown: () => chooseBy(1),
  PageUp: () => chooseBy(-listRoom()),
  PageDown: () => chooseBy(listRoom()),
  Home: () => chooseBy(-count),
  End: () => chooseBy(count),
};
const everywhereKeys = {
  '+': () => zoom(0.5),
  '=': () => zoom(0.5),
  '-': () => zoom(2),
  '0': showAll,
  e: () => chooseError(1),
  E: () => chooseError(-1),
  n: () => chooseHit(1),
  N: () => chooseHit(-1),
  '/': () => byId('search').select(),
};

function onKey(event) {
  if (event.ctrlKey || event.altKey || event.metaKey) {
    return;
  }
  if (event.target === byId('search')) {
    if (event.key === 'Enter') {
      chooseHit(event.shiftKey ? -1 : 1);
    }
    return;
  }
  const own = event.target === canvas ? timelineKeys : event.target === list ? listKeys : {};
  const action = own[event.key] ?? everywhereKeys[event.key];
  if (action !== undefined) {
    event.preventDefault();
    action();
  }
}

function listen() {
  listenToMouse();
  document.addEventListener('keydown', onKey);
  list.addEventListener('scroll', drawList);
  byId('search').addEventListener('input', event => find(event.target.value));
  const buttons = {
    previous: () => chooseHit(-1),
    next: () => chooseHit(1),
    closer: () => zoom(0.5),
    wider: () => zoom(2),
    whole: showAll,
    error: () => chooseError(1),
  };
  for (const id in buttons) {
    byId(id).addEventListener('click', buttons[id]);
  }
  new ResizeObserver(() => show(view.from, view.to)).observe(canvas);
  new ResizeObserver(drawList).observe(list);
  matchMedia('(prefers-color-scheme: dark)').addEventListener('change', () => {
    readColours();
    redraw();
  });
}

// ---- Start

function tellFacts() {
  const processes = [...new Set(lanes.map(lane => lane.process))];
  const who = processes.length <= 3 ? processes.join(', ') : `${processes.length} processes`;
  document.title = `Trace of ${who || 'nothing'}`;
  byId('facts').textContent = count === 0 ? 'There are no lines.'
      : `${who}: ${counted(lanes.length, 'thread')}, ${counted(count, 'line')}, ` +
        `${counted(worst[2], 'error')}, ${counted(worst[1], 'warning')}`;
}

async function start() {
  await read();
  if (count > 0) {
    const first = timeAt(0), last = timeAt(count - 1);
    const margin = Math.max(500, (last - first) * 0.01);
    const hasDates = dateOf(first) !== dateOf(last);
    Object.assign(whole, {from: first - margin, to: last + margin, hasDates});
  }
  lanes.width = lanes.reduce((width, lane) => Math.max(width, nameOf(lane).length), 0);
  byId('search').disabled = count === 0;
  byId('error').disabled = worst[1] + worst[2] === 0;
  tellFacts();
  readColours();
  listen();
  showAll();
  document.body.dataset.ready = '';
}

start();
