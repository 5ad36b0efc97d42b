// Which channels the wall shows, and in which order.
import {compareValues, groupedBy} from './filter.js';
import {comparing} from './tableParts.js';

// Names of the orders, for the address and the choice.
export const kOrders = [['trouble', 'by trouble'], ['name', 'by name'], ['number', 'by number']];

const kWell = 1001;  // troubleRank()

// How much trouble a channel is in, less first: worst severity, not yet acknowledged before acknowledged, in
// maintenance last of its severity; then what nothing is known of, then what is well.
export function troubleRank(store, channel) {
  const state = store.value(channel, 'state');
  if (state === 'alarm') {
    const severity = store.meta ? store.meta.severities.indexOf(store.value(channel, 'severity')) : 0;
    const told = store.value(channel, 'unacknowledged') === 0 ? 1 : 0;
    return severity * 4 + (store.value(channel, 'maintenance') ? 2 : 0) + told;
  }
  if (state === 'disabled') return 1002;
  return state === 'ok' ? kWell : 1000;
}

const kNoNumber = Number.MAX_SAFE_INTEGER;

// What an order goes by besides trouble: a name of kOrders, "group", or a measure's.
const kTakes = {
  name: (channel) => channel.nameRank,
  number: (channel) => channel.info.number ?? kNoNumber,
  group: (channel) => channel.groupNumber,
};

// "name" and whether it goes the other way, of "-name".
export function readSort(sort) {
  const down = sort.startsWith('-');
  return {name: (down ? sort.slice(1) : sort) || 'trouble', down};
}

// Whether it changes by itself, as measures do.
export function isMoving(sort) {
  const {name} = readSort(sort);
  return name !== 'trouble' && !Object.hasOwn(kTakes, name);
}

// The channels that pass `filter` ({q, state, alarm, labels}; all may be left out), in the order of its
// `sort`.
export function arrange(store, filter) {
  const words = (filter.q ?? '').toLowerCase().split(/\s+/).filter(Boolean);
  const labels = byName(filter.labels ?? []);
  const list = [];
  for (const channel of store.channels.values()) {
    if (labels.some((texts) => !texts.some((text) => channel.labelTexts.includes(text)))) continue;
    if (words.some((word) => !channel.searchText.includes(word))) continue;
    if (filter.state && !passesState(store, channel, filter.state)) continue;
    if (filter.alarm && !store.alarmsOf(channel).some(({alarm}) => alarm === filter.alarm)) continue;
    list.push(channel);
  }
  const {name, down} = readSort(filter.sort ?? '');
  if (name !== 'trouble') {
    const take = Object.hasOwn(kTakes, name) ? kTakes[name] : (channel) => measureOf(store, channel, name);
    const compare = comparing(take, down);
    return list.sort((a, b) => compare(a, b) || a.groupNumber - b.groupNumber);
  }
  const turn = down ? -1 : 1;
  const ranks = new Map(list.map((channel) => [channel, troubleRank(store, channel)]));
  return list.sort((a, b) => turn * (ranks.get(a) - ranks.get(b)) || a.nameRank - b.nameRank);
}

// Groups of channels, {value of a label -> channels}, in the order of `sort`: by trouble the group in the
// worst first, of these the one with more channels in it; else by the values.
export function arrangeGroups(store, groups, sort) {
  const {name, down} = readSort(sort);
  const troubles = new Map([...groups].map(
      ([value, channels]) => [value, name === 'trouble' ? troubleOf(store, channels) : kNoTrouble]));
  const turn = down ? -1 : 1;
  const compare = (a, b) => {
    const [one, other] = [troubles.get(a), troubles.get(b)];
    return turn * (one.worst - other.worst || other.total - one.total) || compareValues(a, b);
  };
  return new Map([...groups].sort(([a], [b]) => compare(a, b)));
}

const kNoTrouble = {
  worst: kWell,
  total: 0
};

// The worst of several channels' ranks, and how many have it.
function troubleOf(store, channels) {
  const ranks = channels.map((channel) => troubleRank(store, channel));
  const worst = Math.min(...ranks);
  return worst >= kWell ? kNoTrouble : {worst, total: ranks.filter((rank) => rank === worst).length};
}

// Of a field that the address names, which may be none.
function measureOf(store, channel, name) {
  const value = store.measure(channel, name);
  return typeof value === 'number' || typeof value === 'string' ? value : null;
}

// Of several values of one label any will do; of each label one has to be there.
function byName(labels) {
  return [...groupedBy(labels, (label) => label.split('=', 1)[0]).values()];
}

function passesState(store, channel, state) {
  if (state === 'new') return store.value(channel, 'unacknowledged') > 0;
  return (store.value(channel, 'state') ?? 'waiting') === state;
}
