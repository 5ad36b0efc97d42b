// The wall: a tile or a table row for every channel, by groups where a label was chosen for them.
import {isOnPaper, onPaletteChange} from './canvas.js';
import {el, setClass, setText} from './dom.js';
import {addressOf, filterOf, groupedBy, valueOf} from './filter.js';
import {Hold} from './hold.js';
import {arrange, arrangeGroups, isMoving} from './order.js';
import {placeInOrder} from './placing.js';
import {kSparkCells} from './store.js';
import {Heads} from './tableParts.js';
import {makeRowBody, makeTileBody, Tile} from './tile.js';
import {WallControls} from './wallControls.js';
import {WallSection} from './wallSection.js';

const kNearScreen = '300px';
const kFirstPicture = 'kestor-wall';  // a performance mark: every channel has its tile
const kSparkHead = `Last ${kSparkCells * 5 / 60} min`;
const kSortAgainMs = 10_000;  // by what changes all the time

const kStateFields = ['state', 'severity', 'unacknowledged', 'maintenance', 'passed'];

export class Wall {
  constructor(root, context, parameters) {
    this.root = root;
    this.store = context.store;
    this.replaceAddress = context.replaceAddress;
    this.filter = filterOf(parameters);
    this.asTable = this.filter.view === 'table';
    this.tiles = new Map();     // channel -> Tile
    this.keys = new Map();      // channel -> what its order goes by
    this.sections = new Map();  // value of the label, or null -> WallSection
    this.near = new Set();      // tiles that are filled
    this.free = [];             // bodies that no tile uses
    this.observer = new IntersectionObserver((entries) => this.seen(entries), {rootMargin: kNearScreen});
    this.build();
    const {store} = this;
    this.ends = [
      store.on('channels', () => this.channelsChanged()),
      store.on('snapshot', () => this.update()),
      store.on('alarms', () => this.alarmsChanged()),
      store.on('overview', () => this.each((tile) => tile.draw())),
      store.on('meta', () => this.metaChanged()),
      onPaletteChange(() => this.repaint()),
    ];
    this.onVisible = () => {
      if (!document.hidden) this.update();
    };
    document.addEventListener('visibilitychange', this.onVisible);
    this.resizes = new ResizeObserver(() => this.each((tile) => tile.resized()));
    this.resizes.observe(this.holder);
    this.hold = new Hold(this.holder, () => this.update(true));
    if (store.loaded) this.channelsChanged();
  }

  close() {
    for (const end of this.ends) end();
    document.removeEventListener('visibilitychange', this.onVisible);
    this.observer.disconnect();
    this.resizes.disconnect();
    this.hold.close();
  }

  each(action) {
    if (document.hidden) return;
    for (const tile of this.near) action(tile);
  }

  build() {
    this.hint = el('p', {class: 'hint', role: 'status', text: 'Asking the station …'});
    this.holder = el('div', {class: 'live-data'});
    this.holder.addEventListener('keydown', (event) => this.moveFocus(event));
    this.holder.addEventListener('focusin', (event) => this.rove(event.target.closest('li a, tr a')));
    this.controls = new WallControls(
        this.store, this.filter, (change) => this.choose(change),
        {table: () => this.toggleTable(), pictures: () => this.togglePictures()});
    this.buildList();
    this.root.replaceChildren(this.controls.node, this.hint, this.holder);
  }

  // What sections are in.
  buildList() {
    this.columnNames = this.namesOfColumns();
    this.sections.clear();
    this.container = this.holder;
    this.holder.replaceChildren();
    setClass(this.holder, this.pictured ? 'live-data pictured' : 'live-data');
    if (!this.asTable) return;
    this.head = el('thead', {}, this.heads().node);
    this.container = el('table', {class: 'wall-table'}, this.head);
    this.holder.replaceChildren(
        el('div', {class: 'scroll tall', tabindex: '0', role: 'region', 'aria-label': 'Table of channels'},
           this.container));
  }

  // Changes when bodies have other columns.
  namesOfColumns() {
    return JSON.stringify([this.columns, this.store.isMetered]);
  }

