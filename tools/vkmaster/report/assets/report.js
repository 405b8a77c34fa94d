// The report of a run. #meta has what is known beforehand; the values of a well are a compressed
// block of their own, #w0, #w1, ..., that is decoded when the well is chosen. What is chosen is kept
// after the # of the address, so that it outlives the reloading of a run that goes on.
'use strict';

const meta = JSON.parse(document.getElementById('meta').textContent);
const mostCurves = 20;
const mostRows = 400;
const colours = 7;
const dashes = [[], [8, 4], [2, 3]];
const borders = ['solid', 'dashed', 'dotted'];

// What can be drawn, in this order. Others that were recorded follow.
const known = {
  __proto__: null,
  oil_rate: 'Oil rate',
  water_rate: 'Water rate',
  gas_rate: 'Gas rate',
  liquid_rate: 'Liquid rate',
  water_cut: 'Water cut',
  gas_oil_ratio: 'Gas-oil ratio',
  bottom_hole_pressure: 'Bottom-hole pressure',
  tubing_head_pressure: 'Tubing-head pressure',
  oil_total: 'Oil produced',
  water_total: 'Water produced',
  gas_total: 'Gas produced',
  liquid_total: 'Liquid produced',
  water_injection_rate: 'Water injection rate',
  gas_injection_rate: 'Gas injection rate',
  water_injection_total: 'Water injected',
  gas_injection_total: 'Gas injected',
  uptime_fraction: 'Uptime',
  temperature: 'Temperature',
  oil_density: 'Oil density',
  gas_density: 'Gas density',
  water_density: 'Water density',
};
const shownLater = new Set([
  'liquid_rate',
  'liquid_total',
  'uptime_fraction',
  'temperature',
  'oil_density',
  'gas_density',
  'water_density',
]);

const recorded = meta.quantities.map((quantity) => quantity.id);
const units = Object.fromEntries(meta.quantities.map((quantity) => [quantity.id, quantity.unit]));
const day = 86400;
const start = meta.start === null ? NaN : Date.parse(meta.start + 'T00:00:00Z') / 1000;

// A sum that leaves wells out does not go by the name of the field.
const allWells = Math.max(meta.wells.length, meta.run?.wells ?? 0);
const fieldWells = meta.field?.from === 'wells' ? meta.field.wells : allWells;
const leftOut = allWells - fieldWells;
const fieldName = leftOut === 0 ? 'Field' : `Sum of ${fieldWells} of ${allWells} wells`;

const find = (id) => document.getElementById(id);

function element(name, text, properties) {
  const made = document.createElement(name);
  if (text !== undefined) made.textContent = text;
  return Object.assign(made, properties);
}

// Values.

// The columns of a block. Each value is there as its difference to the one before it, a number of 32
// bits; in a column the bytes of equal rank stand together, which is what makes them small.
async function unpack(id, rows) {
  if (find(id) === null) await loaded;
  const text = atob(find(id).textContent);
  const packed = new Uint8Array(text.length);
  for (let i = 0; i < text.length; ++i) packed[i] = text.charCodeAt(i);
  // A stream of a Blob would fetch from the browser's process what is here already.
  const stream = new DecompressionStream('deflate');
  const unpacked = new Response(stream.readable).arrayBuffer();
  const writer = stream.writable.getWriter();
  writer.write(packed);
  writer.close();
  const bytes = new Uint8Array(await unpacked);
  const columns = [];
  for (let at = 0; at < bytes.length; at += 4 * rows) {
    const bits = new Uint32Array(rows);
    let last = 0;
    for (let i = 0; i < rows; ++i) {
      last =
        (last +
          (bytes[at + i] |
            (bytes[at + rows + i] << 8) |
            (bytes[at + 2 * rows + i] << 16) |
            (bytes[at + 3 * rows + i] << 24))) |
        0;
      bits[i] = last;
    }
    columns.push(new Float32Array(bits.buffer));
  }
  return columns;
}

const decoded = new Map(); // by well, the field being -1: what was recorded, by quantity
const decoding = new Map();

async function decode(well) {
  const columns = await unpack(well < 0 ? 'field' : 'w' + well, meta.days.length);
  const names = well < 0 ? meta.field.quantities : recorded;
  decoded.set(
    well,
    new Map(names.map((name, i) => [name, columns[i]]).filter(([, column]) => !column.every(isNaN)))
  );
}

// Resolves when the values of these wells are there.
function need(wells) {
  return Promise.all(
    wells.map((well) => {
      if (!decoding.has(well)) decoding.set(well, decode(well));
      return decoding.get(well);
    })
  );
}

const combine = (one, other, make) =>
  one && other && Float32Array.from(one, (value, i) => make(value, other[i]));

// What a rate adds up to: each value holds for the days since the time before.
function added(rates) {
  if (!rates) return undefined;
  let sum = 0;
  return Float32Array.from(rates, (rate, i) => {
    if (isNaN(rate)) return NaN;
    sum += rate * (meta.days[i] - meta.days[Math.max(i - 1, 0)]);
    return sum;
  });
}

// What a well has produced is known when its rates were recorded at every stop.
const hasTotals = (well) => (well < 0 ? meta.field : meta.wells[well]).totals !== null;
const isUnknown = (well, id) =>
  id.endsWith('_total') && !decoded.get(well)?.has(id) && !hasTotals(well);

// scf in MMscf.
const gasFactor =
  units.gas_rate?.startsWith('MMscf') && units.oil_rate?.startsWith('STB') ? 1e6 : 1;

function derived(columns, id) {
  if (columns.has(id)) return columns.get(id);
  const rate = (name) => columns.get(name);
  const ratio = (one, other) => (other > 0 ? one / other : NaN);
  switch (id) {
    case 'liquid_rate':
      return combine(rate('oil_rate'), rate('water_rate'), (oil, water) => oil + water);
    case 'water_cut':
      return combine(rate('water_rate'), rate('oil_rate'), (water, oil) =>
        ratio(water, oil + water)
      );
    case 'gas_oil_ratio':
      return combine(rate('gas_rate'), rate('oil_rate'), (gas, oil) => ratio(gas * gasFactor, oil));
    default:
      return id.endsWith('_total')
        ? added(derived(columns, id.replace('_total', '_rate')))
        : undefined;
  }
}

