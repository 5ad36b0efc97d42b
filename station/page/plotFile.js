// What plots show as a file for a spreadsheet: a line a time, a column a figure, with units.
import {cell} from './eventFile.js';
import {day, isKnown, time, visible} from './format.js';
import {stepOf} from './plotWords.js';
import {isUtc, parts, zoneName} from './zone.js';

const kNames = ['lowest', 'mean', 'highest'];

function unitOf({unit, counter}, resolution) {
  const each = counter ? `${unit || 'number'} in each ${stepOf(resolution)}` : unit;
  return each ? ` (${each})` : '';
}

// Columns of points as a plot has them: {head, values: Map of time to value}.
function columnsOf(title, metric, points, resolution, [from, to]) {
  const seen = points.filter(([at]) => at >= from && at <= to);
  const column = (name, place) => ({
    head: `${title}${name && ` ${name}`}${unitOf(metric, resolution)}`,
    values: new Map(seen.map(([at, values]) => [at.getTime(), values[place]]))
  });
  const isOne = metric.counter || seen.every(([, [low, , high]]) => low === high);
  return isOne ? [column('', 1)] : kNames.map(column);
}

// `plots`: Plots; `channel`: what the file is named after, {name, group}. {text, name}.
export function plotFile(plots, channel) {
  const window = plots.dateWindow();
  const {resolution} = plots.range;
  const columns = [];
  for (const plot of plots.plots.filter(({isShown}) => isShown)) {
    const {metric, title} = plot;
    const step = plot.isKept ? 1 : resolution;
    if (metric.stack)
      columns.push(...metric.stack.columns(window));
    else {
      columns.push(...columnsOf(title, metric, plot.points, step, window));
      if (plot.over.length)
        columns.push(...columnsOf(`${title}, ${plots.over.name}`, metric, plot.over, step, window));
    }
  }
  const times = [...new Set(columns.flatMap(({values}) => [...values.keys()]))].sort((a, b) => a - b);
  const heads =
      ['time (UTC)', `time (${isUtc() ? 'UTC' : 'local'})`, 'zone', ...columns.map(({head}) => head)];
  const lines = [heads.map(cell).join(',')];
  for (const at of times) {
    const date = new Date(at);
    const figures = columns.map(({values}) => values.get(at)).map((value) => (isKnown(value) ? value : null));
    lines.push([date.toISOString(), time(date, new Date(0)), zoneName(date), ...figures].map(cell).join(','));
  }
  const named = plain(channel.name ?? '');
  const zone = plain(zoneName(new Date(window[1])));
  const ends = window.map(stamp).join('-to-');
  const name = `${['plots', named, channel.group, ends, zone].filter(Boolean).join('-')}.csv`;
  return {text: `${lines.join('\r\n')}\r\n`, name};
}

// What a file's name may have.
function plain(text) {
  return visible(text).replace(/[^\p{L}\p{N}.+]+/gu, '-').replace(/^-+|-+$/g, '');
}

// "2026-11-22T2210"
function stamp(at) {
  const date = new Date(at);
  const {hour, minute} = parts(date);
  return `${day(date)}T${String(hour).padStart(2, '0')}${String(minute).padStart(2, '0')}`;
}