  // The measures that the wall shows; none before the station has told.
  get columns() {
    return this.store.meta?.wallColumns ?? [];
  }

  // The table's, in the order of a row's cells: the first measure is the sparkline's.
  heads() {
    const [first, ...others] = this.columns;
    const measure = (column, kind, wide) =>
        ({text: column?.heading ?? '', name: column?.field, number: true, kind, wide});
    const columns = [
      {text: 'State', name: 'trouble', kind: 'state'}, {text: 'Name', name: 'name', kind: 'of-name'},
      {text: 'Group', name: 'group', wide: true, kind: 'of-group'}, measure(first, 'wide'),
      ...(this.store.isMetered ?
              [{text: 'Format', kind: 'long', wide: true}, {text: 'Cue', kind: 'cue-column', wide: true}] :
              []),
      {text: kSparkHead, kind: 'wide', wide: true}, ...others.map((column) => measure(column, 'small', true)),
      {text: 'Last 8 h', kind: 'long', wide: true}, {text: 'Alarms'}
    ];
    return new Heads(columns, this.filter.sort || 'trouble', (sort) => this.choose({sort}));
  }

  toggleTable() {
    this.asTable = !this.asTable;
    this.forgetTiles();
    this.buildList();
    this.choose({view: this.asTable ? 'table' : ''});
  }

  get pictured() {
    return this.filter.pictures === 'on' && !this.asTable;
  }

  togglePictures() {
    const on = !this.pictured;
    this.asTable = false;
    this.filter.pictures = on ? 'on' : '';
    this.forgetTiles();
    this.buildList();
    this.choose({pictures: this.filter.pictures, view: ''});
  }

  forgetTiles() {
    this.observer.disconnect();
    this.tiles.clear();
    this.near.clear();
    this.free = [];
  }

  forgetSections() {
    for (const {nodes} of this.sections.values())
      for (const node of nodes) node.remove();
    this.sections.clear();
  }

  // Other columns: bodies are made anew, and the table's heads.
  metaChanged() {
    const names = this.namesOfColumns();
    if (names !== this.columnNames) {
      this.columnNames = names;
      if (this.asTable) {
        this.head.replaceChildren(this.heads().node);
        this.forgetSections();
      }
      for (const tile of this.near) tile.empty();
      this.near.clear();
      this.free = [];
      this.observeAgain();
    }
    this.update(true);
  }

  // The address has what was chosen, so that it can be kept and sent on.
  choose(change) {
    Object.assign(this.filter, change);
    if (this.filter.sort === 'trouble') this.filter.sort = '';
    this.replaceAddress('', addressOf(this.filter));
    if (this.asTable && 'sort' in change) this.head.replaceChildren(this.heads().node);
    this.arrange();
    this.controls.update(this.asTable);
  }

  // In the order that there is: the pointer is on one of the heads.
  fold(value) {
    const fold = new Set(this.filter.fold);
    if (!fold.delete(value)) fold.add(value);
    this.filter.fold = fold;
    this.replaceAddress('', addressOf(this.filter));
    this.place();
  }

  channelsChanged() {
    for (const [channel, tile] of this.tiles) {
      if (this.store.channels.get(channel.group) === channel)
        tile.describe();
      else
        this.drop(channel, tile);
    }
    for (const channel of this.keys.keys())
      if (this.store.channels.get(channel.group) !== channel) this.keys.delete(channel);
    this.update(true);
  }

  drop(channel, tile) {
    this.observer.unobserve(tile.node);
    if (tile.parts) this.free.push(tile.empty());
    this.near.delete(tile);
    this.tiles.delete(channel);
    tile.node.remove();
  }

  alarmsChanged() {
    this.each((tile) => tile.updateAlarms());
    if (this.filter.alarm) this.update(true);
  }

