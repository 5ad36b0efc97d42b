// One channel in depth.
import {AlarmTable, EventTable} from './alarmTable.js';
import {query} from './api.js';
import {forgetSize, onPaletteChange} from './canvas.js';
import {askMaintenance} from './dialog.js';
import {button, el, setAttribute, setClass, setText} from './dom.js';
import {isKnown, nameText, parseTime, quantity, time, visible} from './format.js';
import {Lamps} from './lamps.js';
import {Pids} from './pids.js';
import {kRanges, Plots} from './plots.js';
import {hasSignal, look, sign, stateText} from './state.js';
import {drawStrip, stripText} from './strip.js';

const kEventRows = 50;
const kEventsAgainMs = 5_000;
// Metrics that have a plot of their own beside; packets say what the bit rate says.
const kNotPlotted = new Set(['packetsReceived', 'packets']);
const kNotFound = 404;
const kFailures = 3;  // in a row without an answer, before anybody is told
const kNothing = {
  alarms: [],
  pids: [],
  checks: []
};
const kAroundMs = 10 * 60_000;  // events shown around a chosen time

export class ChannelView {
  constructor(root, context, parameters, group) {
    this.root = root;
    this.context = context;
    this.store = context.store;
    this.api = context.api;
    this.group = group;
    const asked = new Date(parameters.get('t') ?? NaN);
    this.at = Number.isNaN(asked.getTime()) ? null : asked;
    this.range =
        kRanges.find(({resolution}) => String(resolution) === parameters.get('r')) ?? this.rangeFor(this.at);
    this.closed = false;
    this.asking = false;
    this.failures = 0;  // in a row
    this.ends = [];
    root.replaceChildren(el('p', {class: 'hint', role: 'status', text: 'Asking the station …'}));
    if (this.store.meta)
      this.begin();
    else {
      const end = this.store.on('meta', () => {
        end();
        if (!this.closed) this.begin();
      });
      this.ends.push(end);
    }
  }

  close() {
    this.closed = true;
    for (const end of this.ends) end();
    this.plots?.close();
  }

  rangeFor(at) {
    return at && this.store.now() - at > kRanges[0].length ? kRanges[1] : kRanges[0];
  }

  begin() {
    this.build();
    this.ends.push(
        this.store.on('snapshot', () => this.load()), this.store.on('alarms', () => this.loadEvents()),
        this.store.on('overview', () => this.drawStrip()), onPaletteChange(() => this.drawStrip()),
        this.api.onToken(() => this.showControls()));
    const resizes = new ResizeObserver(() => {
      forgetSize(this.strip);
      this.drawStrip();
    });
    resizes.observe(this.strip);
    this.ends.push(() => resizes.disconnect());
    this.load();
    this.loadEvents();
    this.plots.show(this.range, this.at?.getTime() ?? null);
    this.showTime();
  }

  build() {
    this.sign = el('span', {class: 'sign', 'aria-hidden': 'true'});
    this.name = el('h1');
    this.state = el('span', {class: 'muted'});
    this.labels = el('span', {class: 'title-line'});
    this.controls = el('span', {class: 'actions small-controls'});
    this.title =
        el('div', {class: 'title-line'}, this.sign, this.name, this.state, this.labels, this.controls);
    this.problem = el('p', {class: 'panel', role: 'status', hidden: true});
    this.strip = el('canvas', {class: 'channel-strip', role: 'img'});
    this.facts = new Facts();
    this.lamps = new Lamps(this.store);
    this.pids = new Pids(this.store);
    this.alarms = new AlarmTable(this.context, false);
    this.events = new EventTable(this.context, false);
    const {columns, historyMetrics} = this.store.meta;
    const meanings = new Map(columns.stream.map(({name, meaning}) => [name, meaning]));
    const metrics = historyMetrics.filter(({name}) => !kNotPlotted.has(name))
                        .map((metric) => ({...metric, meaning: meanings.get(metric.name) ?? ''}));
    this.plots = new Plots(this.api, this.group, metrics, (at) => this.choose(at));
    this.nowNote = el('p', {
      class: 'note',
      hidden: true,
      text: 'Alarms, checks and PIDs are those of now, not of the chosen time.'
    });
    this.nowPanels = [
      el('div', {class: 'view live-data'}, this.nowNote, this.panel('Active alarms', this.alarms.node),
         this.panel('TR 101 290', this.lamps.node)),
      el('div', {class: 'view live-data'}, this.panel('Programs and PIDs', this.pids.node)),
    ];
    this.eventsTitle = el('h2', {text: 'Events'});
    this.root.replaceChildren(
        el('div', {class: 'view'},
           el('div', {class: 'panel live-data identity'}, this.title, this.facts.node,
              el('div', {}, el('p', {class: 'note', text: 'Last eight hours'}), this.strip)),
           this.problem, this.nowPanels[0], this.makePlotPanel(), this.nowPanels[1],
           el('section', {class: 'panel'}, el('div', {class: 'panel-head'}, this.eventsTitle),
              this.events.node)));
    this.showControls();
  }

