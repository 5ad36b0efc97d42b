// A strip of states, oldest left. Each state has its colour and its shape: ok a low bar, alarm a full one, no
// signal a hollow one, and no data a dot on the ground.
import {fitCanvas, palette} from './canvas.js';

export function drawStrip(canvas, strip) {
  const {context, width, height} = fitCanvas(canvas);
  if (!width) return;
  context.clearRect(0, 0, width, height);
  const colours = palette();
  const cell = width / Math.max(1, strip.length);
  for (let begin = 0; begin < strip.length;) {
    let end = begin + 1;
    while (end < strip.length && strip[end] === strip[begin]) end++;
    const left = begin * cell;
    const length = Math.max(1, (end - begin) * cell - (cell > 3 ? 1 : 0));
    drawRun(context, strip[begin], left, length, cell, height, colours);
    begin = end;
  }
}

function drawRun(context, state, left, length, cell, height, colours) {
  if (state === 'o') {
    context.fillStyle = colours.ok;
    context.fillRect(left, height * 0.62, length, height * 0.38);
  } else if (state === 'a') {
    context.fillStyle = colours.alarm;
    context.fillRect(left, 0, length, height);
  } else if (state === 'n') {
    context.strokeStyle = colours.noSignal;
    context.lineWidth = 1;
    context.strokeRect(left + 0.5, 0.5, Math.max(0.5, length - 1), height - 1);
  } else {
    context.fillStyle = colours.faint;
    for (let x = left; x < left + length; x += Math.max(cell, 4)) context.fillRect(x, height - 1.5, 1.5, 1.5);
  }
}

// What a strip says, for those who do not see it: "88 ok, 2 alarm, 6 no data (5 minutes each)".
export function stripText(strip, cells) {
  const parts = [];
  for (const {cell, name} of cells) {
    const count = strip.split(cell).length - 1;
    if (count) parts.push(`${count} ${name.replace('_', ' ')}`);
  }
  return `last eight hours in steps of five minutes: ${parts.join(', ')}`;
}
