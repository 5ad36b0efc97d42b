// The plots of a channel: all over the same time, zoomed and read together, in whatever panels they stand.
import {query} from './api.js';
import {Bands} from './bands.js';
import {onPaletteChange} from './canvas.js';
import {el, setText} from './dom.js';
import {isKnown, time} from './format.js';
import {Plot} from './plot.js';
import {loadLibrary} from './plotLibrary.js';

const kDay = 86_400_000;

// What can be chosen: seconds for ten minutes, or longer points for longer times. `every`: ms between looks.
export const kRanges = [
  {name: '10 minutes', resolution: 1, length: 600_000, every: 2_000},
  {name: '24 hours', resolution: 60, length: kDay, every: 30_000},
  {name: '7 days', resolution: 300, length: 7 * kDay, every: 120_000},
  {name: '30 days', resolution: 3600, length: 30 * kDay, every: 600_000},
];

const kShortest = 60_000;  // ms that are shown at least
const kBandsMs = 30_000;   // between looks at what was raised, unless alarms are others
const kStoredMs = 1_000;   // until an alarm is in the station's store
const kMargin = 2;         // points that are asked for again: the newest still grow

export class Plots {
  // onPick(date): a time was chosen in a plot. onZoom(): another window is shown, by somebody's hand.
  // onCoarser(window): one is wanted that lies before what has points of this length.
  constructor({api, store}, group, {onPick, onZoom, onCoarser}) {
    this.api = api;
    this.store = store;
    this.group = group;
    this.onPick = onPick;
    this.onZoom = onZoom;
    this.onCoarser = onCoarser;
    this.range = kRanges[0];
    this.window = null;  // [from, to] in ms; null: the range up to now
    this.mark = null;    // ms: the time that the address names
    this.over = null;    // what is laid over: {name, group, shift (ms)}
    this.cues = [];      // that are marked in all plots, as cueLine.js has them
    this.bands = new Bands(api, store, group);
    this.plots = [];
    this.listeners = [];  // of the time that is shown
    this.generation = 0;
    this.renewing = null;
    this.bandsAt = 0;  // when the bands were asked for
    this.problem = el('p', {class: 'hint', role: 'status', hidden: true});
    this.note = el('p', {class: 'note', role: 'status', hidden: true});
    this.endPalette = onPaletteChange(() => this.restyle());
    this.resized = () => this.restyle();
    addEventListener('resize', this.resized);
    this.sizes = new ResizeObserver((entries) => this.sized(entries));
  }

  close() {
    this.generation++;
    clearTimeout(this.timer);
    clearTimeout(this.renewing);
    this.endPalette();
    removeEventListener('resize', this.resized);
    this.sizes.disconnect();
    for (const plot of this.plots) plot.clear();
    this.plots = [];
  }

  // A grid of plots for a panel. `metrics`: as a Plot takes them.
  grid(metrics) {
    const fresh = metrics.map((metric) => new Plot(metric, this));
    this.plots.push(...fresh);
    for (const {area} of fresh) this.sizes.observe(area);
    return el(
        'div', {
          class: 'plots',
          tabindex: '0',
          role: 'group',
          'aria-label':
              'Plots. Left and right move the cursor through all of them, with Shift the time that is shown; ' +
              'plus and minus zoom, Enter keeps a time, Escape shows all.',
          on: {keydown: (event) => this.key(event)}
        },
        ...fresh.map(({node}) => node));
  }

  // Calls `listener` when another time or cursor is shown.
  onWindow(listener) {
    this.listeners.push(listener);
  }
  tell() {
    for (const listener of this.listeners) listener();
  }

  // Shows another range; `mark`, a time in ms or null, is marked, and zoomed around where there is no window.
  async show(range, {mark = null, window = null, over = null} = {}) {
    this.range = range;
    this.mark = mark;
    this.over = over;
    this.window = window ?? (mark === null ? null : [mark - range.length / 10, mark + range.length / 10]);
    const mine = ++this.generation;
    clearTimeout(this.timer);
    try {
      this.library = await loadLibrary();
      this.problem.hidden = true;
    } catch (error) {
      this.problem.hidden = false;
      setText(this.problem, error.message);
      return;
    }
    if (mine !== this.generation) return;
    for (const plot of this.plots) plot.clear();
    this.bands.forget();
    this.bandsAt = 0;
    this.loaded = this.span();
    this.refresh();
    await this.load(mine);
  }

  // The time to ask for: the range up to now, or, for a window that lies before, the range around that.
  // `until` is null for now.
  span() {
    const now = this.store.now().getTime();
    const {length} = this.range;
    if (!this.window || this.window[0] >= now - length) return {since: now - length, until: null};
    const [from, to] = this.window;
    const spare = Math.max(0, length - (to - from)) / 2;
    return {since: from - spare, until: to + spare >= now ? null : to + spare};
  }

