// The wall for a screen on the wall: nothing to press, legible from afar. Up to kAllLarge channels have a
// large tile each; of more, those in trouble, page by page, and all others are a mosaic by the label that is
// grouped by.
import {shortly, sinceText, worstOf} from './alarmWords.js';
import {el, setAttribute, setClass, setText} from './dom.js';
import {compareValues, filterOf, groupedBy, labelNames, valueOf} from './filter.js';
import {count, quantity, roughly, time, visible} from './format.js';
import {arrange} from './order.js';
import {Picture} from './picture.js';
import {placeInOrder} from './placing.js';
import {look, sign, stateText} from './state.js';
import {kPassed} from './tile.js';
import {Tally} from './wallSection.js';
import {zoneName} from './zone.js';

const kAllLarge = 60;
const kMostLarge = 24;    // of those in trouble, on a page
const kPageMs = 12_000;   // until the next page
const kTileShape = 1.7;   // width by height that suits a tile's text
const kSmallestCell = 5;  // px, of the mosaic
const kSignedCell = 12;   // px, from which on a cell has its sign
const kMostGroups = 12;   // more heads would leave no room for cells

// Columns and rows for so many tiles in a box, such that they are as large as can be.
export function gridFor(total, width, height, shape) {
  let best = {columns: 1, rows: Math.max(1, total), size: 0};
  for (let columns = 1; columns <= total; columns++) {
    const rows = Math.ceil(total / columns);
    const size = Math.min(width / columns / shape, height / rows);
    if (size > best.size) best = {columns, rows, size};
  }
  return best;
}

// Channels by the label's values; all under null where those are too many.
function mosaicGroups(channels, by) {
  const groups = groupedBy(channels, (channel) => valueOf(channel, by));
  return groups.size <= kMostGroups ? groups : new Map([[null, [...channels]]]);
}

class LargeTile {
  constructor(store, channel, pictured) {
    this.store = store;
    this.pictured = pictured;
    this.picture = pictured ? new Picture() : null;
    this.channel = channel;
    this.sign = el('span', {class: 'sign', 'aria-hidden': 'true'});
    this.state = el('span', {class: 'unseen'});
    this.name = el('bdi', {class: 'name'});
    this.what = el('span', {class: 'alarms'});
    this.bad = el('span', {class: 'bad'});
    this.node =
        el('li', {class: 'tile'},
           el('a', {href: `#channel/${channel.group}`},
              el('span', {class: 'tile-line head'}, this.sign, this.state, this.name), this.picture?.node,
              this.what, this.bad));
  }

  update() {
    const {store, channel} = this;
    const state = store.value(channel, 'state');
    const severity = store.value(channel, 'severity');
    const silenced = store.value(channel, 'maintenance');
    const worst = worstOf(store, store.alarmsOf(channel));
    const open = store.value(channel, 'unacknowledged') ?? 0;
    setText(this.sign, sign(look(state, severity)));
    setText(this.state, stateText(state, severity));
    setText(this.name, channel.name);
    this.picture?.update(store, channel);
    const passed = store.value(channel, 'passed');
    setText(this.what, worst ? sinceText(store, worst) : silenced ? 'maintenance' : passed ? kPassed : '');
    const [column] = store.meta?.wallColumns ?? [];
    const rate = column ? quantity(store.measure(channel, column.field), column.unit) : '';
    const handled = silenced ? 'maintenance' : worst && !open ? 'acknowledged' : '';
    setText(
        this.bad,
        worst              ? handled || shortly(store, worst) :
            state === 'ok' ? rate :
                             stateText(state, severity));
    setClass(
        this.node,
        `tile is-${look(state, severity)}${silenced ? ' silenced' : ''}${passed ? ' passed' : ''}${
            worst && !open ? ' acknowledged' : ''}`);
  }
}

