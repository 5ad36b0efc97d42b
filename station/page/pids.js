// Programs and PIDs as a tree: PAT and PMTs with what they list, then what nothing lists.
import {el, setAttribute, setText} from './dom.js';
import {count, isKnown, pid, quantity, visible} from './format.js';

const kHeads = [
  'PID', 'Type', 'Bit rate', 'Share', 'CC errors', 'Lost', 'Scrambled', 'Transport errors', 'PCR errors',
  'Picture', 'GOP', 'MOS', 'Descriptors'
];
const kNumbers = new Set([2, 4, 5, 6, 7, 8, 9, 10, 11]);
const kNullPid = 8191;
const kMostPids = 1000;  // rows; a stream with more shows the first

export class Pids {
  constructor(store) {
    this.store = store;
    this.closed = new Set();  // programs that are folded up
    this.rows = new Map();    // pid -> nodes
    this.shape = '';
    const head =
        el('tr', {},
           ...kHeads.map(
               (text, place) => el('th', {scope: 'col', class: kNumbers.has(place) ? 'number' : '', text})));
    this.table = el('table', {class: 'pids'}, el('thead', {}, head));
    this.none = el('p', {class: 'muted', text: 'Nothing is known of its PIDs.'});
    this.node =
        el('div', {class: 'scroll', tabindex: '0', role: 'region', 'aria-label': 'Programs and PIDs'},
           this.none, this.table);
  }

  update(detail) {
    const list = detail.pids.slice(0, kMostPids);
    this.none.hidden = list.length > 0;
    this.table.hidden = list.length === 0;
    const shape = list.map(({pid: number, label, pmtPid}) => `${number} ${label} ${pmtPid}`).join();
    if (shape !== this.shape) {
      this.shape = shape;
      this.build(list);
    }
    const total = detail.stream?.bitRate ?? 0;
    for (const record of list) this.fill(this.rows.get(record.pid), record, total);
  }

  // Sections anew: only when PIDs came or went.
  build(list) {
    this.rows.clear();
    const sections = [['tables', 'Tables', list.filter(({label}) => label === 'PAT')]];
    const programs = [...list].filter(({label}) => label === 'PMT').sort((a, b) => a.pid - b.pid);
    const listed = new Set();
    for (const pmt of programs) {
      const own = list.filter(({label, pmtPid}) => label === 'KP' && pmtPid === pmt.pid);
      own.forEach((record) => listed.add(record));
      sections.push([`pmt${pmt.pid}`, `Program with PMT PID ${pid(pmt.pid)}`, [pmt, ...own]]);
    }
    const rest =
        list.filter((record) => record.label === 'UP' || (record.label === 'KP' && !listed.has(record)));
    sections.push(['rest', 'In no program', rest]);
    for (const body of [...this.table.tBodies]) body.remove();
    for (const [key, title, records] of sections)
      if (records.length) this.table.append(this.makeSection(key, title, records));
  }

  makeSection(key, title, records) {
    const rows = records.sort(
                            (a, b) =>
                                (a.label === 'PMT'     ? -1 :
                                     b.label === 'PMT' ? 1 :
                                                         a.pid - b.pid))
                     .map((record) => this.makeRow(record));
    const toggle = el('button', {type: 'button', 'aria-expanded': 'true'});
    const show = () => {
      const open = !this.closed.has(key);
      setText(toggle, `${open ? '▾' : '▸'} ${title} · ${records.length}`);
      setAttribute(toggle, 'aria-expanded', String(open));
      for (const row of rows) row.hidden = !open;
    };
    toggle.addEventListener('click', () => {
      if (!this.closed.delete(key)) this.closed.add(key);
      show();
    });
    show();
    const head =
        el('tr', {class: 'program'}, el('th', {colspan: String(kHeads.length), scope: 'rowgroup'}, toggle));
    return el('tbody', {}, head, ...rows);
  }

  makeRow(record) {
    const cells =
        kHeads.slice(1).map((_, place) => el('td', {class: kNumbers.has(place + 1) ? 'number' : ''}));
    const bar = el('span');
    const shareText = el('span');
    cells[2].append(el('span', {class: 'share', 'aria-hidden': 'true'}, bar), shareText);
    cells[2].classList.add('nowrap');
    const node = el('tr', {class: 'leaf'}, el('th', {scope: 'row', text: pid(record.pid)}), ...cells);
    this.rows.set(record.pid, {node, cells, bar, shareText});
    return node;
  }

  fill(row, record, total) {
    const {cells, bar, shareText} = row;
    const share = total > 0 && isKnown(record.bitRate) ? Math.min(1, record.bitRate / total) : null;
    setText(cells[0], this.typeText(record));
    setText(cells[1], quantity(record.bitRate, 'bit/s'));
    const percent = share === null ? '–' : `${(share * 100).toFixed(1)} %`;
    setText(shareText, percent);
    const width = share === null ? '0' : `${(share * 100).toFixed(1)}%`;
    if (bar.style.width !== width) bar.style.width = width;
    const errors =
        ['Continuity_count_error', 'packetsLost', 'packetsScrambled', 'Transport_error', 'PCR_error'];
    errors.forEach((column, place) => {
      setText(cells[3 + place], count(record[column]));
      cells[3 + place].classList.toggle('muted', !record[column]);
    });
    setText(cells[8], record.pictureWidth ? `${record.pictureWidth} × ${record.pictureHeight}` : '');
    setText(cells[9], record.gopLength ? `${record.gopLength} (${record.gopBFrames} B)` : '');
    setText(cells[10], record.mosScore ? record.mosScore.toFixed(2) : '');
    setText(
        cells[11],
        (record.descriptorTags ?? [])
            .map((tag) => visible(this.store.meta.descriptorTags[tag] ?? `tag ${tag}`))
            .join(', '));
  }

  typeText({label, streamType, pid: number}) {
    if (label === 'PAT' || label === 'PMT') return label;
    if (number === kNullPid) return 'null packets';
    if (!streamType) return '–';
    return visible(this.store.meta.streamTypes[streamType] ?? `stream type ${streamType}`);
  }
}
