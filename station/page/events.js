// Active alarms, what happened, and maintenance windows.
import {AlarmTable, EventTable} from './alarmTable.js';
import {query} from './api.js';
import {askAcknowledgement, askMaintenance, showRefusal} from './dialog.js';
import {button, el, field, setText} from './dom.js';
import {localInput, parseTime, time, visible} from './format.js';

const kPage = 100;
const kMostRows = 2000;
const kDownloadLimit = 1000;  // what the station gives in one answer
const kSuggestions = 50;

export class EventsView {
  constructor(root, context, parameters) {
    this.root = root;
    this.context = context;
    this.store = context.store;
    this.api = context.api;
    this.chosen = Object.fromEntries(parameters);
    this.closed = false;
    this.ends = [];
    this.build();
    const {store} = this;
    this.ends.push(
        store.on('alarms', () => this.changed()), store.on('channels', () => this.changed()),
        store.on('meta', () => this.fillChoices()), store.on('snapshot', () => this.showAlarms()),
        store.on('connection', () => this.changed()), this.api.onToken(() => this.showControls()));
    this.fillChoices();
    this.showControls();
    this.reload();
    this.loadMaintenance();
  }

  close() {
    this.closed = true;
    for (const end of this.ends) end();
  }

  build() {
    this.alarms = new AlarmTable(this.context, true);
    this.events = new EventTable(this.context, true);
    this.problem = el('p', {class: 'field-error', role: 'alert'});
    this.acknowledgeAll = button(
        'Acknowledge all shown',
        () => askAcknowledgement(this.api, this.shownAlarms().filter((alarm) => !alarm.acknowledged)));
    this.addWindow =
        button('Set a window', () => this.changeMaintenance(askMaintenance(this.api, this.group() ?? '')));
    this.windows = el('div');
    this.older = button('Older', () => this.loadOlder());
    this.csv = el('a', {download: 'events.csv', text: 'CSV'});
    this.json = el('a', {download: 'events.json', text: 'JSON'});
    const section = (title, controls, ...content) =>
        el('section', {class: 'panel'},
           el('div', {class: 'panel-head small-controls'}, el('h2', {text: title}), ...controls), ...content);
    this.root.replaceChildren(el(
        'div', {class: 'view'}, el('h1', {text: 'Events and alarms'}), this.makeFilters(),
        section(
            'Active alarms',
            [
              this.acknowledgeAll,
              el('a', {href: this.api.url('alarms'), download: 'alarms.json', text: 'JSON'})
            ],
            this.alarms.node),
        section('Maintenance', [this.addWindow], this.windows),
        section(
            'Events',
            [el('span', {class: 'note', text: `newest ${kDownloadLimit} that pass:`}), this.csv, this.json],
            this.events.node, el('p', {class: 'actions'}, this.older))));
  }

  makeFilters() {
    const {chosen} = this;
    const list = el('datalist', {id: 'channel-names'});
    this.fields = {
      channel: field('Channel', el('input', {
                       type: 'search',
                       list: 'channel-names',
                       placeholder: 'name or group',
                       value: chosen.channel ?? '',
                       spellcheck: 'false'
                     })),
      severity: field('Severity', el('select')),
      kind: field('Event', el('select')),
      since: field('From', el('input', {type: 'datetime-local', value: this.localTime(chosen.since)})),
      until: field('Until', el('input', {type: 'datetime-local', value: this.localTime(chosen.until)})),
    };
    for (const [name, {input}] of Object.entries(this.fields)) {
      input.addEventListener(name === 'channel' ? 'input' : 'change', () => this.filterChanged());
    }
    this.fields.channel.input.addEventListener('input', () => this.suggest(list));
    return el(
        'div', {class: 'panel', role: 'search', 'aria-label': 'Filters'},
        el('div', {class: 'filters'}, ...Object.values(this.fields).map(({wrapper}) => wrapper), list,
           button('Show all', () => this.resetFilters())),
        this.problem);
  }

  localTime(text) {
    const date = parseTime(text);
    return date ? localInput(date) : '';
  }

  suggest(list) {
    const typed = this.fields.channel.input.value.toLowerCase();
    const found = [];
    for (const channel of this.store.channels.values()) {
      if (found.length >= kSuggestions) break;
      if (channel.searchText.includes(typed)) found.push(channel);
    }
    list.replaceChildren(
        ...found.map(({group, info}) => el('option', {value: group, text: visible(info.name)})));
  }

  fillChoices() {
    const {meta} = this.store;
    if (!meta) return;
    const fill = ({input}, name, options) => {
      input.replaceChildren(
          el('option', {value: '', text: 'all'}),
          ...options.map(([value, text]) => el('option', {value, text})));
      input.value = this.chosen[name] ?? '';
    };
    fill(this.fields.severity, 'severity', meta.severities.map((severity) => [severity, severity]));
    fill(this.fields.kind, 'kind', meta.eventKinds.map(({name, text}) => [name, text]));
  }

  resetFilters() {
    for (const {input} of Object.values(this.fields)) input.value = '';
    this.filterChanged();
  }

