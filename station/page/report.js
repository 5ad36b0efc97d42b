// What a day, a week or a month was like, for those who were promised a service. Made to be printed.
import {titleOf, typeOf} from './alarmWords.js';
import {query} from './api.js';
import {button, el, setAttribute, setText} from './dom.js';
import {count, duration, isKnown, nameText, parseTime, quantity, time, visible} from './format.js';
import {isPeriod, kPeriods, periodOf} from './periods.js';
import {comparing, Heads} from './tableParts.js';
import {zoneName} from './zone.js';

const kMostOutages = 500;  // that are listed; the CSV has them all
const kMostLabels = 200;   // of values in the choice

const kReckoning =
    'Availability is available time by available time and outage together. An outage is time with "no ' +
    'signal" raised; seconds with errors are those of the available time in which another alarm was raised. ' +
    'Maintenance counts as neither, and time in which nothing was observed is told as unknown. Loss is packets ' +
    'lost by all that were to come, in the minutes of that time that the history has whole.';

// Down to what is certain: 99.9996 % is not 100 %.
export function percentText(value) {
  if (!isKnown(value)) return 'unknown';
  return value >= 100 ? '100 %' : `${(Math.floor(value * 1000) / 1000).toFixed(3)} %`;
}

// Of packets: the smallest loss is not none.
export function lossText(value) {
  if (!isKnown(value)) return '–';
  if (!value) return '0 %';
  return value < 0.0001 ? 'below 0.0001 %' : `${Number(value.toPrecision(2))} %`;
}

const seconds = (value) => (value ? duration(Math.round(value * 1000)) : '–');

const kTimes = [
  {text: 'Availability', name: 'availability', take: (one) => one.availabilityPercent, show: percentText},
  {text: 'Outages', name: 'outages', take: (one) => one.outages, show: count},
  {text: 'Out', name: 'out', take: (one) => one.outageSeconds, show: seconds},
  {text: 'With errors', name: 'errors', take: (one) => one.errorSeconds, show: seconds},
  {text: 'Maintenance', name: 'maintenance', take: (one) => one.maintenanceSeconds, show: seconds},
  {text: 'Unknown', name: 'unknown', take: (one) => one.unknownSeconds, show: seconds},
];
const kLongest = {
  text: 'Longest',
  name: 'longest',
  take: (one) => one.longestOutageSeconds,
  show: seconds
};
const kLosses = [
  {
    text: 'Loss, mean',
    name: 'loss',
    take: (one) => one.loss?.meanPercent,
    show: lossText,
  },
  {
    text: 'Worst minute',
    name: 'minute',
    take: (one) => one.loss?.worstMinutePercent,
    show: (value, {loss}) =>
        (value ? `${lossText(value)}, ${time(parseTime(loss.worstMinute)).slice(0, -3)}` : lossText(value)),
  },
];
const kChannelTimes = [...kTimes.slice(0, 3), kLongest, ...kTimes.slice(3), ...kLosses];
const kWorst = 'worst';

function worstFirst(a, b) {
  return comparing((one) => one.availabilityPercent)(a, b) || b.errorSeconds - a.errorSeconds ||
      b.outages - a.outages;
}

export class ReportView {
  constructor(root, context, parameters) {
    this.root = root;
    this.context = context;
    this.store = context.store;
    this.api = context.api;
    const kind = parameters.get('period');
    this.chosen = {
      period: isPeriod(kind) ? kind : 'day',
      at: parameters.get('at') ?? '',
      label: parameters.get('label') ?? '',
      sort: parameters.get('sort') ?? kWorst
    };
    this.asked = 0;
    this.build();
    this.ends =
        [this.store.on('channels', () => this.fillLabels()), this.store.on('meta', () => this.show())];
    this.fillLabels();
    this.load();
  }

  close() {
    this.asked = -1;
    for (const end of this.ends) end();
  }

  build() {
    this.periods = Object.keys(kPeriods).map(
        (name) => button(name, () => this.choose({period: name, at: ''}), {'data-period': name}));
    this.previous = button('‹', () => this.step(-1), {'aria-label': 'Before'});
    this.next = button('›', () => this.step(1), {'aria-label': 'After'});
    this.label = el('select', {'aria-label': 'Channels and totals'});
    this.label.addEventListener('change', () => this.choose({label: this.label.value}));
    this.csv = el('a', {download: '', text: 'Channels as CSV'});
    this.outageCsv = el('a', {download: '', text: 'Outages as CSV'});
    this.json = el('a', {download: 'report.json', text: 'JSON'});
    this.title = el('h1');
    this.time = el('p', {class: 'muted'});
    this.content = el('div', {class: 'view of-station', role: 'status'});
    this.root.replaceChildren(
        el('div', {class: 'view report'},
           el('div', {class: 'controls no-print'},
              el('span', {class: 'choices', role: 'group', 'aria-label': 'Time'}, ...this.periods),
              this.previous, this.next, this.label, button('Print', () => print()), this.csv, this.outageCsv,
              this.json),
           el('div', {}, this.title, this.time), this.content));
  }

