// The checks of ETSI TR 101 290 as a panel of lamps: first priority, second, and the rest.
import {breakable, el, setAttribute, setClass, setText} from './dom.js';
import {count, parseTime, time, visible} from './format.js';
import {hasSignal, sign} from './state.js';

const kPriorities = [[1, 'First priority'], [2, 'Second priority'], [0, 'Other']];

// What a lamp shows: its class, its sign, and what it means. An alarm decides what is wrong; a check that
// counts without one is shown, calmly.
const kLamps = {
  quiet: ['○', 'no error'],
  counts: ['◐', 'errors within the last minute, no alarm'],
  was: ['◌', 'errors earlier'],
  unknown: ['?', 'unknown'],
  unjudged: ['?', 'not judged without a signal'],
};

export class Lamps {
  constructor(store) {
    this.store = store;
    this.rows = new Map();  // column -> nodes
    this.tables = el('div', {class: 'lamps'});
    this.since = el('p', {class: 'note', hidden: true});
    this.node = el('div', {}, this.tables, this.since);
    this.build();
  }

  build() {
    const {checks} = this.store.meta;
    for (const [priority, title] of kPriorities) {
      const some = checks.filter((check) => check.priority === priority);
      if (!some.length) continue;
      const head =
          el('tr', {}, el('th', {scope: 'col'}, el('span', {class: 'unseen', text: 'State'})),
             el('th', {scope: 'col', text: title}),
             ...['count', '1 min', 'last'].map((text) => el('th', {scope: 'col', class: 'number', text})));
      this.tables.append(el(
          'table', {}, el('thead', {}, head), el('tbody', {}, ...some.map((check) => this.makeRow(check)))));
    }
  }

  makeRow(check) {
    const lamp = el('span', {class: 'sign', role: 'img'});
    const cells = [0, 1, 2].map(() => el('td', {class: 'number'}));
    const name = check.number ? `${check.number} ${check.name}` : check.name;
    const node =
        el('tr', {title: visible(check.meaning)}, el('td', {class: 'lamp'}, lamp),
           el('th', {scope: 'row'}, ...breakable(name)), ...cells);
    this.rows.set(check.column, {node, lamp, cells});
    return node;
  }

  // `detail`: the channel as the API describes it.
  update(detail) {
    const judged = hasSignal(detail, detail.alarms);
    const checks = parseTime(detail.lastSeen) ? detail.checks : [];
    const values = new Map(checks.map((check) => [check.column, check]));
    const columns = new Map(this.store.meta.alarmTypes.map((type) => [type.name, type.column]));
    const own = detail.alarms.filter(({source}) => source !== 'meter');
    const alarms = new Map(own.map((alarm) => [columns.get(alarm.alarm), alarm]));
    const since = parseTime(detail.countsSince);
    this.showSince(checks.length ? since : null);
    for (const [column, {node, lamp, cells}] of this.rows) {
      const check = values.get(column);
      const alarm = alarms.get(column);
      const kind = !check      ? 'unknown' :
          !judged              ? 'unjudged' :
          check.lastMinute > 0 ? 'counts' :
          check.count > 0      ? 'was' :
                                 'quiet';
      const [mark, meaning] = alarm ? [sign(alarm.severity), `${alarm.severity} alarm`] : kLamps[kind];
      setClass(node, alarm ? `is-${alarm.severity}` : kind);
      setText(lamp, mark);
      setAttribute(lamp, 'aria-label', meaning);
      setAttribute(lamp, 'title', meaning);
      const last = parseTime(check?.lastError);
      setText(cells[0], count(check?.count));
      setText(cells[1], count(check?.lastMinute));
      setText(cells[2], last ? time(last) : this.lastText(check, since));
    }
  }
  // When a counter grew last that was not seen to grow: never, or before the station began to look.
  lastText(check, since) {
    if (!check) return '–';
    if (!check.count) return 'never';
    return since ? `before ${time(since, this.store.now())}` : '–';
  }

  showSince(since) {
    this.since.hidden = !since;
    if (since) setText(this.since, `Seen since ${time(since, this.store.now())}.`);
  }
}
