// What a plot says of itself: its unit, what a point is, its levels.
import {count, isKnown, quantity, visible, words} from './format.js';

const kSteps = {
  1: 'second',
  60: 'minute',
  300: 'five minutes',
  3600: 'hour'
};
const kThings = /^[a-z]{3,}$/;  // "packet", "error": counted, and so in the plural

export function stepOf(resolution) {
  return kSteps[resolution] ?? `${resolution} s`;
}

// "packets in each second", "bit/s, each second", "ms, mean of each minute, lowest to highest shaded".
export function unitText({unit, counter}, resolution) {
  const step = stepOf(resolution);
  if (counter) return `${kThings.test(unit) ? `${unit}s` : 'number'} in each ${step}`;
  const named = unit ? `${unit.replace('^2', '²')}, ` : '';
  return resolution === 1 ? `${named}each second` : `${named}mean of each ${step}, lowest to highest shaded`;
}

// "Bit rate low: below 4.00 Mbit/s"; of what is counted "Packets lost: 100 in 10 s".
export function levelText(level, unit) {
  const title = visible(level.title ?? words(level.alarm));
  if (isKnown(level.raise)) {
    const sign = level.eitherWay ? '±' : '';
    return `${title}: ${level.kind === 'low' ? 'below' : 'above'} ${sign}${quantity(level.raise, unit)}`;
  }
  const limits = [];
  if (isKnown(level.count)) limits.push(count(level.count));
  if (isKnown(level.errorSeconds)) limits.push(`${count(level.errorSeconds)} seconds with errors`);
  return limits.length ? `${title}: ${limits.join(' or ')} in ${count(level.windowSeconds)} s` : '';
}
