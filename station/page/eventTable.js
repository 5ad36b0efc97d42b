// Events as table rows, newest first.
import {titleOf} from './alarmWords.js';
import {el, setAttribute, setClass, setText} from './dom.js';
import {duration, isKnown, visible} from './format.js';
import {momentNode} from './moments.js';
import {channelCell, Heads, severityCell} from './tableParts.js';

export const kUnknownText = 'Not known yet.';

export class EventTable {
  constructor({store}, withChannel) {
    this.store = store;
    this.withChannel = withChannel;
    this.body = el('tbody');
    const columns = [
      {text: 'Time'}, {text: 'Event'}, {text: 'Severity', kind: 'severity'},
      ...(withChannel ? [{text: 'Channel'}] : []), {text: 'Alarm', wide: true}, {text: 'What'},
      {text: 'Lasted', number: true}
    ];
    this.table = el('table', {class: 'list event-list'}, el('thead', {}, new Heads(columns).node), this.body);
    this.none = el('p', {class: 'muted'});
    this.problem = el('p', {class: 'trouble', role: 'status'});
    this.node =
        el('div', {}, this.problem, this.none,
           el('div', {class: 'scroll', tabindex: '0', role: 'region', 'aria-label': 'Events'}, this.table));
    this.ids = new Set();
    this.events = [];
    this.loaded = false;
    this.showNone();
  }

  get oldest() {
    return this.events.at(-1)?.id;
  }

  // Nothing is known of them.
  clear() {
    this.ids.clear();
    this.events = [];
    this.body.replaceChildren();
    this.loaded = false;
    this.showNone();
  }

  showNone() {
    this.none.hidden = this.events.length > 0;
    this.table.hidden = this.events.length === 0;
    setText(this.none, this.loaded ? 'No event.' : kUnknownText);
  }

  // They could not be read: those that there are stay, and are not said to be all.
  fail(error) {
    setText(this.problem, `The newest events could not be read, asking again: ${error.message}`);
  }

  // Adds those that are not there yet, each at its place; at most `most` are kept, the newest.
  add(events, most = Infinity) {
    this.loaded = true;
    setText(this.problem, '');
    for (const event of events) {
      if (this.ids.has(event.id)) continue;
      this.ids.add(event.id);
      const place = this.events.findIndex(({id}) => id < event.id);
      const at = place < 0 ? this.events.length : place;
      this.body.insertBefore(this.makeRow(event), this.body.children[at] ?? null);
      this.events.splice(at, 0, event);
    }
    while (this.events.length > most) {
      this.ids.delete(this.events.pop().id);
      this.body.lastChild.remove();
    }
    this.showNone();
  }

  makeRow(event) {
    const kind = this.store.meta?.eventKinds.find(({name}) => name === event.kind);
    const notes = [
      event.by ? `by ${visible(event.by)}` : '',
      event.silenced && !event.until ? 'told to nobody: in maintenance or shelved' : ''
    ].filter(Boolean).join(', ');
    const until = event.until ?
        el('span', {class: 'note'}, ' until ', momentNode(event.until, this.store.now())) :
        null;
    const row =
        el('tr', {}, el('td', {class: 'nowrap'}, momentNode(event.time, this.store.now())),
           el('td', {class: 'nowrap', text: visible(kind?.text ?? event.kind)}), severityCell(event.severity),
           this.withChannel ? channelCell(event) : null, el('td', {
             class: 'wide-only',
             title: event.alarm && visible(event.alarm),
             text: event.alarm ? titleOf(this.store, event) : ''
           }),
           el('td', {class: 'text-cell'}, el('bdi', {text: visible(event.text)}), until,
              notes ? el('span', {class: 'note', text: ` ${notes}`}) : null),
           el('td', {class: 'number', text: isKnown(event.durationMs) ? duration(event.durationMs) : ''}));
    setAttribute(row, 'data-id', String(event.id));
    setClass(row, '');
    return row;
  }
}