const made = new Map(); // by well and quantity

// The values of a decoded well, or of the field for -1, with null where there is none.
function curve(well, id) {
  if (!decoded.has(well)) return undefined;
  const key = `${well} ${id}`;
  if (!made.has(key)) {
    const values = isUnknown(well, id) ? undefined : derived(decoded.get(well), id);
    made.set(key, values && Array.from(values, (value) => (Number.isFinite(value) ? value : null)));
  }
  return made.get(key);
}

// What is no longer chosen takes no memory.
function forget() {
  const wanted = new Set(lines().map((line) => line.well));
  for (const map of [decoded, decoding]) {
    for (const well of map.keys()) if (!wanted.has(well)) map.delete(well);
  }
  for (const key of made.keys()) if (!wanted.has(parseInt(key))) made.delete(key);
}

function kindsOffered() {
  const has = (id) => recorded.includes(id);
  const derivable = {
    __proto__: null,
    liquid_rate: has('oil_rate') && has('water_rate'),
    water_cut: has('oil_rate') && has('water_rate'),
    gas_oil_ratio: has('oil_rate') && has('gas_rate'),
  };
  const anyTotals = meta.field?.totals || meta.wells.some((_, well) => hasTotals(well));
  const offered = (id) =>
    has(id) ||
    derivable[id] ||
    (id.endsWith('_total') &&
      anyTotals &&
      (has(id.replace('_total', '_rate')) || derivable[id.replace('_total', '_rate')]));
  return [...Object.keys(known).filter(offered), ...recorded.filter((id) => !(id in known))];
}

function labelOf(id) {
  return known[id] ?? id.replaceAll('_', ' ');
}

function unitOf(id) {
  if (units[id] !== undefined) return units[id];
  if (id === 'liquid_rate') return units.oil_rate;
  if (id === 'water_cut') return '';
  if (id === 'gas_oil_ratio') {
    return gasFactor === 1 ? `${units.gas_rate}/${units.oil_rate}`.replaceAll('/d', '') : 'scf/STB';
  }
  return id.endsWith('_total') ? unitOf(id.replace('_total', '_rate')).replace('/d', '') : '';
}

const isFlow = (id) => /_(rate|total)$/.test(id);

// Of a rate that is zero everywhere nobody wants a chart.
const isIdle = (id) => meta.idle.includes(id.replace('_total', '_rate'));

// Texts.

const grouped = new Intl.NumberFormat('en', {maximumSignificantDigits: 8});

const short = (value) =>
  value === null || value === undefined || isNaN(value) ? '' : String(+value.toPrecision(6));

// As many digits as the value has: what was recorded, and what is made of it, has 24 bits.
function exact(value) {
  if (value === null || value === undefined || isNaN(value)) return '';
  const text = String(value);
  if (text.length < 12) return text;
  if (Math.fround(value) !== value) return String(+value.toPrecision(10));
  for (let digits = 6; digits < 9; ++digits) {
    const text = value.toPrecision(digits);
    if (Math.fround(text) === value) return String(+text);
  }
  return String(value);
}

function dateOf(days) {
  const midnight = Math.abs(days - Math.round(days)) < 1e-5;
  const date = new Date((start + (midnight ? Math.round(days) : days) * day) * 1000);
  if (isNaN(date)) return '';
  const text = date.toISOString();
  return midnight ? text.split('T')[0] : text.slice(0, -8).replace('T', ' ');
}

const timeOf = (days) => [dateOf(days), `day ${short(days)}`].filter(Boolean).join(', ');

const lasting = (seconds) =>
  seconds < 120
    ? `${short(Math.round(seconds * 1000) / 1000)} s`
    : seconds < 7200
      ? `${(seconds / 60).toFixed(1)} min`
      : `${(seconds / 3600).toFixed(2)} h`;

// What is chosen.

const chosen = {
  slots: [],
  field: true,
  kinds: new Set(),
  axis: isNaN(start) ? 'day' : 'date',
  range: null,
  of: '',
  filter: '',
  tables: null,
  open: new Set(),
};

// Each well keeps its slot, and so its colour, while others come and go.
function restore() {
  const kept = new URLSearchParams(location.hash.slice(1));
  const offered = kindsOffered();
  const place = new Map(meta.wells.map((well, i) => [well.name, i]));
  if (kept.has('field')) {
    chosen.field = kept.get('field') === '1';
    chosen.slots = kept
      .getAll('well')
      .map((name) => place.get(name) ?? null)
      .slice(0, mostCurves);
    chosen.kinds = new Set(kept.getAll('curve').filter((id) => offered.includes(id)));
    if (kept.get('axis') === 'day') chosen.axis = 'day';
    const range = kept.getAll('day').map(Number);
    if (range.length === 2 && range[0] < range[1]) chosen.range = range;
    chosen.filter = kept.get('filter') ?? '';
    chosen.of = kept.get('of') ?? '';
    chosen.open = new Set(kept.getAll('open'));
    if (kept.has('tables')) chosen.tables = new Set(kept.getAll('table'));
  } else {
    const producers = meta.wells.map((well, i) => i).filter((i) => !/INJ/.test(meta.wells[i].type));
    chosen.slots = producers.slice(0, 5);
    chosen.kinds = new Set(offered.filter((id) => !shownLater.has(id) && !isIdle(id)));
  }
  if (!offered.includes(chosen.of)) chosen.of = offered[0] ?? '';
}

