// What the page knows: filled by the event stream, read by the views.
//
// Topics that can be listened to: "channels" (set, names, labels), "snapshot" (each second), "alarms",
// "overview" (strips and sparklines were loaded), "connection" (live or not), "back" (live again), "meta".
//
// While no event stream comes, what is needed is asked for every few seconds instead. What nobody has told is
// null, and is shown as unknown.
import {isQuiet} from './alarmWords.js';
import {groupedBy} from './filter.js';
import {isKnown, nameText, parseTime} from './format.js';
import {hasSignal} from './state.js';
import {EventStream} from './stream.js';

export const kSparkCells = 60;
const kSparkMs = 5_000;         // of a cell
const kStripReloadMs = 60_000;  // a strip's cell is five minutes
const kHelloMs = 20_000;
const kWorkerAnswerMs = 3_000;
const kAskFirstMs = 1_000;  // a stream comes sooner
const kAskMs = 5_000;
const kOfMeter = ['codec', 'resolution', 'lastCue'];  // fields that the meter fills
const kAnswerIsOldMs = 3 * kAskMs;

const names = new Intl.Collator(undefined, {numeric: true, sensitivity: 'base'});

function groupNumber(group) {
  return group.split('.').reduce((number, part) => number * 256 + Number(part), 0);
}

// One channel. `info` is the API's description; `row` the newest snapshot's row, null without one; `told` the
// newest answer, which holds where there is no row.
class Channel {
  constructor(info) {
    this.group = info.group;
    this.groupNumber = groupNumber(info.group);
    this.row = null;
    this.spark = new Float32Array(kSparkCells).fill(NaN);
    this.strip = '';
    this.stripBad = new Map();  // place in the strip -> bad seconds
    this.describe(info);
  }

  describe(info) {
    this.info = info;
    this.told = info;
    const labels = Object.entries(info.labels).map(([key, value]) => `${key}=${value}`);
    this.name = nameText(info.name, info.group);
    this.searchText = [info.name, info.group, ...labels].join('\n').toLowerCase();
    this.labelTexts = labels;
  }
}

export class Store {
  constructor(api) {
    this.api = api;
    this.listeners = new Map();
    this.channels = new Map();      // by group
    this.alarms = null;             // active ones
    this.incidents = new Map();     // by ID
    this.passedGroups = new Set();  // with alarms that cleared and that nobody acknowledged
    this.passedVersion = '';        // of the list of these, in /api/v1/passed
    this.alarmsByGroup = new Map();
    this.meta = null;
    this.probe = null;
    this.alarmCounts = null;  // by severity
    this.index = {};          // name of a field -> its place in a row
    this.number = -1;
    this.connection = {live: false, since: Date.now()};
    this.answered = 0;  // when the station last said what the stream does not, ms since the epoch; 0: never
    this.wasLive = false;
    this.clockAhead = 0;  // ms that the station's clock is ahead of this browser's
    this.sparkSlot = 0;
    this.sparkSum = new Map();
    this.channelsVersion = null;
    this.loaded = false;
    this.isMetered = false;   // a meter says, or said, what a channel is
    this.isPictured = false;  // pictures are taken, or were
  }

  on(topic, listener) {
    if (!this.listeners.has(topic)) this.listeners.set(topic, new Set());
    this.listeners.get(topic).add(listener);
    return () => this.listeners.get(topic).delete(listener);
  }

  tell(topic) {
    for (const listener of this.listeners.get(topic) ?? []) listener();
  }

  // The time by the station's clock.
  now() {
    return new Date(Date.now() + this.clockAhead);
  }

  // What the newest snapshot, or the newest answer, says of the channel; null while nothing is known.
  value(channel, field) {
    if (field === 'passed') return this.passedGroups.has(channel.group);
    if (channel.row) return channel.row[this.index[field]] ?? null;
    if (field === 'unacknowledged' && this.alarms)
      return this.alarmsOf(channel).filter((alarm) => !isQuiet(alarm)).length;
    return channel.told?.[field] ?? null;
  }

  alarmsOf(channel) {
    return this.alarmsByGroup.get(channel.group) ?? [];
  }

  // A measure of the channel; null while nothing comes that could be measured.
  measure(channel, field) {
    const lastSeen = this.value(channel, 'lastSeen');
    return hasSignal({lastSeen}, this.alarmsOf(channel)) ? this.value(channel, field) : null;
  }

  // Units and meanings of stream columns and history metrics, by name.
  unit(name) {
    return this.units?.get(name) ?? '';
  }

  // Whether the station tells what is, by its stream or by answers.
  get told() {
    return this.connection.live || Date.now() - this.answered < kAnswerIsOldMs;
  }

