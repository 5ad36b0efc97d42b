// What everybody has to know, a line each: that nothing comes, or not by the stream; that nobody is told.
import {el, setClass, setText} from './dom.js';
import {duration, parseTime, time, visible} from './format.js';
import {zoneName} from './zone.js';

const kPatienceMs = 1_500;  // the first connection may take that long before anybody is told
const kReceiversMs = 10_000;
const kDeliveryFailing = 'delivery_failing';
const kOutlived = 'The station has another version of this page. Load it anew.';

export class Banner {
  constructor({store, api}) {
    this.store = store;
    this.api = api;
    this.started = Date.now();
    this.receivers = [];    // that fail, as /api/v1/use has them
    this.outlived = false;  // the station has another page than this one
    this.node = document.getElementById('banner');
    this.clock = document.getElementById('connection');
    this.zone = document.getElementById('zone');
    store.on('snapshot', () => this.show());
    store.on('connection', () => this.show());
    store.on('alarms', () => this.loadReceivers());
    setInterval(() => {
      if (this.lines().length) this.show();
    }, 1_000);
    setInterval(() => {
      if (!document.hidden) this.loadReceivers();
    }, kReceiversMs);
  }

  lines() {
    const {store} = this;
    const lines = [];
    const stale = store.stale();
    const problem = store.told && store.probe?.problem ? visible(store.probe.problem) : '';
    if (stale)
      lines.push(this.staleLine(stale, problem));
    else if (problem)
      lines.push(problem);
    const machine = store.told && store.probe?.machineProblem;
    if (machine) lines.push(visible(machine));
    if (!store.connection.live && store.told) {
      lines.push(
          `The event stream does not come; asked at ${time(new Date(store.answered))} instead. ` +
          'A proxy in between may hold it back.');
    }
    lines.push(...this.failingDeliveries());
    if (this.outlived) lines.push(kOutlived);
    return lines;
  }

  staleLine({who, since: begin}, problem) {
    const now = who === 'station' ? Date.now() : this.store.now();
    const age = begin ? duration(Math.max(1000, Math.floor((now - begin) / 1000) * 1000)) : '';
    const since = begin ? ` since ${time(begin)} (${age})` : ' yet';
    return who === 'station' ?
        `No data from the station${since}. Trying again.` :
        `No data from the probe${since}.${begin ? ' What is shown is old.' : ''} ${problem}`.trim();
  }

  // Live, or since when not: in words in the banner, and as a look of everything that comes from the stream.
  show() {
    const {store, node} = this;
    const stale = store.stale();
    document.documentElement.dataset.stale = stale ? stale.who : '';
    setClass(this.clock, stale ? 'lost' : 'live');
    setText(this.clock, stale ? 'no data' : store.time ? time(store.time, store.time) : '');
    setText(this.zone, zoneName(store.now()));
    const lines = this.lines();
    while (node.children.length > lines.length) node.lastChild.remove();
    while (node.children.length < lines.length) node.append(el('p'));
    lines.forEach((line, place) => setText(node.children[place], line));
    node.hidden = !lines.length || Date.now() - this.started < kPatienceMs;
  }

  // Whom nobody tells of alarms. The alarm says that it is so, and the station's use which it is and why.
  failingDeliveries() {
    const {store} = this;
    const alarm = store.alarms?.find((one) => one.alarm === kDeliveryFailing);
    if (!alarm) return [];
    const since = `since ${time(parseTime(alarm.raised), store.now())}`;
    if (!this.receivers.length)
      return [`A webhook fails ${since}: nobody is told of alarms by it. See Watcher.`];
    return this.receivers.map(
        ({name, url, lastProblem}) => `Webhook ${visible(name)} (${visible(url)}) is told of no alarm ${
            since}: ${visible(lastProblem ?? 'it fails')}`);
  }

  async loadReceivers() {
    if (!this.store.alarms?.some(({alarm}) => alarm === kDeliveryFailing)) {
      this.receivers = [];
    } else {
      try {
        this.receivers = (await this.api.get('use')).delivery.filter(({failingSince}) => failingSince);
      } catch {
        // The line without their names has to do.
      }
    }
    this.show();
  }
}