  fillLabels() {
    const names = new Set();
    const values = new Set();
    for (const {info: {labels}, labelTexts} of this.store.channels.values()) {
      for (const name of Object.keys(labels)) names.add(name);
      for (const text of labelTexts) values.add(text);
    }
    if (this.chosen.label) (this.chosen.label.includes('=') ? values : names).add(this.chosen.label);
    this.label.hidden = names.size + values.size === 0;
    const option = (value, text) => el('option', {value, text: visible(text)});
    this.label.replaceChildren(
        option('', 'all channels'), ...[...names].sort().map((name) => option(name, `totals by ${name}`)),
        ...[...values].sort().slice(0, kMostLabels).map((text) => option(text, `only ${text}`)));
    this.label.value = this.chosen.label;
  }

  choose(change) {
    Object.assign(this.chosen, change);
    this.keepAddress();
    if ('sort' in change)
      this.show();
    else
      this.load();
  }

  keepAddress() {
    const {sort, ...others} = this.chosen;
    const chosen =
        Object.entries({...others, sort: sort === kWorst ? '' : sort}).filter(([, value]) => value);
    this.context.replaceAddress('report', chosen);
  }

  step(by) {
    this.choose({at: periodOf(this.chosen.period, this.period.at, by).at});
  }

  async load() {
    const now = this.store.now();
    this.period = periodOf(this.chosen.period, this.chosen.at, 0, now);
    const {since, until, name} = this.period;
    for (const node of this.periods)
      setAttribute(node, 'aria-pressed', String(node.dataset.period === this.chosen.period));
    const soFar = until > now;
    this.next.disabled = soFar;
    setText(this.title, `Report: ${name}`);
    const asked = {since: since.toISOString(), until: until.toISOString(), label: this.chosen.label};
    this.csv.href = this.api.url(`report?${query({...asked, format: 'csv'})}`);
    this.outageCsv.href = this.api.url(`report?${query({...asked, format: 'outages'})}`);
    this.json.href = this.api.url(`report?${query(asked)}`);
    const mine = ++this.asked;
    this.report = null;
    this.content.replaceChildren(el('p', {class: 'hint', text: 'Asking the station …'}));
    setText(this.time, '');
    try {
      if (since > now) throw new Error('This time is still to come.');
      const report = await this.api.get(`report?${query(asked)}`);
      if (mine !== this.asked) return;
      this.report = report;
      this.show();
    } catch (error) {
      if (mine === this.asked) this.content.replaceChildren(el('p', {class: 'hint', text: error.message}));
    }
  }

  show() {
    const {report} = this;
    if (!report) return;
    const [since, until] = [parseTime(report.since), parseTime(report.until)];
    const soFar = until < this.period.until ? ', so far' : '';
    const began =
        zoneName(since) === zoneName(until) ? '' : ` ${zoneName(since)}`;  // daylight saving begins or ends
    const station = this.store.meta?.instance;
    const only = this.chosen.label.includes('=') ? ` · channels with ${visible(this.chosen.label)}` : '';
    setText(
        this.time,
        `${station ? `${visible(station)} · ` : ''}${time(since, new Date(0))}${began} to ${
            time(until, new Date(0))} ${zoneName(until)}${soFar}${only}`);
    const panel = (title, ...content) => el(
        'section', {class: 'panel'}, el('div', {class: 'panel-head'}, el('h2', {text: title})), ...content);
    const parts = [panel('In all', this.totals(report.total))];
    if (report.byLabel.length) parts.push(panel(`By ${visible(report.label)}`, this.byLabel(report)));
    parts.push(
        panel('Channels', this.channels(report.channels)), panel('Outages', this.outages(report)),
        panel('Alarms of the channels', this.alarms(byType(report.channels, this.store), true)),
        panel('Alarms of the probe and this machine', this.alarms(report.alarms, false)),
        el('p', {class: 'note', text: kReckoning}));
    if (report.lossProblem)
      parts.push(el('p', {class: 'note', text: `Loss is not known: ${visible(report.lossProblem)}.`}));
    this.content.replaceChildren(...parts);
  }

  totals(total) {
    const facts = [
      ['Channels', count(total.channels)], ...kTimes.map(({text, take, show}) => [text, show(take(total))])
    ];
    return el(
        'dl', {class: 'facts'},
        ...facts.map(
            ([term, text], place) =>
                el('div', {}, el('dt', {text: term}), el('dd', {class: place === 1 ? 'big' : '', text}))));
  }

  byLabel({byLabel, label}) {
    const rows = byLabel.map(
        (one) =>
            el('tr', {}, el('th', {scope: 'row'}, el('bdi', {text: visible(one.value ?? 'without')})),
               el('td', {class: 'number', text: count(one.channels)}), ...cells(kTimes, one)));
    const heads = new Heads([{text: label}, {text: 'Channels', number: true}, ...numbers(kTimes)]);
    return table(heads, rows, 'Totals');
  }