function keep() {
  const kept = new URLSearchParams();
  kept.set('field', chosen.field ? '1' : '0');
  for (const well of chosen.slots) kept.append('well', well === null ? '' : meta.wells[well].name);
  for (const id of chosen.kinds) kept.append('curve', id);
  kept.set('axis', chosen.axis);
  for (const at of chosen.range ?? []) kept.append('day', at);
  if (chosen.filter !== '') kept.set('filter', chosen.filter);
  kept.set('of', chosen.of);
  for (const id of chosen.open) kept.append('open', id);
  if (chosen.tables !== null) kept.set('tables', '1');
  for (const id of chosen.tables ?? []) kept.append('table', id);
  history.replaceState(null, '', '#' + kept);
}

const wellsChosen = () => chosen.slots.filter((well) => well !== null);

// The chosen curves with their names and line styles.
function lines() {
  const field = chosen.field && meta.field !== null ? [{well: -1, name: fieldName, slot: -1}] : [];
  return field.concat(
    chosen.slots
      .map((well, slot) => ({well, slot, name: meta.wells[well]?.name}))
      .filter((line) => line.well !== null)
  );
}

const ink = (name) =>
  getComputedStyle(document.documentElement)
    .getPropertyValue('--' + name)
    .trim();

function series(name, slot, points) {
  const colour = slot < 0 ? 'ink' : 'c' + (slot % colours);
  return {
    label: name,
    stroke: ink(colour),
    width: (slot < 0 ? 2.2 : 1.4) * scale,
    dash: (slot < 0 ? dashes[0] : dashes[slot % dashes.length]).map((length) => length * scale),
    kind: slot < 0 ? borders[0] : borders[slot % borders.length],
    value: (u, value) => short(value),
    ...(points && {points: {show: true, size: 5 * scale}, spanGaps: true}),
  };
}

// Charts.

const charts = new Map(); // by element
let scale = 1; // 2 on paper
const paperWidth = 660;

const whole = () => [meta.stops.days[0] ?? meta.days[0] ?? 0, meta.last ?? 1];
const toX = (days) => (chosen.axis === 'day' ? days : start + days * day);
const toDays = (x) => (chosen.axis === 'day' ? x : (x - start) / day);

const stamps = [
  [365 * day, '{YYYY}', null, null, null, null, null, null, 1],
  [28 * day, '{YYYY}-{MM}', null, null, null, null, null, null, 1],
  [day, '{MM}-{DD}', '\n{YYYY}', null, null, null, null, null, 1],
  [60, '{HH}:{mm}', '\n{YYYY}-{MM}-{DD}', null, '\n{MM}-{DD}', null, null, null, 1],
  [1, '{HH}:{mm}:{ss}', '\n{YYYY}-{MM}-{DD}', null, '\n{MM}-{DD}', null, null, null, 1],
];

function axes(xLabel, yLabel, time) {
  const common = {
    stroke: ink('soft'),
    grid: {stroke: ink('line'), width: scale},
    ticks: {stroke: ink('line'), width: scale},
    font: `${12 * scale}px system-ui, sans-serif`,
    labelFont: `${12 * scale}px system-ui, sans-serif`,
    labelSize: 18 * scale,
  };
  const numbers = (u, splits) =>
    splits.map((value) => (value === null ? '' : grouped.format(value)));
  return [
    {
      ...common,
      label: xLabel,
      size: (time ? 38 : 34) * scale,
      space: 70 * scale,
      values: time ? stamps : numbers,
    },
    {
      ...common,
      label: yLabel,
      space: 32 * scale,
      values: numbers,
      size: (u, texts) =>
        (24 + 7 * Math.max(2, ...(texts ?? []).map((text) => text.length))) * scale,
    },
  ];
}

// Above the curves is room for the numbers of events.
function fromZero(u, least, most) {
  if (!Number.isFinite(least)) return [0, 1];
  return [Math.min(0, least), most > 0 ? most * 1.1 : least < 0 ? 0 : 1];
}

function near(u, least, most) {
  return !Number.isFinite(least) ? [0, 1] : uPlot.rangeNum(least, most, 0.1, true);
}

// Events of the same time are one mark.
const marks = [];
for (const [i, event] of meta.events.entries()) {
  const last = marks.at(-1);
  if (last?.day === event.day) {
    last.to = i + 1;
    last.texts.push(event.command);
  } else {
    marks.push({day: event.day, from: i + 1, to: i + 1, texts: [event.command]});
  }
}
const nameOf = (mark) => (mark.from === mark.to ? String(mark.from) : `${mark.from}–${mark.to}`);

function drawMarks(u) {
  const context = u.ctx;
  const {left, top, width, height} = u.bbox;
  context.save();
  context.strokeStyle = context.fillStyle = ink('event');
  context.lineWidth = (u.bbox.width / u.over.clientWidth) * scale;
  context.setLineDash([context.lineWidth, 3 * context.lineWidth]);
  context.font = `${11 * context.lineWidth}px system-ui, sans-serif`;
  context.textBaseline = 'top';
  context.textAlign = 'left';
  let free = -Infinity;
  for (const mark of marks) {
    const x = Math.round(u.valToPos(toX(mark.day), 'x', true));
    if (x < left || x > left + width) continue;
    context.beginPath();
    context.moveTo(x, top);
    context.lineTo(x, top + height);
    context.stroke();
    if (x < free) continue;
    const text = nameOf(mark);
    const wide = context.measureText(text).width;
    context.fillText(
      text,
      Math.min(x + 2 * context.lineWidth, left + width - wide),
      top + 2 * context.lineWidth
    );
    free = x + wide + 6 * context.lineWidth;
  }
  context.restore();
}

function sayMark(u, note) {
  const at = u.cursor.left;
  let best = null;
  let distance = 8;
  if (at >= 0) {
    for (const mark of marks) {
      const away = Math.abs(u.valToPos(toX(mark.day), 'x') - at);
      if (away < distance) [best, distance] = [mark, away];
    }
  }
  const text = best === null ? '' : `${nameOf(best)}: ${best.texts.join('; ')}`;
  if (note.textContent !== text) note.title = note.textContent = text;
}

