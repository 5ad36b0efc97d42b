// The wall: a tile or a table row for every channel.
import {onPaletteChange} from './canvas.js';
import {el, setAttribute, setText} from './dom.js';
import {count} from './format.js';
import {arrange, kOrders, placeInOrder} from './order.js';
import {sign} from './state.js';
import {kSparkCells} from './store.js';
import {makeRowBody, makeTileBody, Tile} from './tile.js';

const kNearScreen = '300px';
const kFirstPicture = 'kestor-wall';  // a performance mark: every channel has its tile
const kColumns = [
  'State', 'Name', 'Group', 'Bit rate', `Last ${kSparkCells * 5 / 60} min`, 'Lost, 1 min', 'CC, 1 min',
  'Quality', 'Last 8 h', 'Alarms'
];

const kStateFields = ['state', 'severity', 'unacknowledged', 'maintenance'];

export class Wall {
  // `kiosk`: tiles alone, without controls.
  constructor(root, context, parameters, kiosk) {
    this.root = root;
    this.store = context.store;
    this.replaceAddress = context.replaceAddress;
    this.kiosk = kiosk;
    this.filter = Object.fromEntries(parameters);
    this.asTable = this.filter.view === 'table';
    this.tiles = new Map();  // channel -> Tile
    this.near = new Set();   // tiles that are filled
    this.free = [];          // bodies that no tile uses
    this.observer = new IntersectionObserver((entries) => this.seen(entries), {rootMargin: kNearScreen});
    this.build();
    const {store} = this;
    this.ends = [
      store.on('channels', () => this.channelsChanged()),
      store.on('snapshot', () => this.update()),
      store.on('alarms', () => this.each((tile) => tile.updateAlarms())),
      store.on('overview', () => this.each((tile) => tile.draw())),
      store.on('meta', () => this.update()),
      onPaletteChange(() => this.each((tile) => tile.draw())),
    ];
    this.onVisible = () => {
      if (!document.hidden) this.update();
    };
    document.addEventListener('visibilitychange', this.onVisible);
    this.resizes = new ResizeObserver(() => this.each((tile) => tile.resized()));
    this.resizes.observe(this.list);
    if (store.loaded) this.channelsChanged();
  }

  close() {
    for (const end of this.ends) end();
    document.removeEventListener('visibilitychange', this.onVisible);
    this.observer.disconnect();
    this.resizes.disconnect();
  }

  each(action) {
    if (document.hidden) return;
    for (const tile of this.near) action(tile);
  }

  build() {
    this.hint = el('p', {class: 'hint', role: 'status', text: 'Asking the station …'});
    this.holder = el('div', {class: 'live-data'});
    this.buildList();
    this.root.replaceChildren(
        ...(this.kiosk ? [el('h1', {class: 'unseen', text: 'All channels'})] : [this.makeControls()]),
        this.hint, this.holder);
  }

  buildList() {
    if (this.asTable) {
      this.list = el('tbody');
      const head = el('tr', {}, ...kColumns.map((text) => el('th', {scope: 'col', text})));
      this.holder.replaceChildren(
          el('div', {class: 'scroll', tabindex: '0', role: 'region', 'aria-label': 'Table of channels'},
             el('table', {class: 'wall-table'}, el('thead', {}, head), this.list)));
    } else {
      this.list = el('ul', {class: 'tiles', 'aria-label': 'Channels'});
      this.holder.replaceChildren(this.list);
    }
    this.list.addEventListener('keydown', (event) => this.moveFocus(event));
    this.list.addEventListener('focusin', (event) => this.rove(event.target.closest('a')));
  }

  makeControls() {
    this.search = el('input', {
      type: 'search',
      placeholder: 'Search name, group, label',
      'aria-label': 'Search channels',
      value: this.filter.q ?? '',
      spellcheck: 'false',
      'aria-keyshortcuts': '/'
    });
    this.search.addEventListener('input', () => this.choose({q: this.search.value}));
    this.sort =
        el('select', {'aria-label': 'Order'}, ...kOrders.map(([value, text]) => el('option', {value, text})));
    this.sort.value = this.filter.sort ?? 'trouble';
    this.sort.addEventListener('change', () => this.choose({sort: this.sort.value}));
    this.label = el('select', {'aria-label': 'Label'});
    this.label.addEventListener('change', () => this.choose({label: this.label.value}));
    this.states = el('div', {class: 'choices', role: 'group', 'aria-label': 'State'});
    this.viewButton = el('button', {type: 'button', on: {click: () => this.toggleTable()}});
    this.nameViewButton();
    return el(
        'div', {class: 'controls', role: 'search'}, el('h1', {class: 'unseen', text: 'Channels'}),
        this.search, this.states, this.label, this.sort, this.viewButton);
  }

  nameViewButton() {
    setText(this.viewButton, this.asTable ? 'Tiles' : 'Table');
    setAttribute(this.viewButton, 'title', this.asTable ? 'Show tiles' : 'Show a table');
  }

  toggleTable() {
    this.asTable = !this.asTable;
    this.nameViewButton();
    this.resizes.disconnect();
    this.observer.disconnect();
    this.tiles.clear();
    this.near.clear();
    this.free = [];
    this.buildList();
    this.resizes.observe(this.list);
    this.choose({view: this.asTable ? 'table' : ''});
  }

  // The address has what was chosen, so that it can be kept and sent on.
  choose(change) {
    Object.assign(this.filter, change);
    const chosen = Object.entries(this.filter).filter(([, value]) => value);
    this.replaceAddress('', chosen);
    this.arrange();
    this.updateControls();
  }

