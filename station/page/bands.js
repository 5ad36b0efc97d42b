// Behind curves: when alarms of a channel were raised, by the worst severity, and when maintenance held.
import {query} from './api.js';
import {palette} from './canvas.js';
import {visible, words} from './format.js';

const kEdge = 3;  // px of full colour along the top, so that severities are told apart in a pale band
const kHatch = 7;

export class Bands {
  constructor(api, store, group) {
    this.api = api;
    this.store = store;
    this.group = group;
    this.forget();
  }

  forget() {
    this.text = '';
    this.alarms = [];       // as alarmSpans() has them
    this.maintenance = [];  // as windowSpans() has them
    this.segments = [];     // {from, until, severity}: the worst, one after the other
  }

  // Asks what there was; `until` is null for now. Resolves to whether anything is another than before.
  async load(since, until) {
    const answer = await this.api.get(`timeline?${query({
      group: this.group,
      since: new Date(since).toISOString(),
      until: until === null ? null : new Date(until).toISOString()
    })}`);
    const text = JSON.stringify([answer.alarms, answer.maintenance]);
    if (text === this.text) return false;
    this.text = text;
    this.alarms = alarmSpans(answer).filter(({group}) => group === this.group);
    this.maintenance = windowSpans(answer);
    this.segments = worstOf(this.alarms, this.store.meta.severities);
    return true;
  }

  // What held at a time, in words; empty for nothing.
  textAt(at) {
    const held = ({from, until}) => from <= at && at < until;
    const titles = new Map(this.store.meta.alarmTypes.map(({name, title}) => [name, title]));
    const texts = this.alarms.filter(held).map(
        ({name, severity}) => `${visible(titles.get(name) ?? words(name))} (${severity})`);
    if (this.maintenance.some(held)) texts.push('maintenance');
    return [...new Set(texts)].join(', ');
  }

  // Severities that are raised within a time, worst first, and whether maintenance held.
  within(from, to) {
    const meets = (one) => one.from < to && one.until > from;
    const found = new Set(this.segments.filter(meets).map(({severity}) => severity));
    return {
      severities: this.store.meta.severities.filter((severity) => found.has(severity)),
      maintenance: this.maintenance.some(meets)
    };
  }

  // `x`: from a time to a place.
  draw(context, area, x) {
    if (!this.segments.length && !this.maintenance.length) return;
    const {severities, faint} = palette();
    context.save();
    context.beginPath();
    context.rect(area.x, area.y, area.w, area.h);
    context.clip();
    const place = ({from, until}) => {
      const left = Math.max(area.x, x(from));
      return [left, Math.max(1, Math.min(area.x + area.w, until === Infinity ? Infinity : x(until)) - left)];
    };
    const isSeen = ({from, until}) =>
        x(from) <= area.x + area.w && (until === Infinity || x(until) >= area.x);
    for (const window of this.maintenance.filter(isSeen)) hatch(context, area, ...place(window), faint);
    for (const segment of this.segments.filter(isSeen)) {
      const [left, wide] = place(segment);
      context.fillStyle = severities[segment.severity];
      context.globalAlpha = 0.16;
      context.fillRect(left, area.y, wide, area.h);
      context.globalAlpha = 1;
      context.fillRect(left, area.y, wide, kEdge);
    }
    context.restore();
  }
}

// A pattern of lines in a part of an area.
export function hatch(context, area, left, wide, colour) {
  context.save();
  context.beginPath();
  context.rect(left, area.y, wide, area.h);
  context.clip();
  context.strokeStyle = colour;
  context.globalAlpha = 0.5;
  context.lineWidth = 1;
  context.beginPath();
  for (let at = area.x - area.h; at < area.x + area.w; at += kHatch) {
    context.moveTo(at, area.y + area.h);
    context.lineTo(at + area.h, area.y);
  }
  context.stroke();
  context.restore();
}

// Of what the station answers: {group, name, severity, from, until}, times in ms; `until` is Infinity while
// raised. Alarms of the probe have no group.
export function alarmSpans({alarms}) {
  return alarms.map(({group, alarm, severity, raised, cleared}) => ({
                      group,
                      name: alarm,
                      severity,
                      from: Date.parse(raised),
                      until: cleared ? Date.parse(cleared) : Infinity
                    }));
}

// Maintenance likewise; of all channels where `group` is null.
export function windowSpans({maintenance}) {
  return maintenance.map(
      ({group, from, until}) => ({group, from: Date.parse(from), until: Date.parse(until)}));
}

// Spans that may overlap, as spans of the worst severity that do not. `severities`: worst first.
export function worstOf(spans, severities) {
  const edges = [];
  for (const {from, until, severity} of spans) {
    const rank = severities.indexOf(severity);
    if (rank < 0 || until <= from) continue;
    edges.push([from, rank, 1]);
    if (until !== Infinity) edges.push([until, rank, -1]);
  }
  edges.sort(([a], [b]) => a - b);
  const raised = severities.map(() => 0);
  const segments = [];
  let worst = -1;
  let begin = 0;
  for (let place = 0; place < edges.length;) {
    const at = edges[place][0];
    for (; place < edges.length && edges[place][0] === at; place++)
      raised[edges[place][1]] += edges[place][2];
    const next = raised.findIndex((count) => count > 0);
    if (next === worst) continue;
    if (worst >= 0) segments.push({from: begin, until: at, severity: severities[worst]});
    worst = next;
    begin = at;
  }
  if (worst >= 0) segments.push({from: begin, until: Infinity, severity: severities[worst]});
  return segments;
}
