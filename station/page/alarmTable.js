// Active alarms and events as table rows, for the views that list them.
import {askAcknowledgement} from './dialog.js';
import {button, el, setAttribute, setClass, setText} from './dom.js';
import {duration, isKnown, nameText, parseTime, quantity, time, visible} from './format.js';
import {sign} from './state.js';

function timeCell(text, store) {
  const date = parseTime(text);
  return el(
      'td', {class: 'nowrap'},
      date ? el('time', {datetime: text, title: text, text: time(date, store.now())}) : '–');
}

// Without a group an alarm is one of the probe; other events may be of neither.
function channelCell({group, channel, alarm}) {
  if (!group) return el('td', {class: 'muted', text: alarm ? 'probe' : visible(channel)});
  return el(
      'td', {class: 'text-cell'},
      el('a', {href: `#channel/${group}`}, el('bdi', {text: shortened(nameText(channel, group))})));
}

function shortened(text) {
  const shown = visible(text);
  return shown.length > 80 ? `${shown.slice(0, 79)}…` : shown;
}

function severityCell(severity) {
  return el(
      'td', {class: `nowrap is-${severity}`},
      severity ? el('span', {class: 'sign', 'aria-hidden': 'true', text: sign(severity)}) : null,
      ` ${severity ?? ''}`);
}

const kNumbers = new Set(['Value', 'Worst', 'Lasted']);

export const kUnknownText = 'Not known yet.';

function heads(texts) {
  return el(
      'thead', {},
      el('tr', {},
         ...texts.map((text) => el('th', {scope: 'col', class: kNumbers.has(text) ? 'number' : '', text}))));
}

// The active alarms. Rows are kept while their alarm is, so that what did not change is not touched.
export class AlarmTable {
  constructor({store, api}, withChannel) {
    this.store = store;
    this.api = api;
    this.withChannel = withChannel;
    this.rows = new Map();  // id -> row
    this.body = el('tbody');
    const columns = [
      'Severity', ...(withChannel ? ['Channel'] : []), 'Alarm', 'What', 'Since', 'Value', 'Worst',
      'Acknowledged'
    ];
    this.table = el('table', {}, heads(columns), this.body);
    this.none = el('p', {class: 'muted'});
    this.node =
        el('div', {}, this.none,
           el('div', {class: 'scroll', tabindex: '0', role: 'region', 'aria-label': 'Active alarms'},
              this.table));
  }

  // `told`: the alarms, or null while nobody knows which there are.
  update(told, noneText = 'No alarm.') {
    const alarms = told ?? [];
    this.none.hidden = alarms.length > 0;
    this.table.hidden = alarms.length === 0;
    setText(this.none, told ? noneText : kUnknownText);
    const wanted = new Set(alarms.map(({id}) => id));
    for (const [id, row] of this.rows) {
      if (wanted.has(id)) continue;
      row.node.remove();
      this.rows.delete(id);
    }
    let next = this.body.firstChild;
    for (const alarm of alarms) {
      const row = this.rows.get(alarm.id) ?? this.makeRow(alarm);
      if (row.node === next)
        next = next.nextSibling;
      else
        this.body.insertBefore(row.node, next);
      this.fill(row, alarm);
    }
  }

  makeRow(alarm) {
    const text = el('bdi');
    const since = el('td', {class: 'nowrap'});
    const value = el('td', {class: 'number'});
    const peak = el('td', {class: 'number'});
    const told = el('td', {class: 'text-cell'});
    const severity = el('td', {class: 'nowrap'});
    const node =
        el('tr', {}, severity, this.withChannel ? channelCell(alarm) : null,
           el('th', {scope: 'row', title: visible(alarm.meaning ?? ''), text: visible(alarm.alarm)}),
           el('td', {class: 'text-cell'}, text), since, value, peak, told);
    const row = {node, severity, text, since, value, peak, told};
    this.rows.set(alarm.id, row);
    return row;
  }

  fill(row, alarm) {
    if (row.shownSeverity !== alarm.severity) {
      row.shownSeverity = alarm.severity;
      const fresh = severityCell(alarm.severity);
      row.severity.replaceWith(fresh);
      row.severity = fresh;
    }
    setText(row.text, visible(alarm.text));
    const raised = parseTime(alarm.raised);
    setText(
        row.since,
        `${time(raised, this.store.now())} · ${
            duration(Math.max(0, Math.floor((this.store.now() - raised) / 1000) * 1000))}`);
    // A condition holds or not: there is no measure to show.
    const measured = this.store.meta?.alarmTypes.find(({name}) => name === alarm.alarm)?.kind !== 'condition';
    setText(row.value, measured ? quantity(alarm.value, alarm.unit) : '');
    setText(row.peak, measured ? quantity(alarm.peak, alarm.unit) : '');
    const told = alarm.acknowledged;
    const key = `${told ? told.time : ''} ${this.api.mayChange}`;
    if (row.toldKey === key) return;
    row.toldKey = key;
    row.told.replaceChildren(
        ...(told ?
                [
                  el('span', {text: `${time(parseTime(told.time), this.store.now())} ${visible(told.by)}`}),
                  told.remark ? el('bdi', {class: 'note', text: ` ${visible(told.remark)}`}) : ''
                ] :
                []),
        this.api.mayChange ?
            button(told ? 'Change' : 'Acknowledge', () => askAcknowledgement(this.api, [alarm]), {
              class: 'small',
              'aria-label':
                  `${told ? 'Change acknowledgement of' : 'Acknowledge'} ${alarm.alarm}, ${alarm.channel}`
            }) :
            (told ? '' : 'not yet'));
  }
}

// Events, newest first.
export class EventTable {
  constructor({store}, withChannel) {
    this.store = store;
    this.withChannel = withChannel;
    this.body = el('tbody');
    const columns =
        ['Time', 'Event', 'Severity', ...(withChannel ? ['Channel'] : []), 'Alarm', 'What', 'Lasted'];
    this.table = el('table', {}, heads(columns), this.body);
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
      event.by ? `by ${visible(event.by)}` : '', event.silenced ? 'silenced by maintenance' : ''
    ].filter(Boolean).join(', ');
    const row =
        el('tr', {}, timeCell(event.time, this.store),
           el('td', {class: 'nowrap', text: visible(kind?.text ?? event.kind)}), severityCell(event.severity),
           this.withChannel ? channelCell(event) : null, el('td', {text: visible(event.alarm ?? '')}),
           el('td', {class: 'text-cell'}, el('bdi', {text: visible(event.text)}),
              notes ? el('span', {class: 'note', text: ` ${notes}`}) : null),
           el('td', {class: 'number', text: isKnown(event.durationMs) ? duration(event.durationMs) : ''}));
    setAttribute(row, 'data-id', String(event.id));
    setClass(row, '');
    return row;
  }
}