  // Whether what is shown may be old: why, and since when; null while all is well.
  stale() {
    if (!this.told) {
      const since = Math.max(this.wasLive ? this.connection.since : 0, this.answered);
      return {who: 'station', since: since ? new Date(since) : null};
    }
    if (this.probe && !this.probe.connected) return {who: 'probe', since: parseTime(this.probe.lastSnapshot)};
    return null;
  }

  start() {
    this.connect();
    this.loadChannels();
    this.loadMeta();
    this.loadOverview();
    setInterval(() => {
      if (this.connection.live && !document.hidden) this.loadOverview();
    }, kStripReloadMs);
    document.addEventListener('visibilitychange', () => {
      if (!document.hidden) this.loadOverview();
    });
    setTimeout(() => this.ask(), kAskFirstMs);
  }

  // What the stream would tell.
  async ask() {
    if (!this.connection.live && !document.hidden) {
      try {
        const [status, alarms, channels, incidents, passed] = await Promise.all(
            ['status', 'alarms', 'channels', 'incidents', 'passed'].map((path) => this.api.get(path)));
        if (!this.connection.live) this.takeAnswers(status, alarms, channels, incidents, passed);
      } catch {  // stale() says so
        this.tell('connection');
      }
    }
    setTimeout(() => this.ask(), kAskMs);
  }

  takeAnswers(status, alarms, channels, incidents, passed) {
    this.answered = Date.now();
    for (const channel of this.channels.values()) channel.row = null;
    this.takeChannels(channels);
    this.takeStatus(status);
    this.takeAlarms(alarms, incidents, {
      version: passed.map(({id}) => id).join(),
      groups: passed.map(({group}) => group),
    });
    this.fillSparks();
    this.tell('snapshot');
    this.tell('connection');
  }

  // What status and snapshots have in common.
  takeStatus(data) {
    this.number = data.number;
    this.time = new Date(data.time);
    this.clockAhead = this.time.getTime() - Date.now();
    this.probe = data.probe;
    this.alarmCounts = data.alarms;
  }

  // One stream for all tabs, by a shared worker; where there is none, a stream of this tab's own.
  connect() {
    const url = this.api.url('stream');
    const alone = () => {
      this.stream = new EventStream(
          url, (name, text) => this.heard(name, text), (connection) => this.connected(connection));
    };
    let answered = false;
    let worker;
    try {
      worker = new SharedWorker(new URL('./streamWorker.js', import.meta.url), {type: 'module', name: url});
    } catch {  // there are none in this browser, or none are allowed
      alone();
      return;
    }
    const fallBack = () => {
      if (!answered && !this.stream) alone();
    };
    worker.addEventListener('error', fallBack);
    setTimeout(fallBack, kWorkerAnswerMs);
    worker.port.onmessage = ({data}) => {
      answered = true;
      if (this.stream) {  // it was only late
        if (!data.connection?.live) return;
        this.stream.close();
        this.stream = null;
      }
      if (data.connection)
        this.connected(data.connection);
      else
        this.heard(data.name, data.text);
    };
    const hello = () => worker.port.postMessage('hello');
    hello();
    setInterval(hello, kHelloMs);
    addEventListener('pagehide', () => worker.port.postMessage('leave'));
    addEventListener('pageshow', hello);
  }

  connected(connection) {
    const back = connection.live && !this.connection.live && this.wasLive;
    this.connection = connection;
    this.wasLive ||= connection.live;
    if (back && this.loaded) {  // the station may be another one since
      this.channelsVersion = null;
      this.loadMeta();
      this.loadOverview();
      this.tell('back');
    }
    this.tell('connection');
  }

  heard(name, text) {
    const data = JSON.parse(text);
    if (name === 'snapshot')
      this.takeSnapshot(data);
    else if (name === 'alarm')
      this.takeAlarms(data.alarms, data.incidents, data.passed);
    else if (name === 'channels' && data.version !== this.channelsVersion) {
      this.channelsVersion = data.version;
      this.loadChannels();
    }
  }

  takeSnapshot(data) {
    this.takeStatus(data);
    if (data.fields.join() !== this.fieldNames) {
      this.fieldNames = data.fields.join();
      this.index = Object.fromEntries(data.fields.map((field, place) => [field, place]));
    }
    this.isMetered ||= data.channels.some((row) => kOfMeter.some((field) => isKnown(row[this.index[field]])));
    this.isPictured ||= data.channels.some(
        (row) => isKnown(row[this.index.pictureTaken]) || isKnown(row[this.index.pictureNote]));
    const before = new Set(this.channels.keys());
    for (const row of data.channels) {
      const channel = this.channels.get(row[0]);
      if (!channel) continue;  // its description is on the way
      channel.row = row;
      before.delete(row[0]);
    }
    for (const group of before) {
      const channel = this.channels.get(group);
      channel.row = channel.told = null;
    }
    this.fillSparks();
    this.tell('snapshot');
  }

