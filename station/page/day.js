// A day of every channel: a row each, a cell for five minutes, coloured by the worst that was and as high as
// the share of bad seconds.
import {query} from './api.js';
import {alarmSpans, hatch, windowSpans, worstOf} from './bands.js';
import {fitCanvas, forgetSize, isOnPaper, onPaletteChange, palette} from './canvas.js';
import {el, setText} from './dom.js';
import {compareValues, groupedBy, valueOf} from './filter.js';
import {duration, nameText, parseTime, time, visible, words} from './format.js';
import {placeInOrder} from './placing.js';
import {parts} from './zone.js';

const kCells = 288;
const kCellMs = 300_000;
const kCellSeconds = 300;
const kAgainMs = 60_000;
const kAfterFailureMs = 5_000;
const kTimelineMs = 3_000;
const kPartOfTime = 10;  // times as long as an answer takes until the next one
const kMarksEvery = 3;   // hours
const kMarksWide = 6;    // where there is less room
const kNearScreen = '400px';
const kSeverityEdge = 3;  // px along the top: the worst severity that was raised
const kLeast = 0.15;      // of the height: one bad second has to be seen
const kLegend =
    'A cell is five minutes: its colour the worst that was, its height how many of the seconds were bad; ' +
    'along its top the worst severity that was raised; hatched: maintenance.';
const kWords = {
  o: 'ok',
  a: 'alarm',
  n: 'no signal',
  '.': 'no data'
};

// As the cells that a window meets: some minutes alone would be too narrow to be seen.
function inCells({from, until, ...window}) {
  const edge = (at, round) => round(at / kCellMs) * kCellMs;
  return {...window, from: edge(from, Math.floor), until: edge(until, Math.ceil)};
}

export class DayView {
  constructor(root, context, parameters) {
    this.root = root;
    this.store = context.store;
    this.api = context.api;
    this.replaceAddress = context.replaceAddress;
    this.label = parameters.get('by') ?? '';
    this.onlyBad = parameters.get('bad') === '1';
    this.rows = new Map();   // group -> row
    this.heads = new Map();  // value of the label -> its head
    this.end = 0;            // of the newest cell
    this.hours = [];         // cells in which one begins
    this.closed = false;
    this.renewing = null;
    this.timelineMs = kTimelineMs;
    this.near = new Set();
    this.observer = new IntersectionObserver((entries) => this.seen(entries), {rootMargin: kNearScreen});
    this.resizes = new ResizeObserver(() => {
      for (const row of this.near) {
        forgetSize(row.canvas);
        this.draw(row);
      }
    });
    this.build();
    this.ends = [
      onPaletteChange(() => (isOnPaper() ? this.rows : this.near).forEach((row) => this.draw(row))),
      this.store.on('channels', () => this.arrange()),
      this.store.on('meta', () => this.renewTimeline()),
      this.store.on('alarms', () => this.renewTimeline()),
    ];
    this.load();
    this.renewTimeline();  // what was raised a moment ago may not be written yet
  }

  close() {
    this.closed = true;
    clearTimeout(this.timer);
    clearTimeout(this.renewing);
    this.observer.disconnect();
    this.resizes.disconnect();
    for (const end of this.ends) end();
  }

  build() {
    this.hint = el('p', {class: 'hint', role: 'status', text: 'Asking the station …'});
    this.by = el('select', {'aria-label': 'Group by'});
    this.by.addEventListener('change', () => this.choose());
    this.bad = el('input', {type: 'checkbox', checked: this.onlyBad});
    this.bad.addEventListener('change', () => this.choose());
    this.marks = el('div', {class: 'day-marks', 'aria-hidden': 'true'});
    this.list = el('div', {class: 'day-rows'});
    this.tip = el('p', {class: 'day-tip', role: 'status'});
    this.list.addEventListener('pointermove', (event) => this.point(event));
    this.list.addEventListener('pointerleave', () => setText(this.tip, ''));
    this.list.addEventListener('click', (event) => this.press(event));
    this.root.replaceChildren(
        el('div', {class: 'view day'}, el('h1', {text: '24 hours'}),
           el('div', {class: 'controls'}, el('label', {}, 'Group by ', this.by),
              el('label', {class: 'tick'}, this.bad, ' only channels with bad seconds')),
           this.tip, this.hint, el('div', {class: 'day-head'}, el('span', {class: 'day-name'}), this.marks),
           this.list, el('p', {class: 'note', text: kLegend})));
    this.resizes.observe(this.list);
  }

  choose() {
    this.label = this.by.value;
    this.onlyBad = this.bad.checked;
    this.heads.clear();
    this.replaceAddress('day', {...(this.label && {by: this.label}), ...(this.onlyBad && {bad: '1'})});
    this.arrange();
  }

