// Events as a file for a spreadsheet: all that pass, page by page, with labels and with times in the page's
// zone.
import {query} from './api.js';
import {day, time, visible} from './format.js';
import {isUtc, zoneName} from './zone.js';

const kPage = 1000;  // what the station gives in one answer
export const kMostInFile = 100_000;

const kHeads = [
  'id', 'time', 'localTime', 'zone', 'event', 'group', 'channel', 'labels', 'alarm', 'severity', 'text', 'by',
  'value', 'peak', 'lastedSeconds', 'silenced', 'source'
];

// What a spreadsheet would take for a formula is text.
export function cell(value) {
  if (value === null || value === undefined) return '';
  if (typeof value !== 'string') return String(value);
  const safe = /^[=+\-@\t\r]/.test(value) ? `'${value}` : value;
  return /[",\r\n]/.test(safe) ? `"${safe.replaceAll('"', '""')}"` : safe;
}

function line(event, store) {
  const date = new Date(event.time);
  const labels = store.channels.get(event.group)?.labelTexts.join('; ') ?? '';
  return [
    event.id, event.time, time(date, new Date(0)), zoneName(date), event.kind, event.group, event.channel,
    labels, event.alarm, event.severity, event.text, event.by, event.value, event.peak,
    event.durationMs === null ? null : event.durationMs / 1000, event.silenced, event.source
  ].map(cell)
      .join(',');
}

// All events that pass `filter`, newest first, up to kMostInFile. onProgress(how many) after each page.
// Resolves to {text, name, isCut}.
export async function eventFile({api, store}, filter, onProgress) {
  const lines = [kHeads.join(',')];
  let before = null;
  let isCut = false;
  for (;;) {
    const page = await api.get(`events?${query({...filter, limit: kPage, before})}`);
    for (const event of page) lines.push(line(event, store));
    onProgress(lines.length - 1);
    if (page.length < kPage) break;
    before = page.at(-1).id;
    isCut = lines.length > kMostInFile;
    if (isCut) break;
  }
  const station = (store.meta?.instance ?? 'station').replace(/[^\w.-]+/g, '-');
  const name = `events-${visible(station)}-${day(store.now())}${isUtc() ? '-utc' : ''}.csv`;
  return {text: `${lines.join('\r\n')}\r\n`, name, isCut};
}

// Hands it to the browser as a download.
export function save({text, name}) {
  const url = URL.createObjectURL(new Blob([text], {type: 'text/csv;charset=utf-8'}));
  const link = document.createElement('a');
  link.href = url;
  link.download = name;
  link.click();
  setTimeout(() => URL.revokeObjectURL(url), 60_000);
}
