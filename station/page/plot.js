// One plot: a measure over time with its newest value, or that under the cursor, beside its name. Which time
// it shows, where the cursor is and what is marked is up to the plots that it stands among (plots.js).
import {palette} from './canvas.js';
import {drawCues} from './cueLine.js';
import {el, setText} from './dom.js';
import {isKnown, quantity, time, visible, words} from './format.js';
import {levelText, unitText} from './plotWords.js';
import {isUtc, parts} from './zone.js';

const kDesignedFontSize = 14;
const kFarLevel = 2.5;  // times the highest value: a level beyond is not drawn, and said alone
const kRoom = 1.12;     // above the highest level
const kLate = 2.5;      // points: a value that is so old is not that of a time
const kLevelFont = 10;
const kSparseMs = 60_000;
const kToldMs = 3_000;  // until all that is measured of a second is told
const kUnknown = [null, null, null];

export class Plot {
  // `metric`: {name, title, unit, counter, meaning, sparse: not measured each second}; what the page keeps of
  // it itself in `series`, or, of several that are stacked, in `stack`.
  constructor(metric, plots) {
    this.metric = metric;
    this.plots = plots;
    this.graph = null;
    this.isShown = false;  // its box has a size
    this.points = [];      // [Date, [lowest, mean, highest]]
    this.over = [];        // the same of what is laid over, at the times of the points
    this.levels = [];      // of the channel's profile, as the history tells them
    this.area = el('div', {class: metric.stack ? 'plot-area tall' : 'plot-area'});
    this.hair = el('div', {class: 'crosshair', hidden: true});
    this.readout = el('output');
    this.title = metric.title || words(metric.name);
    this.unitNote = el('p', {class: 'plot-unit'});
    this.levelNote = el('p', {class: 'plot-unit', hidden: true});
    this.node =
        el('section', {class: 'plot', 'aria-label': this.title},
           el('div', {class: 'plot-head'}, el('h3', {text: this.title, title: visible(metric.meaning ?? '')}),
              this.readout),
           this.unitNote, el('div', {class: 'plot-frame'}, this.area, this.hair), this.levelNote);
  }

  // By the page itself, not by the station.
  get isKept() {
    return Boolean(this.metric.series || this.metric.stack);
  }

  get resolution() {
    return this.isKept ? 1 : this.plots.range.resolution;
  }

  clear() {
    this.graph?.destroy();
    this.graph = null;
    this.points = [];
    this.over = [];
    this.hair.hidden = true;
  }

  // What the history answers: values that replace and follow those that there are. `shift`: ms to add to the
  // times of what is laid over.
  take(times, {values, levels}, most) {
    this.levels = levels ?? [];
    this.points = merged(this.points, times, values, 0, most);
  }
  takeOver(times, {values}, shift, most) {
    this.over = merged(this.over, times, values, shift, most);
  }

  draw(Dygraph) {
    const {series, stack} = this.metric;
    if (series) this.points = series.points;
    if (stack) this.points = stack.points;
    setText(this.unitNote, unitText(this.metric, this.resolution));
    this.showLevels();
    if (!this.points.length) {
      setText(this.readout, 'no history yet');
      return;
    }
    const shape = [...(stack?.keys ?? []), this.over.length > 0 && this.plots.over?.name].join();
    this.rows = this.makeRows();
    if (this.graph && shape === this.shape)
      this.graph.updateOptions(
          {file: this.rows, dateWindow: this.plots.dateWindow(), valueRange: this.valueRange()});
    else if (this.area.clientWidth) {  // what is made without a size keeps one that the library makes up
      this.graph?.destroy();
      this.shape = shape;
      this.graph = this.makeGraph(Dygraph);
    }
  }

  makeRows() {
    if (this.metric.stack) return this.metric.stack.rows();
    if (!this.over.length) return this.points;
    // Points of two channels lie up to a step apart.
    const step = 1000 * this.resolution;
    const place = (at) => Math.round(at.getTime() / step);
    const rows = new Map(this.points.map(([at, values]) => [place(at), [at, values, kUnknown]]));
    for (const [at, values] of this.over) {
      const row = rows.get(place(at));
      if (row)
        row[2] = values;
      else
        rows.set(place(at), [at, kUnknown, values]);
    }
    return [...rows.values()].sort(([a], [b]) => a - b);
  }

