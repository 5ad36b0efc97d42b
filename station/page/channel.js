// One channel in depth.
import {AlarmTable} from './alarmTable.js';
import {query} from './api.js';
import {forgetSize, onPaletteChange} from './canvas.js';
import {Concerns} from './concerns.js';
import {askMaintenance} from './dialog.js';
import {button, el, setAttribute, setClass, setText} from './dom.js';
import {EventTable} from './eventTable.js';
import {isKnown, nameText, parseTime, time, visible} from './format.js';
import {Identity} from './identity.js';
import {Lamps} from './lamps.js';
import {MeterFeed} from './meterFeed.js';
import {Picture} from './picture.js';
import {Pids} from './pids.js';
import {PlotPanel} from './plotPanel.js';
import {look, sign, stateText} from './state.js';
import {drawStrip, stripText} from './strip.js';
import {Troubles} from './troubles.js';

const kEventRows = 50;
const kEventsAgainMs = 5_000;
// Metrics that have a plot of their own beside; packets say what the bit rate says.
const kNotPlotted = new Set(['packetsReceived', 'packets']);
const kOfMeter = 'meter.';  // names of the meter's measures begin so
const kOfPictures = 'picture.';
const kNotFound = 404;
const kFailures = 3;  // in a row without an answer, before anybody is told
const kNothing = {
  alarms: [],
  pids: [],
  checks: []
};
const kAroundMs = 10 * 60_000;  // events shown around a chosen time
const kNoSignal = 'no_signal';

// Whether packets come that the meter could judge.
function isJudged(alarms) {
  return !alarms.some(({alarm}) => alarm === kNoSignal);
}

export class ChannelView {
  constructor(root, context, parameters, group) {
    this.root = root;
    this.context = context;
    this.store = context.store;
    this.api = context.api;
    this.group = group;
    this.parameters = parameters;
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
    this.time?.close();
    this.alarms?.close();
    this.troubles?.close();
    this.concerns?.close();
    this.feed?.close();
  }

  begin() {
    this.build();
    this.ends.push(
        this.store.on('snapshot', () => this.turn()), this.store.on('alarms', () => this.changed()),
        this.store.on('overview', () => this.drawStrip()), onPaletteChange(() => this.drawStrip()),
        this.api.onToken(() => this.showControls()));
    const resizes = new ResizeObserver(() => {
      forgetSize(this.strip);
      this.drawStrip();
    });
    resizes.observe(this.strip);
    this.ends.push(() => resizes.disconnect());
    this.turn();
    this.loadEvents();
    this.time.show();
    this.showTime();
  }

  // Alarms came, went or were acknowledged.
  changed() {
    this.loadEvents();
    const raised = this.store.alarmsOf(this).map(({id}) => id).join();
    if (raised !== this.raised) this.time.plots.renewBands();
    this.raised = raised;
  }

  get at() {
    return this.time.at;
  }