export class Kiosk {
  constructor(root, {store}, parameters) {
    this.store = store;
    this.filter = filterOf(parameters);
    this.tiles = new Map();   // channel -> LargeTile
    this.cells = new Map();   // channel -> node of the mosaic
    this.groups = new Map();  // value -> {node, list, tally}
    this.page = 0;
    this.station = el('bdi', {class: 'kiosk-station'});
    this.clock = el('span', {class: 'kiosk-clock'});
    this.tally = new Tally();
    this.pageText = el('span', {class: 'muted'});
    this.stale = el('p', {class: 'kiosk-stale', role: 'alert', hidden: true});
    this.large = el('ul', {class: 'tiles large', 'aria-label': 'Channels'});
    this.mosaic = el('div', {class: 'mosaic'});
    this.space = el('div', {class: 'kiosk-space live-data'}, this.large, this.mosaic);
    this.node =
        el('div', {class: 'kiosk-view'}, el('h1', {class: 'unseen', text: 'All channels'}),
           el('div', {class: 'kiosk-head'}, this.station, this.tally.node, this.pageText, this.clock),
           this.space, this.stale);
    root.replaceChildren(this.node);
    this.ends = ['channels', 'snapshot', 'alarms', 'meta', 'connection'].map(
        (topic) => store.on(topic, () => this.update()));
    this.resizes = new ResizeObserver(() => this.update());
    this.resizes.observe(this.space);
    this.tick = setInterval(() => this.showClock(), 1_000);
    this.turn = setInterval(() => {
      this.page++;
      this.update();
    }, kPageMs);
    this.onVisible = () => this.keepAwake();
    document.addEventListener('visibilitychange', this.onVisible);
    this.keepAwake();
    this.showClock();
    this.update();
  }

  close() {
    for (const end of this.ends) end();
    clearInterval(this.tick);
    clearInterval(this.turn);
    this.resizes.disconnect();
    document.removeEventListener('visibilitychange', this.onVisible);
    this.closed = true;
    this.awake?.release();
  }

  // Where the browser allows it: over HTTPS and on this machine alone.
  async keepAwake() {
    if (document.hidden || !navigator.wakeLock) return;
    try {
      this.awake = await navigator.wakeLock.request('screen');
      if (this.closed) this.awake.release();
    } catch {
      // The screen sleeps as the system has it.
    }
  }

  showClock() {
    const {store} = this;
    const now = store.now();
    setText(this.clock, `${time(now, now)} ${zoneName(now)}`);
    setText(this.station, visible(store.meta?.instance ?? ''));
    const stale = store.stale();
    this.stale.hidden = !stale;
    setClass(this.node, stale ? 'kiosk-view no-data' : 'kiosk-view');
    if (!stale) return;
    const until = stale.who === 'station' ? new Date() : now;  // whose clock tells since when
    const age = stale.since ? ` since ${time(stale.since, until)} (${roughly(until - stale.since)})` : ' yet';
    setText(this.stale, `No data from the ${stale.who}${age}`);
  }

  update() {
    const {store} = this;
    if (document.hidden || !store.loaded) return;
    this.showClock();
    const channels = arrange(store, this.filter);
    this.tally.update(store, channels);
    const few = channels.length <= kAllLarge;
    const trouble = few ? channels : channels.filter((channel) => store.value(channel, 'state') === 'alarm');
    const pages = few ? 1 : Math.max(1, Math.ceil(trouble.length / kMostLarge));
    const begin = few ? 0 : this.page % pages * kMostLarge;
    const shown = few ? trouble : trouble.slice(begin, begin + kMostLarge);
    const more = trouble.length > shown.length ?
        `${begin + 1} to ${begin + shown.length} of ${count(trouble.length)}` :
        '';
    setText(this.pageText, channels.length ? more : 'No channel is like that.');
    this.showLarge(shown, few);
    this.showMosaic(few ? [] : channels);
    this.forget();
  }

