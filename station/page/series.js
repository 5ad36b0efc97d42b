// What the page keeps of the meter's reports, for plots: as many as ten minutes have, while the channel is
// looked at.
import {rateColour} from './canvas.js';
import {isKnown} from './format.js';

const kKept = 600;
const kGapMs = 2_500;  // a report comes each second
const kMostPids = 24;  // that have an area of their own
const kRest = 'others';
const kUnknown = [null, null, null];

// When a report was made, by the clock of the machine that made it; null where it does not tell.
export function timeOf(report) {
  const begin = Date.parse(report.begin ?? '');
  return Number.isNaN(begin) ? null : new Date(begin + 1000 * report.seconds);
}

function push(points, at, point, unknown) {
  // A report that came late tells of a time that was told to be unknown.
  while (point !== unknown && points.length && points.at(-1)[1] === unknown && points.at(-1)[0] >= at)
    points.pop();
  const last = points.at(-1)?.[0].getTime() ?? 0;
  if (at.getTime() <= last) return;
  if (last && at.getTime() - last > kGapMs) points.push([new Date(last + 1000), unknown]);
  points.push([at, point]);
  if (points.length > kKept) points.splice(0, points.length - kKept);
}

// One figure. take(report, before): its value; `before` is the report before where it has the same begin,
// else null.
export class Series {
  constructor(take) {
    this.take = take;
    this.points = [];  // [Date, [value, value, value]]
  }

  add(at, report, before) {
    const value = report ? this.take(report, before) : null;
    push(this.points, at, isKnown(value) ? [value, value, value] : kUnknown, kUnknown);
  }
}

// From bottom to top.
const kOrder =
    ['video', 'audio', 'subtitle', 'teletext', 'cue', 'data', 'clock', 'table', 'unreferenced', 'null'];

// Rates of PIDs, one above the other: what carries the service lies below, null packets on top. PIDs beyond
// kMostPids share an area.
export class RateStack {
  constructor() {
    this.points = [];            // [Date, [null, sum, null]]
    this.rates = new WeakMap();  // of a point's values: Map of key to bit/s
    this.pids = new Map();       // all that were seen: {kind, place}, its place among those of its kind
    this.keys = [];              // PIDs and kRest, from top to bottom
  }

  add(at, report) {
    if (!report || !isKnown(report.bitrate.bps)) {
      push(this.points, at, kUnknown, kUnknown);
      return;
    }
    if (report.pids.some(({pid}) => !this.pids.has(pid))) this.arrange(report.pids);
    const values = [null, report.bitrate.bps, null];
    const own = new Set(this.keys);
    const rates = new Map();
    for (const {pid, bps} of report.pids) {
      const key = own.has(pid) ? pid : kRest;
      rates.set(key, (rates.get(key) ?? 0) + (bps ?? 0));
    }
    this.rates.set(values, rates);
    push(this.points, at, values, kUnknown);
  }

  arrange(fresh) {
    const all = [...this.pids].map(([pid, {kind}]) => ({pid, kind}));
    all.push(...fresh.filter(({pid}) => !this.pids.has(pid)));
    const rank = (kind) => kOrder.indexOf(kOrder.includes(kind) ? kind : 'data');
    all.sort((a, b) => rank(a.kind) - rank(b.kind) || a.pid - b.pid);
    const places = new Map();
    this.pids.clear();
    for (const {pid, kind} of all) {
      const place = places.get(kind) ?? 0;
      places.set(kind, place + 1);
      this.pids.set(pid, {kind, place});
    }
    const shown = all.slice(0, all.length > kMostPids ? kMostPids - 1 : kMostPids).map(({pid}) => pid);
    this.keys = (all.length > kMostPids ? [...shown, kRest] : shown).reverse();
  }

  // As the library takes them.
  rows() {
    return this.points.map(([at, values]) => {
      const rates = this.rates.get(values);
      return [at, ...this.keys.map((key) => (rates ? rates.get(key) ?? 0 : null))];
    });
  }

  // For a file: bit/s of each PID within a time.
  columns([from, to]) {
    const seen = this.points.filter(([at]) => at >= from && at <= to);
    return [...this.keys].reverse().map((key) => ({
                                          head: `${key === kRest ? 'Other PIDs' : `PID ${key}`} (bit/s)`,
                                          values: new Map(seen.map(([at, values]) => {
                                            const rates = this.rates.get(values);
                                            return [at.getTime(), rates ? rates.get(key) ?? 0 : null];
                                          }))
                                        }));
  }

  // Of a PID's area, or of that of the rest.
  colour(key) {
    const {kind, place} = this.pids.get(key) ?? {kind: 'data', place: 0};
    return rateColour(kind, place);
  }

  colours() {
    return this.keys.map((key) => this.colour(key));
  }
}
