// The page's one time zone: this browser's own, or UTC. What was chosen is kept by the browser, and stands in
// the address as "zone=utc".

const kKey = 'kestor-zone';
const kUtc = 'utc';

let utc = kept() === kUtc;

function kept() {
  try {
    return localStorage.getItem(kKey);
  } catch {  // the browser keeps nothing for this page
    return null;
  }
}

export function isUtc() {
  return utc;
}

export function setUtc(on) {
  utc = on;
  try {
    localStorage.setItem(kKey, on ? kUtc : 'local');
  } catch {
    // It holds for this tab.
  }
}

// "UTC", "CET", "GMT+5": of this date, since daylight saving gives a zone two names.
export function zoneName(date = new Date()) {
  if (utc) return 'UTC';
  const parts = new Intl.DateTimeFormat('en-GB', {timeZoneName: 'short'}).formatToParts(date);
  return parts.find(({type}) => type === 'timeZoneName')?.value ?? 'local';
}

// The date as the zone's clocks and calendars have it.
export function parts(date) {
  return utc ? {
    year: date.getUTCFullYear(),
    month: date.getUTCMonth() + 1,
    day: date.getUTCDate(),
    hour: date.getUTCHours(),
    minute: date.getUTCMinutes(),
    second: date.getUTCSeconds()
  } :
               {
                 year: date.getFullYear(),
                 month: date.getMonth() + 1,
                 day: date.getDate(),
                 hour: date.getHours(),
                 minute: date.getMinutes(),
                 second: date.getSeconds()
               };
}

// The moment at which the zone's clocks show this; fields beyond their range carry over, as in Date.
export function moment({year, month = 1, day = 1, hour = 0, minute = 0, second = 0}) {
  const fields = [year, month - 1, day, hour, minute, second];
  return utc ? new Date(Date.UTC(...fields)) : new Date(...fields);
}

// Of <input type="datetime-local">, which has no zone of its own; null where nothing was given.
export function fromInput(text) {
  const found = /^(\d+)-(\d\d)-(\d\d)T(\d\d):(\d\d)(?::(\d\d))?/.exec(text);
  if (!found) return null;
  const [year, month, day, hour, minute, second = 0] = found.slice(1).map((one) => Number(one ?? 0));
  return moment({year, month, day, hour, minute, second});
}