  showLarge(channels, few) {
    const {width, height} = this.space.getBoundingClientRect();
    // Beside a mosaic: as much as they need, and at most half.
    const rows = few ? 1 : channels.length ? Math.min(0.5, 0.12 + 0.05 * channels.length) : 0;
    setClass(this.space, `kiosk-space live-data${few ? ' all-large' : ''}`);
    const box = Math.floor(height * rows);
    // Pictures are shown unless the address says that they are not.
    const pictured = this.store.isPictured && this.filter.pictures !== 'off';
    this.large.classList.toggle('pictured', pictured);
    this.large.hidden = !channels.length;
    this.large.style.height = `${box}px`;
    const {columns, rows: lines, size} = gridFor(channels.length, width, box, kTileShape);
    this.large.style.gridTemplateColumns = `repeat(${columns}, minmax(0, 1fr))`;
    this.large.style.gridTemplateRows = `repeat(${lines}, minmax(0, 1fr))`;
    this.large.style.fontSize = `${Math.max(11, Math.min(size * 0.17, 64)).toFixed(1)}px`;
    placeInOrder(this.large, channels.map((channel) => {
      let tile = this.tiles.get(channel);
      if (!tile || tile.pictured !== pictured)
        this.tiles.set(channel, tile = new LargeTile(this.store, channel, pictured));
      tile.update();
      return tile.node;
    }));
  }

  // By the label that is grouped by, else by the first that there is; a cell keeps its place by its name.
  showMosaic(channels) {
    const {store} = this;
    this.mosaic.hidden = !channels.length;
    const by = this.filter.by || labelNames(store)[0] || '';
    const groups = mosaicGroups(channels, by);
    for (const [value, {node}] of this.groups) {
      if (groups.has(value)) continue;
      node.remove();
      this.groups.delete(value);
    }
    if (!channels.length) return;
    const values = [...groups.keys()].sort(compareValues);
    placeInOrder(this.mosaic, values.map((value) => this.groupOf(value, by).node));
    const space = this.space.getBoundingClientRect();
    const height = space.height - (this.large.hidden ? 0 : this.large.offsetHeight) - 40 * values.length;
    const size = Math.max(
        kSmallestCell, Math.min(64, Math.sqrt(space.width * Math.max(height, 1) / channels.length) * 0.86));
    this.mosaic.classList.toggle('plain', size < kSignedCell);
    this.mosaic.style.setProperty('--cell', `${Math.floor(size)}px`);
    for (const value of values) {
      const {list, tally} = this.groups.get(value);
      const members = groups.get(value).sort((a, b) => a.nameRank - b.nameRank);
      tally.update(store, members);
      placeInOrder(list, members.map((channel) => this.cellOf(channel)));
    }
  }

  groupOf(value, by) {
    if (!this.groups.has(value)) {
      const list = el('ul', {class: 'cells'});
      const tally = new Tally();
      const name = value || (value === '' && by ? `without ${by}` : 'all channels');
      const node =
          el('section', {'aria-label': visible(name)},
             el('h2', {class: 'group-head'}, el('bdi', {text: visible(name)}), tally.node), list);
      this.groups.set(value, {node, list, tally});
    }
    return this.groups.get(value);
  }

  cellOf(channel) {
    const {store} = this;
    if (!this.cells.has(channel))
      this.cells.set(channel, el('li', {}, el('a', {href: `#channel/${channel.group}`})));
    const node = this.cells.get(channel);
    const state = store.value(channel, 'state');
    const severity = store.value(channel, 'severity');
    const quiet = store.value(channel, 'maintenance') ||
        (state === 'alarm' && store.value(channel, 'unacknowledged') === 0);
    const passed = store.value(channel, 'passed');
    setClass(node, `is-${look(state, severity)}${quiet ? ' acknowledged' : ''}${passed ? ' passed' : ''}`);
    setText(node.firstChild, sign(look(state, severity)));
    setAttribute(node.firstChild, 'title', channel.name);
    setAttribute(
        node.firstChild, 'aria-label',
        `${channel.name}, ${stateText(state, severity)}${passed ? `, ${kPassed}` : ''}`);
    return node;
  }

  // Of channels that are gone.
  forget() {
    for (const known of [this.tiles, this.cells])
      for (const channel of known.keys())
        if (this.store.channels.get(channel.group) !== channel) known.delete(channel);
  }
}