  async load() {
    let again = kAgainMs;
    try {
      const answer = await this.api.get(`overview?${query({cells: 1, seconds: 1, day: 1})}`);
      if (this.closed) return;
      this.take(answer);
      this.loadTimeline();
    } catch (error) {
      if (this.closed) return;
      this.hint.hidden = false;
      setText(this.hint, error.message);
      again = kAfterFailureMs;
    }
    this.timer = setTimeout(() => this.load(), again);
  }

  take({time: now, channels}) {
    // The newest cell has just begun.
    this.end = (Math.floor(parseTime(now).getTime() / kCellMs) + 1) * kCellMs;
    for (const {group, day, bad} of channels) {
      const row = this.rows.get(group) ?? this.makeRow(group);
      row.day = day;
      row.bad = new Map(bad);
      row.total = bad.reduce((sum, [, seconds]) => sum + seconds, 0);
      row.canvas.setAttribute('aria-label', this.text(row));
    }
    this.showMarks();
    this.arrange();
    for (const row of this.near) this.draw(row);
  }

  // Alarms came or went; the station has written that within a moment, and many may come at once.
  renewTimeline() {
    this.renewing ??= setTimeout(async () => {
      this.renewing = null;
      const begun = performance.now();
      await this.loadTimeline();
      // A storm of alarms makes long answers: the station has other things to do as well.
      this.timelineMs = Math.max(kTimelineMs, kPartOfTime * (performance.now() - begun));
    }, this.timelineMs);
  }

  // Severities and maintenance, which the cells do not tell. Without them the cells say what they can.
  async loadTimeline() {
    let answer;
    try {
      answer = await this.api.get('timeline');
    } catch {
      return;
    }
    if (this.closed || !this.store.meta) return;
    const byGroup = groupedBy(alarmSpans(answer), ({group}) => group);
    const windows = windowSpans(answer);
    for (const [group, row] of this.rows) {
      row.alarms = byGroup.get(group) ?? [];
      row.segments = worstOf(row.alarms, this.store.meta.severities);
      row.windows = windows.filter((one) => one.group === null || one.group === group).map(inCells);
    }
    for (const row of this.near) this.draw(row);
  }

  makeRow(group) {
    const canvas = el('canvas', {class: 'day-strip', role: 'img'});
    const link = el('a', {class: 'day-name', href: `#channel/${group}`});
    const node = el('div', {class: 'day-row'}, link, canvas);
    const row =
        {group, canvas, link, node, day: '', bad: new Map(), total: 0, alarms: [], segments: [], windows: []};
    canvas.row = row;
    this.rows.set(group, row);
    this.observer.observe(canvas);
    return row;
  }

  // The rows that are wanted, in the order of groups, under the labels' values.
  arrange() {
    if (!this.end) return;
    this.fillLabels();
    const {channels} = this.store;
    for (const [group, row] of this.rows) {
      if (channels.has(group) || !this.store.loaded) continue;
      this.observer.unobserve(row.canvas);
      this.near.delete(row);
      this.rows.delete(group);
    }
    const wanted = [...this.rows.values()].filter(({total}) => !this.onlyBad || total > 0);
    for (const row of wanted) setText(row.link, nameText(channels.get(row.group)?.info.name, row.group));
    const byValue = groupedBy(wanted, ({group}) => valueOf(channels.get(group), this.label));
    const nodes =
        [...byValue]
            .sort(([a], [b]) => compareValues(a, b))
            .flatMap(
                ([
                  value, rows
                ]) => [...(this.label ? [this.headOf(value, rows)] : []), ...rows.map(({node}) => node)]);
    placeInOrder(this.list, nodes);
    this.hint.hidden = wanted.length > 0;
    setText(
        this.hint,
        this.rows.size ? 'No channel had an alarm or was without signal in the last 24 hours.' :
                         'No channels yet. Add some under Edit, or in the configuration.');
  }

  headOf(value, rows) {
    const worse = rows.filter(({total}) => total > 0).length;
    const head = this.heads.get(value) ?? el('h2', {class: 'day-group'});
    this.heads.set(value, head);
    setText(
        head,
        `${value ? visible(value) : `without ${visible(this.label)}`}: ${rows.length} ${
            rows.length === 1 ? 'channel' : 'channels'}, ${worse} with bad seconds`);
    return head;
  }

  fillLabels() {
    const names = new Set();
    for (const {info} of this.store.channels.values())
      for (const name of Object.keys(info.labels ?? {})) names.add(name);
    if (this.label) names.add(this.label);
    const key = [...names].sort().join('\n');
    if (key === this.labelKey) return;
    this.labelKey = key;
    this.by.replaceChildren(
        el('option', {value: '', text: 'nothing'}),
        ...[...names].sort().map((name) => el('option', {value: name, text: visible(name)})));
    this.by.value = this.label;
  }

