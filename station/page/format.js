// Numbers, times and names as people read them. Units come with the data.
import {parts} from './zone.js';

const kUnknown = '–';

// Decimal prefixes for rates, binary ones for sizes.
const kRates = [[1e9, 'G'], [1e6, 'M'], [1e3, 'k']];
const kSizes = [[2 ** 40, 'Ti'], [2 ** 30, 'Gi'], [2 ** 20, 'Mi'], [2 ** 10, 'Ki']];
const kCountedThings = /^[a-z]{4,}$/;  // "packet", "error", "frame": the number says enough

const counts = new Intl.NumberFormat('en', {maximumFractionDigits: 0});

export function isKnown(value) {
  return value !== null && value !== undefined && !Number.isNaN(value);
}

export function count(value) {
  return isKnown(value) ? counts.format(value) : kUnknown;
}

// Three digits or more, never more than two behind the point: 0.37, 4.20, 38.1, 512.
function digits(value) {
  const size = Math.abs(value);
  if (size >= 100) return counts.format(value);
  return value.toFixed(size >= 10 ? 1 : 2);
}

function prefixed(value, unit, prefixes) {
  for (const [factor, prefix] of prefixes) {
    if (Math.abs(value) >= factor) return `${digits(value / factor)} ${prefix}${unit}`;
  }
  return `${counts.format(value)} ${unit}`;
}

// A value with its unit as the API names it: "bit/s", "byte", "ms", "ms^2", "packet", "" and so on.
export function quantity(value, unit = '') {
  if (!isKnown(value)) return kUnknown;
  if (typeof value !== 'number') return visible(String(value));
  if (unit === 'bit/s') return prefixed(value, unit, kRates);
  if (unit === 'byte') return prefixed(value, 'B', kSizes);
  if (unit === 'ns') return nanoseconds(value);
  const text = Number.isInteger(value) ? counts.format(value) : digits(value);
  if (!unit || kCountedThings.test(unit)) return text;
  return `${text} ${unit.replace('^2', '²')}`;
}

// "340 ns", "12.5 µs", "3.20 ms".
function nanoseconds(value) {
  const size = Math.abs(value);
  if (size >= 999_500) return `${digits(value / 1e6)} ms`;
  if (size >= 999.5) return `${digits(value / 1e3)} µs`;
  return `${Number.isInteger(value) ? counts.format(value) : digits(value)} ns`;
}

// Text from outside, with control characters (which show nothing, or worse) as symbols: U+2400 to U+2421 for
// those below U+0020 and U+007F, U+FFFD for U+0080 to U+009F and for halves of surrogate pairs.
export function visible(text) {
  return String(text)
      .replace(/[\u0000-\u001f]/g, (c) => String.fromCharCode(0x2400 + c.charCodeAt(0)))
      .replace(/\u007f/g, '\u2421')
      .replace(
          /[\u0080-\u009f]|[\ud800-\udbff](?![\udc00-\udfff])|(?<![\ud800-\udbff])[\udc00-\udfff]/g,
          '\ufffd');
}

// What shows no ink: blanks, what is ignored in display, marks with nothing to stand on, an empty braille
// cell.
const kUnseen = /^[\p{Z}\p{C}\p{M}\p{Default_Ignorable_Code_Point}\u2800\s]*$/u;

// A channel's name, or its group where the name has nothing that can be seen and clicked.
export function nameText(name, group) {
  const text = visible(name ?? '');
  return kUnseen.test(text) ? group : text;
}

function two(value) {
  return String(value).padStart(2, '0');
}

// "2026-11-21", of the page's zone.
export function day(date) {
  const {year, month, day: number} = parts(date);
  return `${year}-${two(month)}-${two(number)}`;
}

// The time of day; with the date when it is not of the day of `now`.
export function time(date, now = new Date()) {
  if (!date) return kUnknown;
  const {hour, minute, second} = parts(date);
  const clock = `${two(hour)}:${two(minute)}:${two(second)}`;
  const dated = day(date);
  return dated === day(now) ? clock : `${dated} ${clock}`;
}

// For <input type="datetime-local">.
export function localInput(date) {
  const {hour, minute} = parts(date);
  return `${day(date)}T${two(hour)}:${two(minute)}`;
}

// The date of an RFC 3339 text; null for null, and for the epoch, which stands for "never".
export function parseTime(text) {
  const date = text ? new Date(text) : null;
  return date && date.getTime() > 0 ? date : null;
}

// "450 ms", "12 s", "3 min 20 s", "2 h 5 min", "4 d 3 h".
export function duration(milliseconds) {
  if (!isKnown(milliseconds)) return kUnknown;
  if (milliseconds < 1000) return `${Math.max(0, Math.round(milliseconds))} ms`;
  const seconds = Math.round(milliseconds / 1000);
  const steps = [[86400, 'd', 3600, 'h'], [3600, 'h', 60, 'min'], [60, 'min', 1, 's']];
  for (const [size, unit, part, partUnit] of steps) {
    if (seconds < size) continue;
    const rest = Math.floor((seconds % size) / part);
    return `${Math.floor(seconds / size)} ${unit}${rest ? ` ${rest} ${partUnit}` : ''}`;
  }
  return `${seconds} s`;
}

// How long ago in the words of somebody who looks up: "12 s", "57 min", "2 h 5 min", "4 d 3 h".
export function roughly(milliseconds) {
  const seconds = Math.max(0, Math.floor(milliseconds / 1000));
  if (seconds < 60) return `${seconds} s`;
  const minutes = Math.floor(seconds / 60);
  return minutes < 60 ? `${minutes} min` : duration(minutes * 60_000);
}

// A name of the API in words: "no_signal" as "no signal", "lastSnapshotCpuMs" as "last snapshot cpu ms".
export function words(name) {
  return visible(name).replace(/_/g, ' ').replace(
      /([a-z0-9])([A-Z])/g, (_, a, b) => `${a} ${b.toLowerCase()}`);
}

// 0x-notation beside decimal, as analysers print PIDs.
export function pid(value) {
  return `${value} (0x${Number(value).toString(16).padStart(4, '0')})`;
}