  build() {
    this.sign = el('span', {class: 'sign', 'aria-hidden': 'true'});
    this.name = el('h1');
    this.state = el('span', {class: 'muted'});
    this.labels = el('span', {class: 'title-line'});
    this.controls = el('span', {class: 'actions small-controls'});
    this.troubles = new Troubles(this.store, this.group);
    this.title =
        el('div', {class: 'title-line'}, this.sign, this.name, this.state, this.labels, this.troubles.node,
           this.controls);
    this.problem = el('p', {class: 'panel', role: 'status', hidden: true});
    this.strip = el('canvas', {class: 'channel-strip', role: 'img'});
    this.picture = new Picture();
    this.pictureText = el('p', {class: 'note'});
    this.picturePart =
        el('div', {class: 'channel-picture', hidden: true}, this.picture.node, this.pictureText);
    this.facts = new Identity();
    this.lamps = new Lamps(this.store);
    this.pids = new Pids(this.store);
    this.alarms = new AlarmTable(this.context, false);
    this.events = new EventTable(this.context, false);
    this.time = new PlotPanel(this.context, this.group, this.parameters, () => this.chosen());
    this.feed = new MeterFeed(this.api, this.group, {
      report: (report, before, at) => this.showReport(report, before, at),
      silent: (reason) => this.silence(reason)
    });
    const {historyMetrics} = this.store.meta;
    const isOfPictures = ({name}) => name.startsWith(kOfPictures);
    this.historyPlots = this.time.plots.grid(historyMetrics.filter(
        (metric) =>
            !kNotPlotted.has(metric.name) && !metric.name.startsWith(kOfMeter) && !isOfPictures(metric)));
    // Of channels that pictures are taken of.
    this.picturePlots = this.time.plots.grid(
        historyMetrics.filter(isOfPictures).map((metric) => ({...metric, sparse: true})));
    this.picturePlots.hidden = true;
    this.nowNote = el('p', {
      class: 'note',
      hidden: true,
      text: 'Alarms, checks and PIDs are those of now, not of the chosen time.'
    });
    this.meterNote = el('p', {class: 'note', hidden: true});
    this.identity =
        el('div', {class: 'panel live-data identity'}, this.title, this.picturePart, this.facts.node,
           el('div', {}, el('p', {class: 'note', text: 'Last eight hours'}), this.strip));
    this.alarmPanel = this.panel('Active alarms', this.alarms.node);
    this.eventsTitle = el('h2', {text: 'Events'});
    this.eventPanel =
        el('section', {class: 'panel'}, el('div', {class: 'panel-head'}, this.eventsTitle), this.events.node);
    this.arrangeRecords();
    this.showControls();
  }

  // Without a meter: the probe's records are all there is.
  arrangeRecords() {
    this.nowPanels = [
      el('div', {class: 'view live-data'}, this.nowNote, this.alarmPanel,
         this.panel('TR 101 290', this.lamps.node)),
      el('div', {class: 'view live-data'}, this.panel('Programs and PIDs', this.pids.node)),
    ];
    this.time.place.replaceChildren(this.historyPlots, this.picturePlots);
    this.root.replaceChildren(
        el('div', {class: 'view'}, this.identity, this.problem, this.meterNote, this.nowPanels[0],
           this.time.node, this.nowPanels[1], this.eventPanel));
  }

  // With one: a panel a concern, and what the probe's records say in a panel of their own.
  arrangeConcerns() {
    const {concerns} = this;
    const pair = (...panels) => el('div', {class: 'pair'}, ...panels);
    const now = (...panels) => el('div', {class: 'view of-station'}, ...panels);
    const live = (...panels) => el('div', {class: 'view live-data'}, ...panels);
    this.nowPanels = [
      live(this.nowNote, this.alarmPanel),
      now(this.panel('What is wrong: TR 101 290', concerns.checks.node),
          this.panel('Services and streams', concerns.streams.node)),
      now(pair(this.panel('Pictures', concerns.pictures.node), this.panel('Cues', concerns.cues.node))),
    ];
    setText(this.nowNote, 'Plots and events are of the chosen time; all else is of now.');
    setText(this.time.title, 'Time line');
    this.time.place.replaceChildren(
        concerns.ratePlot, el('p', {class: 'note', text: 'Cues'}), concerns.cueLine.node, this.picturePlots);
    this.records = this.makeRecords(live(this.historyPlots, this.lamps.node, this.pids.node));
    this.root.replaceChildren(el(
        'div', {class: 'view'}, this.identity, this.problem, concerns.note, this.nowPanels[0],
        this.nowPanels[1], this.time.node,
        now(pair(
            this.panel('Loss and network', concerns.loss.node), this.panel('Clocks', concerns.clocks.node))),
        this.nowPanels[2], this.records, this.eventPanel));
    this.showTime();
  }

  // Folded up at first; what is in it has no size then, so that none of its plots is loaded. No <details>:
  // what that hides keeps its size.
  makeRecords(content) {
    const mark = el('span', {'aria-hidden': 'true'});
    const toggle = button('', () => {
      content.hidden = !content.hidden;
      show();
    }, {class: 'plain'});
    toggle.replaceChildren(mark, 'Records');
    const show = () => {
      setText(mark, content.hidden ? '▸ ' : '▾ ');
      setAttribute(toggle, 'aria-expanded', String(!content.hidden));
    };
    content.hidden = true;
    show();
    return el(
        'section', {class: 'panel records'}, el('h2', {}, toggle),
        el('p', {class: 'note', text: 'What the probe counts, by definitions of its own'}), content);
  }

