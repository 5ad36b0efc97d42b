// The checks of ETSI TR 101 290 as the meter counts them: a lamp each, and what is behind it on demand.
import {kCheckTexts, kInapplicable} from './checkTexts.js';
import {breakable, el, setAttribute, setClass, setText} from './dom.js';
import {count, isKnown, pid, time} from './format.js';
import {sign} from './state.js';

const kPriorities = [[1, 'First priority'], [2, 'Second priority'], [3, 'Third priority']];
const kRecentS = 60;
const kNearS = 3;                      // errors so close behind a disturbance of this machine may be its own
const kShared = 'serviceInformation';  // the measure of all checks of the third priority that have none
const kMostPids = 12;                  // that are named

// Class, sign and meaning of a lamp. An alarm decides what is wrong; what counts without one is shown calmly.
const kLamps = {
  quiet: ['○', 'no error'],
  holds: ['◉', 'holds now, no alarm'],
  counts: ['◐', 'errors within the last minute, no alarm'],
  was: ['◌', 'errors earlier'],
  inapplicable: ['–', 'cannot be judged on this stream'],
  unjudged: ['?', 'not judged without a signal'],
  unknown: ['?', 'unknown'],
};
const kOpen = new Set(['holds', 'counts']);  // what is said without being asked

export class Checks {
  constructor(store) {
    this.store = store;
    this.rows = new Map();    // id -> row
    this.opened = new Map();  // id -> whether somebody opened or closed it
    this.tables = el('div', {class: 'lamps checks'});
    this.since = el('p', {class: 'note'});
    this.node = el('div', {}, this.tables, this.since);
    this.update(null);
  }

  build(checks) {
    this.rows.clear();
    this.tables.replaceChildren(...kPriorities.map(([priority, title]) => {
      const head =
          el('tr', {}, el('th', {scope: 'col'}, el('span', {class: 'unseen', text: 'State'})),
             el('th', {scope: 'col', text: title}),
             ...['count', 'seconds', 'last'].map((text) => el('th', {scope: 'col', class: 'number', text})));
      const rows =
          checks.filter((check) => check.priority === priority).flatMap((check) => this.makeRow(check));
      return el('table', {}, el('thead', {}, head), el('tbody', {}, ...rows));
    }));
  }

  makeRow({id, name}) {
    const lamp = el('span', {class: 'sign', role: 'img'});
    const cells = ['count', 'seconds', 'last'].map(() => el('td', {class: 'number'}));
    const noteId = `check-${id}`;
    const toggle =
        el('button',
           {type: 'button', class: 'plain', 'aria-controls': noteId, on: {click: () => this.toggle(id)}},
           `${id} `, ...breakable(name));
    const node = el('tr', {}, el('td', {class: 'lamp'}, lamp), el('th', {scope: 'row'}, toggle), ...cells);
    const [means, look] = kCheckTexts[id] ?? [];
    const pids = el('p', {hidden: true});
    const own = el('p', {hidden: true});
    const text =
        el('td', {colspan: '4'}, means ? el('p', {text: means}) : null,
           look ? el('p', {}, el('b', {text: 'Where to look: '}), look) : null, pids, own);
    const note = el('tr', {class: 'check-note', id: noteId}, el('td'), text);
    this.rows.set(id, {node, note, toggle, lamp, cells, pids, own});
    return [node, note];
  }

  toggle(id) {
    const row = this.rows.get(id);
    this.opened.set(id, row.note.hidden);
    this.showNote(id, row);
  }

  showNote(id, row) {
    const open = this.opened.get(id) ?? row.speaks;
    row.note.hidden = !open;
    setAttribute(row.toggle, 'aria-expanded', String(Boolean(open)));
  }

  // `report`: null while nothing is known; `judged`: whether packets come; `alarms`: the channel's.
  update(report, judged = false, alarms = []) {
    const checks = report?.checks ?? this.checks ?? [];
    const shape = checks.map(({id}) => id).join();
    if (shape !== this.shape) {
      this.shape = shape;
      this.checks = checks.map(({id, name, priority}) => ({id, name, priority}));
      this.build(checks);
    }
    const own = alarms.filter(({source}) => source === 'meter');
    const byType = new Map(own.map((alarm) => [alarm.alarm, alarm]));
    for (const check of checks) this.fill(this.rows.get(check.id), check, report, judged, byType);
    const begin = report?.begin ? new Date(report.begin) : null;
    setText(this.since, begin ? `Counted since ${time(begin)}. A name tells what its check means.` : '');
  }

  fill(row, check, report, judged, alarms) {
    const {id} = check;
    const kind = this.kindOf(check, report, judged);
    const fails = kOpen.has(kind);
    const alarm = alarms.get(this.alarmType(check, fails));
    const [mark, meaning] = alarm ? [sign(alarm.severity), `${alarm.severity} alarm`] : kLamps[kind];
    const inapplicable = kind === 'inapplicable' && kInapplicable[id];
    setClass(row.node, alarm ? `is-${alarm.severity}` : kind);
    setText(row.lamp, mark);
    setAttribute(row.lamp, 'aria-label', meaning);
    setAttribute(row.lamp, 'title', inapplicable ? kInapplicable[id] : meaning);
    const known = report && check.applicable;
    setText(row.cells[0], count(known ? check.count : null));
    setText(row.cells[1], count(known ? check.seconds : null));
    setText(row.cells[2], known ? lastText(check, report) : '–');
    for (const cell of row.cells) cell.classList.toggle('muted', !check.count);
    const pids = known ? Object.entries(check.pids) : [];
    row.pids.hidden = pids.length === 0;
    setText(row.pids, pidsText(pids));
    const own = inapplicable ||
        (known && this.isOwn(check, report) ?
             'This machine dropped packets at that time: the last errors may be its own.' :
             '');
    row.own.hidden = !own;
    setText(row.own, own || '');
    row.speaks = Boolean(alarm) || (known && fails);
    this.showNote(id, row);
  }

  // The type of alarms that goes by this check; of service information one goes by them all.
  alarmType({name, priority}, fails) {
    const watching = (measure) =>
        this.store.meta.alarmTypes
            .find(({column, meter}) => (meter?.column ?? column) === `meter.${measure}`)
            ?.name;
    return watching(name) ?? (priority === 3 && fails ? watching(kShared) : undefined);
  }

  kindOf(check, report, judged) {
    if (!report) return 'unknown';
    if (!check.applicable) return 'inapplicable';
    if (!judged) return 'unjudged';
    if (check.active) return 'holds';
    if (!check.count) return 'quiet';
    return report.seconds - check.last <= kRecentS ? 'counts' : 'was';
  }

  isOwn({last}, {live}) {
    const disturbed = live?.lastDisturbed;
    return isKnown(last) && isKnown(disturbed) && last >= disturbed - 1 && last - disturbed <= kNearS;
  }
}

function lastText({last, active}, {begin}) {
  if (active) return 'now';
  if (!isKnown(last)) return 'never';
  const start = Date.parse(begin ?? '');
  return Number.isNaN(start) ? `after ${Math.round(last)} s` : time(new Date(start + 1000 * last));
}

function pidsText(pids) {
  if (!pids.length) return '';
  const sorted = pids.sort(([, a], [, b]) => b - a);
  const named = sorted.slice(0, kMostPids).map(([number, times]) => `${pid(number)} ${count(times)} ×`);
  const rest = sorted.length - named.length;
  return `${pids.length === 1 ? 'PID' : 'PIDs'} ${named.join(', ')}${rest ? ` and ${count(rest)} more` : ''}`;
}
