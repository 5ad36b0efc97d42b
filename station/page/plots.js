// The plots of a channel: one a metric, all over the same time, zoomed and read together.
import {onPaletteChange, palette} from './canvas.js';
import {el, setText} from './dom.js';
import {isKnown, quantity, time, visible, words} from './format.js';

// What can be chosen: seconds for ten minutes, or minutes for 24 hours.
export const kRanges = [
  {name: '10 minutes', resolution: 1, length: 600_000, every: 2_000},
  {name: '24 hours', resolution: 60, length: 86_400_000, every: 30_000},
];

const kDesignedFontSize = 14;

const kScript = new URL('lib/dygraph.min.js', document.baseURI).href;
const kSheet = new URL('lib/dygraph.min.css', document.baseURI).href;
const kAgainMs = 2_000;
const kNotFound = 404;

let loading = null;
// The plot library is loaded when it is first needed, as a plain script: it is no module.
function loadLibrary() {
  loading ??= insertLibrary().catch((error) => {
    loading = null;
    throw error;
  });
  return loading;
}

// Until it comes: a station that is busy may refuse it.
async function insertLibrary() {
  for (;;) {
    try {
      return await insertOnce();
    } catch {
      const answer = await fetch(kScript, {method: 'HEAD'}).catch(() => null);
      if (answer?.status === kNotFound)
        throw new Error(
            'The plot library is missing: install Debian\'s package libjs-dygraphs beside the station.');
      await new Promise((resolve) => setTimeout(resolve, kAgainMs));
    }
  }
}

function insertOnce() {
  return new Promise((resolve, reject) => {
    const sheet = el('link', {rel: 'stylesheet', href: kSheet});
    const script = el('script', {src: kScript});
    script.addEventListener('load', () => {
      const {Dygraph} = window;
      // The readouts here are the page's own; the library's legend sets style attributes, which the policy
      // forbids.
      Dygraph.PLUGINS = Dygraph.PLUGINS.filter((plugin) => plugin !== Dygraph.Plugins.Legend);
      resolve(Dygraph);
    });
    script.addEventListener('error', () => {
      for (const node of [sheet, script]) node.remove();
      reject(new Error('not given'));
    });
    document.head.prepend(sheet);
    document.head.append(script);
  });
}

export class Plots {
  // onPick(date): a time was chosen in a plot.
  constructor(api, group, metrics, onPick) {
    this.api = api;
    this.group = group;
    this.metrics = metrics;
    this.onPick = onPick;
    this.range = kRanges[0];
    this.window = null;  // [from, to] while zoomed
    this.mark = null;    // ms: the time that the address names
    this.plots = [];
    this.generation = 0;
    this.problem = el('p', {class: 'hint', role: 'status', hidden: true});
    this.grid = el('div', {class: 'plots'});
    this.node =
        el('div', {
          tabindex: '0',
          role: 'group',
          'aria-label':
              'Plots. Left and right move the cursor, plus and minus zoom, Enter keeps a time, Escape shows all.',
          on: {keydown: (event) => this.key(event)}
        },
           this.problem, this.grid);
    this.endPalette = onPaletteChange(() => this.restyle());
    this.resized = () => this.restyle();
    addEventListener('resize', this.resized);
  }

  close() {
    this.generation++;
    clearTimeout(this.timer);
    this.endPalette();
    removeEventListener('resize', this.resized);
    for (const plot of this.plots) plot.graph?.destroy();
    this.plots = [];
  }

  // Shows another range; `mark`, a time in ms or null, is marked and zoomed around.
  async show(range, mark = null) {
    this.range = range;
    this.mark = mark;
    this.window = mark === null ? null : [mark - range.length / 10, mark + range.length / 10];
    const mine = ++this.generation;
    clearTimeout(this.timer);
    let Dygraph;
    try {
      Dygraph = await loadLibrary();
      this.problem.hidden = true;
    } catch (error) {
      this.problem.hidden = false;
      setText(this.problem, error.message);
      return;
    }
    if (mine !== this.generation) return;
    if (!this.plots.length) this.build();
    for (const plot of this.plots) {
      plot.graph?.destroy();
      plot.graph = null;
      plot.points = [];
    }
    await this.load(Dygraph, mine);
  }