  filterChanged() {
    this.chosen = {};
    for (const [name, {input}] of Object.entries(this.fields)) {
      if (!input.value) continue;
      const date = input.type === 'datetime-local' ? new Date(input.value) : null;
      if (!date)
        this.chosen[name] = input.value.trim();
      else if (!Number.isNaN(date.getTime()))
        this.chosen[name] = date.toISOString();
    }
    this.context.replaceAddress('events', Object.entries(this.chosen));
    this.showAlarms();
    clearTimeout(this.typing);
    this.typing = setTimeout(() => {
      if (!this.closed) this.reload();
    }, 250);
  }

  // The group that the channel field means: a group as typed, or the one channel of that name; null for none
  // typed, undefined when there is no such channel.
  group() {
    const text = this.chosen.channel;
    if (!text) return null;
    if (this.store.channels.has(text) || /^\d+(\.\d+){3}$/.test(text)) return text;
    const wanted = text.toLowerCase();
    const found = [...this.store.channels.values()].filter(({info}) => info.name.toLowerCase() === wanted);
    return found.length === 1 ? found[0].group : undefined;
  }

  filterQuery(more) {
    const {severity, kind, since, until} = this.chosen;
    return query({channel: this.group() ?? '', severity, kind, since, until, ...more});
  }

  // Alarms that pass: the channel field finds any part of name or group here.
  shownAlarms() {
    const {channel, severity} = this.chosen;
    const wanted = channel?.toLowerCase();
    return this.store.alarms.filter(
        (alarm) => (!severity || alarm.severity === severity) &&
            (!wanted || alarm.channel.toLowerCase().includes(wanted) || alarm.group === wanted));
  }

  showAlarms() {
    if (document.hidden) return;
    const shown = this.shownAlarms();
    this.alarms.update(shown, this.store.alarms.length ? 'No alarm passes the filters.' : 'No alarm.');
    this.acknowledgeAll.disabled = shown.every((alarm) => alarm.acknowledged);
  }

  // Something happened: what is new goes to the top.
  async changed() {
    this.showAlarms();
    if (!this.store.connection.live) return;
    this.loadMaintenance();
    await this.load({limit: kPage});
  }

  async reload() {
    this.events.clear();
    await this.load({limit: kPage}, true);
    this.showAlarms();
  }

  async load(more, reset = false) {
    const mine = this.generation = reset ? (this.generation ?? 0) + 1 : this.generation ?? 0;
    const {channel} = this.fields;
    if (this.group() === undefined) {
      channel.fail();
      setText(this.problem, 'No single channel has this name: events need a whole name or a group.');
      return;
    }
    this.csv.href = this.api.url(`events?${this.filterQuery({limit: kDownloadLimit, format: 'csv'})}`);
    this.json.href = this.api.url(`events?${this.filterQuery({limit: kDownloadLimit})}`);
    try {
      const events = await this.api.get(`events?${this.filterQuery(more)}`);
      if (this.closed || mine !== this.generation) return;
      setText(this.problem, '');
      this.events.add(events, kMostRows);
      if (more.before || reset)
        this.older.hidden = events.length < kPage || this.events.events.length >= kMostRows;
    } catch (error) {
      if (!this.closed && error.status) {
        setText(this.problem, '');
        showRefusal(error, this.fields, this.problem);
      }
    }
  }

  loadOlder() {
    return this.load({limit: kPage, before: this.events.oldest});
  }

  async loadMaintenance() {
    let list;
    try {
      list = await this.api.get('maintenance');
    } catch {
      return;
    }
    if (!this.closed) this.showMaintenance(list);
  }

  showMaintenance(list) {
    const key = JSON.stringify([list, this.api.mayChange]);
    if (key === this.maintenanceKey) return;
    this.maintenanceKey = key;
    this.maintenance = list;
    if (!list.length) {
      this.windows.replaceChildren(el('p', {class: 'muted', text: 'No window.'}));
      return;
    }
    const shownTime = (text) => time(parseTime(text), this.store.now());
    const rows = list.map(
        (window) => el(
            'tr', {},
            el('th', {scope: 'row'},
               window.group ?
                   el('bdi',
                      {text: visible(this.store.channels.get(window.group)?.info.name ?? window.group)}) :
                   'all channels'),
            el('td', {class: 'nowrap', text: shownTime(window.from)}),
            el('td', {class: 'nowrap', text: shownTime(window.until)}), el('td', {text: visible(window.by)}),
            el('td', {class: 'text-cell'}, el('bdi', {text: visible(window.remark)})),
            el('td', {},
               this.api.mayChange ?
                   button('End', () => this.changeMaintenance(this.endWindow(window)), {class: 'small'}) :
                   null)));
    const head =
        el('tr', {},
           ...['Channel', 'From', 'Until', 'Who', 'Remark'].map((text) => el('th', {scope: 'col', text})),
           el('td'));
    this.windows.replaceChildren(
        el('div', {class: 'scroll', tabindex: '0', role: 'region', 'aria-label': 'Maintenance windows'},
           el('table', {}, el('thead', {}, head), el('tbody', {}, ...rows))));
  }

  async endWindow(window) {
    try {
      await this.api.remove(`maintenance/${window.id}`);
    } catch (error) {
      showRefusal(error, {}, this.problem);
    }
  }

  async changeMaintenance(change) {
    await change;
    this.loadMaintenance();
  }

  showControls() {
    this.acknowledgeAll.hidden = this.addWindow.hidden = !this.api.mayChange;
    this.showAlarms();
    if (this.maintenance) this.showMaintenance(this.maintenance);
  }
}
