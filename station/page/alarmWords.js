// Alarms in words: what is wrong, since when, how bad, and what to look at. What types there are, their
// titles and what to look at come with the API.
import {count, isKnown, parseTime, quantity, roughly, time, visible, words} from './format.js';

const kLevels = new Set(['high', 'low']);
const kCounters = new Set(['counter']);
const kSecondLength = 'YYYY-MM-DDThh:mm:ss'.length;

export function typeOf(store, alarm) {
  return store.meta?.alarmTypes.find(({name}) => name === alarm.alarm) ?? null;
}

// "No signal".
export function titleOf(store, alarm) {
  return visible(typeOf(store, alarm)?.title ?? words(alarm.alarm));
}

// Within a sentence: "no signal"; "PAT missing or late" keeps its capitals.
export function titleWithin(store, alarm) {
  const title = titleOf(store, alarm);
  return /^[A-Z][a-z]/.test(title) ? title[0].toLowerCase() + title.slice(1) : title;
}

export function ageOf(store, alarm) {
  return Math.max(0, store.now() - parseTime(alarm.raised));
}

// "no signal, 57 min".
export function sinceText(store, alarm) {
  return `${titleWithin(store, alarm)}, ${roughly(ageOf(store, alarm))}`;
}

// What is measured, with its unit and, for what is counted, its window: "3.10 Mbit/s", "37 in 10 s". Empty
// where there is no measure: a condition holds or not.
export function valueText(store, alarm, value = alarm.value) {
  const kind = typeOf(store, alarm)?.kind;
  if (kLevels.has(kind)) return quantity(value, alarm.unit);
  if (kCounters.has(kind)) {
    const number = quantity(value, alarm.unit);
    return alarm.windowSeconds ? `${number} in ${count(alarm.windowSeconds)} s` : number;
  }
  return kind === 'absence' ? quantity(value, 's') : '';
}

// What the value is held against: "above 20.0 Mbit/s", "100 in 10 s". Empty where there is nothing.
export function levelText(store, alarm) {
  if (!isKnown(alarm.level)) return '';
  const kind = typeOf(store, alarm)?.kind;
  if (kind === 'high') return `above ${quantity(alarm.level, alarm.unit)}`;
  if (kind === 'low') return `below ${quantity(alarm.level, alarm.unit)}`;
  return valueText(store, alarm, alarm.level);
}

// How bad in the space of a tile: "3.10 of 4.00 Mbit/s", "37 in 10 s".
export function shortly(store, alarm) {
  const value = valueText(store, alarm);
  if (!value || !isKnown(alarm.level) || !kLevels.has(typeOf(store, alarm)?.kind)) return value;
  const level = quantity(alarm.level, alarm.unit);
  const [, number, unit] = /^(\S+) (.*)$/.exec(value) ?? [];
  return unit && level.endsWith(` ${unit}`) ? `${number}, level ${level}` : `${value}, level ${level}`;
}

function rankOf(store, alarm) {
  const rank = store.meta?.severities.indexOf(alarm.severity) ?? 0;
  return rank < 0 ? Infinity : rank;
}

// Nobody has to look at it: somebody said so.
export function isQuiet({acknowledged, shelved}) {
  return Boolean(acknowledged || shelved);
}

// "shelved until 23:00 by Ada: flaps"; empty for an alarm that is not.
export function shelvedText(store, {shelved}) {
  if (!shelved) return '';
  const by = shelved.by ? ` by ${visible(shelved.by)}` : '';
  const remark = shelved.remark ? `: ${visible(shelved.remark)}` : '';
  return `shelved until ${time(parseTime(shelved.until), store.now())}${by}${remark}`;
}

// What the alarms of an incident share: "site=north", "this machine".
export function sharedText(store, {shared}) {
  if (shared.kind === 'label') return `${visible(shared.name)}=${visible(shared.value)}`;
  if (shared.kind === 'machine') return 'this machine';
  if (shared.kind === 'sender') return `sender ${visible(shared.value)}`;
  return visible(store.channels.get(shared.value)?.name ?? shared.value);
}

// Worst first: by severity, those that somebody has to look at, then the newest; those of one second by the
// channels' names.
export function worstFirst(store) {
  const second = ({raised}) => raised.slice(0, kSecondLength);
  const name = ({group}) => store.channels.get(group)?.nameRank ?? -1;
  return (a, b) => rankOf(store, a) - rankOf(store, b) || Number(isQuiet(a)) - Number(isQuiet(b)) ||
      (second(a) < second(b)     ? 1 :
           second(a) > second(b) ? -1 :
                                   name(a) - name(b) || b.id - a.id);
}

// The one of several that matters most; null for none.
export function worstOf(store, alarms) {
  const compare = worstFirst(store);
  return alarms.reduce((worst, one) => (!worst || compare(one, worst) < 0 ? one : worst), null);
}
