// What was raised and cleared while nobody looked, until somebody says that it was seen: on this screen or on
// another one. Alarms of one incident stand under a row of it.
import {sharedText, titleOf, worstFirst} from './alarmWords.js';
import {oneAtATime} from './api.js';
import {button, el, setAttribute} from './dom.js';
import {kUnknownText} from './eventTable.js';
import {keepingFocus} from './focus.js';
import {count, parseTime, time, visible} from './format.js';
import {IncidentRow, IncidentRows} from './incidentRow.js';
import {chosen} from './selection.js';
import {channelCell, severityCell} from './tableParts.js';

const kMostRows = 200;
const kHeads = [['Severity'], ['Channel'], ['Alarm'], ['When'], ['What', 'wide-only'], ['']];
const kPauseMs = 2_000;  // the list may be long, and change each second

export class PassedList {
  // onProblem(error) when the station refuses.
  constructor({store, api}, onProblem) {
    this.store = store;
    this.api = api;
    this.onProblem = onProblem;
    this.all = button('All seen', () => this.see(this.shown), {hidden: true});
    this.list = el('div', {}, el('p', {class: 'muted', text: kUnknownText}));
    this.node = el('div', {}, this.list);
    this.shown = [];
    this.known = null;    // all that there are
    this.version = null;  // of them
    this.rows = new IncidentRows(store, {
      makeRow: () => this.makeIncident(),
      fillRow: (row, incident, alarms) => this.fillIncident(row, incident, alarms),
      node: (alarm) => this.makeRow(alarm),
    });
    this.load = oneAtATime(() => this.ask(), kPauseMs);
  }

  // Asks for the list where it is another than the one that is known.
  async ask() {
    const version = this.store.passedVersion;
    if (version === this.version) return;
    try {
      this.known = await this.api.get('passed');
      this.version = version;
      this.show(this.passing);
    } catch (error) {
      this.onProblem(error);
    }
  }

  // `passing`: from all alarms to those that pass the filters.
  show(passing) {
    this.passing = passing;
    if (!this.known) return;
    const passed = passing(this.known);
    this.all.hidden = !this.api.mayChange || !passed.length;
    const key = JSON.stringify([passed, this.rows.incidentsOf(passed), this.api.mayChange]);
    if (key === this.key) return;
    this.key = key;
    this.shown = passed;
    this.refill();
  }

  refill() {
    keepingFocus(this.list, () => this.fill(this.shown), this.all);
  }

  fill(passed) {
    if (!passed.length) {
      this.list.replaceChildren(el('p', {class: 'muted', text: 'Nothing.'}));
      return;
    }
    const rows = this.rows.fill(passed);
    this.list.replaceChildren(
        el('div', {class: 'scroll', tabindex: '0', role: 'region', 'aria-label': 'Passed alarms'},
           el('table', {class: 'list'},
              el('thead', {},
                 el('tr', {},
                    ...kHeads.map(([text, name = '']) => el('th', {scope: 'col', class: name, text})))),
              el('tbody', {}, ...rows.slice(0, kMostRows)))),
        rows.length > kMostRows ?
            el('p', {class: 'note', text: `${count(rows.length - kMostRows)} more are not listed.`}) :
            '');
  }

  makeRow(alarm) {
    return el(
        'tr', {}, severityCell(alarm.severity), channelCell(alarm),
        el('th', {scope: 'row', text: titleOf(this.store, alarm)},
           alarm.times > 1 ? el('span', {class: 'note', text: ` ${count(alarm.times)} times`}) : null),
        el('td', {class: 'nowrap', text: this.span(alarm.raised, alarm.cleared)}),
        el('td', {class: 'text-cell wide-only'}, el('bdi', {text: visible(alarm.text)})),
        el('td', {},
           this.api.mayChange ?
               button(
                   'Seen', () => this.see([alarm]),
                   {class: 'small', 'aria-label': `Seen: ${alarm.alarm}, ${alarm.channel || 'probe'}`}) :
               null));
  }

  makeIncident() {
    const seen = button('Seen', () => this.see(row.alarms), {class: 'small'});
    const row = new IncidentRow(this.store, kHeads.length, () => this.refill(), seen);
    row.seen = seen;
    return row;
  }

  fillIncident(row, incident, alarms) {
    const {store} = this;
    const [worst] = [...alarms].sort(worstFirst(store));
    const times = (name) => alarms.map((alarm) => alarm[name]).sort();
    const when = this.span(times('raised')[0], times('cleared').at(-1));
    row.update(incident, alarms, alarms.length, {when, severity: worst.severity});
    row.seen.hidden = !this.api.mayChange;
    setAttribute(row.seen, 'aria-label', `Seen: the incident ${sharedText(store, incident)}`);
  }

  // "21:03:10 – 21:04:02".
  span(from, to) {
    return [from, to].map((text) => time(parseTime(text), this.store.now())).join(' – ');
  }

  async see(alarms) {
    try {
      for (const which of chosen(alarms)) await this.api.post('alarms/acknowledge', which);
    } catch (error) {
      this.onProblem(error);
    }
  }
}