function describe(title, unit, names, data) {
  const texts = names.slice(0, 5).map((name, i) => {
    const values = data[i + 1].filter((value) => value !== null);
    if (values.length === 0) return `${name} has no values`;
    const least = values.reduce((one, other) => Math.min(one, other));
    const most = values.reduce((one, other) => Math.max(one, other));
    return `${name} from ${short(least)} to ${short(most)}, last ${short(values.at(-1))}`;
  });
  const more = names.length > 5 ? `; and ${names.length - 5} more` : '';
  return `${title}${unit && ', ' + unit}: ${texts.join('; ')}${more}`;
}

// `prepare` resolves when the values are there that `compose` draws.
function figure(title, unit, key, into, prepare, compose) {
  const box = element('figure');
  const caption = element('figcaption', unit ? `${title} [${unit}]` : title);
  const note = caption.appendChild(element('span'));
  const plot = element('div', undefined, {className: 'plot', tabIndex: 0, id: 'plot-' + key});
  plot.setAttribute('role', 'group');
  const empty = element('p', undefined, {className: 'soft', hidden: true});
  box.append(caption, plot, empty);
  into.append(box);
  const chart = {
    title,
    unit,
    note,
    plot,
    empty,
    prepare,
    compose,
    u: null,
    stale: true,
    seen: false,
    range: null,
  };
  charts.set(plot, chart);
  plot.addEventListener('keydown', (event) => press(chart, event));
  watched.observe(plot);
  return chart;
}

function drop(into) {
  for (const plot of into.querySelectorAll('.plot')) {
    watched.unobserve(plot);
    charts.get(plot).u?.destroy();
    charts.delete(plot);
  }
  into.replaceChildren();
}

// What is not seen is drawn when it is.
const watched = new IntersectionObserver(
  (entries) => {
    for (const entry of entries) {
      const chart = charts.get(entry.target);
      if (chart === undefined) continue;
      chart.seen = entry.isIntersecting;
      if (chart.seen) show(chart);
    }
  },
  {rootMargin: '200px'}
);

let drawing = 0; // charts whose values are being decoded
let redrawing = 0; // the frame that is asked for

async function show(chart) {
  if (chart.u !== null && !chart.stale) {
    if (chart.range !== chosen.range && chart.overTime) zoomOne(chart);
    return;
  }
  chart.stale = false;
  ++drawing;
  try {
    await chart.prepare();
    if (charts.has(chart.plot) && !chart.stale) place(chart);
  } finally {
    --drawing;
  }
}

function place(chart) {
  const {options, data, names, overTime, lack} = chart.compose();
  chart.u?.destroy();
  chart.overTime = overTime;
  chart.empty.textContent = lack;
  chart.empty.hidden = !lack;
  const width = scale === 1 ? chart.plot.clientWidth : 2 * paperWidth;
  const box = element('div');
  chart.plot.replaceChildren(box);
  chart.plot.setAttribute('aria-label', describe(chart.title, chart.unit, names, data));
  const last = (u) => {
    if (u.cursor.idx === null || u.cursor.idx === undefined || u.cursor.left < 0) rest(u);
  };
  chart.u = new uPlot(
    {
      width,
      height: scale === 1 ? 250 : 2 * 230,
      padding: [8 * scale, 26 * scale, 0, 0],
      tzDate: (seconds) => uPlot.tzDate(new Date(seconds * 1000), 'Etc/UTC'),
      ...options,
      legend: {markers: {width: 3, fill: () => 'transparent', dash: (u, i) => u.series[i].kind}},
      hooks: {
        ready: [rest, () => fit(chart, box)],
        setCursor: [(u) => sayMark(u, chart.note), last],
        draw: overTime ? [drawMarks] : [],
        setSelect: [(u) => select(chart, u)],
      },
    },
    data,
    box
  );
  chart.range = chosen.range;
}

// On paper a chart is shown at half its size, which does not make it lower.
function fit(chart, box) {
  chart.plot.style.height = scale === 1 ? '' : `${Math.ceil(box.offsetHeight / 2)}px`;
}

// While nobody points at a chart over time its legend has the last values.
function rest(u) {
  if (u.cursor.sync?.key !== 'time') return;
  let last = u.data[0].length - 1;
  while (last > 0 && u.data[0][last] > u.scales.x.max) --last;
  if (last >= 0) u.setLegend({idx: last}, false);
}

const timeSeries = {label: 'Time', value: (u, x) => (x === null ? '' : timeOf(toDays(x)))};

function curves(id) {
  const data = [meta.days.map(toX)];
  const styles = [timeSeries];
  const names = [];
  for (const line of lines()) {
    const values = curve(line.well, id);
    if (!values || values.every((value) => value === null || (value === 0 && isFlow(id)))) continue;
    data.push(values);
    styles.push(series(line.name, line.slot));
    names.push(line.name);
  }
  const range = /pressure|temperature|density/.test(id) ? near : fromZero;
  const unknown = lines()
    .filter((line) => isUnknown(line.well, id))
    .map((line) => line.name);
  const lack = lines().some((line) => !decoded.has(line.well))
    ? 'Curves are missing here: the page had not read them yet.'
    : unknown.length > 0
      ? `Not known of ${unknown.join(', ')}: rates were not recorded at every stop.`
      : names.length > 0
        ? ''
        : 'None of the wells that are chosen has any.';
  return {data, names, overTime: true, lack, options: timeOptions(styles, unitOf(id), range)};
}

function timeOptions(styles, unit, range) {
  const dates = chosen.axis === 'date';
  const [from, to] = chosen.range ?? whole();
  return {
    series: styles,
    axes: axes(dates ? 'date' : 'days since the start', unit || 'fraction', dates),
    scales: {
      x: {
        time: dates,
        range: (u, least, most) => [least, most],
        min: toX(from),
        max: toX(to > from ? to : from + 1),
      },
      y: {range},
    },
    cursor: {
      y: false,
      drag: {x: true, y: false, setScale: false},
      bind: {dblclick: () => () => zoom(null)},
      sync: {key: 'time', filters: {pub: (type) => type === 'mousemove' || type === 'mouseleave'}},
    },
  };
}

