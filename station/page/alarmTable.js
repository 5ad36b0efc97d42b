// Active alarms as a table, worst first: a row a channel, which opens to all its alarms and what to look at.
// Channels whose alarms are one incident stand under a row of it, which opens. On a channel's own page a row
// an alarm.
import {AlarmDetail} from './alarmDetail.js';
import {isQuiet, levelText, shelvedText, titleOf, valueText, worstFirst} from './alarmWords.js';
import {askAcknowledgement} from './dialog.js';
import {button, el, setAttribute, setClass, setText} from './dom.js';
import {kUnknownText} from './eventTable.js';
import {compareValues, groupedBy, valueOf} from './filter.js';
import {nameText, parseTime, roughly, time, visible} from './format.js';
import {moreButton} from './handling.js';
import {Hold} from './hold.js';
import {RaisedIncidentRow} from './incidentRow.js';
import {placeInOrder} from './placing.js';
import {sign} from './state.js';
import {channelCell, comparing, Heads} from './tableParts.js';
import {GroupHead} from './wallSection.js';

// What the columns sort by; of a unit, which is what a row stands for.
const kTakes = {
  channel: ({worst}) => nameText(worst.channel, worst.group ?? ''),
  alarm: ({worst}) => worst.alarm,
  since: ({worst}) => -parseTime(worst.raised),
};

const kProbe = 'of the probe';  // as a group

export class AlarmTable {
  // `options`: {sort, onSort}, the order in the address.
  constructor(context, withChannel, {sort = '', onSort = null} = {}) {
    this.context = context;
    this.store = context.store;
    this.api = context.api;
    this.withChannel = withChannel;
    this.rows = new Map();       // key -> row
    this.incidents = new Map();  // ID -> IncidentRow
    this.open = new Set();       // keys
    this.by = '';
    this.fold = new Set();
    this.groups = new Map();  // value of the label -> {head, node}
    this.body = el('tbody');
    const columns = [
      {text: 'Severity', kind: 'severity'}, ...(withChannel ? [{text: 'Channel', name: 'channel'}] : []),
      {text: 'Alarm', name: withChannel ? 'alarm' : ''}, {text: 'What', wide: true},
      {text: 'Since', name: withChannel ? 'since' : ''}, {text: 'Value', number: true},
      {text: 'Level', number: true, wide: true}, {text: 'Worst', number: true, wide: true},
      {text: 'Acknowledged', wide: true}
    ];
    this.heads = new Heads(columns, sort, onSort && ((chosen) => {
                                            onSort(chosen);
                                            this.arrange();
                                          }));
    this.columns = columns.length;
    this.table = el('table', {class: 'list alarm-list'}, el('thead', {}, this.heads.node), this.body);
    this.none = el('p', {class: 'muted'});
    this.node =
        el('div', {}, this.none,
           el('div', {class: 'scroll', tabindex: '0', role: 'region', 'aria-label': 'Active alarms'},
              this.table));
    this.hold = new Hold(this.body, () => this.arrange());
  }

  close() {
    this.hold.close();
  }

  // `told`: the alarms, or null while nobody knows which there are.
  update(told, noneText = 'No alarm.') {
    const alarms = told ?? [];
    this.none.hidden = alarms.length > 0;
    this.table.hidden = alarms.length === 0;
    setText(this.none, told ? noneText : kUnknownText);
    const units = this.units(alarms);
    for (const [key, row] of this.rows) {
      if (units.has(key)) continue;
      row.node.remove();
      row.more.remove();
      this.rows.delete(key);
    }
    let added = this.updateIncidents(alarms, units);
    for (const [key, unit] of units) {
      added ||= !this.rows.has(key);
      const row = this.rows.get(key) ?? this.makeRow(key);
      row.unit = unit;
      this.fill(row);
    }
    if (added || !this.hold.holds) this.arrange();
  }

  // What has a row: a channel with its alarms, worst first; each alarm by itself on a channel's page, or
  // where it is of no channel.
  units(alarms) {
    const byKey = groupedBy(
        [...alarms].sort(worstFirst(this.store)),
        ({group, id}) => (this.withChannel && group ? group : String(id)));
    return new Map([...byKey].map(([key, ofIt]) => [key, {worst: ofIt[0], alarms: ofIt}]));
  }