  makeGraph(Dygraph) {
    const {plots} = this;
    const {counter, stack, sparse} = this.metric;
    const names = stack ? stack.keys.map(String) : [this.title];
    if (this.over.length) names.push('laid over');
    return new Dygraph(this.area, this.rows, {
      labels: ['time', ...names],
      customBars: !stack,
      stackedGraph: Boolean(stack),
      stackedGraphNaNFill: 'none',
      legend: 'never',
      showLabelsOnHighlight: false,
      includeZero: true,
      stepPlot: Boolean(counter),
      fillGraph: Boolean(stack),
      fillAlpha: stack ? 0.85 : 0.3,
      strokeWidth: stack ? 0.6 : 1.4,
      highlightCircleSize: stack ? 0 : 3,
      pointSize: sparse ? 2 : 1,  // no line joins values that stand alone
      labelsUTC: isUtc(),
      connectSeparatedPoints: false,
      animatedZooms: false,
      dateWindow: plots.dateWindow(),
      valueRange: this.valueRange(),
      ...this.colours(),
      ...this.sizes(),
      xRangePad: 0,
      zoomCallback: (from, to) => plots.zoomed(this.graph?.isZoomed('x') ? [from, to] : null),
      highlightCallback: (event, at) => plots.point(at),
      unhighlightCallback: () => plots.point(null),
      pointClickCallback: (event, point) => plots.onPick(new Date(point.xval)),
      underlayCallback: (context, area, graph) => this.drawUnder(context, area, graph),
    });
  }

  colours() {
    const {line, second, grid, text} = palette();
    return {
      colors: this.metric.stack?.colours() ?? [line, second],
      ...(this.over.length && {series: {'laid over': {strokePattern: [5, 3], strokeWidth: 1.2}}}),
      gridLineColor: grid,
      axisLineColor: grid,
      axisLineWidth: 1,
      rangeSelectorForegroundStrokeColor: text
    };
  }

  // The library reckons in pixels; the page's text grows with the screen.
  get scale() {
    return parseFloat(getComputedStyle(document.documentElement).fontSize) / kDesignedFontSize;
  }

  sizes() {
    const {unit} = this.metric;
    const {scale} = this;
    return {
      axisLabelFontSize: Math.round(10 * scale),
      xAxisHeight: Math.round(24 * scale),
      axes: {
        x: {
          pixelsPerLabel: 70 * scale,
          axisLabelWidth: 60 * scale,
          axisLabelFormatter: (at) => axisTime(at, this.plots.range.resolution),
        },
        y: {
          pixelsPerLabel: 20 * scale,  // so that steps of 1, 2 and 5 leave each range two labels
          axisLabelWidth: 64 * scale,
          axisLabelFormatter: (value) => quantity(Number(value.toPrecision(6)), unit),
        },
      },
    };
  }

  // Draws once, in whatever size its box has by now.
  restyle() {
    const {graph} = this;
    if (!graph) return;
    const size = JSON.stringify(graph.size());
    graph.updateOptions({...this.colours(), ...this.sizes()}, true);
    graph.resize();
    if (JSON.stringify(graph.size()) === size) graph.updateOptions({});
  }

  // After its box has another size.
  resize() {
    this.graph?.resize();
  }

  // Levels as lines: of figures, not of counts, whose windows are no point's.
  drawn() {
    return this.levels.filter(({raise}) => isKnown(raise))
        .flatMap(
            (level) => [level.raise, ...(level.eitherWay ? [-level.raise] : [])].map(
                (value) => ({...level, value})));
  }

  // With room for levels that are not far off; null leaves it to the library.
  valueRange() {
    if (!this.levels.length) return null;
    const [from, to] = this.plots.dateWindow();
    let highest = 0;
    let lowest = 0;
    for (const list of [this.points, this.over]) {
      for (const [at, [low, , high]] of list) {
        if (at < from || at > to) continue;
        if (high > highest) highest = high;
        if (low < lowest) lowest = low;
      }
    }
    const size = Math.max(highest, -lowest);
    const near = this.drawn().map(({value}) => value).filter((value) => Math.abs(value) <= kFarLevel * size);
    const top = Math.max(0, ...near);
    const bottom = Math.min(0, ...near);
    if (top <= highest && bottom >= lowest) return null;
    return [bottom < lowest ? bottom * kRoom : null, top > highest ? top * kRoom : null];
  }

  showLevels() {
    const texts = this.levels.map((level) => levelText(level, this.metric.unit)).filter(Boolean);
    this.levelNote.hidden = !texts.length;
    setText(this.levelNote, texts.length ? `Alarms: ${texts.join('; ')}` : '');
  }

  drawUnder(context, area, graph) {
    const {mark, cues, bands} = this.plots;
    const x = (at) => Math.round(graph.toDomXCoord(at)) + 0.5;
    bands.draw(context, area, x);
    this.drawLevels(context, area, graph);
    drawCues(context, area, cues, x);
    if (mark === null || x(mark) < area.x || x(mark) > area.x + area.w) return;
    context.strokeStyle = palette().mark;
    context.lineWidth = 1;
    context.setLineDash([4, 3]);
    context.beginPath();
    context.moveTo(x(mark), area.y);
    context.lineTo(x(mark), area.y + area.h);
    context.stroke();
    context.setLineDash([]);
  }

