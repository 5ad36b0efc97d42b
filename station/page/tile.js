// One channel on the wall, as a tile or as a row of the table.
//
// Both are made in two steps: a frame with name and state, which every channel has, and a body with
// everything else, which only those have that are near the screen. Bodies are lent out and taken back, so
// that their number is that of a screen and not that of the channels.
import {shortly, sinceText, worstOf} from './alarmWords.js';
import {Brief} from './brief.js';
import {forgetSize} from './canvas.js';
import {el, setClass, setText} from './dom.js';
import {count, isKnown, quantity, visible} from './format.js';
import {Picture} from './picture.js';
import {drawSpark} from './spark.js';
import {look, sign, stateText} from './state.js';
import {drawStrip, stripText} from './strip.js';

// Of alarms that nobody saw while they were raised.
export const kPassed = 'was in alarm';

// A measure of the wall, as /api/v1/meta describes it. The first one stands beside the sparkline, which is
// its own, and needs no label.
function measure(column, first) {
  const value = el('b');
  const label = el('span', {class: first ? 'unseen' : 'label', text: `${visible(column.label)} `});
  return {column, value, node: el('span', {class: 'measure', title: column.title}, label, value)};
}

function makeParts(columns) {
  return {
    measures: columns.map((column, place) => measure(column, place === 0)),
    brief: new Brief(),
    alarms: el('span', {class: 'alarms'}),
    bad: el('span', {class: 'bad'}),
    spark: el('canvas', {class: 'spark', 'aria-hidden': 'true'}),
    strip: el('canvas', {class: 'strip', role: 'img'}),
  };
}

// `pictured`: with the newest picture in place of the measures that are small.
export function makeTileBody(columns, metered, pictured) {
  const parts = makeParts(columns);
  const [first, ...others] = parts.measures.map(({node}) => node);
  if (pictured) {
    parts.picture = new Picture();
    parts.nodes = [
      parts.picture.node,
      el('span', {class: 'tile-line small'}, first, parts.spark),
      el('span', {class: 'tile-line small'}, parts.alarms, parts.bad, parts.brief.cue),
      parts.strip,
    ];
    return parts;
  }
  parts.nodes = [
    el('span', {class: 'tile-line'}, first, parts.brief.format, parts.spark),
    el('span', {class: 'tile-line small'}, ...others),
    el('span', {class: 'tile-line small'}, parts.alarms, parts.bad, parts.brief.cue),
    parts.strip,
  ];
  return parts;
}

// `metered`: with columns of what the meter says.
export function makeRowBody(columns, metered) {
  const parts = makeParts(columns);
  const [first, ...others] =
      parts.measures.map(({value}, place) => el('td', {class: place ? 'number wide-only' : 'number'}, value));
  parts.nodes = [
    first,
    ...(metered ?
            [
              el('td', {class: 'wide-only'}, parts.brief.format),
              el('td', {class: 'wide-only'}, parts.brief.cue)
            ] :
            []),
    el('td', {class: 'wide-only'}, parts.spark),
    ...others,
    el('td', {class: 'wide-only'}, parts.strip),
    el('td', {}, parts.alarms, ' ', parts.bad),
  ];
  return parts;
}

function measureText({counter, decimals, unit}, value) {
  if (counter) return count(value);
  return isKnown(value) && decimals !== null ? value.toFixed(decimals) : quantity(value, unit);
}

export class Tile {
  constructor(store, channel, asRow) {
    this.store = store;
    this.channel = channel;
    this.asRow = asRow;
    this.parts = null;
    this.sign = el('span', {class: 'sign', 'aria-hidden': 'true'});
    this.state = el('span', {class: asRow ? 'word' : 'unseen'});
    this.name = el('bdi', {class: 'name'});
    this.group = el('span', {class: 'group', text: channel.group});
    this.handled = el('span', {class: 'handled'});
    this.link = el('a', {href: `#channel/${channel.group}`, tabindex: '-1'});
    if (asRow) {
      this.link.append(this.name);
      this.node =
          el('tr', {}, el('td', {class: 'state'}, this.sign, ' ', this.state),
             el('th', {scope: 'row'}, this.link), el('td', {class: 'wide-only'}, this.group));
      this.holder = this.node;
    } else {
      this.link.append(
          el('span', {class: 'tile-line head'}, this.sign, this.state, ' ', this.name),
          el('span', {class: 'tile-line small'}, this.group, this.handled));
      this.node = el('li', {}, this.link);
      this.holder = this.link;
    }
    this.node.tile = this;
    this.describe();
    this.updateState();
  }

