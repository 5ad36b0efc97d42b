// What the meter measures of a channel, panel by panel: what is wrong, what it is, what is lost, how its
// clocks run, its pictures, its cues.
import {Checks} from './checks.js';
import {Clocks} from './clocks.js';
import {CueLine} from './cueLine.js';
import {Cues} from './cues.js';
import {el, setText} from './dom.js';
import {isKnown, time} from './format.js';
import {Loss} from './loss.js';
import {Pictures} from './pictures.js';
import {RateStack, Series} from './series.js';
import {Streams} from './streams.js';
import {ToldCues} from './toldCues.js';

// Of several clocks the one that is worst.
function worst(report, take) {
  const values = report.clocks.map(take).filter(isKnown);
  return values.length ? values.reduce((a, b) => (Math.abs(b) > Math.abs(a) ? b : a)) : null;
}

const whole = (value) => (isKnown(value) ? Math.round(value) : null);

function lostSince(report, before) {
  const [after, earlier] = [report, before].map((one) => one?.packets.lost.packets);
  return isKnown(after) && isKnown(earlier) ? Math.max(0, after - earlier) : null;
}

// Names, and units, as the station has them: what it keeps a history of is drawn from there.
const kLossPlots = [
  {
    name: 'meter.packetsLost',
    title: 'Packets lost',
    unit: 'packet',
    counter: true,
    meaning: 'Each second, by what tells most: RTP, the clock or continuity counters',
    take: lostSince
  },
  {
    name: 'meter.delayFactor',
    title: 'Delay factor',
    unit: 'ms',
    meaning: 'Buffer that takes up the network\'s jitter, in time; RFC 4445',
    take: ({network}) => network?.mdi.delayFactorMs
  },
  {
    name: 'meter.interArrivalHighest',
    title: 'Longest wait for a datagram',
    unit: 'ms',
    meaning: 'Of each second',
    take: ({network}) => network?.interArrivalMs.highest
  },
];
const kClockPlots = [
  {
    name: 'meter.pcrAccuracy',
    title: 'Accuracy',
    unit: 'ns',
    meaning: 'PCR_AC: worst of the last block; the network has no part in it',
    take: (report) =>
        worst(report, ({accuracy}) => (accuracy.applicable ? whole(accuracy.lastWorstNs) : null))
  },
  {
    name: 'meter.pcrJitter',
    title: 'Overall jitter',
    unit: 'ms',
    meaning: 'PCR_OJ: arrival against the clock, in each second',
    take: (report) =>
        worst(report, ({overallJitterNs}) => (isKnown(overallJitterNs) ? overallJitterNs / 1e6 : null))
  },
  {
    name: 'meter.pcrOffset',
    title: 'Frequency offset',
    unit: 'ppm',
    meaning: 'PCR_FO: positive where the program\'s clock is fast',
    take: (report) => worst(report, ({frequencyOffsetPpm}) => frequencyOffsetPpm)
  },
];

export class Concerns {
  constructor(api, store, group, plots) {
    this.store = store;
    this.told = new ToldCues(api, store, group);
    this.plots = plots;
    this.rates = new RateStack();
    this.series = [this.rates];
    this.checks = new Checks(store);
    this.streams = new Streams(this.rates);
    this.cueLine = new CueLine(plots);
    this.loss = new Loss();
    this.clocks = new Clocks();
    this.pictures = new Pictures();
    this.cues = new Cues(store);
    this.note = el('p', {class: 'panel', role: 'status', hidden: true});
    this.ratePlot = plots.grid([{
      name: 'rates',
      title: 'Bit rate by PID',
      unit: 'bit/s',
      meaning: 'Of the stream and its PIDs, each second',
      stack: this.rates
    }]);
    this.ratePlot.classList.add('wide');
    this.loss.plots.append(plots.grid(kLossPlots.map((metric) => this.keep(metric))));
    this.clocks.plots.append(plots.grid(kClockPlots.map((metric) => this.keep(metric))));
  }

  // A plot's metric: from the station's history where there is one, else from what the page keeps of reports.
  keep(metric) {
    const known = this.store.meta.historyMetrics.find(({name}) => name === metric.name);
    if (known) return {...known, ...metric, unit: known.unit, counter: known.counter};
    const series = new Series(metric.take);
    this.series.push(series);
    return {...metric, series};
  }

  close() {
    for (const part of [this.cueLine, this.loss, this.pictures]) part.close();
  }

  // `detail`: the channel as the API describes it, for what is raised and whether packets come.
  update(report, before, at, judged, alarms) {
    this.note.hidden = !report?.live?.disturbed;
    setText(
        this.note,
        'This machine drops packets, or captured none: losses may be its own. See Watcher, Meter.');
    this.shownAt = at;
    this.show(report, judged, alarms);
    for (const series of this.series) series.add(at, report, before);
    this.plots.refresh();
  }

  // Nothing is known any more, for this reason.
  silence(reason, at, alarms) {
    this.note.hidden = false;
    const last = this.shownAt ? ` Its last report is of ${time(this.shownAt, at)}.` : '';
    setText(
        this.note,
        `The meter tells nothing of this channel: ${reason.replace(/\.?$/, '.')}${
            last} What it measures is unknown; the probe's records are below.`);
    this.show(null, false, alarms);
    for (const series of this.series) series.add(at, null, null);
    this.plots.refresh();
  }

  show(report, judged, alarms) {
    this.checks.update(report, judged, alarms);
    for (const part of [this.streams, this.loss, this.clocks, this.pictures]) part.update(report);
    this.told.turn();
    const cues = this.told.with(report);
    this.cues.update(report, cues);
    this.cueLine.update(cues);
  }
}
