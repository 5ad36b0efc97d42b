// A strip of five minutes each, oldest left. Each state has its colour and its shape: ok a low bar, no data a
// dot on the ground; alarm a bar and no signal a hollow one, both the higher the more of the seconds were
// bad.
import {fitCanvas, palette} from './canvas.js';
import {duration} from './format.js';

const kCellSeconds = 300;
const kOk = 0.38;     // of the height
const kLeast = 0.45;  // one bad second stands out from ok

// `bad`: place -> seconds with an alarm or without signal.
export function drawStrip(canvas, strip, bad = new Map()) {
  const {context, width, height} = fitCanvas(canvas);
  if (!width) return;
  context.clearRect(0, 0, width, height);
  const colours = palette();
  const cell = width / Math.max(1, strip.length);
  for (let begin = 0; begin < strip.length;) {
    let end = begin + 1;
    while (end < strip.length && strip[end] === strip[begin] && bad.get(end) === bad.get(begin)) end++;
    const left = begin * cell;
    const length = Math.max(1, (end - begin) * cell - (cell > 3 ? 1 : 0));
    const share = Math.min(1, (bad.get(begin) ?? 0) / kCellSeconds);
    drawRun(context, strip[begin], share, left, length, cell, height, colours);
    begin = end;
  }
}

function drawRun(context, state, share, left, length, cell, height, colours) {
  const high = Math.round(height * (kLeast + (1 - kLeast) * share));
  if (state === 'o') {
    context.fillStyle = colours.ok;
    context.fillRect(left, height * (1 - kOk), length, height * kOk);
  } else if (state === 'a') {
    context.fillStyle = colours.alarm;
    context.fillRect(left, height - high, length, high);
  } else if (state === 'n') {
    context.strokeStyle = colours.noSignal;
    context.lineWidth = 1;
    context.strokeRect(left + 0.5, height - high + 0.5, Math.max(0.5, length - 1), high - 1);
  } else {
    context.fillStyle = colours.faint;
    for (let x = left; x < left + length; x += Math.max(cell, 4)) context.fillRect(x, height - 1.5, 1.5, 1.5);
  }
}

// What a strip says, for those who do not see it: "88 ok, 2 alarm, 6 no data; 1 min 20 s bad".
export function stripText(strip, cells, bad = new Map()) {
  const parts = [];
  for (const {cell, name} of cells) {
    const count = strip.split(cell).length - 1;
    if (count) parts.push(`${count} ${name.replace('_', ' ')}`);
  }
  const seconds = [...bad.values()].reduce((sum, one) => sum + one, 0);
  return `last eight hours in steps of five minutes: ${parts.join(', ')}` +
      (seconds ? `; ${duration(seconds * 1000)} with an alarm or without signal` : '');
}