  // Name and labels: after the set changed.
  describe() {
    const {info: {labels}, name} = this.channel;
    setText(this.name, name);
    const text = Object.entries(labels).map(([key, value]) => `${key}=${value}`).join(', ');
    const title = text ? `${name}\n${visible(text)}` : name;
    if (this.name.title !== title) this.name.title = title;
  }

  // State, severity and maintenance: all that an unfilled tile shows beside its name.
  updateState() {
    const state = this.store.value(this.channel, 'state');
    const severity = this.store.value(this.channel, 'severity');
    const silenced = this.store.value(this.channel, 'maintenance');
    const open = this.store.value(this.channel, 'unacknowledged') ?? 0;
    const acknowledged = state === 'alarm' && open === 0;
    const passed = this.store.value(this.channel, 'passed');
    setText(this.sign, sign(look(state, severity)));
    // A row says of maintenance where it has room.
    setText(this.state, stateText(state, severity) + (silenced && !this.asRow ? ', maintenance' : ''));
    setText(
        this.handled,
        silenced         ? 'maintenance' :
            acknowledged ? 'acknowledged' :
            open         ? `${open} new` :
                    passed ? kPassed :
                             '');
    setClass(
        this.node,
        `${this.asRow ? 'row' : 'tile'} is-${look(state, severity)}` + (silenced ? ' silenced' : '') +
            (passed ? ' passed' : '') + (acknowledged ? ' acknowledged' : ''));
  }

  fill(parts) {
    this.parts = parts;
    this.holder.append(...parts.nodes);
    this.update();
    this.draw();
  }

  // Gives the body back.
  empty() {
    const parts = this.parts;
    this.parts = null;
    for (const node of parts.nodes) node.remove();
    parts.picture?.clear();
    return parts;
  }

  update() {
    if (!this.parts) return;
    const {store, channel, parts} = this;
    for (const {column, value: node} of parts.measures) {
      const value = store.measure(channel, column.field);
      setText(node, measureText(column, value));
      if (column.counter) setClass(node, value > 0 ? 'some' : '');
    }
    parts.brief.update(store, channel);
    parts.picture?.update(store, channel);
    this.updateAlarms();
  }

  // What is wrong and since when, and how bad.
  updateAlarms() {
    const {store, parts} = this;
    const alarms = store.alarmsOf(this.channel);
    const worst = worstOf(store, alarms);
    let text = worst ? sinceText(store, worst) + (alarms.length > 1 ? ` +${alarms.length - 1}` : '') : '';
    if (this.asRow) {
      const handled = [
        store.value(this.channel, 'maintenance') ? 'maintenance' : '',
        !worst && store.value(this.channel, 'passed') ? kPassed : ''
      ];
      text = [text, ...handled].filter(Boolean).join(', ');
    }
    if (!this.channel.info.enabled) text = 'disabled';
    setText(parts.alarms, text);
    setText(parts.bad, worst && this.channel.info.enabled ? shortly(store, worst) : '');
    if (!this.asRow) parts.brief.cue.hidden = Boolean(parts.bad.firstChild);
  }

  draw() {
    if (!this.parts) return;
    drawSpark(this.parts.spark, this.channel.spark);
    this.drawStrip();
  }

  drawStrip() {
    const {parts, channel, store} = this;
    drawStrip(parts.strip, channel.strip, channel.stripBad);
    const text = channel.strip && store.meta ?
        stripText(channel.strip, store.meta.stripCells, channel.stripBad) :
        'no history yet';
    if (parts.strip.getAttribute('aria-label') !== text) parts.strip.setAttribute('aria-label', text);
  }

  resized() {
    if (!this.parts) return;
    forgetSize(this.parts.spark);
    forgetSize(this.parts.strip);
    this.draw();
  }
}
