// What a channel carries, as a tree: services with their streams, then tables and what no service lists.
import {el, setAttribute, setClass, setText} from './dom.js';
import {count, duration, isKnown, pid, quantity, visible} from './format.js';
import {languagesText, streamText} from './streamTexts.js';

const kHeads =
    ['PID', 'What', 'Details', 'Language', 'Bit rate', 'Share', 'Lost', 'Repeated', 'Scrambling', 'Ahead'];
const kTitles = new Map([
  ['Lost', 'By continuity counters, 0 to 15 a gap: at least so many'],
  ['Repeated', 'Sent twice: legal, and no loss'],
  ['Ahead', 'How long before it is due the stream\'s data arrived, at least, in the last second']
]);
const kNumbers = new Set(['Bit rate', 'Share', 'Lost', 'Repeated', 'Ahead']);
const kMostRows = 1000;

// Text runs of service_type, EN 300 468 table 89.
const kServiceTypes = new Map([
  [0x01, 'TV'], [0x02, 'radio'], [0x03, 'teletext'], [0x0a, 'radio'], [0x0c, 'data'], [0x11, 'TV'],
  [0x16, 'TV, SD'], [0x19, 'TV, HD'], [0x1f, 'TV, HEVC'], [0x20, 'TV, UHD']
]);
const kKinds = {
  table: 'table',
  null: 'null packets',
  clock: 'program clock',
  unreferenced: 'announced by no table'
};
const kTables = new Map([
  [0, 'PAT'], [1, 'CAT'], [16, 'NIT'], [17, 'SDT, BAT'], [18, 'EIT'], [19, 'RST'], [20, 'TDT, TOT'],
  [21, 'network synchronisation']
]);

export class Streams {
  // `rates`: whose colours are those of the plot beside.
  constructor(rates) {
    this.rates = rates;
    this.closed = new Set();  // sections that are folded up
    this.rows = new Map();    // "section pid" -> nodes
    const heads = kHeads.map((text) => el('th', {
                               scope: 'col',
                               class: kNumbers.has(text) ? 'number' : '',
                               title: kTitles.get(text) ?? null,
                               text
                             }));
    this.table = el('table', {class: 'pids streams'}, el('thead', {}, el('tr', {}, ...heads)));
    this.none = el('p', {class: 'muted'});
    this.scroll =
        el('div', {class: 'scroll', tabindex: '0', role: 'region', 'aria-label': 'Services and streams'},
           this.table);
    this.node = el('div', {}, this.none, this.scroll);
    this.update(null);
  }

  // `report`: null while nothing is known. What the streams were stays, what they measure does not.
  update(report) {
    const sections = report ? sectionsOf(report) : [];
    if (report) this.arrange(sections);
    this.none.hidden = this.rows.size > 0;
    this.scroll.hidden = this.rows.size === 0;
    setText(this.none, report ? 'No transport packet yet.' : 'Unknown.');
    setClass(this.scroll, report ? 'scroll' : 'scroll last-known');
    if (!report) {
      for (const note of this.notes?.values() ?? []) setText(note, 'as last reported');
      for (const row of this.rows.values()) this.fill(row, {}, null, 0);
      return;
    }
    const levels = new Map(report.pids.map((level) => [level.pid, level]));
    for (const section of sections) {
      setText(this.titles.get(section.key), section.title);
      setText(this.notes.get(section.key), section.note);
      for (const entry of section.entries)
        this.fill(
            this.rows.get(`${section.key} ${entry.pid}`), entry, levels.get(entry.pid), report.bitrate.bps);
    }
  }

  // Sections anew: only when streams came or went.
  arrange(sections) {
    const shape =
        sections.map(({key, entries}) => `${key}:${entries.map(({pid: number}) => number)}`).join(';');
    if (shape === this.shape) return;
    this.shape = shape;
    this.rows.clear();
    this.titles = new Map();
    this.notes = new Map();
    for (const body of [...this.table.tBodies]) body.remove();
    let room = kMostRows;
    for (const section of sections) {
      const entries = section.entries.slice(0, Math.max(0, room));
      room -= entries.length;
      this.table.append(this.makeSection(section, entries));
    }
  }

  makeSection({key}, entries) {
    const rows = entries.map((entry) => this.makeRow(key, entry));
    const mark = el('span', {'aria-hidden': 'true'});
    const title = el('bdi');
    const note = el('span', {class: 'note'});
    const toggle = el('button', {type: 'button'}, mark, title);
    const show = () => {
      const open = !this.closed.has(key);
      setText(mark, open ? '▾ ' : '▸ ');
      setAttribute(toggle, 'aria-expanded', String(open));
      for (const row of rows) row.hidden = !open;
    };
    toggle.addEventListener('click', () => {
      if (!this.closed.delete(key)) this.closed.add(key);
      show();
    });
    show();
    this.titles.set(key, title);
    this.notes.set(key, note);
    const head =
        el('tr', {class: 'program'},
           el('th', {colspan: String(kHeads.length), scope: 'rowgroup'}, toggle, ' ', note));
    return el('tbody', {}, head, ...rows);
  }

