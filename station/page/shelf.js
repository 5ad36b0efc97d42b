// What is shelved: told to nobody until a time, raised or not.
import {titleOf} from './alarmWords.js';
import {oneAtATime} from './api.js';
import {button, el} from './dom.js';
import {kUnknownText} from './eventTable.js';
import {keepingFocus} from './focus.js';
import {parseTime, time, visible} from './format.js';
import {channelCell} from './tableParts.js';

export class ShelfList {
  constructor({store, api}, onProblem) {
    this.store = store;
    this.api = api;
    this.onProblem = onProblem;
    this.node = el('div', {}, el('p', {class: 'muted', text: kUnknownText}));
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
    const key = JSON.stringify([shelved, this.api.mayChange]);
    if (key === this.key) return;
    this.key = key;
    keepingFocus(this.node, () => this.fill(shelved));
  }

  fill(shelved) {
    const shownTime = (text) => time(parseTime(text), this.store.now());
    const rows = shelved.map(
        (one) =>
            el('tr', {}, channelCell(one), el('th', {scope: 'row', text: titleOf(this.store, one)}),
               el('td', {text: one.alarmId ? 'raised' : 'not raised'}),
               el('td', {class: 'nowrap', text: shownTime(one.until)}), el('td', {text: visible(one.by)}),
               el('td', {class: 'text-cell'}, el('bdi', {text: visible(one.remark)})),
               el('td', {},
                  this.api.mayChange ? button('Take off', () => this.end(one), {
                    class: 'small',
                    'aria-label': `Take off the shelf: ${one.alarm}, ${one.channel || 'probe'}`
                  }) :
                                       null)));
    const head =
        el('tr', {},
           ...['Channel', 'Alarm', 'State', 'Until', 'Who', 'Remark', ''].map(
               (text) => el('th', {scope: 'col', text})));
    this.node.replaceChildren(
        rows.length ?
            el('div', {class: 'scroll', tabindex: '0', role: 'region', 'aria-label': 'Shelved alarms'},
               el('table', {class: 'list'}, el('thead', {}, head), el('tbody', {}, ...rows))) :
            el('p', {class: 'muted', text: 'Nothing.'}));
  }

  async end({id}) {
    try {
      await this.api.post('alarms/unshelve', {ids: [id]});
      this.load();
    } catch (error) {
      this.onProblem(error);
    }
  }
}
