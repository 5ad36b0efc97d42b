// How the states of channels and the severities of alarms look: a sign and a class each, never colour alone.
// Their names and their order come from the API.
import {parseTime} from './format.js';

const kSigns = {
  ok: '✓',
  waiting: '?',
  disabled: '–',
  alarm: '!',
  critical: '✕',
  major: '▲',
  minor: '◆',
  warning: '●',
};

export function sign(name) {
  return kSigns[name] ?? '?';
}

// What a channel's sign and colour stand for: its severity while it is in alarm, else its state.
export function look(state, severity) {
  return state === 'alarm' ? (severity ?? 'alarm') : (state ?? 'waiting');
}

const kNoSignal = 'no_signal';

// Whether packets of a channel come. Without them nothing of it is judged, and a record's zeros are no
// measures. `alarms`: those of the channel.
export function hasSignal({lastSeen}, alarms) {
  return parseTime(lastSeen) !== null && !alarms.some(({alarm}) => alarm === kNoSignal);
}

// What a channel's state is called: "ok", "critical alarm", "waiting".
export function stateText(state, severity) {
  if (state === 'alarm' && severity) return `${severity} alarm`;
  return state ?? 'unknown';
}
