// Pictures: the last whole group of each video stream, picture by picture.
import {fitCanvas, forgetSize, onPaletteChange, palette} from './canvas.js';
import {el, setAttribute, setText} from './dom.js';
import {FactList} from './facts.js';
import {count, isKnown, pid, quantity, visible} from './format.js';
import {videoText} from './streamTexts.js';

const kHeights = {
  I: 1,
  P: 0.66,
  B: 0.36
};                           // a type is known by its height, whatever the colours
const kMostPictures = 2000;  // that are drawn
const kWideEnough = 10;      // px, for a letter in a bar
const kMostStreams = 32;

export class Pictures {
  constructor() {
    this.streams = new Map();
    this.none = el('p', {class: 'muted'});
    this.list = el('div', {class: 'view'});
    this.node = el('div', {}, this.none, this.list);
    this.endPalette = onPaletteChange(() => this.draw());
    this.resizes = new ResizeObserver((entries) => {
      for (const {target} of entries) forgetSize(target);
      this.draw();
    });
    this.update(null);
  }

  close() {
    this.endPalette();
    this.resizes.disconnect();
  }

  update(report) {
    const videos = (report?.services ?? [])
                       .flatMap(
                           ({streams, program, name}) => streams.filter(({kind}) => kind === 'video')
                                                             .map((stream) => ({...stream, program, name})));
    const shown = videos.slice(0, kMostStreams);
    if (report) {
      const shape = shown.map(({pid: number, program}) => `${program} ${number}`).join();
      if (shape !== this.shape) {
        this.shape = shape;
        this.build(shown);
      }
    }
    this.none.hidden = this.streams.size > 0;
    setText(this.none, report ? 'No video in this channel.' : 'Unknown.');
    if (!report)
      for (const stream of this.streams.values()) this.forget(stream);
    for (const video of shown) this.fill(this.streams.get(`${video.program} ${video.pid}`), video);
  }

  build(videos) {
    this.resizes.disconnect();
    this.streams.clear();
    this.list.replaceChildren(...videos.map(({pid: number, program}) => {
      const title = el('h3');
      const canvas = el('canvas', {class: 'group-strip', role: 'img'});
      const facts = new FactList();
      this.streams.set(`${program} ${number}`, {title, canvas, facts, structure: null});
      this.resizes.observe(canvas);
      return el(
          'div', {class: 'picture-stream'}, title, el('div', {class: 'canvas-place'}, canvas), facts.node);
    }));
  }

  forget(stream) {
    stream.facts.forget();
    this.setStructure(stream, null);
  }

  fill(stream, {pid: number, codec, video, gop, ptsAheadMs}) {
    setText(stream.title, [
      `PID ${pid(number)}`, codec && visible(codec), video && videoText(video, codec)
    ].filter(Boolean).join(' · '));
    const {facts} = stream;
    facts.set(
        'Group', isKnown(gop?.pictures) ? `${count(gop.pictures)} pictures, ${quantity(gop.ms, 'ms')}` : '–');
    facts.set(
        'Last minute',
        isKnown(gop?.mean) ?
            `${count(gop.lowest)} to ${count(gop.highest)}, mean ${Number(gop.mean.toFixed(1))}` :
            '–',
        'Pictures of a group');
    facts.set(
        'Begins',
        !isKnown(gop?.closed) ? '–' :
            gop.closed        ? 'closed or with an IDR' :
                                'open',
        'Whether the group needs none before it');
    facts.set(
        'Data ahead', isKnown(ptsAheadMs) ? quantity(Math.round(ptsAheadMs), 'ms') : '–',
        'How long before it is due a picture\'s data arrived, at least, in the last second');
    this.setStructure(stream, gop?.structure ?? null);
  }

  setStructure(stream, structure) {
    if (stream.structure === structure && stream.drawn) return;
    stream.structure = structure;
    stream.drawn = true;
    setAttribute(
        stream.canvas, 'aria-label',
        structure ? `Group of pictures: ${visible(structure.slice(0, kMostPictures))}` :
                    'Group of pictures: unknown');
    drawGroup(stream.canvas, structure);
  }

  draw() {
    for (const {canvas, structure} of this.streams.values()) drawGroup(canvas, structure);
  }
}

// Bars for pictures; a mark in front of those with which decoding can begin.
function drawGroup(canvas, structure) {
  const {context, width, height} = fitCanvas(canvas);
  if (!width) return;
  context.clearRect(0, 0, width, height);
  const {line, text, mark, rates, grid} = palette();
  const font = parseFloat(getComputedStyle(canvas).fontSize);
  context.font = `${Math.round(font)}px ${getComputedStyle(canvas).fontFamily}`;
  if (!structure) {
    context.fillStyle = text;
    context.fillText('unknown', 0, height / 2 + font / 2);
    return;
  }
  const pictures = [...structure.slice(0, 2 * kMostPictures)];
  const total = pictures.filter((type) => type !== '|').length;
  const step = Math.min(28, width / Math.max(1, total));
  const colours = {I: mark, P: line, B: rates.null};
  let place = 0;
  let entry = false;
  for (const type of pictures) {
    if (type === '|') {
      entry = true;
      continue;
    }
    const x = place++ * step;
    const tall = (kHeights[type] ?? 0.2) * (height - 4);
    context.fillStyle = colours[type] ?? grid;
    context.fillRect(x, height - tall, Math.max(0.5, step - (step > 4 ? 1.5 : 0.3)), tall);
    if (entry) {
      context.fillStyle = text;
      context.fillRect(x, 0, Math.min(3, step), 3);
      entry = false;
    }
    if (step >= kWideEnough) {
      context.fillStyle = palette().rateShade;
      context.textAlign = 'center';
      context.fillText(type, x + (step - 1.5) / 2, height - 4);
      context.textAlign = 'start';
    }
  }
}
