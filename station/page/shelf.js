// What is shelved: told to nobody until a time, raised or not. What was shelved by an incident stands under a
// row of it, and is taken off the shelf as one, also when the incident is over.
import {sharedText, titleOf} from './alarmWords.js';
import {oneAtATime} from './api.js';
import {button, el, setAttribute} from './dom.js';
import {kUnknownText} from './eventTable.js';
import {keepingFocus} from './focus.js';
import {parseTime, time, visible} from './format.js';
import {IncidentRow, IncidentRows} from './incidentRow.js';
import {chosen} from './selection.js';
import {channelCell} from './tableParts.js';

const kHeads = ['Channel', 'Alarm', 'State', 'Until', 'Who', 'Remark', ''];

export class ShelfList {
  constructor({store, api}, onProblem) {
    this.store = store;
    this.api = api;
    this.onProblem = onProblem;
    this.node = el('div', {}, el('p', {class: 'muted', text: kUnknownText}));
    this.rows = new IncidentRows(store, {
      makeRow: () => this.makeIncident(),
      fillRow: (row, incident, shelved) => this.fillIncident(row, incident, shelved),
      node: (one) => this.makeRow(one),
    });
    this.load = oneAtATime(() => this.ask());
  }

  async ask() {
    try {
      this.show(await this.api.get('shelved'));
    } catch (error) {
      this.onProblem(error);
    }
  }

  show(shelved = this.shelved) {
    if (!shelved) return;
    this.shelved = shelved;
    const key = JSON.stringify([shelved, this.rows.incidentsOf(shelved), this.api.mayChange]);
    if (key === this.key) return;
    this.key = key;
    this.refill();
  }

  refill() {
    keepingFocus(this.node, () => this.fill(this.shelved));
  }

  fill(shelved) {
    const rows = this.rows.fill(shelved);
    const head = el('tr', {}, ...kHeads.map((text) => el('th', {scope: 'col', text})));
    this.node.replaceChildren(
        rows.length ?
            el('div', {class: 'scroll', tabindex: '0', role: 'region', 'aria-label': 'Shelved alarms'},
               el('table', {class: 'list'}, el('thead', {}, head), el('tbody', {}, ...rows))) :
            el('p', {class: 'muted', text: 'Nothing.'}));
  }

  makeRow(one) {
    return el(
        'tr', {}, channelCell(one), el('th', {scope: 'row', text: titleOf(this.store, one)}),
        el('td', {text: one.alarmId ? 'raised' : 'not raised'}),
        el('td', {class: 'nowrap', text: this.shownTime(one.until)}), el('td', {text: visible(one.by)}),
        el('td', {class: 'text-cell'}, el('bdi', {text: visible(one.remark)})),
        el('td', {},
           this.api.mayChange ? button('Take off', () => this.end([one]), {
             class: 'small',
             'aria-label': `Take off the shelf: ${one.alarm}, ${one.channel || 'probe'}`
           }) :
                                null));
  }

  makeIncident() {
    const end = button('Take off', () => this.end(row.alarms), {class: 'small'});
    const row = new IncidentRow(this.store, kHeads.length, () => this.refill(), end);
    row.end = end;
    return row;
  }

  // All of it was shelved in one call.
  fillIncident(row, incident, shelved) {
    const [{until, by}] = shelved;
    const when = `until ${this.shownTime(until)}${by ? ` by ${visible(by)}` : ''}`;
    row.update(incident, shelved, shelved.length, {when});
    row.end.hidden = !this.api.mayChange;
    setAttribute(
        row.end, 'aria-label', `Take off the shelf: the incident ${sharedText(this.store, incident)}`);
  }

  shownTime(text) {
    return time(parseTime(text), this.store.now());
  }

  async end(shelved) {
    try {
      for (const which of chosen(shelved)) await this.api.post('alarms/unshelve', which);
      this.load();
    } catch (error) {
      this.onProblem(error);
    }
  }
}