  panel(title, ...content) {
    return el(
        'section', {class: 'panel'}, el('div', {class: 'panel-head'}, el('h2', {text: title})), ...content);
  }

  makePlotPanel() {
    this.rangeButtons = kRanges.map((range) => button(range.name, () => this.showRange(range)));
    this.timeText = el('span', {class: 'muted', role: 'status'});
    this.copy = button('Copy link', () => this.copyLink());
    this.live = button('Back to now', () => this.choose(null));
    this.plotPanel =
        el('section', {class: 'panel'},
           el('div', {class: 'panel-head small-controls'}, el('h2', {text: 'Plots'}), this.timeText,
              this.copy, this.live,
              el('span', {class: 'choices', role: 'group', 'aria-label': 'Time'}, ...this.rangeButtons)),
           this.plots.node, el('p', {
             class: 'note',
             text: 'Drag to zoom all, double-click to see all; click to keep a time in the address.'
           }));
    return this.plotPanel;
  }

  async load() {
    if (this.asking || document.hidden) return;
    this.asking = true;
    try {
      const detail = await this.api.get(`channels/${encodeURIComponent(this.group)}`);
      if (!this.closed) this.show(detail);
    } catch (error) {
      if (!this.closed) this.fail(error);
    } finally {
      this.asking = false;
    }
  }

  fail(error) {
    if (!this.name.firstChild) setText(this.name, visible(this.group));
    if (error.status === kNotFound) {
      this.showGone(error);
      return;
    }
    this.failures++;
    if (!error.status && this.failures < kFailures) return;
    this.problem.hidden = false;
    const of = this.shownTime ? ` What is shown is of ${time(this.shownTime, this.store.now())}.` : '';
    setText(this.problem, error.message + of);
  }

  // There is no such channel, or not any more: nothing is known of it.
  showGone(error) {
    if (this.gone) return;
    this.gone = true;
    this.problem.hidden = false;
    setText(
        this.problem,
        this.shownTime ? 'This channel was removed. Its events stay; its history does not.' : error.message);
    setText(this.sign, sign(null));
    setClass(this.title, 'title-line is-waiting');
    setText(this.state, this.shownTime ? 'removed' : 'unknown');
    this.facts.forget();
    this.lamps.update(kNothing);
    this.pids.update(kNothing);
    this.alarms.update([]);
    this.plotPanel.hidden = true;
    this.controls.hidden = true;
    this.drawStrip();
  }

  show(detail) {
    this.problem.hidden = true;
    this.failures = 0;
    this.shownTime = parseTime(detail.time);
    if (this.gone) {
      this.gone = false;
      this.plotPanel.hidden = this.controls.hidden = false;
      this.showRange(this.range);
    }
    setText(this.sign, sign(look(detail.state, detail.severity)));
    setClass(this.title, `title-line is-${look(detail.state, detail.severity)}`);
    if (this.shownName !== detail.name) {
      this.shownName = detail.name;
      this.name.replaceChildren(el('bdi', {text: nameText(detail.name, detail.group)}));
    }
    setText(
        this.state, stateText(detail.state, detail.severity) + (detail.maintenance ? ', maintenance' : ''));
    const labels = JSON.stringify(detail.labels);
    if (labels !== this.shownLabels) {
      this.shownLabels = labels;
      this.labels.replaceChildren(
          ...Object.entries(detail.labels)
              .map(([key, value]) => el('bdi', {class: 'badge', text: visible(`${key}=${value}`)})));
    }
    this.facts.update(detail, this.store);
    this.lamps.update(detail);
    this.pids.update(detail);
    this.alarms.update(detail.alarms);
    this.drawStrip();
  }

  drawStrip() {
    const strip = this.store.channels.get(this.group)?.strip ?? '';
    drawStrip(this.strip, strip);
    setAttribute(
        this.strip, 'aria-label', strip ? stripText(strip, this.store.meta.stripCells) : 'no history yet');
  }

