// Active alarms, what happened, and maintenance windows.
import {AlarmTable, EventTable, kUnknownText} from './alarmTable.js';
import {query} from './api.js';
import {askAcknowledgement, askMaintenance, showRefusal} from './dialog.js';
import {button, el, field, setText} from './dom.js';
import {localInput, parseTime, time, visible} from './format.js';
import {ChannelPicker} from './picker.js';

const kPage = 100;
const kMostRows = 2000;
const kDownloadLimit = 1000;  // what the station gives in one answer
const kAgainMs = 5_000;       // after a failure

const kGroup = /^\d+(\.\d+){3}$/;
const kMostText = `These are ${kMostRows} events, the most that are listed; choose a time for older ones.`;

export class EventsView {
  constructor(root, context, parameters) {
    this.root = root;
    this.context = context;
    this.store = context.store;
    this.api = context.api;
    this.chosen = Object.fromEntries(parameters);
    this.closed = false;
    this.generation = 0;  // of the filters
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
    clearTimeout(this.retry);
    for (const end of this.ends) end();
  }

  build() {
    this.alarms = new AlarmTable(this.context, true);
    this.events = new EventTable(this.context, true);
    this.problem = el('p', {class: 'field-error', role: 'alert'});
    this.acknowledgeAll = button(
        'Acknowledge all shown',
        () => askAcknowledgement(this.api, this.shownAlarms().filter((alarm) => !alarm.acknowledged)));
    this.addWindow = button(
        'Set a window',
        () => this.changeMaintenance(askMaintenance(this.context, this.picker.channel()?.group ?? '')));
    this.windows = el('div', {}, el('p', {class: 'muted', text: kUnknownText}));
    this.windowsProblem = el('p', {class: 'trouble', role: 'status'});
    this.most = el('span', {class: 'note', hidden: true, text: kMostText});
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
            el('div', {class: 'of-station'}, this.alarms.node)),
        section('Maintenance', [this.addWindow], this.windowsProblem, this.windows),
        section(
            'Events',
            [el('span', {class: 'note', text: `newest ${kDownloadLimit} that pass:`}), this.csv, this.json],
            this.events.node, el('p', {class: 'actions'}, this.most, this.older))));
  }

  makeFilters() {
    const {chosen} = this;
    this.picker = new ChannelPicker(this.store, chosen.channel ?? '');
    this.fields = {
      channel: field('Channel', this.picker.input),
      severity: field('Severity', el('select')),
      kind: field('Event', el('select')),
      since: field('From', el('input', {type: 'datetime-local', value: this.localTime(chosen.since)})),
      until: field('Until', el('input', {type: 'datetime-local', value: this.localTime(chosen.until)})),
    };
    for (const [name, {input}] of Object.entries(this.fields)) {
      input.addEventListener(name === 'channel' ? 'input' : 'change', () => this.filterChanged());
    }
    return el(
        'div', {class: 'panel', role: 'search', 'aria-label': 'Filters'},
        el('div', {class: 'filters'}, ...Object.values(this.fields).map(({wrapper}) => wrapper),
           this.picker.list, button('Show all', () => this.resetFilters())),
        this.problem);
  }

  localTime(text) {
    const date = parseTime(text);
    return date ? localInput(date) : '';
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

  filterQuery(more) {
    const {channel, severity, kind, since, until} = this.chosen;
    return query({channel, severity, kind, since, until, ...more});
  }

  // Alarms that pass, by the rule that events are asked for: a whole group, or a part of name or group. Null
  // while nobody knows which there are.
  shownAlarms() {
    const {channel, severity} = this.chosen;
    const wanted = channel?.toLowerCase();
    const named = kGroup.test(wanted ?? '') ?
        ({group}) => group === wanted :
        (alarm) => alarm.channel.toLowerCase().includes(wanted) || alarm.group?.includes(wanted);
    return this.store.alarms?.filter(
               (alarm) => (!severity || alarm.severity === severity) && (!wanted || named(alarm))) ??
        null;
  }

  showAlarms() {
    if (document.hidden) return;
    const shown = this.shownAlarms();
    this.alarms.update(shown, this.store.alarms?.length ? 'No alarm passes the filters.' : 'No alarm.');
    this.acknowledgeAll.disabled = !shown || shown.every((alarm) => alarm.acknowledged);
  }

  // Something happened: what is new goes to the top.
  changed() {
    this.showAlarms();
    this.loadMaintenance();
    return this.loadNewest();
  }

  // Filters are others: nothing is known of the events that pass them.
  reload() {
    this.generation++;
    this.events.clear();
    this.older.hidden = this.most.hidden = true;
    this.csv.href = this.api.url(`events?${this.filterQuery({limit: kDownloadLimit, format: 'csv'})}`);
    this.json.href = this.api.url(`events?${this.filterQuery({limit: kDownloadLimit})}`);
    this.showAlarms();
    return this.loadNewest();
  }

  // Events page by page, newest first, until one that is known; all of them or none are added, so that there
  // is never a hole in the list. One at a time; what happens meanwhile is asked for afterwards.
  async loadNewest() {
    if (this.loading) {
      this.again = true;
      return;
    }
    this.loading = true;
    const mine = this.generation;
    try {
      const events = await this.untilKnown();
      if (this.isOf(mine)) this.take(events);
    } catch (error) {
      if (this.isOf(mine)) this.fail(error);
    }
    this.loading = false;
    if ((this.again || mine !== this.generation) && !this.closed) {
      this.again = false;
      this.loadNewest();
    }
  }

  async untilKnown() {
    const mine = this.generation;
    const events = [];
    for (;;) {
      const before = events.at(-1)?.id;
      const page = await this.api.get(`events?${this.filterQuery({limit: kPage, before})}`);
      events.push(...page);
      const whole =
          page.length < kPage || !this.events.loaded || page.some(({id}) => this.events.ids.has(id));
      if (whole || events.length >= kMostRows || !this.isOf(mine)) return events;
    }
  }

  isOf(generation) {
    return !this.closed && generation === this.generation;
  }

  take(events) {
    this.showProblem('');
    const {loaded} = this.events;
    const met = events.some(({id}) => this.events.ids.has(id));
    // What came is more than is shown: what was shown is too old.
    if (loaded && !met && events.length >= kMostRows) this.events.clear();
    this.events.add(events, kMostRows);
    if (!loaded) this.older.hidden = events.length < kPage;
    this.showMost();
  }

  showMost() {
    this.most.hidden = this.events.events.length < kMostRows;
    if (!this.most.hidden) this.older.hidden = true;
  }

  // A filter that is refused is shown at its field; what could not be asked is asked again.
  fail(error) {
    if (error.field && this.fields[error.field]) {
      this.showProblem('');
      showRefusal(error, this.fields, this.problem);
      return;
    }
    this.events.fail(error);
    clearTimeout(this.retry);
    this.retry = setTimeout(() => this.closed || this.loadNewest(), kAgainMs);
  }

  showProblem(text) {
    setText(this.problem, text);
    for (const one of Object.values(this.fields)) one.fail();
  }

  async loadOlder() {
    const mine = this.generation;
    try {
      const events =
          await this.api.get(`events?${this.filterQuery({limit: kPage, before: this.events.oldest})}`);
      if (!this.isOf(mine)) return;
      this.showProblem('');
      this.events.add(events, kMostRows);
      this.older.hidden = events.length < kPage;
      this.showMost();
    } catch (error) {
      if (this.isOf(mine)) this.showProblem(error.message);
    }
  }

  async loadMaintenance() {
    if (this.windowsAsked) return;
    this.windowsAsked = true;
    try {
      const list = await this.api.get('maintenance');
      if (this.closed) return;
      setText(this.windowsProblem, '');
      this.showMaintenance(list);
    } catch (error) {
      setText(this.windowsProblem, `The newest windows could not be read: ${error.message}`);
    } finally {
      this.windowsAsked = false;
    }
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
               window.group ? el('bdi', {text: this.store.channels.get(window.group)?.name ?? window.group}) :
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
      return true;
    } catch (error) {
      showRefusal(error, {}, this.windowsProblem);
      return false;
    }
  }

  async changeMaintenance(change) {
    if (await change) this.loadMaintenance();
  }

  showControls() {
    this.acknowledgeAll.hidden = this.addWindow.hidden = !this.api.mayChange;
    this.showAlarms();
    if (this.maintenance) this.showMaintenance(this.maintenance);
  }
}
