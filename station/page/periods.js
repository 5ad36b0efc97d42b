// Days, weeks and months as the page's zone has them.
import {day as dayText} from './format.js';
import {moment, parts} from './zone.js';

// The begin of the period that a date lies in, and of the one that is so many further on.
export const kPeriods = {
  day: ({year, month, day}, by) => moment({year, month, day: day + by}),
  week: ({year, month, day}, by) => {
    const weekday = new Date(Date.UTC(year, month - 1, day)).getUTCDay();  // 0: Sunday
    return moment({year, month, day: day - (weekday + 6) % 7 + 7 * by});
  },
  month: ({year, month}, by) => moment({year, month: month + by}),
};

export function isPeriod(name) {
  return Object.hasOwn(kPeriods, name ?? '');
}

// The period of this kind that has the day `at` ("2026-11-21"; today where it is none), or one `by` so many
// further on: {at, since, until, name}.
export function periodOf(kind, at, by = 0, now = new Date()) {
  const [, ...found] = /^(\d{4})-(\d\d)-(\d\d)$/.exec(at) ?? [];
  const [year, month, day] = found.map(Number);
  const date = found.length ? {year, month, day} : parts(now);
  const since = kPeriods[kind](date, by);
  const until = kPeriods[kind](parts(since), 1);
  const first = dayText(since);
  const names = {
    day: first,
    week: `${first} to ${dayText(new Date(until.getTime() - 1))}`,
    month: first.slice(0, 7)
  };
  return {at: first, since, until, name: names[kind]};
}