  async loadEvents() {
    const around = this.at ? {
      since: new Date(this.at.getTime() - kAroundMs).toISOString(),
      until: new Date(this.at.getTime() + kAroundMs).toISOString()
    } :
                             {};
    try {
      const events =
          await this.api.get(`events?${query({channel: this.group, limit: kEventRows, ...around})}`);
      if (this.closed) return;
      this.events.add(events, kEventRows);
    } catch (error) {
      if (this.closed) return;
      this.events.fail(error);
      clearTimeout(this.eventsAgain);
      this.eventsAgain = setTimeout(() => this.closed || this.loadEvents(), kEventsAgainMs);
    }
  }

  showRange(range) {
    this.range = range;
    this.plots.show(range, this.at?.getTime() ?? null);
    this.showTime();
  }

  // A time in the past becomes part of the address; null goes back to now.
  choose(at) {
    this.at = at;
    this.plots.show(this.range, at?.getTime() ?? null);
    this.events.clear();
    this.loadEvents();
    this.showTime();
  }

  showTime() {
    const {at} = this;
    this.context.replaceAddress(
        `channel/${this.group}`, at ? [['t', at.toISOString()], ['r', this.range.resolution]] : []);
    setText(this.timeText, at ? `at ${time(at)}` : '');
    this.copy.hidden = this.live.hidden = !at;
    setClass(this.plotPanel, at ? 'panel past' : 'panel');
    for (const panel of this.nowPanels) setClass(panel, at ? 'view live-data of-now' : 'view live-data');
    setText(this.eventsTitle, at ? 'Events within ten minutes of the chosen time' : 'Events');
    this.nowNote.hidden = !at;
    this.rangeButtons.forEach(
        (node, place) => setAttribute(node, 'aria-pressed', String(kRanges[place] === this.range)));
  }

  async copyLink() {
    try {
      await navigator.clipboard.writeText(location.href);
      setText(this.copy, 'Copied');
    } catch {
      setText(this.copy, 'Copy it from the address bar');
    }
    setTimeout(() => setText(this.copy, 'Copy link'), 2_000);
  }

  showControls() {
    this.controls.replaceChildren(
        ...(this.api.mayChange ?
                [
                  button('Maintenance', () => askMaintenance(this.context, this.group)),
                  el('a', {href: `#edit?channel=${this.group}`, text: 'Edit'})
                ] :
                []));
    this.alarms.update(this.store.alarms && this.store.alarmsOf(this));
  }
}

// What identifies the channel, as terms and values.
class Facts {
  constructor() {
    this.values = new Map();
    this.node = el('dl', {class: 'facts'});
  }

  set(term, text) {
    let value = this.values.get(term);
    if (!value) {
      value = el('dd', {class: 'outside'});
      this.values.set(term, value);
      this.node.append(el('div', {}, el('dt', {text: term}), value));
    }
    setText(value, text);
  }

  // Nothing is known any more.
  forget() {
    for (const [term, value] of this.values)
      if (term !== 'Group') setText(value, '–');
  }

  update(detail, store) {
    const {identity} = detail;
    const known = (value, unit = '') => (isKnown(value) ? quantity(value, unit) : '–');
    const port = (value) => (isKnown(value) ? String(value) : '–');
    this.set(
        'Group', identity.destinationPort ? `${detail.group}:${identity.destinationPort}` : detail.group);
    const bitRate = hasSignal(detail, detail.alarms) ? detail.bitRate : null;
    this.set('Bit rate', quantity(bitRate, store.unit('bitRate')));
    const listed = identity.listedSource && identity.listedSource !== identity.source ?
        ` (listed: ${visible(identity.listedSource)})` :
        '';
    const source = identity.source ? `${identity.source}:${port(identity.sourcePort)}` : '–';
    this.set('Source', source + listed);
    this.set('TTL', port(identity.ttl));
    this.set('DSCP, ECN', `${port(identity.dscp)}, ${port(identity.ecn)}`);
    this.set('Join latency', known(identity.joinLatencyMs, 'ms'));
    if (detail.note || this.values.has('Joined'))
      this.set('Joined', detail.note ? `no: ${visible(detail.note)}` : 'yes');
    this.set('Last packets', detail.lastSeen ? time(parseTime(detail.lastSeen), store.now()) : 'never');
    this.set('Profile', visible(detail.profile));
    this.set('Comes from', visible(detail.origin));
    if (isKnown(detail.number)) this.set('Number', String(detail.number));
    if (detail.logo) this.set('Logo', visible(detail.logo));
  }
}