function select(chart, u) {
  if (u.select.width < 3) return;
  const range = [u.select.left, u.select.left + u.select.width].map((at) =>
    toDays(u.posToVal(at, 'x'))
  );
  u.setSelect({left: 0, width: 0, top: 0, height: 0}, false);
  if (chart.overTime) zoom(range);
}

function zoomOne(chart) {
  const [from, to] = chosen.range ?? whole();
  chart.range = chosen.range;
  chart.u.setScale('x', {min: toX(from), max: toX(to > from ? to : from + 1)});
  rest(chart.u);
}

function zoom(range) {
  const [first, last] = whole();
  chosen.range = range && [Math.max(range[0], first), Math.min(range[1], last)];
  if (chosen.range && !(chosen.range[0] < chosen.range[1])) chosen.range = null;
  keep();
  for (const chart of charts.values()) {
    if (chart.overTime && chart.seen && chart.u !== null) zoomOne(chart);
  }
  fillNumbers();
}

function press(chart, event) {
  const u = chart.u;
  if (u === null || event.ctrlKey || event.metaKey || event.altKey) return;
  const {min, max} = u.scales.x;
  const xs = u.data[0];
  const moves = {
    ArrowLeft: -1,
    ArrowRight: 1,
    PageUp: -10,
    PageDown: 10,
    Home: -Infinity,
    End: Infinity,
  };
  if (event.key in moves) {
    let at = u.cursor.left >= 0 ? (u.cursor.idx ?? 0) : moves[event.key] > 0 ? -1 : xs.length;
    at = Math.min(Math.max(at + moves[event.key], 0), xs.length - 1);
    while (at < xs.length - 1 && xs[at] < min) ++at;
    while (at > 0 && xs[at] > max) --at;
    u.setCursor({left: u.valToPos(xs[at], 'x'), top: 10}, true, true);
    find('spoken').textContent = [...u.root.querySelectorAll('.u-series')]
      .map((row) => [...row.cells].map((cell) => cell.textContent).join(' '))
      .join('; ');
  } else if (chart.overTime && '+-'.includes(event.key)) {
    const middle = toDays(u.cursor.left >= 0 ? u.posToVal(u.cursor.left, 'x') : (min + max) / 2);
    const factor = event.key === '+' ? 0.5 : 2;
    zoom([middle - (middle - toDays(min)) * factor, middle + (toDays(max) - middle) * factor]);
  } else if (chart.overTime && (event.key === '0' || event.key === 'Escape')) {
    zoom(null);
  } else {
    return;
  }
  event.preventDefault();
}

// All charts anew, those first that are seen. Whoever chooses many wells in a row waits for one
// drawing.
function redraw() {
  need(lines().map((line) => line.well));
  for (const chart of charts.values()) chart.stale = true;
  redrawing ||= requestAnimationFrame(() => {
    redrawing = 0;
    for (const chart of charts.values()) if (chart.seen) show(chart);
  });
}

// Tables.

function fill(table, head, rows) {
  const line = (cells, name) => {
    const row = element('tr');
    for (const cell of cells) {
      const number = typeof cell === 'number' || cell === null;
      row.append(element(name, number ? exact(cell) : cell, number ? {className: 'number'} : {}));
    }
    return row;
  };
  const top = element('thead');
  top.append(line(head, 'th'));
  for (const cell of top.rows[0].cells) cell.scope = 'col';
  const body = element('tbody');
  body.append(...rows.map((row) => line(row, 'td')));
  table.replaceChildren(top, body);
}

// The values of a table as other programs take them from the clipboard.
const tabbed = (head, rows) =>
  [head, ...rows]
    .map((row) =>
      row
        .map((cell) => (typeof cell === 'string' ? cell.replace(/[\t\r\n]/g, ' ') : exact(cell)))
        .join('\t')
    )
    .join('\n') + '\n';

async function copy(text) {
  try {
    await navigator.clipboard.writeText(text);
  } catch {
    const area = document.body.appendChild(element('textarea', text));
    area.select();
    document.execCommand('copy');
    area.remove();
  }
}

// `make` gives the head and the rows, of which the table shows the first.
function tableIn(section, make) {
  const said = section.querySelector('.row .soft');
  const button = section.querySelector('.copy');
  button.ariaLabel = `Copy: ${section.querySelector('h2, summary').textContent}`;
  button.addEventListener('click', async () => {
    const {head, rows} = await make();
    await copy(tabbed(head, rows));
    said.textContent = `${rows.length} rows copied`;
  });
  return async () => {
    const {head, rows} = await make();
    fill(section.querySelector('table'), head, rows.slice(0, mostRows));
    said.textContent =
      rows.length > mostRows ? `${mostRows} of ${rows.length} rows; Copy takes all` : '';
  };
}

const withUnit = (name, unit) => (unit ? `${name} [${unit}]` : name);

async function numbers() {
  const [from, to] = chosen.range ?? whole();
  const head = ['day', 'date'];
  const columns = [];
  await need(lines().map((line) => line.well));
  for (const line of lines()) {
    const values = curve(line.well, chosen.of);
    if (!values) continue;
    head.push(withUnit(line.name, unitOf(chosen.of)));
    columns.push(values);
  }
  const rows = [];
  for (const [i, at] of meta.days.entries()) {
    if (at >= from && at <= to) rows.push([at, dateOf(at), ...columns.map((values) => values[i])]);
  }
  return {head, rows};
}

const showNumbers = tableIn(find('numbers'), numbers);

function fillNumbers() {
  if (find('numbers').open) showNumbers();
}

function lastValues() {
  const kinds = meta.quantities.filter((quantity) => !isIdle(quantity.id));
  const head = [
    'well',
    'type',
    'status',
    ...kinds.map(({id, unit}) => withUnit(labelOf(id), unit)),
  ];
  const rows = meta.wells.map((well) => [
    well.name,
    well.type,
    well.status,
    ...kinds.map(({id}) => well.last[recorded.indexOf(id)]),
  ]);
  const isFilled = (_, column) => rows.some((row) => row[column] !== null && row[column] !== '');
  const filled = head.map(isFilled);
  const withValues = (row) => row.filter((_, column) => filled[column]);
  return {head: withValues(head), rows: rows.map(withValues)};
}

