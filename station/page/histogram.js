// Times between datagrams as bars: a bar a power of two of a microsecond, heights by the square root, so that
// the few that came late are seen beside the many that came in time.
import {fitCanvas, forgetSize, onPaletteChange, palette} from './canvas.js';
import {el, setAttribute} from './dom.js';
import {count} from './format.js';

const kFewest = 8;  // bars

export class Histogram {
  constructor() {
    this.counts = null;
    this.canvas = el('canvas', {class: 'histogram', role: 'img'});
    this.node = el('div', {class: 'canvas-place'}, this.canvas);
    this.resizes = new ResizeObserver(() => {
      forgetSize(this.canvas);
      this.draw();
    });
    this.resizes.observe(this.canvas);
    this.endPalette = onPaletteChange(() => this.draw());
  }

  close() {
    this.resizes.disconnect();
    this.endPalette();
  }

  // The report's counts, the n-th of times below 2^n us; null while unknown.
  update(counts) {
    const key = counts?.join();
    if (key === this.key) return;
    this.key = key;
    this.counts = counts;
    this.draw();
  }

  draw() {
    const {context, width, height} = fitCanvas(this.canvas);
    if (!width) return;
    context.clearRect(0, 0, width, height);
    const {line, text, grid} = palette();
    const font = parseFloat(getComputedStyle(this.canvas).fontSize);
    context.font = `${Math.round(font)}px ${getComputedStyle(this.canvas).fontFamily}`;
    const total = this.counts?.reduce((sum, value) => sum + value, 0) ?? 0;
    if (!total) {
      context.fillStyle = text;
      const word = this.counts ? 'no datagram in the last minute' : 'unknown';
      context.fillText(word, 0, height / 2);
      setAttribute(this.canvas, 'aria-label', `Time between datagrams: ${word}`);
      return;
    }
    const first = this.counts.findIndex((value) => value > 0);
    const last = this.counts.findLastIndex((value) => value > 0);
    const bars = Math.max(kFewest, last - first + 1);
    const highest = Math.max(...this.counts);
    const bottom = height - font - 4;
    const step = width / bars;
    context.fillStyle = grid;
    context.fillRect(0, bottom, width, 1);
    for (let bar = 0; bar < bars && first + bar < this.counts.length; bar++) {
      const value = this.counts[first + bar];
      context.fillStyle = line;
      const size = value ? Math.max(1.5, Math.sqrt(value / highest) * (bottom - 2)) : 0;
      context.fillRect(bar * step + 1, bottom - size, Math.max(1, step - 2), size);
    }
    this.drawLimits(context, first, bars, step, height, text);
    const parts =
        this.counts.flatMap((value, place) => (value ? [`${count(value)} below ${limitText(place)}`] : []));
    setAttribute(this.canvas, 'aria-label', `Time between datagrams in the last minute: ${parts.join(', ')}`);
  }

  drawLimits(context, first, bars, step, height, colour) {
    context.fillStyle = colour;
    let free = 0;
    for (let bar = 1; bar <= bars; bar++) {
      const label = limitText(first + bar - 1);
      const wide = context.measureText(label).width;
      const place = bar === bars ? bar * step - wide : bar * step - wide / 2;
      if (place < free || (bar < bars && place + wide > bars * step - wide - 8 && bars * step - place > wide))
        continue;
      context.fillText(label, place, height - 2);
      free = place + wide + 8;
    }
  }
}

// The upper end of the n-th: 2^n us.
function limitText(place) {
  const microseconds = 2 ** place;
  if (microseconds < 1000) return `${microseconds} µs`;
  if (microseconds < 1_000_000) return `${Math.round(microseconds / 1000)} ms`;
  return `${Math.round(microseconds / 1_000_000)} s`;
}