  // Loads what is new of all plots that somebody sees: one request for them, one for what is laid over.
  async load(mine) {
    const seen = this.plots.filter((plot) => !plot.isKept && plot.isShown);
    try {
      if (seen.length) await this.loadSeries(mine, seen, this.group, 0);
      if (mine === this.generation && Date.now() - this.bandsAt > kBandsMs && await this.loadBands())
        this.redraw();
      if (this.over && seen.length) await this.loadSeries(mine, seen, this.over.group, this.over.shift);
    } catch (error) {
      this.fail(mine, error);
    }
    if (mine !== this.generation) return;
    for (const plot of seen) this.drawOne(plot);
    this.showNote(seen);
    this.tell();
    this.timer = setTimeout(() => this.reload(mine), this.range.every);
  }

  async loadSeries(mine, plots, group, shift) {
    const {resolution, length} = this.range;
    const isOver = group !== this.group || shift !== 0;
    const newest = plots.map((plot) => (isOver ? plot.over : plot.points).at(-1)?.[0].getTime() ?? 0);
    const last = Math.min(...newest);
    const {since, until} = this.loaded;
    const from = (last ? last - kMargin * 1000 * resolution : since) - shift;
    const to = until === null ? (shift ? this.store.now().getTime() - shift : null) : until - shift;
    const {times, series} = await this.api.get(`channels/${encodeURIComponent(group)}/history?${query({
      metrics: plots.map(({metric}) => metric.name).join(),
      resolution,
      since: new Date(from).toISOString(),
      until: to === null ? null : new Date(to).toISOString()
    })}`);
    if (mine !== this.generation) return;
    const most = 1.5 * length / (1000 * resolution);
    plots.forEach((plot, place) => {
      if (isOver)
        plot.takeOver(times, series[place], shift, most);
      else
        plot.take(times, series[place], most);
    });
  }

  loadBands() {
    this.bandsAt = Date.now();
    return this.bands.load(this.loaded.since, this.loaded.until);
  }

  // Alarms of the channel are others.
  renewBands() {
    this.renewing ??= setTimeout(() => {
      this.renewing = null;
      if (this.loaded) this.takeBands();
    }, kStoredMs);
  }

  async takeBands() {
    try {
      if (await this.loadBands()) this.redraw();
    } catch {
      // The next turn tries again.
    }
    this.tell();
  }

  // What the banner does not say: the station answered, and refused.
  fail(mine, error) {
    if (mine !== this.generation || !error.status || error.status === 503) return;
    this.note.hidden = false;
    setText(this.note, `Not all of this could be had: ${error.message}`);
  }

  showNote(seen) {
    const missing =
        this.over && seen.length && seen.every(({over}) => !over.some(([, [, mean]]) => isKnown(mean)));
    this.note.hidden = !missing;
    if (!missing) return;
    const {shift} = this.over;
    setText(
        this.note,
        shift ? `Nothing is kept of ${
                    this.over.name}. How long minutes are kept is "days" of [history] in the configuration.` :
                `Nothing is known of ${this.over.name} in this time.`);
  }

  reload(mine) {
    if (mine !== this.generation) return;
    if (document.hidden || this.loaded.until !== null)
      this.timer = setTimeout(() => this.reload(mine), this.range.every);
    else
      this.load(mine);
  }

  // What comes into sight is loaded and drawn, what has another size fits it.
  sized(entries) {
    let fresh = false;
    for (const {target, contentRect} of entries) {
      const plot = this.plots.find(({area}) => area === target);
      if (!plot) continue;
      const shown = contentRect.width > 0;
      if (shown) {
        plot.resize();
        if (isKnown(this.cursor)) plot.point(this.cursor);
      }
      fresh ||= shown && !plot.isShown;
      plot.isShown = shown;
    }
    if (!fresh || !this.library || !this.loaded) return;
    this.refresh();
    clearTimeout(this.timer);
    this.load(++this.generation);
  }

  // Draws what the page itself keeps.
  refresh() {
    if (this.library && !document.hidden) {
      for (const plot of this.plots)
        if (plot.isKept) this.drawOne(plot);
    }
    this.tell();
  }

  drawOne(plot) {
    if (!plot.isShown) return;
    plot.draw(this.library);
    if (isKnown(this.cursor))
      plot.point(this.cursor);
    else
      plot.read(null);
  }

  redraw() {
    for (const {graph} of this.plots) graph?.updateOptions({});
  }

  // The time that is shown: the window, or all of the range up to the newest point.
  dateWindow() {
    if (this.window) return this.window;
    const newest = Math.max(0, ...this.plots.map(({points}) => points.at(-1)?.[0].getTime() ?? 0));
    return [newest - Math.min(this.range.length, this.keptFor(newest)), newest];
  }

