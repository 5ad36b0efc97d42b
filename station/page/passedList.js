// What was raised and cleared while nobody looked, until somebody says that it was seen: on this screen or on
// another one.
import {titleOf} from './alarmWords.js';
import {oneAtATime} from './api.js';
import {button, el} from './dom.js';
import {kUnknownText} from './eventTable.js';
import {keepingFocus} from './focus.js';
import {count, parseTime, time, visible} from './format.js';
import {chosen} from './selection.js';
import {channelCell, severityCell} from './tableParts.js';

const kMostRows = 200;
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
    const key = JSON.stringify([passed, this.api.mayChange]);
    if (key === this.key) return;
    this.key = key;
    this.shown = passed;
    keepingFocus(this.list, () => this.fill(passed), this.all);
  }

  fill(passed) {
    if (!passed.length) {
      this.list.replaceChildren(el('p', {class: 'muted', text: 'Nothing.'}));
      return;
    }
    const shownTime = (text) => time(parseTime(text), this.store.now());
    const rows =
        passed.slice(0, kMostRows)
            .map(
                (alarm) => el(
                    'tr', {}, severityCell(alarm.severity), channelCell(alarm),
                    el('th', {scope: 'row', text: titleOf(this.store, alarm)},
                       alarm.times > 1 ? el('span', {class: 'note', text: ` ${count(alarm.times)} times`}) :
                                         null),
                    el('td',
                       {class: 'nowrap', text: `${shownTime(alarm.raised)} – ${shownTime(alarm.cleared)}`}),
                    el('td', {class: 'text-cell wide-only'}, el('bdi', {text: visible(alarm.text)})),
                    el('td', {},
                       this.api.mayChange ? button('Seen', () => this.see([alarm]), {
                         class: 'small',
                         'aria-label': `Seen: ${alarm.alarm}, ${alarm.channel || 'probe'}`
                       }) :
                                            null)));
    const heads = [['Severity'], ['Channel'], ['Alarm'], ['When'], ['What', 'wide-only'], ['']];
    this.list.replaceChildren(
        el('div', {class: 'scroll', tabindex: '0', role: 'region', 'aria-label': 'Passed alarms'},
           el('table', {class: 'list'},
              el('thead', {},
                 el('tr', {},
                    ...heads.map(([text, name = '']) => el('th', {scope: 'col', class: name, text})))),
              el('tbody', {}, ...rows))),
        passed.length > kMostRows ?
            el('p', {class: 'note', text: `${count(passed.length - kMostRows)} more are not listed.`}) :
            '');
  }

  async see(alarms) {
    try {
      for (const which of chosen(alarms)) await this.api.post('alarms/acknowledge', which);
    } catch (error) {
      this.onProblem(error);
    }
  }
}