  build() {
    this.plots = this.metrics.map((metric) => {
      const area = el('div', {class: 'plot-area'});
      const readout = el('output');
      const node =
          el('section', {class: 'plot', 'aria-label': words(metric.name)},
             el('div', {class: 'plot-head'},
                el('h3', {text: words(metric.name), title: visible(metric.meaning)}), readout),
             area);
      this.grid.append(node);
      return {metric, area, readout, graph: null, points: []};
    });
  }

  // Loads what is new of every metric, one after the other: a browser has few connections to the station.
  async load(Dygraph, mine) {
    for (const plot of this.plots) {
      const last = plot.points.at(-1);
      const since =
          last ? `&since=${new Date(last[0].getTime() - 2_000 * this.range.resolution).toISOString()}` : '';
      let answer;
      try {
        answer = await this.api.get(`channels/${encodeURIComponent(this.group)}/history?metric=${
            plot.metric.name}&resolution=${this.range.resolution}${since}`);
      } catch {
        break;  // the banner says what is wrong; the next turn tries again
      }
      if (mine !== this.generation) return;
      this.take(Dygraph, plot, answer);
    }
    if (mine === this.generation) this.timer = setTimeout(() => this.reload(Dygraph, mine), this.range.every);
  }

  reload(Dygraph, mine) {
    if (mine !== this.generation) return;
    if (document.hidden)
      this.timer = setTimeout(() => this.reload(Dygraph, mine), this.range.every);
    else
      this.load(Dygraph, mine);
  }

  take(Dygraph, plot, {points}) {
    const fresh = points.map(
        ([at, low, mean, high]) => [new Date(at), isKnown(mean) ? [low, mean, high] : [null, null, null]]);
    if (fresh.length) {
      const from = fresh[0][0].getTime();
      const kept = plot.points.filter(([at]) => at.getTime() < from);
      plot.points = [...kept, ...fresh].slice(-this.range.length / (1000 * this.range.resolution));
    }
    if (!plot.points.length) {
      setText(plot.readout, 'no history yet');
      return;
    }
    if (plot.graph)
      plot.graph.updateOptions({file: plot.points, dateWindow: this.dateWindow()});
    else
      plot.graph = this.makeGraph(Dygraph, plot);
    if (!this.cursor) this.read(plot, null);
  }

  // The time that is shown: what was zoomed to, or all of the range up to the newest point.
  dateWindow() {
    if (this.window) return this.window;
    const newest = Math.max(...this.plots.map(({points}) => points.at(-1)?.[0].getTime() ?? 0));
    return [newest - this.range.length, newest];
  }

  makeGraph(Dygraph, plot) {
    const {unit, counter} = plot.metric;
    return new Dygraph(plot.area, plot.points, {
      labels: ['time', plot.metric.name],
      customBars: true,
      legend: 'never',
      showLabelsOnHighlight: false,
      includeZero: true,
      stepPlot: counter,
      fillGraph: false,
      fillAlpha: 0.3,
      strokeWidth: 1.4,
      highlightCircleSize: 3,
      connectSeparatedPoints: false,
      animatedZooms: false,
      dateWindow: this.dateWindow(),
      ...this.colours(),
      ...this.sizes(plot),
      xRangePad: 0,
      zoomCallback: (from, to) => this.zoom(plot.graph && plot.graph.isZoomed() ? [from, to] : null),
      highlightCallback: (event, at) => this.point(at),
      unhighlightCallback: () => this.point(null),
      pointClickCallback: (event, point) => this.onPick(new Date(point.xval)),
      underlayCallback: (context, area, graph) => this.drawMark(context, area, graph),
    });
  }

  colours() {
    const {line, grid, text} = palette();
    return {
      colors: [line],
      gridLineColor: grid,
      axisLineColor: grid,
      axisLineWidth: 1,
      rangeSelectorForegroundStrokeColor: text
    };
  }

  // The library reckons in pixels; the page's text grows with the screen.
  sizes({metric: {unit}}) {
    const scale = parseFloat(getComputedStyle(document.documentElement).fontSize) / kDesignedFontSize;
    return {
      axisLabelFontSize: Math.round(10 * scale),
      xAxisHeight: Math.round(24 * scale),
      axes: {
        x: {
          pixelsPerLabel: 70 * scale,
          axisLabelWidth: 60 * scale,
          axisLabelFormatter: (at) => axisTime(at, this.range.resolution),
        },
        y: {
          pixelsPerLabel: 28 * scale,
          axisLabelWidth: 64 * scale,
          axisLabelFormatter: (value) => quantity(Number(value.toPrecision(6)), unit),
        },
      },
    };
  }