  // Rows for incidents that are of more than one row. True when there is another.
  updateIncidents(alarms, units) {
    const alarmsOf = groupedBy(alarms, ({incident}) => incident);
    if (this.withChannel)
      for (const unit of units.values()) unit.incident = this.incidentOf(unit);
    const members = groupedBy([...units.values()].filter(({incident}) => incident), ({incident}) => incident);
    let changed = false;
    for (const [incident, ofIt] of members) {
      if (ofIt.length < 2) {
        ofIt[0].incident = null;
        members.delete(incident);
      }
    }
    for (const [id, row] of this.incidents) {
      if (members.has(row.incident)) continue;
      row.node.remove();
      this.incidents.delete(id);
      changed = true;
    }
    for (const [incident, ofIt] of members) {
      changed ||= !this.incidents.has(incident.id);
      if (!this.incidents.has(incident.id))
        this.incidents.set(
            incident.id, new RaisedIncidentRow(this.context, this.columns, () => this.arrange()));
      this.incidents.get(incident.id).update(incident, alarmsOf.get(incident.id), ofIt.length);
    }
    return changed;
  }

  // That of the row's worst alarm: what else the channel has, from before or of its own, takes it out of no
  // incident.
  incidentOf({worst}) {
    return this.store.incidents.get(worst.incident) ?? null;
  }

  // An incident stands where its worst would, and what is of it under it where it is open.
  underIncidents(rows) {
    const seen = new Set();
    return rows.flatMap((row) => {
      const head = this.incidents.get(row.unit.incident?.id);
      if (!head) return [row.node, row.more];
      if (seen.has(head)) return [];
      seen.add(head);
      if (!head.open) return [head.node];
      const members = rows.filter(({unit}) => unit.incident === row.unit.incident);
      return [head.node, ...members.flatMap(({node, more}) => [node, more])];
    });
  }

  arrange() {
    const compare = worstFirst(this.store);
    const rows = [...this.rows.values()].sort((a, b) => compare(a.unit.worst, b.unit.worst));
    const [, down, name] = /^(-?)(.*)$/.exec(this.heads.sort);
    if (Object.hasOwn(kTakes, name)) rows.sort(comparing(({unit}) => kTakes[name](unit), Boolean(down)));
    placeInOrder(this.body, this.by ? this.inGroups(rows) : this.underIncidents(rows));
  }

  // Groups by a label of the channels, with those of `fold` closed; `by` is empty for none. onFold(fold) when
  // somebody folds.
  group(by, fold, onFold) {
    if (by !== this.by) this.groups = new Map();
    this.by = by;
    this.fold = fold;
    this.onFold = onFold;
    this.arrange();
  }

  // Under heads: what is of the probe first, then by the label's value.
  inGroups(rows) {
    const {store, by} = this;
    const groups = groupedBy(
        rows, ({unit: {worst: {group}}}) => (group ? valueOf(store.channels.get(group), by) : null));
    const order = (a, b) => Number(a !== null) - Number(b !== null) || compareValues(a, b);
    return [...groups.keys()].sort(order).flatMap((value) => {
      const folded = this.fold.has(value ?? kProbe);
      const members = groups.get(value);
      return [
        this.headOf(value, members, folded),
        ...(folded ? [] : members.flatMap(({node, more}) => [node, more]))
      ];
    });
  }

  headOf(value, rows, folded) {
    if (!this.groups.has(value)) {
      const name = value === null ? 'the probe' : value || `without ${this.by}`;
      const head = new GroupHead(name, () => this.toggleGroup(value ?? kProbe));
      const node =
          el('tr', {class: 'group-row'},
             el('th', {colspan: String(this.columns), scope: 'colgroup'}, ...head.nodes));
      this.groups.set(value, {head, node});
    }
    const {head, node} = this.groups.get(value);
    const channels = rows.map(({unit}) => this.store.channels.get(unit.worst.group)).filter(Boolean);
    const total = rows.reduce((sum, {unit}) => sum + unit.alarms.length, 0);
    head.update(this.store, channels, folded, `${total} ${total === 1 ? 'alarm' : 'alarms'}`);
    return node;
  }

  toggleGroup(value) {
    const fold = new Set(this.fold);
    if (!fold.delete(value)) fold.add(value);
    this.fold = fold;
    this.onFold(fold);
    this.arrange();
  }

  makeRow(key) {
    const mark = el('span', {'aria-hidden': 'true'});
    const toggle = button('', () => this.toggle(row), {class: 'plain opener'});
    toggle.append(mark, el('span', {class: 'sign', 'aria-hidden': 'true'}), el('span', {class: 'word'}));
    const row = {
      key,
      mark,
      toggle,
      details: new Map(),
      title: el('span'),
      others: el('span', {class: 'note'}),
      text: el('bdi'),
      at: el('span', {class: 'word'}),
      age: el('span'),
      value: el('td', {class: 'number of-value'}),
      level: el('td', {class: 'number wide-only'}),
      peak: el('td', {class: 'number wide-only'}),
      told: el('span'),
      acknowledge: button('', () => askAcknowledgement(this.api, this.asked(row)), {class: 'small'}),
      more: null,
      holder: el('div', {class: 'alarm-details'}),
    };
    row.handle = moreButton(this.api, () => [row.unit.alarms], '');
    row.more = el('tr', {class: 'more', hidden: true}, el('td', {colspan: String(this.columns)}, row.holder));
    this.rows.set(key, row);
    return row;
  }