  // Once a second.
  turn() {
    this.load();
    this.feed.turn();
    const {gone} = this.feed;
    this.meterNote.hidden = !gone;
    if (gone)
      setText(
          this.meterNote,
          `No meter is connected, so that what follows is from the probe's records alone: ${visible(gone)}`);
  }

  showReport(report, before, at) {
    this.report = report;
    if (!this.concerns) {
      this.concerns = new Concerns(this.api, this.store, this.group, this.time.plots);
      this.arrangeConcerns();
    }
    const alarms = this.detail?.alarms ?? [];
    this.concerns.update(report, before, at, isJudged(alarms), alarms);
    if (this.detail) this.facts.update(this.detail, report, this.store);
  }

  silence(reason) {
    this.report = null;
    this.concerns.silence(visible(reason), this.store.now(), this.detail?.alarms ?? []);
    if (this.detail) this.facts.update(this.detail, null, this.store);
  }

  panel(title, ...content) {
    return el(
        'section', {class: 'panel'}, el('div', {class: 'panel-head'}, el('h2', {text: title})), ...content);
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
        this.shownTime ?
            'This channel was removed. Its events stay, and its minutes come back if it is added again.' :
            error.message);
    setText(this.sign, sign(null));
    setClass(this.title, 'title-line is-waiting');
    setText(this.state, this.shownTime ? 'removed' : 'unknown');
    this.facts.forget();
    this.lamps.update(kNothing);
    this.pids.update(kNothing);
    this.alarms.update([]);
    this.time.node.hidden = true;
    this.controls.hidden = true;
    this.drawStrip();
  }

  // The newest one, with its time: how it looked then, whatever time was chosen.
  showPicture({picture}) {
    this.picturePart.hidden = this.picturePlots.hidden = !picture;
    if (!picture) return;
    const channel = this.store.channels.get(this.group) ?? {group: this.group};
    this.picture.show(
        this.store, {group: this.group}, picture.taken, this.store.value(channel, 'pictureNote'));
    const {width, height, loudness, taken} = picture;
    const parts = [
      taken ? `Picture of ${time(new Date(taken), this.store.now())}` : 'No picture yet',
      width ? `${width} × ${height}` : '', isKnown(loudness) ? `loudness ${loudness.toFixed(1)} LUFS` : '',
      picture.problem ? visible(picture.problem) : ''
    ];
    setText(this.pictureText, parts.filter(Boolean).join(' · '));
  }

  show(detail) {
    this.problem.hidden = true;
    this.showPicture(detail);
    this.failures = 0;
    this.shownTime = parseTime(detail.time);
    if (this.gone) {
      this.gone = false;
      this.time.node.hidden = this.controls.hidden = false;
      this.time.show();
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
    this.detail = detail;
    this.facts.update(detail, this.report, this.store);
    this.lamps.update(detail);
    this.pids.update(detail);
    this.alarms.update(detail.alarms);
    this.drawStrip();
  }

  drawStrip() {
    const {strip = '', stripBad} = this.store.channels.get(this.group) ?? {};
    drawStrip(this.strip, strip, stripBad);
    setAttribute(
        this.strip, 'aria-label',
        strip ? stripText(strip, this.store.meta.stripCells, stripBad) : 'no history yet');
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

  // Another time, or none, was chosen in the plots.
  chosen() {
    this.events.clear();
    this.loadEvents();
    this.showTime();
  }

  showTime() {
    const {at} = this;
    for (const panel of this.nowPanels) panel.classList.toggle('of-now', Boolean(at));
    setText(this.eventsTitle, at ? 'Events within ten minutes of the chosen time' : 'Events');
    this.nowNote.hidden = !at;
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
