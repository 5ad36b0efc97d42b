// The cues that came, newest first.
import {el, setText} from './dom.js';
import {count, duration, isKnown, parseTime, pid, quantity, time, visible} from './format.js';

const kHeads = ['Time', 'Cue', 'Event', 'Told ahead', 'Duration', 'Segmentation', 'PID', 'Repeated'];
const kNumbers = new Set(['Event', 'Told ahead', 'Duration', 'Repeated']);
const kRows = 64;

export class Cues {
  constructor(store) {
    this.store = store;
    this.body = el('tbody');
    this.table =
        el('table', {},
           el('thead', {},
              el('tr', {},
                 ...kHeads.map(
                     (text) => el('th', {scope: 'col', class: kNumbers.has(text) ? 'number' : '', text})))),
           this.body);
    this.none = el('p', {class: 'muted'});
    this.errors = el('p', {class: 'note', hidden: true});
    this.scroll = el(
        'div', {class: 'scroll cue-list', tabindex: '0', role: 'region', 'aria-label': 'Cues'}, this.table);
    this.node = el('div', {}, this.none, this.scroll, this.errors);
    this.update(null);
  }

  // `known`: the cues, oldest first, or null while nobody told of any.
  update(report, known = null) {
    const cues = known ?? [];
    const announced = report?.services.some(({streams}) => streams.some(({kind}) => kind === 'cue'));
    this.none.hidden = cues.length > 0;
    this.scroll.hidden = cues.length === 0;
    setText(this.none, !report ? 'Unknown.' : announced ? 'No cue yet.' : 'The program announces no cues.');
    const key = JSON.stringify(cues);
    if (key !== this.key) {
      this.key = key;
      this.body.replaceChildren(...cues.slice(-kRows).reverse().map((cue) => this.makeRow(cue)));
    }
    const {encrypted = 0, malformed = 0} = report?.cueErrors ?? {};
    this.errors.hidden = !encrypted && !malformed;
    setText(this.errors, `Not shown: ${count(encrypted)} encrypted, ${count(malformed)} malformed.`);
  }

  makeRow(cue) {
    const at = parseTime(cue.at);
    const texts = [
      at ? time(at, this.store.now()) : '–', cueText(cue), isKnown(cue.eventId) ? String(cue.eventId) : '',
      isKnown(cue.aheadMs) ? quantity(cue.aheadMs / 1000, 's') :
          cue.immediate    ? 'immediate' :
                             '–',
      isKnown(cue.durationMs) ? duration(cue.durationMs) : '', null, pid(cue.pid), count(cue.repetitions)
    ];
    return el('tr', {}, ...texts.map((text, place) => {
      if (text === null)
        return el(
            'td', {class: 'text-cell'},
            ...cue.segmentation.map((one) => el('p', {}, el('bdi', {text: segmentText(one)}))));
      return el('td', {class: kNumbers.has(kHeads[place]) ? 'number' : 'nowrap', text});
    }));
  }
}

function cueText({command, out, cancelled}) {
  const what = out === true     ? 'out of the network' :
      out === false             ? 'back to the network' :
      command === 'time_signal' ? 'time signal' :
                                  'splice';
  return cancelled ? `${what}, cancelled` : what;
}

function segmentText({typeId, type, upid, durationMs, number, expected}) {
  return [
    type                ? visible(type) :
        isKnown(typeId) ? `type 0x${typeId.toString(16).padStart(2, '0')}` :
                          'cancelled',
    upid && visible(upid), durationMs > 0 && duration(durationMs),
    isKnown(number) && isKnown(expected) && expected > 0 && `${number} of ${expected}`
  ].filter(Boolean)
      .join(' · ');
}