  channelsChanged() {
    for (const [channel, tile] of this.tiles) {
      if (this.store.channels.get(channel.group) === channel)
        tile.describe();
      else
        this.drop(channel, tile);
    }
    this.updateLabels();
    this.update(true);
  }

  drop(channel, tile) {
    this.observer.unobserve(tile.node);
    if (tile.parts) this.free.push(tile.empty());
    this.near.delete(tile);
    this.tiles.delete(channel);
    tile.node.remove();
  }

  updateLabels() {
    if (this.kiosk) return;
    const labels = new Set();
    for (const channel of this.store.channels.values())
      for (const label of channel.labelTexts) labels.add(label);
    this.label.hidden = labels.size === 0;
    const sorted = [...labels].sort().slice(0, 500);
    this.label.replaceChildren(
        el('option', {value: '', text: 'all labels'}),
        ...sorted.map(
            (label) =>
                el('option', {value: label, text: label.length > 40 ? `${label.slice(0, 40)}…` : label})));
    this.label.value = labels.has(this.filter.label) ? this.filter.label : '';
  }

  update(always = false) {
    if (document.hidden || !this.store.loaded) return;
    const changed = this.takeStates();
    if (changed || always) {
      this.arrange();
      this.updateControls();
    }
    const slot = this.store.sparkSlot;
    for (const tile of this.near) tile.update();
    if (slot !== this.drawnSlot) {
      this.drawnSlot = slot;
      this.each((tile) => tile.draw());
    }
  }

  // Whether any channel's state, severity or the like differs from the last time.
  takeStates() {
    let changed = false;
    const {store} = this;
    for (const channel of store.channels.values()) {
      const key = kStateFields.map((field) => store.value(channel, field)).join();
      if (channel.stateKey === key && this.tiles.has(channel)) continue;
      channel.stateKey = key;
      changed = true;
      this.tiles.get(channel)?.updateState();
    }
    return changed;
  }

  arrange() {
    if (!this.store.loaded) return;
    const channels = arrange(this.store, this.filter);
    const nodes = channels.map((channel) => this.tileOf(channel).node);
    placeInOrder(this.list, nodes);
    if (nodes.length && !this.list.contains(document.activeElement)) this.rove(nodes[0].tile.link);
    if (!this.measured) {
      this.measured = true;
      performance.mark(kFirstPicture);
    }
    const total = this.store.channels.size;
    this.hint.hidden = nodes.length > 0;
    setText(
        this.hint,
        total ? 'No channel is like that.' :
                'No channels yet. Add some under Edit, or in the configuration.');
  }

  tileOf(channel) {
    let tile = this.tiles.get(channel);
    if (!tile) {
      tile = new Tile(this.store, channel, this.asTable);
      this.tiles.set(channel, tile);
      this.observer.observe(tile.node);
    }
    return tile;
  }

  seen(entries) {
    for (const {target, isIntersecting} of entries) {
      const {tile} = target;
      if (isIntersecting && !tile.parts) {
        tile.fill(this.free.pop() ?? (this.asTable ? makeRowBody() : makeTileBody()));
        this.near.add(tile);
      } else if (!isIntersecting && tile.parts) {
        this.free.push(tile.empty());
        this.near.delete(tile);
      }
    }
  }

  // A choice a state, with how many channels are in it.
  updateControls() {
    if (this.kiosk || !this.store.meta) return;
    const counts = new Map();
    let open = 0;
    for (const channel of this.store.channels.values()) {
      const state = this.store.value(channel, 'state') ?? 'waiting';
      counts.set(state, (counts.get(state) ?? 0) + 1);
      if (this.store.value(channel, 'unacknowledged') > 0) open++;
    }
    const choices = [
      ['', 'all', this.store.channels.size],
      ...this.store.meta.states.map((state) => [state, state, counts.get(state) ?? 0]),
      ['new', 'not acknowledged', open]
    ];
    if (!this.choices) {
      this.choices = new Map(choices.map(([value, text]) => {
        const number = el('b');
        const mark = this.store.meta.states.includes(value) ?
            el('span', {class: 'sign', 'aria-hidden': 'true', text: `${sign(value)} `}) :
            null;
        const node =
            el('button', {type: 'button', on: {click: () => this.choose({state: value})}}, mark, `${text} `,
               number);
        return [value, {node, number}];
      }));
      this.states.replaceChildren(...[...this.choices.values()].map(({node}) => node));
    }
    for (const [value, , total] of choices) {
      const {node, number} = this.choices.get(value);
      setText(number, count(total));
      setAttribute(node, 'aria-pressed', String((this.filter.state ?? '') === value));
    }
  }

  // One tile at a time is in the tab order; arrows go on from there.
  rove(link) {
    if (!link || link === this.roving) return;
    if (this.roving) this.roving.tabIndex = -1;
    this.roving = link;
    link.tabIndex = 0;
  }

  moveFocus(event) {
    const node = event.target.closest('li, tr');
    if (!node || event.altKey || event.ctrlKey || event.metaKey) return;
    const nodes = [...this.list.children];
    const columns = this.asTable ? 1 : getComputedStyle(this.list).gridTemplateColumns.split(' ').length;
    const steps = {
      ArrowRight: 1,
      ArrowLeft: -1,
      ArrowDown: columns,
      ArrowUp: -columns,
      Home: -nodes.length,
      End: nodes.length
    };
    const step = steps[event.key];
    if (step === undefined) return;
    event.preventDefault();
    const place = Math.min(nodes.length - 1, Math.max(0, nodes.indexOf(node) + step));
    nodes[place].tile.link.focus();
    nodes[place].scrollIntoView({block: 'nearest'});
  }
}
