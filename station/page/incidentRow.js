// An incident's row in a list: what its alarms share, how many they are, how bad, when and which was the
// first. It opens to the rows of its channels; where they are few it is open until somebody closes it.
import {isQuiet, sharedText, titleWithin, worstFirst} from './alarmWords.js';
import {askAcknowledgement} from './dialog.js';
import {button, el, setAttribute, setClass, setText} from './dom.js';
import {groupedBy} from './filter.js';
import {count, nameText, parseTime, roughly, time, visible} from './format.js';
import {moreButton} from './handling.js';
import {sign} from './state.js';

const kFewRows = 3;

const plural = (number, word) => `${count(number)} ${word}${number === 1 ? '' : 's'}`;

export class IncidentRow {
  // onOpen() when it is opened or closed; `columns` of the table; `controls`: what is to be said and done.
  constructor(store, columns, onOpen, ...controls) {
    this.store = store;
    this.open = false;
    this.chosen = false;  // somebody opened or closed it
    this.mark = el('span', {'aria-hidden': 'true'});
    this.sign = el('span', {class: 'sign', 'aria-hidden': 'true'});
    this.word = el('span', {class: 'word'});
    this.toggle = button('', () => {
      this.open = !this.open;
      this.chosen = true;
      this.show();
      onOpen();
    }, {class: 'plain opener'});
    this.toggle.append(this.mark, this.sign, this.word);
    this.shared = el('bdi', {class: 'shared'});
    this.total = el('span', {class: 'note'});
    this.first = el('bdi');
    this.when = el('span', {class: 'note'});
    this.node = el(
        'tr', {class: 'incident-row'}, el('td', {class: 'nowrap'}, this.toggle),
        el('th', {colspan: String(columns - 1), scope: 'row'}, this.shared, ' ', this.total, ' ', this.when,
           el('div', {class: 'small'}, this.first), el('div', {class: 'small-controls'}, ...controls)));
    this.show();
  }

  show() {
    setText(this.mark, this.open ? '▾ ' : '▸ ');
    setAttribute(this.toggle, 'aria-expanded', String(this.open));
  }

  // `alarms` of it in the list; `rows`: how many stand under it; `when` in words; `severity` is the worst,
  // where the list has one; `told`: nobody has to look.
  update(incident, alarms, rows, {when, severity = '', told = false}) {
    const {store} = this;
    if (!this.chosen) this.open = rows <= kFewRows;
    this.show();
    this.incident = incident;
    this.alarms = alarms;
    const channels = new Set(alarms.map(({group}) => group).filter(Boolean)).size;
    setClass(this.node, `incident-row${severity ? ` is-${severity}` : ''}${told ? ' told' : ''}`);
    this.sign.hidden = !severity;
    setText(this.sign, sign(severity));
    setText(this.word, ` ${severity ? visible(severity) : 'incident'}`);
    setText(this.shared, sharedText(store, incident));
    const of = incident.covered > channels ? ` of ${count(incident.covered)}` : '';
    const came = incident.alarms > alarms.length ? `, ${count(incident.alarms)} in all` : '';
    setText(
        this.total,
        `${plural(alarms.length, 'alarm')}${came} on ${count(channels)}${of} ${
            of || channels !== 1 ? 'channels' : 'channel'}`);
    setText(this.when, when);
    const {first} = incident;
    const who = first.group ? nameText(first.channel, first.group) : 'the probe';
    setText(
        this.first,
        `First: ${titleWithin(store, first)}, ${who}${first.text ? `: ${visible(first.text)}` : ''}`);
  }
}

// Of raised alarms, which are acknowledged and handled as one.
export class RaisedIncidentRow extends IncidentRow {
  constructor({store, api}, columns, onOpen) {
    const told = el('span', {class: 'note'});
    const acknowledge =
        button('Acknowledge', () => askAcknowledgement(api, this.alarms, this.incident), {class: 'small'});
    const more = moreButton(api, () => [this.alarms, this.incident], 'More for the incident');
    super(store, columns, onOpen, told, ' ', acknowledge, ' ', more);
    Object.assign(this, {api, told, acknowledge, more});
  }

  update(incident, alarms, rows) {
    const {store} = this;
    const [worst] = [...alarms].sort(worstFirst(store));
    const began = parseTime(incident.began);
    const when = `since ${time(began, store.now())} · ${roughly(store.now() - began)}`;
    const open = alarms.filter((alarm) => !isQuiet(alarm)).length;
    super.update(incident, alarms, rows, {when, severity: worst.severity, told: !open});
    setText(this.told, open ? `${count(open)} new` : 'nothing new');
    setAttribute(this.acknowledge, 'aria-label', `Acknowledge the incident ${sharedText(store, incident)}`);
    this.acknowledge.hidden = this.more.hidden = !this.api.mayChange;
  }
}

// The rows of a list that is filled anew when it changes. What is of one incident stands under a row of it,
// where its first would.
export class IncidentRows {
  // makeRow() makes an IncidentRow; fillRow(row, incident, alarms) says what is of it; node(alarm) makes the
  // row of one.
  constructor(store, {makeRow, fillRow, node}) {
    Object.assign(this, {store, makeRow, fillRow, node});
    this.rows = new Map();  // ID -> IncidentRow
  }

  // {ID of an incident -> those of the list}, of more than one.
  membersOf(list) {
    const members = groupedBy(list, ({incident}) => incident);
    for (const [id, ofIt] of members)
      if (ofIt.length < 2 || !this.store.incidents.has(id)) members.delete(id);
    return members;
  }

  // What is shown of incidents: when it is another the list is to be filled anew.
  incidentsOf(list) {
    return [...this.membersOf(list).keys()].map((id) => this.store.incidents.get(id));
  }

  fill(list) {
    const members = this.membersOf(list);
    for (const id of this.rows.keys())
      if (!members.has(id)) this.rows.delete(id);
    const seen = new Set();
    return list.flatMap((one) => {
      const ofIt = members.get(one.incident);
      if (!ofIt) return [this.node(one)];
      if (seen.has(ofIt)) return [];
      seen.add(ofIt);
      const row = this.rows.get(one.incident) ?? this.makeRow();
      this.rows.set(one.incident, row);
      this.fillRow(row, this.store.incidents.get(one.incident), ofIt);
      return [row.node, ...(row.open ? ofIt.map((member) => this.memberNode(member)) : [])];
    });
  }

  memberNode(one) {
    const node = this.node(one);
    node.classList.add('member');
    return node;
  }
}
