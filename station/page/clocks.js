// The program clocks: how exact they are, how much the network shakes them, how fast they run.
import {el, setText} from './dom.js';
import {count, isKnown, pid, quantity} from './format.js';

const kHeads = [
  ['PID', null],
  [
    'Accuracy',
    'Worst distance of a PCR from the line of its block, last block; ETSI TR 101 290 allows 500 ns'
  ],
  ['Worst', 'Of all blocks'], ['Beyond 500 ns', 'PCRs, of those that were measured'],
  ['Jitter', 'Overall, arrival against the clock, last second'],
  ['Offset', 'Positive where the program\'s clock is fast; ISO/IEC 13818-1 allows 30 ppm'],
  ['Interval', 'Mean and highest time between PCRs'],
  ['Jumps', 'Discontinuities without and with announcement']
];
const kMostOffset = 30;     // ppm
const kMostAccuracy = 500;  // ns

export class Clocks {
  constructor() {
    this.rows = new Map();
    this.table =
        el('table', {},
           el('thead', {},
              el('tr', {},
                 ...kHeads.map(
                     ([text, title], place) =>
                         el('th', {scope: 'col', class: place ? 'number' : '', title, text})))));
    this.body = el('tbody');
    this.table.append(this.body);
    this.none = el('p', {class: 'muted'});
    this.scroll =
        el('div', {class: 'scroll', tabindex: '0', role: 'region', 'aria-label': 'Clocks'}, this.table);
    this.plots = el('div');
    this.node = el('div', {class: 'view'}, this.none, this.scroll, this.plots);
    this.update(null);
  }

  update(report) {
    const clocks = report?.clocks ?? [];
    this.none.hidden = clocks.length > 0;
    this.scroll.hidden = clocks.length === 0;
    setText(this.none, report ? 'No program clock in this stream.' : 'Unknown.');
    const shape = clocks.map(({pid: number}) => number).join();
    if (shape !== this.shape) {
      this.shape = shape;
      this.rows.clear();
      this.body.replaceChildren(...clocks.map((clock) => this.makeRow(clock)));
    }
    for (const clock of clocks) this.fill(this.rows.get(clock.pid), clock);
  }

  makeRow({pid: number}) {
    const cells = kHeads.slice(1).map(() => el('td', {class: 'number'}));
    this.rows.set(number, cells);
    return el('tr', {}, el('th', {scope: 'row', text: pid(number)}), ...cells);
  }

  fill(cells, {
    accuracy,
    overallJitterNs,
    frequencyOffsetPpm,
    intervalMeanMs,
    intervalHighestMs,
    unsignalled,
    signalled
  }) {
    const ns = (value) => quantity(isKnown(value) ? Math.round(value) : null, 'ns');
    const judged = accuracy.applicable;
    const texts = [
      judged ? ns(accuracy.lastWorstNs) : 'bit rate varies',
      judged ? ns(accuracy.worstNs) : '',
      judged ? `${count(accuracy.over500)} of ${count(accuracy.measured)}` : '',
      ns(overallJitterNs),
      isKnown(frequencyOffsetPpm) ? `${offsetText(frequencyOffsetPpm)} ppm` : '–',
      isKnown(intervalMeanMs) ? `${quantity(intervalMeanMs)}, ${quantity(intervalHighestMs, 'ms')}` : '–',
      `${count(unsignalled)}, ${count(signalled)}`,
    ];
    texts.forEach((text, place) => setText(cells[place], text));
    const beyond = [
      judged && accuracy.lastWorstNs > kMostAccuracy, false, judged && accuracy.over500 > 0, false,
      Math.abs(frequencyOffsetPpm ?? 0) > kMostOffset, false, unsignalled > 0
    ];
    beyond.forEach((some, place) => cells[place].classList.toggle('some', some));
  }
}

function offsetText(ppm) {
  return `${ppm > 0 ? '+' : ''}${ppm.toFixed(Math.abs(ppm) >= 10 ? 0 : 1)}`;
}