  channels(list) {
    const [, down, name] = /^(-?)(.*)$/.exec(this.chosen.sort);
    const column = kChannelTimes.find((one) => one.name === name);
    const take = name === 'name' ? (one) => nameText(one.name, one.group) : column?.take;
    const sorted = [...list].sort(take ? comparing(take, Boolean(down)) : worstFirst);
    const rows = sorted.map(
        (one) =>
            el('tr', {},
               el('th', {scope: 'row'},
                  one.present ? channelLink(one) : el('bdi', {text: nameText(one.name, one.group)}),
                  one.present ? null : el('span', {class: 'note', text: ' removed'})),
               el('td', {class: 'wide-only', text: one.group}), ...cells(kChannelTimes, one)));
    const heads = new Heads(
        [{text: 'Name', name: 'name'}, {text: 'Group', wide: true}, ...numbers(kChannelTimes)],
        this.chosen.sort, (sort) => this.choose({sort}));
    return table(heads, rows, 'Channels');
  }

  outages({channels, outagesLeftOut}) {
    const all = channels.flatMap((channel) => channel.outageList.map((outage) => ({channel, ...outage})));
    all.sort((a, b) => (a.from < b.from ? 1 : -1));
    const left = outagesLeftOut + Math.max(0, all.length - kMostOutages);
    if (!all.length)
      return el('p', {class: 'muted', text: left ? `${count(left)}, too many to list.` : 'None.'});
    const at = (text) => (text ? time(parseTime(text), new Date(0)) : 'still raised');
    const rows =
        all.slice(0, kMostOutages)
            .map(
                ({channel, from, until, seconds: counted}) => el(
                    'tr', {}, el('th', {scope: 'row'}, channelLink(channel)),
                    el('td', {class: 'nowrap', text: at(from)}), el('td', {class: 'nowrap', text: at(until)}),
                    el('td', {class: 'number', text: seconds(counted)})));
    const heads =
        new Heads([{text: 'Channel'}, {text: 'From'}, {text: 'Until'}, {text: 'Counted', number: true}]);
    return el(
        'div', {}, table(heads, rows, 'Outages'),
        left ? el('p', {class: 'note', text: `${count(left)} more; the CSV has up to 20,000.`}) : null);
  }

  alarms(list, ofChannels) {
    if (!list.length) return el('p', {class: 'muted', text: 'None.'});
    const some = (cell) => (ofChannels ? [cell] : []);
    const rows = list.map(
        (one) =>
            el('tr', {}, el('th', {scope: 'row', text: titleOf(this.store, one)}),
               ...some(el('td', {class: 'number', text: count(one.channels)})),
               el('td', {class: 'number', text: count(one.count)}),
               el('td', {class: 'number', text: seconds(one.seconds)}),
               el('td', {class: 'number', text: seconds(one.longestSeconds)}), el('td', {
                 class: 'number',
                 text: isKnown(one.worst) && one.unit ? quantity(one.worst, one.unit) : ''
               })));
    const heads = new Heads([
      {text: 'Alarm'}, ...some({text: 'Channels', number: true}), {text: 'Times', number: true},
      {text: 'Together', number: true}, {text: 'Longest', number: true}, {text: 'Worst', number: true}
    ]);
    return table(heads, rows, ofChannels ? 'Alarms by type' : 'Alarms of the probe by type');
  }
}

// Alarms of all channels, by type; what lasted longest in all first.
function byType(channels, store) {
  const sums = new Map();
  for (const one of channels.flatMap(({alarms}) => alarms)) {
    const sum = sums.get(one.alarm);
    if (!sum) {
      sums.set(one.alarm, {...one, channels: 1});
      continue;
    }
    const isLow = typeOf(store, one)?.kind === 'low';
    const both = [sum.worst, one.worst].filter(isKnown);
    sum.channels++;
    sum.count += one.count;
    sum.seconds += one.seconds;
    sum.longestSeconds = Math.max(sum.longestSeconds, one.longestSeconds);
    sum.worst = both.length ? Math[isLow ? 'min' : 'max'](...both) : null;
  }
  return [...sums.values()].sort((a, b) => b.seconds - a.seconds || b.count - a.count);
}

function channelLink({group, name}) {
  return el('a', {href: `#channel/${group}`}, el('bdi', {text: nameText(name, group)}));
}

const numbers = (columns) => columns.map(({text, name}) => ({text, name, number: true}));

const cells = (columns, one) =>
    columns.map(({take, show}) => el('td', {class: 'number', text: show(take(one), one)}));

function table(heads, rows, label) {
  return el(
      'div', {class: 'scroll', tabindex: '0', role: 'region', 'aria-label': label},
      el('table', {}, el('thead', {}, heads.node), el('tbody', {}, ...rows)));
}