  // For how long (ms) there is something to show, where all that is seen is what the page itself keeps.
  keptFor(newest) {
    const shown = this.plots.filter((plot) => plot.isShown);
    if (this.range !== kRanges[0] || !shown.length || shown.some(({isKept}) => !isKept)) return Infinity;
    const oldest = Math.min(newest, ...shown.map(({points}) => points[0]?.[0].getTime() ?? newest));
    return Math.max(kShortest, newest - oldest);
  }

  // Where the stacked plot has its points, for what stands below it: from the left, and how wide (px).
  place(width) {
    const area = this.plots.find(({metric, graph}) => metric.stack && graph)?.graph.getArea();
    return area ? {left: area.x, wide: area.w} : {left: 0, wide: width};
  }

  restyle() {
    for (const plot of this.plots) plot.restyle();
    this.tell();
  }

  // By a drag or a double-click in a plot.
  zoomed(window) {
    if (this.zooming) return;
    const [from, to] = this.dateWindow();
    // A drag up or down is of one plot's values alone.
    if (window && window[0] === from && window[1] === to) return;
    this.zoom(window);
  }

  // Shows a window, or for null all up to now. What lies before what was loaded is loaded.
  zoom(window) {
    if (this.zooming) return;
    this.zooming = true;
    const now = this.store.now().getTime();
    // Around a chosen time that is not of the newest range "all" is the range around it.
    if (!window && this.mark !== null && this.mark < now - this.range.length)
      window = [this.mark - this.range.length / 2, this.mark + this.range.length / 2];
    if (window && window[1] > now) window = [Math.min(window[0], now - kShortest), now];
    this.window = window;
    for (const plot of this.plots) {
      plot.graph?.updateOptions({dateWindow: this.dateWindow(), valueRange: plot.valueRange()});
      if (isKnown(this.cursor)) plot.point(this.cursor);
    }
    this.zooming = false;
    this.tell();
    this.onZoom();
    const {since, until} = this.loaded ?? {since: 0, until: null};
    const isLoaded = window ? window[0] >= since && (until === null || window[1] <= until) : until === null;
    if (this.loaded && !isLoaded) this.show(this.range, this);
  }

  // Shows what lies before (-1) or behind (1) what is shown.
  pan(direction) {
    const [from, to] = this.dateWindow();
    const by = direction * (to - from) / 2;
    if (this.range === kRanges[0] && from + by < this.store.now() - this.range.length) {
      this.onCoarser([from + by, to + by]);
      return;
    }
    const isNow = to + by >= this.store.now().getTime();
    this.zoom(isNow && to - from >= 0.9 * this.range.length ? null : [from + by, to + by]);
  }

  // Every plot shows its value at this time (ms), or its newest for null.
  point(at) {
    if (this.cursor === at) return;
    this.cursor = at;
    for (const plot of this.plots) plot.point(at);
    this.tell();
  }

  // What the cursor is on: the time, and what was raised then; without one the times that are shown, which
  // the axis has no date of, where it is not all up to now.
  cursorText() {
    const at = this.cursor ?? this.mark;
    const now = this.store.now();
    if (!isKnown(at))
      return this.window ? this.window.map((end) => time(new Date(end), now)).join(' – ') : '';
    const held = this.bands.textAt(at);
    return `${time(new Date(at), now)}${held && ` · ${held}`}`;
  }

  key(event) {
    if (event.ctrlKey || event.metaKey || event.altKey) return;
    const first = this.plots.find(({isShown, points}) => isShown && points.length);
    if (!first) return;
    const {points} = first;
    const [from, to] = this.dateWindow();
    const cursor = this.cursor >= from && this.cursor <= to ? this.cursor : null;  // one out of sight is none
    const step = {ArrowLeft: -1, ArrowRight: 1, PageUp: -30, PageDown: 30}[event.key];
    if (step !== undefined && event.shiftKey) {
      this.pan(Math.sign(step));
    } else if (step !== undefined) {
      const row = first.rowAt(cursor ?? to);
      this.point(points[Math.min(points.length - 1, Math.max(0, row + step))][0].getTime());
    } else if (event.key === '+' || event.key === '-') {
      const middle = cursor ?? (from + to) / 2;
      const half = (to - from) * (event.key === '+' ? 0.25 : 1);
      this.zoom(2 * half >= this.range.length ? null : [middle - half, middle + half]);
    } else if (event.key === 'Enter' && isKnown(cursor)) {
      this.onPick(new Date(cursor));
    } else if (event.key === 'Escape') {
      this.point(null);
      this.zoom(null);
    } else
      return;
    event.preventDefault();
  }
}