function totals() {
  const rates = meta.rates.filter((id) => !isIdle(id));
  const ids = rates.map((id) => id.replace('_rate', '_total'));
  const row = (name, {totals}) => [
    name,
    ...rates.map((id) => totals?.[meta.rates.indexOf(id)] ?? null),
  ];
  return {
    head: ['well', ...ids.map((id) => withUnit(labelOf(id), unitOf(id)))],
    rows: [
      ...meta.wells.map((well) => row(well.name, well)),
      ...(meta.field === null ? [] : [row(fieldName, meta.field)]),
    ],
  };
}

const eventRows = () => ({
  head: ['no', 'day', 'date', 'command'],
  rows: meta.events.map((event, i) => [i + 1, event.day, dateOf(event.day), event.command]),
});

// Inflow.

const tables = meta.inflow.flatMap((inflow, block) => {
  let row = 0;
  return inflow.tables.map((table, i) => {
    const first = row;
    row += table.points;
    return {
      ...table,
      block,
      well: inflow.well,
      first,
      key: `${inflow.well} ${table.day} ${i}`,
      rows: inflow.tables.reduce((sum, {points}) => sum + points, 0),
    };
  });
});

const inflowDecoded = new Map(); // by block

async function needTables(wanted) {
  for (const {block, rows} of wanted) {
    if (!inflowDecoded.has(block)) inflowDecoded.set(block, await unpack('i' + block, rows));
  }
}

const pointsOf = ({block, first, points}) =>
  new Map(
    meta.inflow_columns.map(({id}, i) => [
      id,
      Array.from(inflowDecoded.get(block)[i].subarray(first, first + points)),
    ])
  );

const tableName = (table) => `${table.well}, ${dateOf(table.day) || 'day ' + short(table.day)}`;

const tablesOffered = () => {
  const wells = new Set(wellsChosen().map((well) => meta.wells[well].name));
  const mine = tables.filter((table) => wells.has(table.well));
  return mine.length > 0 ? mine : tables.slice(0, mostRows);
};

function tablesChosen() {
  const offered = tablesOffered();
  const wanted = offered.filter((table) => chosen.tables === null || chosen.tables.has(table.key));
  return (wanted.length > 0 || chosen.tables !== null ? wanted : offered).slice(-mostCurves);
}

// Pressure over liquid, or over gas for wells without liquid.
function inflowCharts() {
  const groups = new Map();
  for (const [i, table] of tablesChosen().entries()) {
    const points = pointsOf(table);
    const oil = points.get('oil_rate');
    const liquid = oil?.map((rate, k) => rate + (points.get('water_rate')?.[k] ?? 0));
    const hasLiquid = liquid?.some((rate) => rate > 0);
    for (const [id, pressures] of points) {
      if (!/pressure$/.test(id) || pressures.every(isNaN)) continue;
      const rates = hasLiquid ? liquid : points.get('gas_rate');
      const pairs = rates
        .map((rate, k) => [rate, pressures[k]])
        .filter((pair) => pair.every(isFinite))
        .sort((one, other) => one[0] - other[0]);
      const key = `${hasLiquid ? 'liquid' : 'gas'} ${id}`;
      if (!groups.has(key)) groups.set(key, {id, hasLiquid, curves: []});
      groups.get(key).curves.push({name: tableName(table), slot: i, pairs});
    }
  }
  return groups;
}

async function showInflow() {
  if (tables.length === 0) return;
  const offered = tablesOffered();
  const drawn = new Set(tablesChosen().map((table) => table.key));
  find('tables').replaceChildren(
    ...offered.map((table) =>
      check(tableName(table), drawn.has(table.key), (on) => {
        chosen.tables ??= drawn;
        if (on) chosen.tables.add(table.key);
        else chosen.tables.delete(table.key);
        keep();
        showInflow();
      })
    )
  );
  await needTables(tablesChosen());
  const groups = inflowCharts();
  const into = find('inflow-charts');
  drop(into);
  const unit = (id) => meta.inflow_columns.find((column) => column.id === id)?.unit ?? '';
  for (const [key, {id, hasLiquid, curves}] of groups) {
    const over = hasLiquid ? ['liquid', unit('oil_rate')] : ['gas', unit('gas_rate')];
    const title = `${labelOf(id)[0].toUpperCase()}${labelOf(id).slice(1)} over ${over[0]} rate`;
    figure(
      title,
      unit(id),
      key.replace(' ', '-'),
      into,
      () => {},
      () => {
        const joined = uPlot.join(
          curves.map(({pairs}) => [pairs.map((pair) => pair[0]), pairs.map((pair) => pair[1])])
        );
        return {
          data: joined,
          names: curves.map(({name}) => name),
          overTime: false,
          options: {
            series: [
              {label: withUnit(over[0], over[1]), value: (u, value) => short(value)},
              ...curves.map(({name, slot}) => series(name, slot, true)),
            ],
            axes: axes(withUnit(over[0], over[1]), unit(id), false),
            scales: {x: {time: false, range: fromZero}, y: {range: fromZero}},
            cursor: {drag: {x: false, y: false}},
          },
        };
      }
    );
  }
  if (find('inflow').querySelector('details').open) showPoints();
}

async function points() {
  const rows = [];
  const chosenTables = tablesChosen();
  await needTables(chosenTables);
  for (const table of chosenTables) {
    const columns = pointsOf(table);
    for (let k = 0; k < table.points; ++k) {
      rows.push([
        table.well,
        table.day,
        dateOf(table.day),
        k + 1,
        ...meta.inflow_columns.map(({id}) => columns.get(id)[k]),
      ]);
    }
  }
  return {
    head: [
      'well',
      'day',
      'date',
      'point',
      ...meta.inflow_columns.map(({id, unit}) => withUnit(labelOf(id), unit)),
    ],
    rows,
  };
}

