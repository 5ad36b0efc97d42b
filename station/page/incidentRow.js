// An incident's row among the alarms: what its alarms share, how many they are, how bad, since when and which
// was the first. It opens to the rows of its channels; where they are few it is open until somebody closes
// it.
import {isQuiet, sharedText, titleWithin, worstFirst} from './alarmWords.js';
import {askAcknowledgement} from './dialog.js';
import {button, el, setAttribute, setClass, setText} from './dom.js';
import {count, nameText, parseTime, roughly, time, visible} from './format.js';
import {moreButton} from './handling.js';
import {sign} from './state.js';

const kFewRows = 3;

const plural = (number, word) => `${count(number)} ${word}${number === 1 ? '' : 's'}`;

export class IncidentRow {
  // onOpen() when it is opened or closed; `columns` of the table.
  constructor(context, columns, onOpen) {
    this.store = context.store;
    this.api = context.api;
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
    this.since = el('span', {class: 'note'});
    this.told = el('span', {class: 'note'});
    this.acknowledge =
        button('', () => askAcknowledgement(this.api, this.alarms, this.incident), {class: 'small'});
    this.more = moreButton(this.api, () => [this.alarms, this.incident], 'More for the incident');
    this.node =
        el('tr', {class: 'incident-row'}, el('td', {class: 'nowrap'}, this.toggle),
           el('th', {colspan: String(columns - 1), scope: 'row'}, this.shared, ' ', this.total, ' ',
              this.since, el('div', {class: 'small'}, this.first),
              el('div', {class: 'small-controls'}, this.told, ' ', this.acknowledge, ' ', this.more)));
    this.show();
  }

  show() {
    setText(this.mark, this.open ? '▾ ' : '▸ ');
    setAttribute(this.toggle, 'aria-expanded', String(this.open));
  }

  // `rows`: how many stand under it.
  update(incident, alarms, rows) {
    const {store} = this;
    if (!this.chosen) this.open = rows <= kFewRows;
    this.show();
    this.incident = incident;
    this.alarms = alarms;
    const [worst] = [...alarms].sort(worstFirst(store));
    const channels = new Set(alarms.map(({group}) => group).filter(Boolean)).size;
    const open = alarms.filter((alarm) => !isQuiet(alarm)).length;
    setClass(this.node, `incident-row is-${worst.severity}${open ? '' : ' told'}`);
    setText(this.sign, sign(worst.severity));
    setText(this.word, ` ${visible(worst.severity)}`);
    setText(this.shared, sharedText(store, incident));
    const of = incident.covered > channels ? ` of ${count(incident.covered)}` : '';
    const came = incident.alarms > alarms.length ? `, ${count(incident.alarms)} in all` : '';
    setText(
        this.total,
        `${plural(alarms.length, 'alarm')}${came} on ${count(channels)}${of} ${
            of || channels !== 1 ? 'channels' : 'channel'}`);
    const began = parseTime(incident.began);
    setText(this.since, `since ${time(began, store.now())} · ${roughly(store.now() - began)}`);
    const {first} = incident;
    const who = first.group ? nameText(first.channel, first.group) : 'the probe';
    setText(
        this.first,
        `First: ${titleWithin(store, first)}, ${who}${first.text ? `: ${visible(first.text)}` : ''}`);
    setText(this.told, open ? `${count(open)} new` : 'nothing new');
    setText(this.acknowledge, 'Acknowledge');
    setAttribute(this.acknowledge, 'aria-label', `Acknowledge the incident ${sharedText(store, incident)}`);
    this.acknowledge.hidden = this.more.hidden = !this.api.mayChange;
  }
}