  // Sparklines go on from what was loaded: each cell is the mean of its five seconds.
  fillSparks() {
    const slot = Math.floor(this.time.getTime() / kSparkMs);
    const steps = this.sparkSlot ? Math.min(kSparkCells, Math.max(0, slot - this.sparkSlot)) : 0;
    this.sparkSlot = slot;
    for (const channel of this.channels.values()) {
      if (steps > 0) {
        channel.spark.copyWithin(0, steps).fill(NaN, kSparkCells - steps);
        channel.sparkSum = 0;
        channel.sparkCount = 0;
      }
      const value = this.measure(channel, 'bitRate');
      if (!isKnown(value) || !this.probe.connected) continue;
      channel.sparkSum = (channel.sparkSum ?? 0) + value;
      channel.sparkCount = (channel.sparkCount ?? 0) + 1;
      channel.spark[kSparkCells - 1] = channel.sparkSum / channel.sparkCount;
    }
  }

  takeAlarms(alarms, incidents, passed) {
    this.alarms = alarms;
    this.incidents = new Map(incidents.map((incident) => [incident.id, incident]));
    this.passedGroups = new Set(passed.groups);
    // A station that started again counts anew.
    this.passedVersion = `${this.connection.since} ${passed.version}`;
    this.alarmsByGroup = groupedBy(alarms, ({group}) => group);
    this.tell('alarms');
  }

  // One request at a time; what changes meanwhile is asked for once that one is shown.
  async loadChannels() {
    if (this.channelsAsked) {
      this.channelsAgain = true;
      return;
    }
    this.channelsAsked = true;
    this.channelsAgain = false;
    let list = null;
    try {
      list = await this.api.get('channels');
    } catch {
      this.channelsVersion = null;  // the next connection asks again
      if (!this.loaded) setTimeout(() => this.loadChannels(), 2_000);
    }
    this.channelsAsked = false;
    if (list) this.takeChannels(list);
    if (this.channelsAgain) this.loadChannels();
  }

  takeChannels(list) {
    this.isMetered ||= list.some((info) => kOfMeter.some((field) => isKnown(info[field])));
    const gone = new Set(this.channels.keys());
    for (const info of list) {
      gone.delete(info.group);
      const channel = this.channels.get(info.group);
      if (channel)
        channel.describe(info);
      else
        this.channels.set(info.group, new Channel(info));
    }
    for (const group of gone) this.channels.delete(group);
    this.rankNames();
    this.loaded = true;
    this.tell('channels');
    if (this.overview) this.takeOverview(this.overview);
  }

  // Comparing names is slow: it is done once for a set, and sorting compares ranks.
  rankNames() {
    const list = [...this.channels.values()];
    list.sort((a, b) => names.compare(a.name, b.name) || a.groupNumber - b.groupNumber);
    list.forEach((channel, rank) => {
      channel.nameRank = rank;
    });
  }

  async loadMeta() {
    try {
      this.meta = await this.api.get('meta');
    } catch {
      if (!this.meta) setTimeout(() => this.loadMeta(), 2_000);
      return;
    }
    this.units = new Map(this.meta.historyMetrics.map((metric) => [metric.name, metric.unit]));
    for (const column of this.meta.columns.stream) this.units.set(column.name, column.unit);
    this.tell('meta');
  }

  async loadOverview() {
    if (this.overviewAsked) return;
    this.overviewAsked = true;
    try {
      this.takeOverview(await this.api.get(`overview?cells=${kSparkCells}&seconds=${kSparkMs / 1000}`));
      this.overviewLoaded = true;
    } catch {  // the strips stay as they are until the next time
      if (!this.overviewLoaded) setTimeout(() => this.loadOverview(), 2_000);
    } finally {
      this.overviewAsked = false;
    }
  }

  // May come before the channels do, and is kept until then.
  takeOverview(overview) {
    this.overview = this.loaded ? null : overview;
    if (!this.loaded) return;
    for (const {group, spark, strip, stripBad} of overview.channels) {
      const channel = this.channels.get(group);
      if (!channel) continue;
      const never = parseTime(this.value(channel, 'lastSeen')) === null;
      for (let cell = 0; cell < kSparkCells; cell++) channel.spark[cell] = never ? NaN : spark[cell] ?? NaN;
      channel.strip = strip;
      channel.stripBad = new Map(stripBad);
    }
    this.tell('overview');
  }
}