const showPoints = tableIn(find('inflow'), points);

// The wall time.

function wallParts() {
  const {elapsed, computing} = meta.stops;
  const run = meta.run ?? {};
  const total = run.wall_seconds ?? elapsed.findLast((value) => value !== null);
  const computed = computing.reduce((sum, value) => sum + (value ?? 0), 0);
  const launch = run.launch_seconds ?? null;
  const parts = [
    ['waiting for the launch', launch],
    ['computing', computed],
    ['recording, events and the report', total - computed],
  ].filter(([, seconds]) => seconds !== null);
  const sum = parts.reduce((all, [, seconds]) => all + seconds, 0);
  return {
    head: ['what', 'time', 'seconds', 'part'],
    rows: [...parts, ['altogether', sum]].map(([what, seconds]) => [
      what,
      lasting(seconds),
      Math.round(seconds * 1000) / 1000,
      sum > 0 ? `${((100 * seconds) / sum).toFixed(1)} %` : '',
    ]),
  };
}

function showWall() {
  const {days, elapsed, computing} = meta.stops;
  if (elapsed.every((value) => value === null)) {
    find('wall').hidden = true;
    return;
  }
  tableIn(find('wall'), wallParts)();
  figure(
    'Wall time of each step',
    's',
    'wall',
    find('wall-charts'),
    () => {},
    () => ({
      overTime: true,
      names: ['computing', 'all the rest'],
      data: [
        days.map(toX),
        computing,
        elapsed.map((value, i) =>
          value === null
            ? null
            : Math.max(
                0,
                Math.round(1000 * (value - (elapsed[i - 1] ?? 0) - (computing[i] ?? 0))) / 1000
              )
        ),
      ],
      options: timeOptions(
        [timeSeries, series('computing', 0), series('all the rest', 1)],
        's',
        fromZero
      ),
    })
  );
}

// What was run.

function showRun() {
  const run = meta.run ?? {};
  const list = find('run').querySelector('dl');
  const add = (what, value) => {
    if (value === null || value === undefined || value === '' || value.length === 0) return;
    list.append(
      element('dt', what),
      element('dd', Array.isArray(value) ? value.join('\n') : String(value))
    );
  };
  const title = run.title || run.deck || meta.directory;
  find('title').textContent = document.title = title;
  const reached = meta.last === null ? '' : `, at ${timeOf(meta.last)}`;
  find('state').textContent = meta.live
    ? `Running${reached}; as of ${meta.written}`
    : `${run.end ?? 'No run.json says how it ended'}${reached}`;
  add('Input file', run.deck);
  add('its SHA-256', run.deck_sha256);
  add('Plan', run.plan);
  add('Goes until', run.until);
  add('Steps', run.step);
  add('Simulator on', run.simulator_host);
  add('Daemon', run.daemon);
  add('User', run.user);
  add('Processes', run.processes);
  add('Simulator version', run.simulator_version);
  add('Interface', run.interface);
  add('Units', run.unit_system);
  add('Components', run.components?.join(', '));
  add('Start of the simulation', meta.start);
  add('Began', run.began);
  add('Finished', run.finished);
  add('End', run.end);
  add('Recorded at each stop', run.record);
  add(
    'Events',
    run.events?.map((event) => `${event.at}: ${event.commands.join('; ')}`)
  );
  add('vkmaster', run.vkmaster_version);
  add('Results in', meta.directory);
  find('made').textContent =
    `Made by vkmaster ${meta.version} at ${meta.written}; curves by uPlot ${meta.uplot}. Values ` +
    'of 32 bits, some seven digits; what was produced or injected is each rate times the days ' +
    'since the stop before.';
}

// What can be chosen.

function check(text, on, changed) {
  const item = element('li');
  const label = item.appendChild(element('label', undefined, {title: text}));
  const box = label.appendChild(element('input', undefined, {type: 'checkbox', checked: on}));
  label.append(' ' + text);
  box.addEventListener('change', () => changed(box.checked, box));
  return item;
}

function count() {
  find('count').textContent =
    `${wellsChosen().length} of ${meta.wells.length}` +
    (meta.wells.length > mostCurves ? `, at most ${mostCurves}` : '');
}

function wellsChanged() {
  while (chosen.slots.at(-1) === null) chosen.slots.pop();
  keep();
  count();
  forget();
  redraw();
  fillNumbers();
  showInflow();
}

function choose(well, on, box) {
  if (on && wellsChosen().length === mostCurves) {
    box.checked = false;
    find('count').textContent = `No more than ${mostCurves} at a time`;
    return;
  }
  const slot = chosen.slots.indexOf(on ? null : well);
  if (!on) chosen.slots[slot] = null;
  else if (slot < 0) chosen.slots.push(well);
  else chosen.slots[slot] = well;
  wellsChanged();
}

function showWells() {
  const list = find('list');
  if (meta.field !== null) {
    list.append(
      check(fieldName, chosen.field, (on) => {
        chosen.field = on;
        wellsChanged();
      })
    );
  }
  const boxes = meta.wells.map((well, i) =>
    check(well.name, chosen.slots.includes(i), (on, box) => choose(i, on, box))
  );
  list.append(...boxes);
  const filter = find('filter');
  const hide = () => {
    const part = filter.value.toLowerCase();
    for (const [i, well] of meta.wells.entries())
      boxes[i].hidden = !well.name.toLowerCase().includes(part);
  };
  filter.value = chosen.filter;
  hide();
  filter.addEventListener('input', () => {
    chosen.filter = filter.value;
    hide();
    keep();
  });
  find('none').addEventListener('click', () => {
    chosen.slots = [];
    for (const box of boxes) box.querySelector('input').checked = false;
    wellsChanged();
  });
  count();
}