  // The hours over the rows, in the page's zone.
  showMarks() {
    const begin = this.end - kCells * kCellMs;
    const marks = [];
    this.hours = [];
    for (let cell = 0; cell < kCells; cell++) {
      const {hour, minute} = parts(new Date(begin + cell * kCellMs));
      if (minute >= 5) continue;
      this.hours.push(cell);
      if (hour % kMarksEvery) continue;
      const mark = el('span', {
        class: hour % kMarksWide ? 'minor' : '',  // left out where there is no room
        text: `${String(hour).padStart(2, '0')}:00`
      });
      mark.style.left = `${100 * cell / kCells}%`;
      marks.push(mark);
    }
    this.marks.replaceChildren(...marks);
  }

  seen(entries) {
    for (const {target, isIntersecting} of entries) {
      if (isIntersecting) {
        this.near.add(target.row);
        forgetSize(target);
        this.draw(target.row);
      } else {
        this.near.delete(target.row);
      }
    }
  }

  draw(row) {
    const {canvas, day, bad} = row;
    const {context, width, height} = fitCanvas(canvas);
    if (!width || !day) return;
    context.clearRect(0, 0, width, height);
    const colours = palette();
    this.drawSpans(
        context, row.windows, width,
        (left, wide) => hatch(context, {x: 0, y: 0, w: width, h: height}, left, wide, colours.faint));
    const fill = {a: colours.alarm, n: colours.noSignal};
    context.fillStyle = colours.grid;
    for (const cell of this.hours) context.fillRect(Math.round(cell * width / kCells), 0, 1, height);
    for (let cell = 0; cell < kCells; cell++) {
      const left = Math.floor(cell * width / kCells);
      const size = Math.max(1, Math.floor((cell + 1) * width / kCells) - left);
      const state = day[cell];
      if (state === '.') continue;
      if (state === 'o') {
        context.fillStyle = colours.ok;
        context.fillRect(left, height - 2, size, 2);
        continue;
      }
      const share = Math.max(kLeast, (bad.get(cell) ?? 0) / kCellSeconds);
      context.fillStyle = fill[state];
      context.fillRect(left, height * (1 - share), size, height * share);
    }
    this.drawSpans(context, row.segments, width, (left, wide, {severity}) => {
      context.fillStyle = colours.severities[severity];
      context.fillRect(left, 0, wide, kSeverityEdge);
    });
  }

  // Calls draw(left, width, span) for what of the spans lies in the day.
  drawSpans(context, spans, width, draw) {
    const begin = this.end - kCells * kCellMs;
    const x = (at) => Math.min(1, Math.max(0, (at - begin) / (this.end - begin))) * width;
    const now = this.store.now().getTime();
    for (const span of spans) {
      const [left, right] = [x(span.from), x(Math.min(span.until, Math.ceil(now / kCellMs) * kCellMs))];
      if (span.from < this.end && span.until > begin) draw(left, Math.max(1, right - left), span);
    }
  }

  // The row and cell under the pointer; nothing beside the strips.
  at(event) {
    const {row} = event.target;
    if (!row) return null;
    const box = row.canvas.getBoundingClientRect();
    const cell = Math.floor((event.clientX - box.left) / box.width * kCells);
    return cell >= 0 && cell < kCells ? {row, cell} : null;
  }

  timeOf(cell) {
    return new Date(this.end - (kCells - cell) * kCellMs);
  }

  point(event) {
    const found = this.at(event);
    if (!found) return setText(this.tip, '');
    const {row, cell} = found;
    const seconds = row.bad.get(cell) ?? 0;
    const share = seconds ? `, ${duration(seconds * 1000)} of 5 min bad` : '';
    const held = this.heldIn(row, this.timeOf(cell).getTime());
    setText(
        this.tip,
        `${row.link.textContent}, ${time(this.timeOf(cell))}: ${kWords[row.day[cell]] ?? ''}${share}${held}`);
  }

  // What was raised within five minutes, and maintenance: "; Packets lost (minor), maintenance".
  heldIn(row, from) {
    const meets = (span) => span.from < from + kCellMs && span.until > from;
    const titles = new Map(this.store.meta?.alarmTypes.map(({name, title}) => [name, title]));
    const texts = row.alarms.filter(meets).map(
        ({name, severity}) => `${visible(titles.get(name) ?? words(name))} (${severity})`);
    if (row.windows.some(meets)) texts.push('maintenance');
    return texts.length ? `; ${[...new Set(texts)].join(', ')}` : '';
  }

  // Leads to the channel at that time.
  press(event) {
    const found = this.at(event);
    if (!found) return;
    const middle = new Date(this.timeOf(found.cell).getTime() + kCellMs / 2);
    location.hash = `#channel/${found.row.group}?${query({t: middle.toISOString()})}`;
  }

  text({day, total}) {
    const counts = Object.entries(kWords)
                       .map(([state, word]) => [day.split(state).length - 1, word])
                       .filter(([count]) => count)
                       .map(([count, word]) => `${count} ${word}`);
    return `last 24 hours in steps of five minutes: ${counts.join(', ')}; ${
        duration(total * 1000)} with an alarm or without signal`;
  }
}