  // Those that an acknowledgement of the row is meant for.
  asked({unit: {alarms}}) {
    const open = alarms.filter((alarm) => !isQuiet(alarm));
    return open.length ? open : alarms;
  }

  finish(row) {
    const {worst} = row.unit;
    row.severity = el('td', {class: 'nowrap'}, row.toggle);
    row.channel = this.withChannel ? channelCell(worst) : null;
    row.node =
        el('tr', {class: 'lead'}, row.severity, row.channel, el('th', {scope: 'row'}, row.title, row.others),
           el('td', {class: 'text-cell wide-only'}, row.text), el('td', {class: 'nowrap'}, row.at, row.age),
           row.value, row.level, row.peak,
           el('td', {class: 'text-cell wide-only'}, row.told, row.acknowledge, ' ', row.handle));
  }

  fill(row) {
    const {worst, alarms} = row.unit;
    const {store} = this;
    if (!row.node) this.finish(row);
    const told = alarms.every(isQuiet) ? ' told' : '';
    setClass(row.node, `lead is-${worst.severity}${told}${this.isUnder(row) ? ' member' : ''}`);
    const [, signNode, word] = row.toggle.children;
    setText(signNode, sign(worst.severity));
    setText(word, ` ${visible(worst.severity)}`);
    setAttribute(row.toggle, 'title', 'What it means and what to look at');
    setText(row.title, titleOf(store, worst));
    setText(row.others, alarms.length > 1 ? ` +${alarms.length - 1}` : '');
    setText(row.text, visible(worst.text));
    const raised = parseTime(worst.raised);
    setText(row.at, `${time(raised, store.now())} · `);
    setText(row.age, roughly(store.now() - raised));
    setText(row.value, valueText(store, worst));
    setText(row.level, levelText(store, worst));
    setText(row.peak, valueText(store, worst) && valueText(store, worst, worst.peak));
    this.fillTold(row);
    this.showMore(row);
  }

  isUnder({unit}) {
    return Boolean(unit.incident) && !this.by && this.incidents.has(unit.incident.id);
  }

  fillTold(row) {
    const {alarms} = row.unit;
    const open = alarms.filter(({acknowledged}) => !acknowledged).length;
    const {mayChange} = this.api;
    row.acknowledge.hidden = row.handle.hidden = !mayChange;
    const [shelved] = alarms.filter((alarm) => alarm.shelved);
    setText(row.acknowledge, open ? 'Acknowledge' : 'Change');
    const label = open ? 'Acknowledge' : 'Change acknowledgement of';
    const names = alarms.map(({alarm}) => alarm).join(', ');
    setAttribute(row.acknowledge, 'aria-label', `${label} ${names}, ${alarms[0].channel}`);
    setAttribute(row.handle, 'aria-label', `More for ${names}, ${alarms[0].channel}`);
    const told = alarms.find(({acknowledged}) => acknowledged)?.acknowledged;
    const off = shelved ? shelvedText(this.store, shelved) : '';
    const key = `${told?.time} ${told?.remark} ${open} ${mayChange} ${off}`;
    if (row.toldKey === key) return;
    row.toldKey = key;
    const some = open && told ? `${alarms.length - open} of ${alarms.length}: ` : '';
    row.told.replaceChildren(
        ...(off ? [el('bdi', {class: 'note', text: `${off} `})] : []),
        ...(told ?
                [
                  `${some}${time(parseTime(told.time), this.store.now())} ${visible(told.by)}`,
                  told.remark ? el('bdi', {class: 'note', text: ` ${visible(told.remark)}`}) : ''
                ] :
                [mayChange || off ? '' : 'not yet']));
  }

  toggle(row) {
    if (!this.open.delete(row.key)) this.open.add(row.key);
    this.showMore(row);
  }

  showMore(row) {
    const open = this.open.has(row.key);
    setText(row.mark, open ? '▾ ' : '▸ ');
    setAttribute(row.toggle, 'aria-expanded', String(open));
    row.more.hidden = !open;
    if (!open) {
      row.details.clear();
      row.holder.replaceChildren();
      return;
    }
    for (const [id, detail] of row.details) {
      if (row.unit.alarms.some((alarm) => alarm.id === id)) continue;
      detail.node.remove();
      row.details.delete(id);
    }
    for (const alarm of row.unit.alarms) {
      const detail = row.details.get(alarm.id);
      if (detail)
        detail.update(alarm);
      else
        row.details.set(alarm.id, new AlarmDetail(this.context, alarm));
    }
    placeInOrder(row.holder, row.unit.alarms.map(({id}) => row.details.get(id).node));
  }
}