function showCharts() {
  drop(find('charts'));
  for (const id of kindsOffered()) {
    if (!chosen.kinds.has(id)) continue;
    figure(
      labelOf(id),
      unitOf(id),
      id,
      find('charts'),
      () => need(lines().map((line) => line.well)),
      () => curves(id)
    );
  }
}

function showKinds() {
  find('kinds').replaceChildren(
    ...kindsOffered().map((id) =>
      check(labelOf(id), chosen.kinds.has(id), (on) => {
        if (on) chosen.kinds.add(id);
        else chosen.kinds.delete(id);
        keep();
        showCharts();
      })
    )
  );
  const of = find('of');
  of.replaceChildren(...kindsOffered().map((id) => element('option', labelOf(id), {value: id})));
  of.value = chosen.of;
  of.addEventListener('change', () => {
    chosen.of = of.value;
    keep();
    fillNumbers();
  });
  for (const radio of document.querySelectorAll('[name=axis]')) {
    radio.checked = radio.value === chosen.axis;
    radio.disabled = isNaN(start) && radio.value === 'date';
    radio.addEventListener('change', () => {
      chosen.axis = radio.value;
      keep();
      redraw();
    });
  }
  find('whole').addEventListener('click', () => zoom(null));
}

// What is in a section when it is opened.
function showWhenOpen(details, id, show) {
  details.open = chosen.open.has(id);
  details.addEventListener('toggle', () => {
    if (details.open) chosen.open.add(id);
    else chosen.open.delete(id);
    keep();
    if (details.open) show();
  });
  if (details.open) show();
}

// Browsers may keep nothing for a page of a file.
function remember(key, value) {
  try {
    sessionStorage.setItem('report-' + key, value);
  } catch {
    // Then it is forgotten.
  }
}

function recall(key) {
  try {
    return sessionStorage.getItem('report-' + key);
  } catch {
    return null;
  }
}

// A run that goes on: its file is replaced from time to time, and a page cannot look into files.
// Somebody who types or selects is not disturbed.
function followRun() {
  if (!meta.live) return;
  const line = find('live');
  const button = find('pause');
  const opened = performance.now() / 1000;
  let paused = recall('paused') === '1';
  let left = Math.max(meta.live.seconds, 10 * opened);
  const isBusy = () =>
    !document.getSelection().isCollapsed ||
    document.activeElement === find('filter') ||
    drawing > 0 ||
    redrawing > 0 ||
    [...document.querySelectorAll('.u-select')].some((area) => area.clientWidth > 0);
  const tell = () => {
    line.firstElementChild.textContent =
      `As of ${meta.written}. ` + (paused ? 'Does not look again.' : 'Looks again now and then.');
    button.textContent = paused ? 'Go on' : 'Pause';
  };
  button.addEventListener('click', () => {
    paused = !paused;
    remember('paused', paused ? '1' : '0');
    tell();
  });
  line.hidden = false;
  tell();
  setInterval(() => {
    if (paused || document.hidden || --left > 0 || isBusy()) return;
    remember('focus', document.activeElement?.id ?? '');
    location.reload();
  }, 1000);
}

// Paper.

const dark = matchMedia('(prefers-color-scheme: dark)');

// A browser waits for no values when it prints, and programs print as soon as the page is loaded:
// what is chosen is decoded at once, and not only when a chart of it is seen. A frame in which a
// document is being written keeps the page from being loaded until then.
async function readChosen() {
  const frame = document.body.appendChild(element('iframe', undefined, {hidden: true}));
  frame.contentDocument?.open();
  try {
    await Promise.all([need(lines().map((line) => line.well)), showInflow()]);
  } finally {
    frame.remove();
  }
}

function turn(paper) {
  document.documentElement.classList.toggle('print', paper);
  scale = paper ? 2 : 1;
  for (const chart of charts.values()) place(chart);
  // One wide table would make the browser print all pages smaller.
  for (const table of document.querySelectorAll('.scroll table')) {
    table.style.zoom = paper ? Math.min(1, paperWidth / table.offsetWidth) : '';
  }
}

let resizing = 0;

function begin() {
  restore();
  showRun();
  const empty = meta.days.length === 0;
  find('missing').hidden = !empty;
  find('missing').textContent =
    'No rates or pressures of wells have been recorded. A plan records them by ' +
    '"data" among the commands of [record].';
  const noField =
    meta.rates.length > 0 ? 'Field: not known; no rates of a well were recorded at every stop.' : '';
  find('field-note').textContent =
    meta.field === null
      ? noField
      : meta.field.from === 'field.csv'
        ? 'Field: the sums over all wells that were recorded in field.csv.'
        : leftOut === 0
          ? `Field: the sums over the ${fieldWells} wells that were recorded.`
          : `${fieldName}: those whose rates were recorded at every stop since their first; the ` +
            'others are left out.';
  showWells();
  showKinds();
  showCharts();
  find('events').hidden = meta.events.length === 0;
  tableIn(find('events'), eventRows)();
  find('last-title').textContent += `, ${timeOf(meta.last)}`;
  find('last').hidden = lastValues().head.length < 2;
  tableIn(find('last'), lastValues)();
  find('totals').hidden = meta.wells.length === 0 || meta.rates.length === 0;
  find('totals-note').hidden = meta.wells.every((_, well) => hasTotals(well));
  tableIn(find('totals'), totals)();
  find('inflow').hidden = tables.length === 0;
  showWall();
  showWhenOpen(find('numbers'), 'numbers', showNumbers);
  showWhenOpen(find('inflow').querySelector('details'), 'points', showPoints);
  readChosen();
  followRun();
  const focused = recall('focus');
  if (focused) find(focused)?.focus({preventScroll: true});
  remember('focus', '');
  dark.addEventListener('change', redraw);
  window.addEventListener('beforeprint', () => turn(true));
  window.addEventListener('afterprint', () => turn(false));
  window.addEventListener('resize', () => {
    clearTimeout(resizing);
    resizing = setTimeout(redraw, 200);
  });
}

const loaded = new Promise((resolve) => document.addEventListener('DOMContentLoaded', resolve));
begin();