  update(always = false) {
    if (document.hidden || !this.store.loaded) return;
    if (this.columnNames !== this.namesOfColumns()) this.metaChanged();
    const changed = this.takeStates();
    const moved = isMoving(this.filter.sort) && Date.now() - this.arranged > kSortAgainMs;
    if (changed || always || moved) {
      const held = this.measured && this.hold.holds;
      if (!held) this.arrange();
      this.controls.update(this.asTable);
      this.controls.showFound(this.shown, held);
      this.updateHeads();
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
      if (this.keys.get(channel) === key) continue;
      this.keys.set(channel, key);
      changed = true;
      this.tiles.get(channel)?.updateState();
    }
    return changed;
  }

  arrange() {
    if (!this.store.loaded) return;
    const channels = arrange(this.store, this.filter);
    this.arranged = Date.now();
    this.shown = channels.length;
    this.groups = this.grouped(channels);
    this.place();
    if (!this.measured) {
      this.measured = true;
      performance.mark(kFirstPicture);
    }
    this.controls.showFound(this.shown, false);
    this.hint.hidden = channels.length > 0;
    setText(
        this.hint,
        this.store.channels.size ? 'No channel is like that.' :
                                   'No channels yet. Add some under Edit, or in the configuration.');
  }

  // What is shown of `groups`, in their order.
  place() {
    const sections = [...this.groups.keys()].map((value) => this.sectionOf(value));
    for (const [value, section] of this.sections) {
      if (this.groups.has(value)) continue;
      for (const node of section.nodes) node.remove();
      this.sections.delete(value);
    }
    const nodes = sections.flatMap((section) => section.nodes);
    placeInOrder(this.container, this.asTable ? [this.head, ...nodes] : nodes);
    let first = null;
    for (const [value, members] of this.groups) {
      const folded = value !== null && this.filter.fold.has(value);
      const there = members.filter((channel) => this.store.channels.get(channel.group) === channel);
      const placed = folded ? [] : there.map((channel) => this.tileOf(channel).node);
      placeInOrder(this.sections.get(value).list, placed);
      first ??= placed[0];
    }
    this.updateHeads();
    if (first && !this.holder.contains(document.activeElement)) this.rove(first.tile.link);
  }

  // Channels by the label's values; all under null without grouping.
  grouped(channels) {
    const {by, sort} = this.filter;
    if (!by) return new Map([[null, channels]]);
    return arrangeGroups(this.store, groupedBy(channels, (channel) => valueOf(channel, by)), sort);
  }

  sectionOf(value) {
    let section = this.sections.get(value);
    if (section && section.by !== this.filter.by) {  // of another label
      for (const node of section.nodes) node.remove();
      section = null;
    }
    if (!section) {
      section = new WallSection(
          value, this.filter.by, this.asTable ? this.head.firstChild.children.length : 0,
          (one) => this.fold(one));
      section.by = this.filter.by;
      this.sections.set(value, section);
    }
    return section;
  }

  updateHeads() {
    for (const [value, channels] of this.groups ?? [])
      this.sections.get(value).head?.update(this.store, channels, this.filter.fold.has(value));
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

  // On paper there is no near and far.
  repaint() {
    if (isOnPaper()) {
      for (const tile of this.tiles.values()) this.fill(tile);
    } else {
      this.observeAgain();
    }
    this.each((tile) => tile.draw());
  }

  observeAgain() {
    this.observer.disconnect();
    for (const tile of this.tiles.values()) this.observer.observe(tile.node);
  }

  fill(tile) {
    if (tile.parts || !this.store.meta) return;
    tile.fill(
        this.free.pop() ??
        (this.asTable ? makeRowBody : makeTileBody)(this.columns, this.store.isMetered, this.pictured));
    this.near.add(tile);
  }

  seen(entries) {
    for (const {target, isIntersecting} of entries) {
      const {tile} = target;
      if (isIntersecting) {
        this.fill(tile);
      } else if (tile.parts) {
        this.free.push(tile.empty());
        this.near.delete(tile);
      }
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
    if (!node?.tile || event.altKey || event.ctrlKey || event.metaKey) return;
    const nodes = [...this.sections.values()].flatMap(({list}) => [...list.children]);
    const columns =
        this.asTable ? 1 : getComputedStyle(node.parentNode).gridTemplateColumns.split(' ').length;
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