  drawLevels(context, area, graph) {
    const {severities} = palette();
    const font = Math.round(kLevelFont * this.scale);
    context.save();
    context.font = `${font}px ${getComputedStyle(this.area).fontFamily}`;
    context.textAlign = 'right';
    for (const level of this.drawn()) {
      const y = Math.round(graph.toDomYCoord(level.value)) + 0.5;
      if (y < area.y || y > area.y + area.h) continue;
      context.strokeStyle = context.fillStyle = severities[level.severity];
      context.lineWidth = 1;
      context.setLineDash([8, 3]);
      context.beginPath();
      context.moveTo(area.x, y);
      context.lineTo(area.x + area.w, y);
      context.stroke();
      const above = y - 3 > area.y + font;
      context.fillText(visible(level.title), area.x + area.w - 4, above ? y - 3 : y + font);
    }
    context.restore();
  }

  // The last row at or before a time; -1 for none.
  rowAt(at, list = this.points) {
    let low = 0;
    let high = list.length;
    while (low < high) {
      const middle = (low + high) >> 1;
      if (list[middle][0].getTime() <= at)
        low = middle + 1;
      else
        high = middle;
    }
    return low - 1;
  }

  // Of a list of points the one of a time; null where none is near enough.
  pointAt(at, list) {
    const point = list[this.rowAt(at, list)];
    return point && at - point[0].getTime() <= kLate * 1000 * this.resolution ? point : null;
  }

  // Puts the cursor at this time (ms), or nowhere.
  point(at) {
    if (!this.graph) return;
    if (at !== null && this.pointAt(at, this.rows))
      this.graph.setSelection(this.rowAt(at, this.rows));
    else
      this.graph.clearSelection();
    this.showHair(at);
    this.read(at);
  }

  showHair(at) {
    const area = this.graph.getArea();
    const x = at === null ? -1 : this.graph.toDomXCoord(at);
    this.hair.hidden = !(x >= area.x && x <= area.x + area.w);
    if (this.hair.hidden) return;
    this.hair.style.transform = `translateX(${Math.round(x)}px)`;
    this.hair.style.height = `${area.h}px`;
  }

  // Shows the values of a time (ms), for null those of the marked time, else the newest.
  read(at) {
    const asked = at ?? this.plots.mark;
    const point = asked === null ? this.newest() : this.pointAt(asked, this.points);
    if (!point && asked === null) return;
    const said = asked === null ? '' : `${time(point ? point[0] : new Date(asked))} · `;
    const over = this.over.length ? this.pointAt(asked ?? point[0].getTime(), this.over) : undefined;
    const second = over === undefined ? '' : ` · ${this.plots.over.name} ${this.valueText(over)}`;
    setText(this.readout, said + this.valueText(point) + second);
  }

  // The newest point may not be measured yet: a source tells of a second within the next ones. What is
  // measured now and then is what it was last, within kSparseMs.
  newest() {
    const last = this.points.at(-1);
    if (!last) return last;
    const known = this.points.findLast(([, [, mean]]) => isKnown(mean));
    const step = 1000 * this.resolution;
    const late = this.metric.sparse ? kSparseMs : Math.max(kToldMs, step);
    return known && last[0] - known[0] <= late ? known : last;
  }

  valueText(point) {
    const [low, mean, high] = point?.[1] ?? kUnknown;
    if (!isKnown(mean)) return 'unknown';
    const {unit, counter} = this.metric;
    const band = !counter && isKnown(low) && low !== high ?
        ` (${quantity(low, unit)} to ${quantity(high, unit)})` :
        '';
    return quantity(round(mean), unit) + band;
  }
}

// Values of the history in place of and behind those that there are, at most so many.
function merged(points, times, values, shift, most) {
  const fresh = times.map((at, place) => {
    const value = values[place];
    return [
      new Date(Date.parse(at) + shift),
      !isKnown(value)          ? kUnknown :
          Array.isArray(value) ? value :
                                 [value, value, value]
    ];
  });
  if (!fresh.length) return points;
  const from = fresh[0][0].getTime();
  return [...points.filter(([at]) => at.getTime() < from), ...fresh].slice(-most);
}

function round(value) {
  return Math.abs(value) >= 100 ? Math.round(value) : value;
}

// Days have no time of day where a point is longer than minutes; seconds stand where a look is that close.
function axisTime(at, resolution) {
  const date = at instanceof Date ? at : new Date(at);
  const text = time(date, date);
  if (resolution === 1) return text;
  const clock = text.endsWith(':00') ? text.slice(0, 5) : text;
  if (resolution === 60) return clock;
  const {month, day, hour, minute} = parts(date);
  const dated = `${month}-${String(day).padStart(2, '0')}`;
  return hour || minute ? `${dated} ${clock}` : dated;
}