  restyle() {
    for (const plot of this.plots) plot.graph?.updateOptions({...this.colours(), ...this.sizes(plot)});
  }

  drawMark(context, area, graph) {
    if (this.mark === null) return;
    const x = Math.round(graph.toDomXCoord(this.mark)) + 0.5;
    if (x < area.x || x > area.x + area.w) return;
    context.strokeStyle = palette().mark;
    context.lineWidth = 1;
    context.setLineDash([4, 3]);
    context.beginPath();
    context.moveTo(x, area.y);
    context.lineTo(x, area.y + area.h);
    context.stroke();
    context.setLineDash([]);
  }

  zoom(window) {
    if (this.zooming) return;
    this.zooming = true;
    this.window = window;
    for (const {graph} of this.plots) graph?.updateOptions({dateWindow: this.dateWindow()});
    this.zooming = false;
  }

  // Every plot shows its value at this time (ms), or its newest for null.
  point(at) {
    if (this.cursor === at) return;
    this.cursor = at;
    for (const plot of this.plots) {
      if (!plot.graph) continue;
      const row = at === null ? -1 : this.rowAt(plot, at);
      if (row >= 0)
        plot.graph.setSelection(row - plot.graph.getLeftBoundary_());
      else
        plot.graph.clearSelection();
      this.read(plot, row >= 0 ? plot.points[row] : null);
    }
  }

  // The last row at or before a time; -1 for none.
  rowAt({points}, at) {
    let low = 0;
    let high = points.length;
    while (low < high) {
      const middle = (low + high) >> 1;
      if (points[middle][0].getTime() <= at)
        low = middle + 1;
      else
        high = middle;
    }
    return low - 1;
  }

  read(plot, point) {
    let chosen = point;
    if (!chosen && this.mark !== null) {
      chosen = plot.points[this.rowAt(plot, this.mark)];
      if (!chosen) {
        setText(plot.readout, `${time(new Date(this.mark))} · unknown`);
        return;
      }
    }
    chosen ??= plot.points.at(-1);
    if (!chosen) return;
    const [low, mean, high] = chosen[1];
    const {unit, counter} = plot.metric;
    const band = !counter && isKnown(low) && low !== high ?
        ` (${quantity(low, unit)} to ${quantity(high, unit)})` :
        '';
    const at = point || this.mark !== null ? `${time(chosen[0])} · ` : '';
    setText(plot.readout, at + (isKnown(mean) ? quantity(round(mean), unit) + band : 'unknown'));
  }

  key(event) {
    if (event.ctrlKey || event.metaKey || event.altKey) return;
    const first = this.plots.find(({points}) => points.length);
    if (!first) return;
    const {points} = first;
    const step = {ArrowLeft: -1, ArrowRight: 1, PageUp: -30, PageDown: 30}[event.key];
    if (step !== undefined) {
      const row = this.cursor === undefined || this.cursor === null ? points.length - 1 :
                                                                      this.rowAt(first, this.cursor);
      this.point(points[Math.min(points.length - 1, Math.max(0, row + step))][0].getTime());
    } else if (event.key === '+' || event.key === '-') {
      const [from, to] = this.dateWindow();
      const middle = this.cursor ?? (from + to) / 2;
      const half = (to - from) * (event.key === '+' ? 0.25 : 1);
      this.zoom(2 * half >= this.range.length ? null : [middle - half, middle + half]);
    } else if (event.key === 'Enter' && isKnown(this.cursor)) {
      this.onPick(new Date(this.cursor));
    } else if (event.key === 'Escape') {
      this.point(null);
      this.zoom(null);
    } else
      return;
    event.preventDefault();
  }
}

function round(value) {
  return Math.abs(value) >= 100 ? Math.round(value) : value;
}

function axisTime(at, resolution) {
  const text = time(at instanceof Date ? at : new Date(at), at instanceof Date ? at : new Date(at));
  return resolution === 60 ? text.slice(0, 5) : text;
}
