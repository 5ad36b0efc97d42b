// Cues over time: breaks as bars, single cues as marks; the same marks go through all plots.
import {fitCanvas, forgetSize, onPaletteChange, palette} from './canvas.js';
import {el, setAttribute} from './dom.js';
import {time} from './format.js';

const kLineHeight = 12;
const kMostLabels = 40;

// Cues that have a time, as marks: {at, until, out, text} with times in ms; `until` is null where the break's
// end is not told. `out`: true for out of the network, false for back, null for neither.
export function cueMarks(cues) {
  return cues.filter(({at, cancelled}) => at && !cancelled)
      .map(({at, out, durationMs, eventId, segmentation}) => ({
             at: Date.parse(at),
             out,
             until: out && durationMs ? Date.parse(at) + durationMs : null,
             text: out === null ? (segmentation[0]?.type ?? 'signal') :
                 out            ? `out ${eventId}` :
                                  `back ${eventId}`
           }))
      .filter(({at}) => !Number.isNaN(at));
}

// In a plot: a line at each cue; whole for out, dashed for back, dotted for others.
export function drawCues(context, area, cues, x) {
  if (!cues.length) return;
  context.save();
  context.beginPath();
  context.rect(area.x, area.y, area.w, area.h);
  context.clip();
  context.strokeStyle = palette().cue;
  context.globalAlpha = 0.55;
  context.lineWidth = 1;
  for (const {at, out} of cues) {
    context.setLineDash(out ? [] : out === false ? [5, 3] : [1, 3]);
    context.beginPath();
    context.moveTo(x(at), area.y);
    context.lineTo(x(at), area.y + area.h);
    context.stroke();
  }
  context.restore();
}

export class CueLine {
  constructor(plots) {
    this.plots = plots;
    this.known = false;
    this.canvas = el('canvas', {class: 'cue-line', role: 'img'});
    this.node = el('div', {class: 'cue-place'}, this.canvas);
    this.resizes = new ResizeObserver(() => {
      forgetSize(this.canvas);
      this.draw();
    });
    this.resizes.observe(this.canvas);
    this.endPalette = onPaletteChange(() => this.draw());
    plots.onWindow(() => this.draw());
  }

  close() {
    this.resizes.disconnect();
    this.endPalette();
  }

  // `cues`: the report's; null while nobody knows of any.
  update(cues) {
    this.known = cues !== null;
    this.plots.cues = cueMarks(cues ?? []);
    this.draw();
  }

  draw() {
    const {context, width, height} = fitCanvas(this.canvas);
    if (!width) return;
    const [from, to] = this.window();
    const {text, grid, cue, mark} = palette();
    const {left, wide} = this.plots.place(width);
    const x = (at) => left + (at - from) / (to - from) * wide;
    context.clearRect(0, 0, width, height);
    const font = parseFloat(getComputedStyle(this.canvas).fontSize);
    context.font = `${Math.round(font)}px ${getComputedStyle(this.canvas).fontFamily}`;
    const middle = font + kLineHeight / 2 + 4;
    context.fillStyle = grid;
    context.fillRect(left, middle - 1, wide, 2);
    context.save();
    context.beginPath();
    context.rect(left - 4, 0, wide + 8, height);
    context.clip();
    const shown = this.plots.cues.filter(({at, until}) => (until ?? at) >= from && at <= to);
    let free = -Infinity;
    for (const {at, out, until, text: label} of shown.slice(-kMostLabels)) {
      context.fillStyle = context.strokeStyle = cue;
      if (until) context.fillRect(x(at), middle - 4, Math.max(1, x(until) - x(at)), 8);
      this.drawMark(context, x(at), middle, out);
      const place = Math.max(left, x(at) - 4);
      if (place < free) continue;
      context.fillStyle = text;
      context.fillText(label, place, font);
      free = place + context.measureText(label).width + 8;
    }
    context.restore();
    if (this.plots.cursor) {
      context.fillStyle = mark;
      context.fillRect(x(this.plots.cursor), 0, 1, height);
    }
    setAttribute(
        this.canvas, 'aria-label',
        !this.known ?
            'Cues: unknown' :
            shown.length ?
            `Cues: ${shown.map(({at, text: label}) => `${label} at ${time(new Date(at))}`).join(', ')}` :
            'No cue in this time');
  }

  // That of the plots; up to now while these have no points.
  window() {
    const [from, to] = this.plots.dateWindow();
    return to > 0 ? [from, to] : [Date.now() - this.plots.range.length, Date.now()];
  }

  // Out is a triangle to the right, back one to the left, others a square.
  drawMark(context, x, middle, out) {
    const tip = out ? 6 : -6;
    context.beginPath();
    if (out === null)
      context.rect(x - 4, middle - 4, 8, 8);
    else {
      context.moveTo(x, middle - 7);
      context.lineTo(x + tip, middle);
      context.lineTo(x, middle + 7);
    }
    context.fill();
  }
}
