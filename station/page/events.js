// Active alarms, what happened, and maintenance windows.
import {AlarmTable} from './alarmTable.js';
import {isQuiet} from './alarmWords.js';
import {oneAtATime, query} from './api.js';
import {askAcknowledgement, askMaintenance, showRefusal} from './dialog.js';
import {button, el, field, setText} from './dom.js';
import {eventFile, kMostInFile, save} from './eventFile.js';
import {EventTable, kUnknownText} from './eventTable.js';
import {labelNames} from './filter.js';
import {keepingFocus} from './focus.js';
import {count, localInput, parseTime, time, visible} from './format.js';
import {PassedList} from './passedList.js';
import {ChannelPicker} from './picker.js';
import {ShelfList} from './shelf.js';
import {fromInput, zoneName} from './zone.js';

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
    this.sort = this.chosen.sort ?? '';
    this.by = this.chosen.by ?? '';
    this.fold = new Set(parameters.getAll('fold'));
    this.closed = false;
    this.generation = 0;  // of the filters
    this.ends = [];
    this.loadMaintenance = oneAtATime(() => this.askMaintenance());
    this.build();
    const {store} = this;
    this.ends.push(
        store.on('alarms', () => this.changed()),
        store.on(
            'channels',
            () => {
              this.changed();
              this.showGroups();
            }),
        store.on('meta', () => this.fillChoices()), store.on('snapshot', () => this.showAlarms()),
        store.on('connection', () => this.changed()), this.api.onToken(() => this.showControls()));
    this.fillChoices();
    this.showControls();
    this.showGroups();
    this.reload();
    this.loadMaintenance();
    this.shelf.load();
    this.passed.load();
  }

  close() {
    this.closed = true;
    clearTimeout(this.retry);
    this.alarms.close();
    for (const end of this.ends) end();
  }

  build() {
    this.alarms = new AlarmTable(this.context, true, {
      sort: this.chosen.sort,
      onSort: (sort) => {
        this.sort = sort;
        this.keepAddress();
      }
    });
    this.groupBy = el('select', {'aria-label': 'Groups'});
    this.groupBy.addEventListener('change', () => this.groupAlarms(this.groupBy.value, new Set()));
    this.events = new EventTable(this.context, true);
    this.problem = el('p', {class: 'field-error', role: 'alert'});
    this.acknowledgeAll = button(
        'Acknowledge all shown',
        () => askAcknowledgement(this.api, this.shownAlarms().filter((alarm) => !isQuiet(alarm))));
    this.addWindow = button(
        'Set a window',
        () => this.changeMaintenance(askMaintenance(this.context, this.picker.channel()?.group ?? '')));
    this.windows = el('div', {}, el('p', {class: 'muted', text: kUnknownText}));
    this.listsProblem = el('p', {class: 'trouble', role: 'status'});
    const refused = (error) => showRefusal(error, {}, this.listsProblem);
    this.passed = new PassedList(this.context, refused);
    this.shelf = new ShelfList(this.context, refused);
    this.windowsProblem = el('p', {class: 'trouble', role: 'status'});
    this.most = el('span', {class: 'note', hidden: true, text: kMostText});
    this.older = button('Older', () => this.loadOlder());
    this.csv = button('CSV', () => this.download(), {title: 'All that pass, with labels and zone'});
    this.fileNote = el('span', {class: 'note', role: 'status'});
    this.json = el(
        'a', {download: 'events.json', text: 'JSON', title: `The newest ${count(kDownloadLimit)} that pass`});
    const section = (title, controls, ...content) =>
        el('section', {class: 'panel'},
           el('div', {class: 'panel-head small-controls'}, el('h2', {text: title}), ...controls), ...content);
    this.root.replaceChildren(
        el('div', {class: 'view'}, el('h1', {text: 'Events and alarms'}), this.makeFilters(),
           section(
               'Active alarms',
               [
                 this.groupBy, this.acknowledgeAll,
                 el('a', {href: this.api.url('alarms'), download: 'alarms.json', text: 'JSON'})
               ],
               el('div', {class: 'of-station'}, this.alarms.node)),
           section('Passed while nobody looked', [this.passed.all], this.listsProblem, this.passed.node),
           section('Shelved', [], this.shelf.node),
           section('Maintenance', [this.addWindow], this.windowsProblem, this.windows),
           section(
               'Events', [this.fileNote, this.csv, this.json], this.events.node,
               el('p', {class: 'actions'}, this.most, this.older))));
  }

  makeFilters() {
    const {chosen} = this;
    this.picker = new ChannelPicker(this.store, chosen.channel ?? '');
    this.fields = {
      channel: field('Channel', this.picker.input),
      severity: field('Severity', el('select')),
      kind: field('Event', el('select')),
      alarm: field('Alarm', el('select')),
      since: field(
          'From',
          el('input', {type: 'datetime-local', title: zoneName(), value: this.localTime(chosen.since)})),
      until: field(
          'Until',
          el('input', {type: 'datetime-local', title: zoneName(), value: this.localTime(chosen.until)})),
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
    const types = meta.alarmTypes.map(({name, title}) => [name, visible(title)]);
    fill(this.fields.alarm, 'alarm', types.sort(([, a], [, b]) => a.localeCompare(b)));
  }

  resetFilters() {
    for (const {input} of Object.values(this.fields)) input.value = '';
    this.filterChanged();
  }

  filterChanged() {
    this.chosen = {};
    for (const [name, {input}] of Object.entries(this.fields)) {
      if (!input.value) continue;
      if (input.type !== 'datetime-local')
        this.chosen[name] = input.value.trim();
      else
        this.chosen[name] = fromInput(input.value)?.toISOString() ?? '';
    }
    this.keepAddress();
    this.showAlarms();
    clearTimeout(this.typing);
    this.typing = setTimeout(() => {
      if (!this.closed) this.reload();
    }, 250);
  }

  groupAlarms(by, fold) {
    this.by = by;
    this.fold = fold;
    this.keepAddress();
    this.showGroups();
  }

  showGroups() {
    const names = labelNames(this.store);
    if (this.by && !names.includes(this.by)) names.push(this.by);
    this.groupBy.hidden = names.length === 0;
    const key = names.join('\n');
    if (key !== this.groupKey) {
      this.groupKey = key;
      this.groupBy.replaceChildren(
          el('option', {value: '', text: 'no groups'}),
          ...names.map((name) => el('option', {value: name, text: `groups: ${visible(name)}`})));
    }
    this.groupBy.value = this.by;
    this.alarms.group(this.by, this.fold, (fold) => {
      this.fold = fold;
      this.keepAddress();
    });
  }

  keepAddress() {
    const chosen =
        Object.entries({...this.filter(), sort: this.sort, by: this.by}).filter(([, value]) => value);
    if (this.by) chosen.push(...[...this.fold].map((value) => ['fold', value]));
    this.context.replaceAddress('events', chosen);
  }

  filter() {
    const {channel, severity, kind, alarm, since, until} = this.chosen;
    return {channel, severity, kind, alarm, since, until};
  }

  // All that pass as a file, however many pages they are.
  async download() {
    this.csv.disabled = true;
    try {
      const file = await eventFile(
          this.context, this.filter(), (total) => setText(this.fileNote, `${count(total)} …`));
      if (this.closed) return;
      save(file);
      setText(this.fileNote, file.isCut ? `the newest ${count(kMostInFile)}, the most in a file` : '');
    } catch (error) {
      setText(this.fileNote, `The events could not be read: ${error.message}`);
    }
    this.csv.disabled = false;
  }

  filterQuery(more) {
    return query({...this.filter(), ...more});
  }

  // Alarms that pass, by the rule that events are asked for: a whole group, or a part of name or group. Null
  // while nobody knows which there are.
  shownAlarms() {
    return this.store.alarms ? this.passing(this.store.alarms) : null;
  }

  passing(alarms) {
    const {channel, severity, alarm: type} = this.chosen;
    const wanted = channel?.toLowerCase();
    const named = kGroup.test(wanted ?? '') ?
        ({group}) => group === wanted :
        (alarm) => alarm.channel.toLowerCase().includes(wanted) || alarm.group?.includes(wanted);
    const passes = (alarm) => (!severity || alarm.severity === severity) && (!type || alarm.alarm === type) &&
        (!wanted || named(alarm));
    return alarms.filter(passes);
  }

  showAlarms() {
    if (document.hidden) return;
    const shown = this.shownAlarms();
    this.alarms.update(shown, this.store.alarms?.length ? 'No alarm passes the filters.' : 'No alarm.');
    this.acknowledgeAll.disabled = !shown || shown.every(isQuiet);
    this.passed.show((all) => this.passing(all));
  }

  // Something happened: what is new goes to the top.
  changed() {
    this.showAlarms();
    this.loadMaintenance();
    this.shelf.load();
    this.passed.load();
    return this.loadNewest();
  }

  // Filters are others: nothing is known of the events that pass them.
  reload() {
    this.generation++;
    this.events.clear();
    this.older.hidden = this.most.hidden = true;
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

  async askMaintenance() {
    try {
      const list = await this.api.get('maintenance');
      if (this.closed) return;
      setText(this.windowsProblem, '');
      this.showMaintenance(list);
    } catch (error) {
      setText(this.windowsProblem, `The newest windows could not be read: ${error.message}`);
    }
  }

  showMaintenance(list) {
    keepingFocus(this.windows, () => this.fillMaintenance(list), this.addWindow);
  }

  fillMaintenance(list) {
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
            'tr', {}, el('th', {scope: 'row'}, el('bdi', {text: this.windowText(window)})),
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
           el('table', {class: 'list'}, el('thead', {}, head), el('tbody', {}, ...rows))));
  }

  windowText({group, groups, about}) {
    if (group) return this.store.channels.get(group)?.name ?? group;
    return groups.length ? `${visible(about)}: ${count(groups.length)} channels` : 'all channels';
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
    this.shelf.show();
    if (this.maintenance) this.showMaintenance(this.maintenance);
  }
}
