// What is said about alarms, one or many, in one call: acknowledged or not, shelved, in maintenance.
import {ask, byInput, inUtc, oneLine, rememberBy} from './dialog.js';
import {button, el} from './dom.js';
import {localInput} from './format.js';
import {chosen} from './selection.js';
import {zoneName} from './zone.js';

const kHourMs = 3_600_000;

const kActions = {
  acknowledge: {text: 'Acknowledge', path: 'alarms/acknowledge'},
  unacknowledge: {text: 'Take the acknowledgement back', path: 'alarms/unacknowledge'},
  shelve: {text: 'Shelve: tell nobody until a time', path: 'alarms/shelve', until: true},
  unshelve: {text: 'Take off the shelf', path: 'alarms/unshelve'},
  maintain: {text: 'Maintenance of their channels until a time', path: 'maintenance', until: true},
};

export function askHandling(api, alarms, incident = null) {
  const shelved = alarms.some((alarm) => alarm.shelved);
  const told = alarms.some(({acknowledged}) => acknowledged);
  const offered = Object.entries(kActions).filter(
      ([name]) => (name !== 'unshelve' || shelved) && (name !== 'unacknowledge' || told) &&
          (name !== 'maintain' || alarms.some(({group}) => group)));
  const action = el('select', {}, ...offered.map(([value, {text}]) => el('option', {value, text})));
  action.value = shelved ? 'unshelve' : 'shelve';
  const now = new Date();
  const until = el('input', {type: 'datetime-local', value: localInput(new Date(now.getTime() + kHourMs))});
  const follow = () => {
    until.disabled = !kActions[action.value].until;
  };
  action.addEventListener('change', follow);
  follow();
  const some = alarms.length === 1 ? 'an alarm' : `${alarms.length} alarms`;
  return ask({
    title: incident ? `Incident ${incident.id}: ${some}` : `Handle ${some}`,
    text: 'What is shelved stays in the list, is told to nobody, and comes back by itself.',
    fields: {
      action: {label: 'What', input: action},
      until: {label: 'Until', hint: `Times are ${zoneName(now)}.`, input: until},
      by: {label: 'Who', input: byInput()},
      remark: {label: 'Remark', input: el('textarea', {rows: 3})},
    },
    action: 'Do it',
    async submit(values) {
      rememberBy(values.by);
      const {path, until: timed} = kActions[values.action];
      const body = {by: values.by, remark: oneLine(values.remark)};
      if (timed) body.until = inUtc(values.until, 'until');
      for (const which of chosen(alarms, incident)) await api.post(path, {...which, ...body});
    },
  });
}

// "More" beside an acknowledgement; `take` says what is meant when it is pressed: [alarms, incident].
export function moreButton(api, take, label) {
  return button('More', () => askHandling(api, ...take()), {class: 'small', 'aria-label': label});
}