  makeRow(key, entry) {
    const swatch = el('span', {class: 'swatch', 'aria-hidden': 'true'});
    const cells = kHeads.slice(1).map((text) => el('td', {class: kNumbers.has(text) ? 'number' : ''}));
    const bar = el('span');
    const share = el('span');
    cells[4].append(el('span', {class: 'share', 'aria-hidden': 'true'}, bar), share);
    const node = el('tr', {class: 'leaf'}, el('th', {scope: 'row'}, swatch, pid(entry.pid)), ...cells);
    const row = {pid: entry.pid, node, cells, bar, share, swatch};
    this.rows.set(`${key} ${entry.pid}`, row);
    return node;
  }

  fill(row, entry, level, total) {
    const {cells} = row;
    if (entry.what !== undefined) {
      setText(cells[0], entry.what);
      setText(cells[1], entry.details ?? '');
      setText(cells[2], entry.language ?? '');
    }
    setText(cells[3], quantity(level?.bps, 'bit/s'));
    const share = total > 0 && isKnown(level?.bps) ? Math.min(1, level.bps / total) : null;
    setText(row.share, share === null ? '–' : `${(share * 100).toFixed(1)} %`);
    const width = share === null ? '0' : `${(share * 100).toFixed(1)}%`;
    if (row.bar.style.width !== width) row.bar.style.width = width;
    const colour = this.rates.colour(row.pid);
    if (row.colour !== colour) {
      row.colour = colour;
      row.swatch.style.background = row.bar.style.background = colour;
    }
    const counts = row.pid === kNullPid ? [] : [level?.lost, level?.repeated];
    [0, 1].forEach((place) => {
      setText(cells[5 + place], row.pid === kNullPid ? '' : count(counts[place]));
      cells[5 + place].classList.toggle('some', place === 0 && counts[place] > 0);
      cells[5 + place].classList.toggle('muted', !counts[place]);
    });
    setText(cells[7], level?.scrambling ?? '–');
    setText(cells[8], isKnown(entry.ptsAheadMs) ? quantity(Math.round(entry.ptsAheadMs), 'ms') : '');
  }
}

const kNullPid = 8191;

// [{key, title, note, entries: [{pid, what, details, language}]}]
function sectionsOf({services, pids, transport}) {
  const listed = new Set();
  const sections = services.map((service) => {
    const entries = [{pid: service.pmtPid, what: 'PMT', details: versionText(service.pmtVersion)}];
    for (const stream of service.streams)
      entries.push({
        pid: stream.pid,
        ...streamText(stream),
        ptsAheadMs: stream.ptsAheadMs,
        language: languagesText(stream.language)
      });
    const clock = service.pcrPid;
    if (isKnown(clock) && clock !== kNullPid && !entries.some(({pid: number}) => number === clock))
      entries.push({pid: clock, what: 'program clock'});
    for (const {ca} of service.streams)
      for (const {system, pid: number} of ca)
        if (!entries.some((entry) => entry.pid === number))
          entries.push(
              {pid: number, what: 'ECM', details: `CA system 0x${system.toString(16).padStart(4, '0')}`});
    for (const entry of entries) listed.add(entry.pid);
    return {
      key: `service ${service.program}`,
      title: serviceTitle(service),
      note: serviceNote(service),
      entries
    };
  });
  const rest = pids.filter(({pid: number}) => !listed.has(number));
  const entry = ({pid: number, kind}) => ({
    pid: number,
    what: kTables.get(number) ?? kKinds[kind] ?? visible(kind),
    details: kind === 'unreferenced' ? 'no receiver uses it' : ''
  });
  const known = (kind) => kind === 'table' || kind === 'null';
  for (const [key, title, note, some] of [
           ['tables', 'Tables and stuffing', transportNote(transport), rest.filter(({kind}) => known(kind))],
           ['rest', 'In no service', '', rest.filter(({kind}) => !known(kind))]])
    if (some.length) sections.push({key, title, note, entries: some.map(entry)});
  return sections;
}

function versionText(version) {
  return isKnown(version) ? `version ${version}` : 'not seen yet';
}

function serviceTitle({program, name}) {
  return name ? `${visible(name)} · program ${program}` : `Program ${program}`;
}

function serviceNote({provider, type, scrambled, now, next}) {
  const event = (word, one) => one &&
      `${word}: ${visible(one.title)}${isKnown(one.durationMs) ? `, ${duration(one.durationMs)}` : ''}`;
  return [
    provider && visible(provider), isKnown(type) && (kServiceTypes.get(type) ?? `service type ${type}`),
    scrambled === true      ? 'scrambled' :
        scrambled === false ? 'clear' :
                              null,
    event('now', now), event('next', next)
  ].filter(Boolean)
      .join(' · ');
}

function transportNote({transportStreamId, originalNetworkId, network, utc}) {
  return [
    isKnown(transportStreamId) && `transport stream ${transportStreamId}`,
    isKnown(originalNetworkId) && `network ${originalNetworkId}${network ? ` ${visible(network)}` : ''}`,
    utc && `time ${visible(utc)}`
  ].filter(Boolean)
      .join(' · ');
}
