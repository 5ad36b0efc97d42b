// One channel on the wall, as a tile or as a row of the table.
//
// Both are made in two steps: a frame with name and state, which every channel has, and a body with
// everything else, which only those have that are near the screen. Bodies are lent out and taken back, so
// that their number is that of a screen and not that of the channels.
import {forgetSize} from './canvas.js';
import {el, setClass, setText} from './dom.js';
import {count, isKnown, quantity, visible} from './format.js';
import {drawSpark} from './spark.js';
import {look, sign, stateText} from './state.js';
import {drawStrip, stripText} from './strip.js';

function measure(label, unseen) {
  const value = el('b');
  return {
    value,
    node:
        el('span', {class: 'measure'}, el('span', {class: unseen ? 'unseen' : 'label', text: `${label} `}),
           value)
  };
}

function makeParts(asRow) {
  return {
    bitRate: measure('bit rate', true),
    lost: measure('lost', asRow),
    continuity: measure('CC', asRow),
    quality: measure('quality', asRow),
    alarms: el('span', {class: 'alarms'}),
    spark: el('canvas', {class: 'spark', 'aria-hidden': 'true'}),
    strip: el('canvas', {class: 'strip', role: 'img'}),
  };
}

export function makeTileBody() {
  const parts = makeParts(false);
  parts.nodes = [
    el('span', {class: 'tile-line'}, parts.bitRate.node, parts.spark),
    el('span', {class: 'tile-line small'}, parts.lost.node, parts.continuity.node, parts.quality.node),
    el('span', {class: 'tile-line small'}, parts.alarms),
    parts.strip,
  ];
  parts.lost.node.title = 'Packets lost in the last minute';
  parts.continuity.node.title = 'Continuity errors in the last minute';
  parts.quality.node.title = 'Transport quality index, 1 to 5';
  return parts;
}

export function makeRowBody() {
  const parts = makeParts(true);
  parts.nodes = [
    el('td', {class: 'number'}, parts.bitRate.value),
    el('td', {}, parts.spark),
    el('td', {class: 'number'}, parts.lost.value),
    el('td', {class: 'number'}, parts.continuity.value),
    el('td', {class: 'number'}, parts.quality.value),
    el('td', {}, parts.strip),
    el('td', {}, parts.alarms),
  ];
  return parts;
}

export class Tile {
  constructor(store, channel, asRow) {
    this.store = store;
    this.channel = channel;
    this.asRow = asRow;
    this.parts = null;
    this.sign = el('span', {class: 'sign', 'aria-hidden': 'true'});
    this.state = el('span', {class: asRow ? '' : 'unseen'});
    this.name = el('bdi', {class: 'name'});
    this.group = el('span', {class: 'group', text: channel.group});
    this.link = el('a', {href: `#channel/${channel.group}`, tabindex: '-1'});
    if (asRow) {
      this.link.append(this.name);
      this.node =
          el('tr', {}, el('td', {class: 'state'}, this.sign, ' ', this.state),
             el('th', {scope: 'row'}, this.link), el('td', {}, this.group));
      this.holder = this.node;
    } else {
      this.link.append(
          el('span', {class: 'tile-line head'}, this.sign, this.state, ' ', this.name),
          el('span', {class: 'tile-line small'}, this.group));
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
    const acknowledged = state === 'alarm' && this.store.value(this.channel, 'unacknowledged') === 0;
    setText(this.sign, sign(look(state, severity)));
    setText(this.state, stateText(state, severity) + (silenced ? ', maintenance' : ''));
    setClass(
        this.node,
        `${this.asRow ? 'row' : 'tile'} is-${look(state, severity)}` + (silenced ? ' silenced' : '') +
            (acknowledged ? ' acknowledged' : ''));
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
    return parts;
  }

  update() {
    if (!this.parts) return;
    const {store, channel, parts} = this;
    const value = (field) => store.measure(channel, field);
    setText(parts.bitRate.value, quantity(value('bitRate'), store.unit('bitRate')));
    const lost = value('lostLastMinute');
    const continuity = value('continuityLastMinute');
    setText(parts.lost.value, count(lost));
    setText(parts.continuity.value, count(continuity));
    setClass(parts.lost.value, lost > 0 ? 'some' : '');
    setClass(parts.continuity.value, continuity > 0 ? 'some' : '');
    const quality = value('qualityIndex');
    setText(parts.quality.value, isKnown(quality) ? quality.toFixed(1) : '–');
    this.updateAlarms();
  }

  updateAlarms() {
    const alarms = this.store.alarmsOf(this.channel);
    const open = this.store.value(this.channel, 'unacknowledged') ?? 0;
    const worst = alarms.length ? alarms.reduce((a, b) => (this.rank(b) < this.rank(a) ? b : a)) : null;
    let text = '';
    if (worst) {
      const rest = alarms.length - 1;
      text = visible(worst.alarm.replaceAll('_', ' ')) + (rest ? ` +${rest}` : '') +
          (open ? ` · ${open} new` : ' · acknowledged');
    }
    if (this.store.value(this.channel, 'maintenance')) text = text ? `${text} · maintenance` : 'maintenance';
    if (!this.channel.info.enabled) text = 'disabled';
    setText(this.parts.alarms, text);
  }

  rank(alarm) {
    return this.store.meta ? this.store.meta.severities.indexOf(alarm.severity) : 0;
  }

  draw() {
    if (!this.parts) return;
    drawSpark(this.parts.spark, this.channel.spark);
    this.drawStrip();
  }

  drawStrip() {
    const {parts, channel, store} = this;
    drawStrip(parts.strip, channel.strip);
    const text =
        channel.strip && store.meta ? stripText(channel.strip, store.meta.stripCells) : 'no history yet';
    if (parts.strip.getAttribute('aria-label') !== text) parts.strip.setAttribute('aria-label', text);
  }

  resized() {
    if (!this.parts) return;
    forgetSize(this.parts.spark);
    forgetSize(this.parts.strip);
    this.draw();
  }
}
