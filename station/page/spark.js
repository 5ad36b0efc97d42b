// A sparkline on a canvas: from 0 to the highest value, gaps where nothing is known.
import {fitCanvas, palette} from './canvas.js';

export function drawSpark(canvas, values) {
  const {context, width, height} = fitCanvas(canvas);
  if (!width) return;
  context.clearRect(0, 0, width, height);
  let highest = 0;
  for (const value of values)
    if (value > highest) highest = value;
  const {line, fill} = palette();
  const step = width / (values.length - 1);
  const room = height - 3;
  const y = (value) => 1.5 + room - (highest ? value / highest * room * 0.92 : 0);
  context.lineWidth = 1.5;
  context.lineJoin = 'round';
  context.strokeStyle = line;
  context.fillStyle = fill;
  for (let begin = 0; begin < values.length;) {
    if (Number.isNaN(values[begin])) {
      begin++;
      continue;
    }
    let end = begin;
    while (end + 1 < values.length && !Number.isNaN(values[end + 1])) end++;
    context.beginPath();
    context.moveTo(begin * step, y(values[begin]));
    for (let place = begin + 1; place <= end; place++) context.lineTo(place * step, y(values[place]));
    if (begin === end) context.lineTo(begin * step + 1, y(values[begin]));
    context.stroke();
    context.lineTo(end * step, height);
    context.lineTo(begin * step, height);
    context.fill();
    begin = end + 1;
  }
}
